// owned_clock.h: time that moves by call, for every library of the process.
#pragma once

#include <cstdint>

// While one of these lives, clock_gettime returns the owned time. epoll_wait and epoll_pwait always return at once with
// nothing. So the peers' ticks come when the benchmark says so, and cost no system call.
class owned_clock {
 public:
  owned_clock();
  ~owned_clock();
  owned_clock(const owned_clock &) = delete;
  owned_clock &operator=(const owned_clock &) = delete;

  static void advance_ms(uint64_t ms);
};
