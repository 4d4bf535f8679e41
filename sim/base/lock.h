// lock.h: one thread at a time on the bus.
#pragma once

#include <pthread.h>
#include <sched.h>

#include <atomic>

namespace sim {

// For std::lock_guard. The thread that has it may take it again: a signal that meets the handler of trapped accesses at
// work may have a handler that uses devices, too.
class bus_lock {
 public:
  void lock() {
    const pthread_t self = pthread_self();
    if (m_owner.load(std::memory_order_relaxed) == self) {
      ++m_again;
      return;
    }
    for (pthread_t none = nobody; !m_owner.compare_exchange_weak(none, self, std::memory_order_acquire); none = nobody)
      (void)sched_yield();
  }

  void unlock() {
    if (m_again > 0) {
      m_again--;
      return;
    }
    m_owner.store(nobody, std::memory_order_release);
  }

 private:
  static constexpr pthread_t nobody = 0;
  std::atomic<pthread_t> m_owner{nobody};
  unsigned m_again = 0;
};

}  // namespace sim
