// timer_contenders.h: five kinds of timers with the same operations.
//
// Each contender holds `count` timers, numbered from 0, that call `expired` with their number. A tick is a millisecond
// of the owned clock. start also restarts; stop takes an active timer. settle brings a contender without active timers
// to where it was at first; one_period says that all starts from now on have that period.
#pragma once

#include <event2/event.h>
#include <event2/event_struct.h>
#include <uv.h>

#include <algorithm>
#include <bit>
#include <cstdint>
#include <map>
#include <memory>
#include <vector>

#include "bench/owned_clock.h"
#include "platform/mfgd/cmn_lib/diag_util/timer.h"

// The benchmark's callback.
extern void (*expired)(uint32_t timer);

// Buckets for a number of timers: every tick has its share of four of them. The benchmark's periods go twice as far.
inline uint32_t wheel_size(uint32_t count) {
  return std::max(1024U, std::bit_ceil(count / 4));
}

class wheel_timers {
 public:
  static constexpr const char *name = "timer service";

  explicit wheel_timers(uint32_t count) : m_timers(count) {
    if (timer_module_init(wheel_size(count), 0) == 0) abort();
    for (uint32_t i = 0; i < count; ++i) {
      m_timers[i] = timer_new(
          1, TIMER_ONE_SHOT, [](uint32_t timer) { expired(timer); }, i);
    }
  }
  ~wheel_timers() {
    // First: a crowd is stopped in quadratic time, but expires in linear time.
    advance(std::max(m_longest, 2 * timer_tbl_size));
    for (auto *timer : m_timers)
      timer_free(timer);
    free(timer_get_timer_tbl());
  }
  wheel_timers(const wheel_timers &) = delete;
  wheel_timers &operator=(const wheel_timers &) = delete;

  void start(uint32_t i, uint32_t period) { timer_restart(m_timers[i], period); }
  void stop(uint32_t i) { timer_stop(m_timers[i]); }
  void tick() { timer_one_tick_elapsed(); }
  // Lets everything expire, including the entries that stopped timers left.
  void settle() { advance(2 * timer_tbl_size); }
  void one_period(uint32_t period) { m_longest = std::max(m_longest, period); }

 private:
  static void advance(uint32_t ticks) {
    for (uint32_t i = 0; i <= ticks; ++i)
      timer_one_tick_elapsed();
  }

  uint32_t m_longest = 0;
  std::vector<diag_timer_t *> m_timers;
};

class event_timers {
 public:
  static constexpr const char *name = "libevent";

  explicit event_timers(uint32_t count) : m_base(event_base_new()), m_events(count) {
    if (event_get_struct_event_size() != sizeof(event)) abort();
    for (uint32_t i = 0; i < count; ++i) {
      evtimer_assign(&m_events[i], m_base, on_event, reinterpret_cast<void *>(uintptr_t{i}));
    }
  }
  ~event_timers() {
    for (auto &event : m_events)
      event_del(&event);
    event_base_free(m_base);
  }
  event_timers(const event_timers &) = delete;
  event_timers &operator=(const event_timers &) = delete;

  void start(uint32_t i, uint32_t period) { start_by(i, time_of(period)); }
  void stop(uint32_t i) { event_del(&m_events[i]); }
  void tick() {
    owned_clock::advance_ms(1);
    event_base_loop(m_base, EVLOOP_NONBLOCK);
  }
  void settle() {}
  void one_period(uint32_t /*period*/) {}

 protected:
  static timeval time_of(uint32_t period) {
    return {static_cast<time_t>(period / 1000), static_cast<suseconds_t>(period % 1000 * 1000)};
  }
  void start_by(uint32_t i, const timeval &time) { event_add(&m_events[i], &time); }

  event_base *m_base;

 private:
  static void on_event(evutil_socket_t, short, void *arg) {
    expired(static_cast<uint32_t>(reinterpret_cast<uintptr_t>(arg)));
  }

  std::vector<event> m_events;
};

// Timers of one period in a queue of their own, which libevent offers where the program knows the period beforehand.
class common_event_timers : public event_timers {
 public:
  static constexpr const char *name = "libevent, common timeout";

  using event_timers::event_timers;

  void one_period(uint32_t period) {
    const timeval time = time_of(period);
    m_period = period;
    m_common = *event_base_init_common_timeout(m_base, &time);
  }
  void start(uint32_t i, uint32_t period) { start_by(i, period == m_period ? m_common : time_of(period)); }

 private:
  uint32_t m_period = 0;
  timeval m_common{};
};

class uv_timers {
 public:
  static constexpr const char *name = "libuv";

  explicit uv_timers(uint32_t count) : m_handles(count) {
    uv_loop_init(&m_loop);
    for (uint32_t i = 0; i < count; ++i) {
      uv_timer_init(&m_loop, &m_handles[i]);
      m_handles[i].data = reinterpret_cast<void *>(uintptr_t{i});
    }
  }
  ~uv_timers() {
    for (auto &handle : m_handles)
      uv_close(static_cast<uv_handle_t *>(static_cast<void *>(&handle)), nullptr);
    uv_run(&m_loop, UV_RUN_NOWAIT);
    if (uv_loop_close(&m_loop) != 0) abort();
  }
  uv_timers(const uv_timers &) = delete;
  uv_timers &operator=(const uv_timers &) = delete;

  void start(uint32_t i, uint32_t period) { uv_timer_start(&m_handles[i], on_timer, period, 0); }
  void stop(uint32_t i) { uv_timer_stop(&m_handles[i]); }
  void tick() {
    owned_clock::advance_ms(1);
    uv_run(&m_loop, UV_RUN_NOWAIT);
  }
  void settle() {}
  void one_period(uint32_t /*period*/) {}

 private:
  static void on_timer(uv_timer_t *handle) {
    expired(static_cast<uint32_t>(reinterpret_cast<uintptr_t>(handle->data)));
  }

  uv_loop_t m_loop;
  std::vector<uv_timer_t> m_handles;
};

class map_timers {
 public:
  static constexpr const char *name = "std::multimap";

  explicit map_timers(uint32_t count) : m_places(count, m_map.end()) {}

  void start(uint32_t i, uint32_t period) {
    if (m_places[i] != m_map.end()) m_map.erase(m_places[i]);
    m_places[i] = m_map.emplace(m_now + period, i);
  }
  void stop(uint32_t i) {
    m_map.erase(m_places[i]);
    m_places[i] = m_map.end();
  }
  void tick() {
    ++m_now;
    while (!m_map.empty() && m_map.begin()->first <= m_now) {
      const uint32_t timer = m_map.begin()->second;
      stop(timer);
      expired(timer);
    }
  }
  void settle() {}
  void one_period(uint32_t /*period*/) {}

 private:
  using map_t = std::multimap<uint64_t, uint32_t>;

  uint64_t m_now = 0;
  map_t m_map;
  std::vector<map_t::iterator> m_places;
};
