// programs.h: the programs into which the library can be preloaded. All others would access the real machine.
#pragma once

#include <string>

namespace sim {

struct program_check {
  int error = 0;        // the errno value with which the kernel refuses to run the file
  std::string refusal;  // "FILE: why the library does not get into it"; empty if it does
  std::string image;    // the ELF file that runs: the file itself or, for a script, its last interpreter
};

// Checks a program as kernel and loader do. The library can be loaded into dynamic programs of its word size that have
// the same loader as this one, and no other rights than the user who runs them.
[[nodiscard]] program_check check_program(const std::string &path);

// Why the kernel would refuse to run a file, by its kind and permissions: an errno value, or 0.
[[nodiscard]] int execution_error(const std::string &path);

}  // namespace sim
