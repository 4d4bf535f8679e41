// signals.h: signals held back.
#pragma once

#include <pthread.h>
#include <signal.h>

namespace tool {

// While it lives, every signal that can wait does, and takes effect when it goes. Those of the process's own faults
// cannot: held back, they would end it on the spot.
class signal_hold_t {
 public:
  signal_hold_t() {
    sigset_t held;
    (void)sigfillset(&held);
    for (const int own : {SIGSEGV, SIGBUS, SIGILL, SIGFPE, SIGTRAP, SIGSYS})
      (void)sigdelset(&held, own);
    (void)pthread_sigmask(SIG_BLOCK, &held, &m_before);
  }
  ~signal_hold_t() { (void)pthread_sigmask(SIG_SETMASK, &m_before, nullptr); }
  signal_hold_t(const signal_hold_t &) = delete;
  signal_hold_t &operator=(const signal_hold_t &) = delete;

 private:
  sigset_t m_before{};
};

}  // namespace tool
