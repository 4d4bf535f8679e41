// vector_state.h: the state that C code may change in addition to general registers and flags, and how this processor
// saves it (Intel 64 and IA-32 Architectures Software Developer's Manual, volume 1, chapters 10.5 and 13).
#pragma once

#include <cstdint>

namespace sim {

struct cpuid_words {
  uint32_t a, b, c, d;
};

// The processor as programs see it. Leaves that it does not have are zeros.
struct processor {
  cpuid_words (*cpuid)(uint32_t leaf, uint32_t subleaf);
  uint64_t (*xcr0)();  // allowed where CPUID says so (OSXSAVE)
};
extern const processor this_processor;

enum class save_way : uint32_t { fxsave, xsave, xsavec };

struct vector_state {
  save_way way;
  uint32_t mask;   // components, for XSAVE and XRSTOR: x87, SSE, AVX, AVX-512, APX
  uint32_t bytes;  // of the area, aligned to 64
};

// Finds the best way. Returns false where the processor does not say enough to save everything.
[[nodiscard]] bool find_vector_state(const processor &cpu, vector_state *state);

// The same for one way. Returns false where the processor does not have it.
[[nodiscard]] bool find_vector_state(const processor &cpu, save_way way, vector_state *state);

}  // namespace sim
