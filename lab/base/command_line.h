// command_line.h: how the lab's programs take their arguments, complain and end.
#pragma once

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iostream>
#include <string>
#include <string_view>
#include <vector>

#include "faults/arguments.h"

namespace lab {

enum exit_code : int {
  EXIT_CLEAN = 0,
  EXIT_FINDINGS = 1,
  EXIT_USAGE = 2,  // also a file that cannot be read or written
};

// Says on standard error what is wrong with a program's call. Returns EXIT_USAGE.
inline int complain(std::string_view program, std::string_view what) {
  std::cerr << program << ": " << what << "\n";
  return EXIT_USAGE;
}

// Writes what a program has to say. Returns `status`, or that of the complaint if it cannot be written.
inline int put_out(std::string_view program, std::string_view text, int status) {
  std::cout << text << std::flush;
  return std::cout ? status : complain(program, std::string("standard output: ") + strerror(errno));
}

// The whole program: adds its options, reads the arguments, and runs it if they are right and ask for no help.
// Exceptions are complaints. Returns the exit status.
template <class options_t>
int run_program(const char *name, const char *about, int argc, char **argv,
                void (*add_options)(CLI::App *, options_t *), int (*run)(const options_t &)) try {
  sim::open_standard_streams();
  CLI::App app{about, name};
  options_t chosen;
  add_options(&app, &chosen);
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError &stop) {
    if (stop.get_exit_code() == 0) return put_out(name, "", app.exit(stop));
    return complain(name, sim::defect_of(app, stop) + "\nTry '" + name + " --help' for more information.");
  }
  // A shell's variable that is not set leaves such a value, and the default is not what was asked for.
  for (const auto *const option : app.get_options())
    if (std::ranges::find(option->results(), "") != option->results().end())
      return complain(name, "empty value of option '" + option->get_name() + "'");
  return run(chosen);
} catch (const std::exception &wrong) {
  return complain(name, wrong.what());
}

}  // namespace lab
