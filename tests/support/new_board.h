// new_board.h: a board in a process of its own.
#pragma once

#include "tests/support/board.h"

// Runs `body` with a board in a process of its own, where descriptors and static state are as at the start. The
// options are test_board's; those that are empty are none, and the log is on.
inline void on_new_board(const std::vector<std::string> &options, const std::function<void(test_board &)> &body) {
  (void)setenv("BOARD_SIM_TSC_KHZ", "1000000", 1);  // nothing here looks at it, and measuring takes long
  isolated([&] {
    std::vector<const char *> all{"--trace"};
    for (const std::string &option : options)
      if (!option.empty()) all.push_back(option.c_str());
    test_board board(all);
    body(board);
  });
}
