// sim_access_forms.cpp: volatile loads and stores of every width, alone and in expressions that tempt the compiler to
// fold them into other instructions. ACCESS_FORMS names the table of this optimisation level.
#include "tests/unit/sim_access_forms.h"

#include <emmintrin.h>

#include <bit>
#include <type_traits>
#include <vector>

namespace {

template <class T>
volatile T *at(uintptr_t base) {
  return reinterpret_cast<volatile T *>(base);
}

template <class T>
using bits_of = std::make_unsigned_t<T>;

// Arithmetic on T that wraps, whatever T promotes to.
template <class T>
constexpr T wrap(uint64_t value) {
  return static_cast<T>(static_cast<bits_of<T>>(value));
}

__attribute__((noinline)) uint64_t eight(uint64_t a, uint64_t b, uint64_t c, uint32_t d, uint32_t e, uint32_t f,
                                         uint32_t g, uint32_t h) {
  return a ^ (b << 1U) ^ (c << 2U) ^ (uint64_t{d} << 3U) ^ (uint64_t{e} << 4U) ^ (uint64_t{f} << 5U) ^ g ^ h;
}

template <class T>
void add_forms(std::vector<access_form> *forms) {
  using U = bits_of<T>;
  const auto add = [&](const char *name, const char *cycles, uint64_t (*run)(uintptr_t, uint64_t)) {
    forms->push_back({name, 8 * sizeof(T), cycles, run});
  };
  // clang-format off
  // Plain loads.
  add("load", "r", [](uintptr_t b, uint64_t) -> uint64_t { return static_cast<U>(*at<T>(b)); });
  add("load, extended to 64", "r", [](uintptr_t b, uint64_t) { return static_cast<uint64_t>(static_cast<int64_t>(*at<T>(b))); });
  add("load, extended to 32", "r", [](uintptr_t b, uint64_t) -> uint64_t { return static_cast<uint32_t>(static_cast<int32_t>(*at<T>(b))); });
  add("load, cut to 8", "r", [](uintptr_t b, uint64_t) -> uint64_t { return static_cast<uint8_t>(*at<T>(b)); });
  add("load, indexed", "r", [](uintptr_t b, uint64_t s) -> uint64_t { return static_cast<U>(at<T>(b)[s & 7U]); });
  add("load, indexed by int", "r", [](uintptr_t b, uint64_t s) -> uint64_t { return static_cast<U>(at<T>(b)[2 - static_cast<int>(s & 3U)]); });
  add("load and fence", "r", [](uintptr_t b, uint64_t) -> uint64_t { const T v = *at<T>(b); _mm_lfence(); return static_cast<U>(v); });
  add("load, nothing done", "r", [](uintptr_t b, uint64_t) -> uint64_t { (void)*at<T>(b); return 0; });
  add("loads as arguments", "rrr", [](uintptr_t b, uint64_t s) -> uint64_t {
    const auto first = static_cast<uint32_t>(at<T>(b)[4]);
    const auto second = static_cast<uint32_t>(at<T>(b)[5]);
    return eight(s, 2, 3, 4, static_cast<uint32_t>(at<T>(b)[6]), first, second, 8);
  });
  add("load as last argument", "r", [](uintptr_t b, uint64_t s) -> uint64_t { return eight(s, s, s, 4, 5, 6, 7, static_cast<uint32_t>(*at<T>(b))); });
  add("loads into a list", "rrrrrrrr", [](uintptr_t b, uint64_t s) -> uint64_t {
    T list[8];
    for (unsigned i = 0; i < 8; i++) list[i] = at<T>(b)[i];
    for (const T v : list) s = s * 33U + static_cast<U>(v);
    return s;
  });

  // Loads in expressions.
  add("compare with a constant", "r", [](uintptr_t b, uint64_t s) -> uint64_t { return *at<T>(b) == wrap<T>(0x5A5A5A5A5A5A5A5A) ? s : 3; });
  add("compare with zero", "r", [](uintptr_t b, uint64_t s) -> uint64_t { return *at<T>(b) == 0 ? s : 3; });
  add("compare, less", "r", [](uintptr_t b, uint64_t s) -> uint64_t { return *at<T>(b) < wrap<T>(s) ? 1 : 2; });
  add("test a bit", "r", [](uintptr_t b, uint64_t s) -> uint64_t { return (*at<T>(b) & 0x40) != 0 ? s : 2; });
  add("test the top bit", "r", [](uintptr_t b, uint64_t s) -> uint64_t { return (static_cast<U>(*at<T>(b)) >> (8 * sizeof(T) - 1)) != 0 ? s : 2; });
  add("test a mask", "r", [](uintptr_t b, uint64_t s) -> uint64_t { return (*at<T>(b) & wrap<T>(s)) != 0 ? 4 : 2; });
  add("add", "r", [](uintptr_t b, uint64_t s) -> uint64_t { return s + static_cast<U>(*at<T>(b)); });
  add("subtract", "r", [](uintptr_t b, uint64_t s) -> uint64_t { return s - static_cast<U>(*at<T>(b)); });
  add("and", "r", [](uintptr_t b, uint64_t s) -> uint64_t { return s & static_cast<U>(*at<T>(b)); });
  add("multiply by 3", "r", [](uintptr_t b, uint64_t) -> uint64_t { return 3U * uint64_t{static_cast<U>(*at<T>(b))}; });
  add("shift", "r", [](uintptr_t b, uint64_t) -> uint64_t { return uint64_t{static_cast<U>(*at<T>(b))} << 5U; });
  add("toggle mask", "rr", [](uintptr_t b, uint64_t) -> uint64_t { const T first = *at<T>(b); const T second = *at<T>(b); return ((first ^ second) & 0x44) == 0 ? 1 : 2; });

  // Stores.
  add("store", "w", [](uintptr_t b, uint64_t s) -> uint64_t { *at<T>(b) = wrap<T>(s); return 0; });
  add("store zero", "w", [](uintptr_t b, uint64_t) -> uint64_t { *at<T>(b) = 0; return 0; });
  add("store a constant", "w", [](uintptr_t b, uint64_t) -> uint64_t { *at<T>(b) = wrap<T>(0xAA55AA55A5); return 0; });
  add("store bits 8 and up", "w", [](uintptr_t b, uint64_t s) -> uint64_t { *at<T>(b) = wrap<T>(s >> 8U); return s; });
  add("store a condition", "w", [](uintptr_t b, uint64_t s) -> uint64_t { *at<T>(b) = s > 0x1234 ? 1 : 0; return 0; });
  add("store a constant, indexed", "w", [](uintptr_t b, uint64_t s) -> uint64_t { at<T>(b)[s & 7U] = 0x21; return 0; });
  add("store and fence", "w", [](uintptr_t b, uint64_t s) -> uint64_t { *at<T>(b) = wrap<T>(s); _mm_sfence(); return 0; });
  add("store and go on with it", "w", [](uintptr_t b, uint64_t s) -> uint64_t { const T v = wrap<T>(s * 5U); *at<T>(b) = v; return static_cast<U>(v); });
  add("stores in a loop", "wwwwwwww", [](uintptr_t b, uint64_t s) -> uint64_t { for (unsigned i = 0; i < 8; i++) at<T>(b)[i] = wrap<T>(s >> i); return 0; });

  // Both.
  add("copy", "rw", [](uintptr_t b, uint64_t) -> uint64_t { at<T>(b)[1] = at<T>(b)[0]; return 0; });
  add("invert", "rw", [](uintptr_t b, uint64_t) -> uint64_t { *at<T>(b) = wrap<T>(~uint64_t{static_cast<U>(*at<T>(b))}); return 0; });
  add("negate", "rw", [](uintptr_t b, uint64_t) -> uint64_t { *at<T>(b) = wrap<T>(0U - uint64_t{static_cast<U>(*at<T>(b))}); return 0; });
  add("set bits", "rw", [](uintptr_t b, uint64_t) -> uint64_t { *at<T>(b) = static_cast<T>(*at<T>(b) | 0x11); return 0; });
  add("clear bits", "rw", [](uintptr_t b, uint64_t s) -> uint64_t { *at<T>(b) = static_cast<T>(*at<T>(b) & wrap<T>(s)); return 0; });
  add("increment", "rw", [](uintptr_t b, uint64_t) -> uint64_t { *at<T>(b) = wrap<T>(static_cast<U>(*at<T>(b)) + uint64_t{1}); return 0; });
  add("accumulate", "rw", [](uintptr_t b, uint64_t s) -> uint64_t { *at<T>(b) = wrap<T>(static_cast<U>(*at<T>(b)) + s); return 0; });
  add("shift right in place", "rw", [](uintptr_t b, uint64_t s) -> uint64_t { *at<T>(b) = static_cast<T>(*at<T>(b) >> (s & 7U)); return 0; });
  add("rotate in place", "rw", [](uintptr_t b, uint64_t) -> uint64_t { const U v = static_cast<U>(*at<T>(b)); *at<T>(b) = static_cast<T>(std::rotl(v, 3)); return 0; });
  // clang-format on
}

}  // namespace

std::span<const access_form> ACCESS_FORMS() {
  static const std::vector<access_form> forms = [] {
    std::vector<access_form> list;
    add_forms<uint8_t>(&list);
    add_forms<int8_t>(&list);
    add_forms<uint16_t>(&list);
    add_forms<int16_t>(&list);
    add_forms<uint32_t>(&list);
    add_forms<int32_t>(&list);
    return list;
  }();
  return forms;
}
