// access_forms.h: device accesses as compilers write them. The source is compiled once for every optimisation
// level.
#pragma once

#include <cstdint>
#include <span>
#include <string>

struct access_form {
  const char *name;
  unsigned width;                                  // bits
  std::string cycles;                              // "r 16 w 16 ", as the log has them
  uint64_t (*run)(uintptr_t base, uint64_t seed);  // works within 64 bytes on either side of base
};

std::span<const access_form> access_forms_o0();
std::span<const access_form> access_forms_o1();
std::span<const access_form> access_forms_o2();
std::span<const access_form> access_forms_o3();
