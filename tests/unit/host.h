// host.h: what the tests of the libraries need around them: output hooks that are watched, and child processes.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

// One call of an output hook. Level 0 stands for cli_printf.
struct hook_line {
  int32_t level;
  std::string text;
  bool operator==(const hook_line &) const = default;
};

// Runs `body` and returns what the hooks were given, without call traces unless asked for. What they print also goes to
// standard output.
std::vector<hook_line> hooks_of(const std::function<void()> &body, bool traces = false);

// Prints a hook call, for failing comparisons.
void PrintTo(const hook_line &line, std::ostream *os);

struct outcome {
  int exit_code;    // -1 when a signal ended it
  int signal;       // 0 when none did
  std::string out;  // standard output
  std::string err;  // standard error
};

// Runs `body` in a child process and waits for it.
outcome run_child(const std::function<void()> &body);

// Runs `body` here and returns what it wrote to standard output.
std::string stdout_of(const std::function<void()> &body);

// Expects `body` to end with a standard assertion of `text` in operation `op` of a source whose path ends in `file`.
void expect_assertion(const std::function<void()> &body, const std::string &file, const std::string &op,
                      const std::string &text);
