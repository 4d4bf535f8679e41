// signal_hold.h: a hold on the signals by which users and the system end a run.
#pragma once

#include <signal.h>

// While it lives, SIGHUP, SIGINT, SIGQUIT and SIGTERM wait; one that has come takes effect as the hold ends. For the
// time in which a memory does not hold its own contents. It blocks by the signal mask, without a handler; SIGKILL is
// the way out of a wait that does not end.
class signal_hold {
 public:
  signal_hold() {
    sigset_t held;
    (void)sigemptyset(&held);
    for (const int signal : {SIGHUP, SIGINT, SIGQUIT, SIGTERM})
      (void)sigaddset(&held, signal);
    (void)sigprocmask(SIG_BLOCK, &held, &m_before);
  }
  signal_hold(const signal_hold &) = delete;
  signal_hold &operator=(const signal_hold &) = delete;
  ~signal_hold() { (void)sigprocmask(SIG_SETMASK, &m_before, nullptr); }

 private:
  sigset_t m_before;
};
