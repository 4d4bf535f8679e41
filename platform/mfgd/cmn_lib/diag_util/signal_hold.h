// signal_hold.h: signals held back, for the time in which a memory does not hold its own contents.
#pragma once

#include <signal.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>

// From take() to release(), every signal that can wait does, and takes effect at the release. It blocks by the mask of
// the calling thread, without a handler. What still ends the process:
//   SIGKILL                           the way out of a wait that does not end
//   SIGSEGV, SIGBUS, SIGILL, SIGFPE   faults of an instruction: the kernel ends the process at once where it raises a
//   SIGTRAP, SIGSYS                   blocked one. Whoever watches accesses or system calls by these has handlers.
//   abort()                           unblocks SIGABRT itself; one from outside waits
class signal_hold {
 public:
  // Does nothing while the signals are held.
  void take() {
    if (m_taken) return;
    set_t held;
    held.fill(~0UL);
    for (const int own : {SIGSEGV, SIGBUS, SIGILL, SIGFPE, SIGTRAP, SIGSYS})
      held[static_cast<size_t>(own - 1) / word_bits] &= ~(1UL << static_cast<size_t>(own - 1) % word_bits);
    change(SIG_BLOCK, &held, &m_before);
    m_taken = true;
  }

  // Does nothing while they are not.
  void release() {
    if (!m_taken) return;
    m_taken = false;
    change(SIG_SETMASK, &m_before, nullptr);
  }

  // Holds them as long as it lives.
  class scope;

 private:
  // The kernel's own set and call: the C library's leave out the real-time signals that it reserves, which end a
  // process as well.
  static constexpr size_t word_bits = 8 * sizeof(unsigned long);
  using set_t = std::array<unsigned long, (NSIG - 2) / word_bits + 1>;

  static void change(int how, const set_t *set, set_t *before) {
    (void)syscall(SYS_rt_sigprocmask, how, set, before, sizeof(set_t));
  }

  bool m_taken = false;
  set_t m_before{};
};

class signal_hold::scope {
 public:
  scope() { m_hold.take(); }
  ~scope() { m_hold.release(); }
  scope(const scope &) = delete;
  scope &operator=(const scope &) = delete;

 private:
  signal_hold m_hold;
};
