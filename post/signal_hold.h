// signal_hold.h: a hold on the signals by which users and the system end a run.
#pragma once

#include <signal.h>

// From take() to release(), SIGHUP, SIGINT, SIGQUIT and SIGTERM wait; one that has come takes effect at the release.
// For the time in which a memory does not hold its own contents. It blocks by the signal mask, without a handler;
// SIGKILL is the way out of a wait that does not end.
class signal_hold {
 public:
  // Does nothing while the signals are held.
  void take() {
    if (m_taken) return;
    sigset_t held;
    (void)sigemptyset(&held);
    for (const int signal : {SIGHUP, SIGINT, SIGQUIT, SIGTERM})
      (void)sigaddset(&held, signal);
    (void)sigprocmask(SIG_BLOCK, &held, &m_before);
    m_taken = true;
  }

  // Does nothing while they are not.
  void release() {
    if (!m_taken) return;
    m_taken = false;
    (void)sigprocmask(SIG_SETMASK, &m_before, nullptr);
  }

 private:
  bool m_taken = false;
  sigset_t m_before{};
};
