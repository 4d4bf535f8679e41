// access_forms.cpp: volatile loads and stores of every width that stand alone, as drivers make them. ACCESS_FORMS
// names the table of this optimisation level.
#include "tests/sim/access_forms.h"

#include <emmintrin.h>

#include <algorithm>
#include <type_traits>
#include <vector>

namespace {

template <class T>
volatile T *at(uintptr_t base) {
  return reinterpret_cast<volatile T *>(base);
}

template <class T>
void add_forms(std::vector<access_form> *forms) {
  using U = std::make_unsigned_t<T>;
  const auto add = [&](const char *name, const std::string &kinds, uint64_t (*run)(uintptr_t, uint64_t)) {
    std::string cycles;
    for (const char kind : kinds)
      for (size_t done = 0; done < sizeof(T); done += 4)  // the bus has 32 bits
        cycles += std::string(1, kind) + " " + std::to_string(8 * std::min<size_t>(sizeof(T), 4)) + " ";
    forms->push_back({name, 8 * sizeof(T), cycles, run});
  };
  // clang-format off
  add("load", "r", [](uintptr_t b, uint64_t) -> uint64_t { return static_cast<U>(*at<T>(b)); });
  add("load, extended to 64", "r", [](uintptr_t b, uint64_t) -> uint64_t { return static_cast<int64_t>(*at<T>(b)); });
  add("load, extended to 32", "r", [](uintptr_t b, uint64_t) -> uint64_t { return static_cast<uint32_t>(*at<T>(b)); });
  add("load, cut to 8", "r", [](uintptr_t b, uint64_t) -> uint64_t { return static_cast<uint8_t>(*at<T>(b)); });
  add("load, indexed", "r", [](uintptr_t b, uint64_t s) -> uint64_t { return static_cast<U>(at<T>(b)[s & 7U]); });
  add("load, indexed by int", "r", [](uintptr_t b, uint64_t s) -> uint64_t { return static_cast<U>(at<T>(b)[2 - static_cast<int>(s & 3U)]); });
  add("load and fence", "r", [](uintptr_t b, uint64_t) -> uint64_t { const T v = *at<T>(b); _mm_lfence(); return static_cast<U>(v); });
  add("load, nothing done", "r", [](uintptr_t b, uint64_t) -> uint64_t { (void)*at<T>(b); return 0; });
  add("loads into a list", "rrrrrrrr", [](uintptr_t b, uint64_t s) -> uint64_t {
    T list[8];
    for (unsigned i = 0; i < 8; i++) list[i] = at<T>(b)[i];
    asm volatile("" : : "r"(list) : "memory");
    for (const T v : list) s = s * 33U + static_cast<U>(v);
    return s;
  });

  add("store", "w", [](uintptr_t b, uint64_t s) -> uint64_t { *at<T>(b) = s; return 0; });
  add("store zero", "w", [](uintptr_t b, uint64_t) -> uint64_t { *at<T>(b) = 0; return 0; });
  add("store a constant", "w", [](uintptr_t b, uint64_t) -> uint64_t { *at<T>(b) = static_cast<T>(0xAA55AA55A5); return 0; });
  add("store bits 8 and up", "w", [](uintptr_t b, uint64_t s) -> uint64_t { *at<T>(b) = s >> 8U; return s; });
  add("store a constant, indexed", "w", [](uintptr_t b, uint64_t s) -> uint64_t { at<T>(b)[s & 7U] = 0x21; return 0; });
  add("store and fence", "w", [](uintptr_t b, uint64_t s) -> uint64_t { *at<T>(b) = s; _mm_sfence(); return 0; });
  add("store and go on with it", "w", [](uintptr_t b, uint64_t s) -> uint64_t { const T v = s * 5U; *at<T>(b) = v; return static_cast<U>(v); });
  add("stores in a loop", "wwwwwwww", [](uintptr_t b, uint64_t s) -> uint64_t { for (unsigned i = 0; i < 8; i++) at<T>(b)[i] = s >> i; return 0; });

  add("copy", "rw", [](uintptr_t b, uint64_t) -> uint64_t { at<T>(b)[1] = at<T>(b)[0]; return 0; });
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
    if (sizeof(void *) == 8) add_forms<uint64_t>(&list);
    return list;
  }();
  return forms;
}
