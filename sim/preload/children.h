// children.h: the environment of processes that a program on the board starts, so that they are on the same board.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "sim/base/options.h"

namespace sim {

// A list of "NAME=value", to be changed and passed on.
class environment {
 public:
  explicit environment(char *const *entries);

  void unset(std::string_view name);
  void set(std::string_view name, std::string_view value);

  // Null-terminated; valid until the next change.
  char **pointers();

 private:
  std::vector<std::string> m_entries;
  std::vector<char *> m_pointers;
};

// The environment of a command of the board's shell, which runs without the library: the board's own commands in PATH,
// the board's options for them.
environment shell_environment(const options &opts);

// Where a shell on the board finds a program: the path if there is a slash in the name, else the first file that can be
// run in the directories of PATH; in both cases the board's version of it. "" if nowhere.
std::string find_program(const options &opts, const std::string &name);

// Reports that the library was preloaded into this process, by this LD_PRELOAD. From now on every program gets it.
void guard_programs(const std::string &preload_list);

// Whether a program may be started: 0, or the errno value to fail with. Says on standard error why the library cannot
// be loaded into it.
int program_error(const std::string &path);

// Whether a program that starts in this environment is on the board; and the environment in which it is.
[[nodiscard]] bool brings_board(char *const *entries);
environment with_board(char *const *entries, const options &opts);

}  // namespace sim
