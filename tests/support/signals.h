// signals.h: the signals that device accesses raise, counted.
#pragma once

#include "tests/support/test.h"

inline struct sigaction board_action {};
inline volatile sig_atomic_t signals = 0;

// Counts from now on; the board's handler gets each signal, while those of `blocked` wait.
inline void count_signals(const sigset_t &blocked = {}) {
  struct sigaction own {};
  own.sa_flags = SA_SIGINFO | SA_NODEFER;
  own.sa_mask = blocked;
  own.sa_sigaction = [](int number, siginfo_t *cause, void *context) {
    signals = signals + 1;
    board_action.sa_sigaction(number, cause, context);
  };
  (void)sigaction(SIGSEGV, nullptr, &board_action);
  ASSERT_EQ(sigaction(SIGSEGV, &own, nullptr), 0);
  signals = 0;
}
