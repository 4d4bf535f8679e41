// programs.h: which programs the preloaded library gets into. All others would meet the real machine.
#pragma once

#include <string>

namespace sim {

struct program_check {
  int error = 0;        // the errno value with which the kernel refuses to run the file
  std::string refusal;  // "FILE: why the library does not get into it"; empty if it does
  std::string image;    // the ELF file that runs: the file itself or, for a script, its last interpreter
};

// Looks at a program as kernel and loader do. The library gets into dynamic programs of its own word size that have
// the same loader as this one, and no other rights than whoever runs them.
[[nodiscard]] program_check check_program(const std::string &path);

// Why the kernel would refuse to run a file, by its kind and permissions: an errno value, or 0.
[[nodiscard]] int execution_error(const std::string &path);

}  // namespace sim
