#include "sim/bus/vector_state.h"

#include <cpuid.h>

#include <algorithm>

namespace sim {

namespace {

constexpr uint32_t has_fxsr = 1U << 24;     // CPUID 1, EDX
constexpr uint32_t has_osxsave = 1U << 27;  // CPUID 1, ECX
constexpr uint32_t state_leaf = 0xD;
constexpr uint32_t has_xsavec = 1U << 1;     // CPUID 0Dh 1, EAX
constexpr uint32_t is_aligned_64 = 1U << 1;  // CPUID 0Dh i, ECX: in the compact form

// x87, SSE and AVX; the three of AVX-512; APX. Tiles and protection keys are not touched by C, and restoring them may
// need what the system grants on request.
constexpr uint32_t vector_components = 0x7U | 0xE0U | 0x80000U;
constexpr uint32_t x87_and_sse = 0x3;

constexpr uint32_t legacy_bytes = 512;
constexpr uint32_t header_bytes = 64;

uint32_t whole_lines(uint32_t bytes) {
  return (bytes + 63) & ~63U;
}

// The bytes of the area with these components, 0 if the processor does not say.
uint32_t area_bytes(const processor &cpu, uint32_t mask, bool compact) {
  uint32_t bytes = legacy_bytes + header_bytes;
  for (uint32_t i = 2; i < 32; ++i) {
    if ((mask >> i & 1U) == 0) continue;
    const auto component = cpu.cpuid(state_leaf, i);
    if (component.a == 0) return 0;
    if (!compact) {
      bytes = std::max(bytes, component.b + component.a);
      continue;
    }
    if ((component.c & is_aligned_64) != 0) bytes = whole_lines(bytes);
    bytes += component.a;
  }
  return whole_lines(bytes);
}

}  // namespace

const processor this_processor{
    [](uint32_t leaf, uint32_t subleaf) {
      cpuid_words words{};
      (void)__get_cpuid_count(leaf, subleaf, &words.a, &words.b, &words.c, &words.d);
      return words;
    },
    [] {
      uint32_t low = 0, high = 0;
      asm volatile("xgetbv" : "=a"(low), "=d"(high) : "c"(0));
      return uint64_t{high} << 32 | low;
    },
};

bool find_vector_state(const processor &cpu, save_way way, vector_state *state) {
  const auto features = cpu.cpuid(1, 0);
  if ((features.d & has_fxsr) == 0) return false;
  *state = {way, x87_and_sse, legacy_bytes};
  if (way == save_way::fxsave) return true;
  if ((features.c & has_osxsave) == 0) return false;
  if (way == save_way::xsavec && (cpu.cpuid(state_leaf, 1).a & has_xsavec) == 0) return false;
  state->mask = static_cast<uint32_t>(cpu.xcr0()) & vector_components;
  state->bytes = area_bytes(cpu, state->mask, way == save_way::xsavec);
  return (state->mask & x87_and_sse) == x87_and_sse && state->bytes != 0;
}

bool find_vector_state(const processor &cpu, vector_state *state) {
  // FXSAVE does not know the wider registers, which the system lets programs use with OSXSAVE.
  if ((cpu.cpuid(1, 0).c & has_osxsave) == 0) return find_vector_state(cpu, save_way::fxsave, state);
  return find_vector_state(cpu, save_way::xsavec, state) || find_vector_state(cpu, save_way::xsave, state);
}

}  // namespace sim
