// host.h: code under test run here or in a child process, what it prints, and what it gives to the output hooks.
#pragma once

#include "tests/support/run.h"

// Runs `body` here and returns what it wrote to standard output.
std::string stdout_of(const std::function<void()> &body);

// Runs `body` in a child process and waits for it. The status is 0 where `body` returns.
outcome run_child(const std::function<void()> &body);

// Runs `body` with its expectations in a child process: what it leaves in static state is gone afterwards.
void isolated(const std::function<void()> &body);

// Expects `body` to end with a standard assertion of `text` in operation `op` of a source whose path ends in `file`.
// Returns what the child process wrote.
outcome expect_assertion(const std::function<void()> &body, const std::string &file, const std::string &op,
                         const std::string &text);

// How many descriptors are open.
size_t open_descriptors();

// Whether that is a file in which the preset coverage counts. Its library locks them by the calls that a test takes
// over, at the process's end, too.
bool is_of_coverage(int fd);

// One call of an output hook. Level 0 stands for cli_printf.
struct hook_line {
  int32_t level;
  std::string text;
  bool operator==(const hook_line &) const = default;
};

// Runs `body` and returns what the hooks were given, without call traces unless asked for. What they print also goes to
// standard output, that of diag_dbg_print after its level: "<3>". For programs that link test_hooks, not post_output.
std::vector<hook_line> hooks_of(const std::function<void()> &body, bool traces = false);

// Prints a hook call, for failing comparisons.
void PrintTo(const hook_line &line, std::ostream *os);
