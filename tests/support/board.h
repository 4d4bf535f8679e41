// board.h: the simulated board in the test's own process.
#pragma once

#include <cstdio>
#include <cstdlib>
#include <initializer_list>
#include <string>

#include "sim/board.h"
#include "tests/support/host.h"

// A running board on a state directory of its own; `faults` as on the command line.
class test_board {
 public:
  explicit test_board(std::initializer_list<const char *> faults = {}, uint32_t card = 11062) {
    options_.card = card;
    options_.state = dir_.path().string();
    for (const char *text : faults) {
      std::string error;
      const auto parsed = sim::fault_parse(text, &error);
      if (!parsed) {
        (void)fprintf(stderr, "%s: %s\n", text, error.c_str());
        abort();
      }
      options_.faults.push_back(*parsed);
    }
    if (!sim::board_start(options_)) abort();
  }
  test_board(const test_board &) = delete;
  test_board &operator=(const test_board &) = delete;
  ~test_board() { sim::board_stop(); }

  [[nodiscard]] std::filesystem::path file(const char *name) const { return dir_.path() / name; }

 private:
  temp_dir dir_;
  sim::options options_;
};

// The short name of stdout_of in the tests of POST's own lines.
inline constexpr auto &printed = stdout_of;
