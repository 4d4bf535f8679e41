// Races the timer service against the timers of libevent, of libuv and of std::multimap, on a clock that only the
// benchmark moves. Each contender gets the same timers, periods and order of operations. What is measured stands in
// counters: nanoseconds an operation, bytes a timer, and how many timers expired, which must be the same for all.
#include <benchmark/benchmark.h>
#include <malloc.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>
#include <x86intrin.h>

#include <chrono>
#include <numeric>
#include <random>
#include <string>

#include "bench/owned_clock.h"
#include "bench/timer_contenders.h"

void (*expired)(uint32_t timer);

namespace {

double cycles_per_ns;
double stopwatch_cycles;  // that an empty measurement takes

void calibrate() {
  using clock = std::chrono::steady_clock;
  const auto from = clock::now();
  const uint64_t cycles = __rdtsc();
  while (clock::now() - from < std::chrono::milliseconds(50)) {
  }
  const std::chrono::duration<double, std::nano> ns = clock::now() - from;
  cycles_per_ns = static_cast<double>(__rdtsc() - cycles) / ns.count();
  uint64_t least = UINT64_MAX;
  for (int i = 0; i < 1000; ++i) {
    const uint64_t start = __rdtsc();
    least = std::min<uint64_t>(least, __rdtsc() - start);
  }
  stopwatch_cycles = static_cast<double>(least);
}

// The time of a short piece of work in ns, by the time-stamp counter.
double short_ns(const auto &work) {
  const uint64_t from = __rdtsc();
  work();
  return std::max(0.0, static_cast<double>(__rdtsc() - from) - stopwatch_cycles) / cycles_per_ns;
}

// The time of a long piece of work in ns, without what other processes took of it.
double long_ns(const auto &work) {
  const auto now = [] {
    timespec time{};
    (void)syscall(SYS_clock_gettime, CLOCK_THREAD_CPUTIME_ID, &time);
    return static_cast<double>(time.tv_sec) * 1e9 + static_cast<double>(time.tv_nsec);
  };
  const double from = now();
  work();
  return now() - from;
}

double median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  return values[values.size() / 2];
}

// Empties the allocator's caches of small blocks, which would count as blocks in use.
void drain_heap_caches() {
  static std::vector<std::unique_ptr<char[]>> held;
  for (size_t size = 8; size <= 1032; size += 16) {
    for (int i = 0; i < 7; ++i)
      held.push_back(std::make_unique<char[]>(size));
  }
}

double heap_bytes() {
  const struct mallinfo2 info = mallinfo2();
  return static_cast<double>(info.uordblks + info.hblkhd);
}

uint32_t mix(uint32_t a, uint32_t b) {
  uint64_t x = (uint64_t{a} << 32 | b) + 0x9E3779B97F4A7C15;
  x = (x ^ x >> 30) * 0xBF58476D1CE4E5B9;
  x = (x ^ x >> 27) * 0x94D049BB133111EB;
  return static_cast<uint32_t>(x >> 32);
}

std::vector<uint32_t> shuffled(uint32_t count, uint32_t seed) {
  std::vector<uint32_t> order(count);
  std::iota(order.begin(), order.end(), 0U);
  std::shuffle(order.begin(), order.end(), std::mt19937{seed});
  return order;
}

// One contender with `count` timers, and periods spread over twice the wheel.
template <typename contender_t>
class race {
 public:
  race(uint32_t count, benchmark::UserCounters *result)
      : m_count(count), m_result(*result), m_heap_before(heap_bytes()), m_timers(count) {
    self = this;
    expired = [](uint32_t timer) {
      self->m_fired++;
      self->m_timers.start(timer, self->period(timer, self->m_tick));
    };
  }
  ~race() {
    expired = [](uint32_t) {};
  }
  race(const race &) = delete;
  race &operator=(const race &) = delete;

  void run() {
    start_and_stop(std::max(1U, 200000 / m_count));
    for (uint32_t i : shuffled(m_count, 3))
      m_timers.start(i, period(i, 4));
    m_result["bytes"] = bytes();
    restart(m_large ? 200000 : 100000);
    const uint32_t ticks = m_large ? 50000 : 200000;
    m_result["tick"] = long_ns([&] { tick(ticks); }) / ticks;
    m_result["mixed tick"] = mixed_tick(20000);
    m_result["bytes after it"] = bytes();
    one_period(16 * wheel_size(m_count));
    m_result["mixed tick, one period"] = mixed_tick(40000);
    one_period(m_horizon);
    stop_in_crowd(m_large ? 5 : std::min(m_count, 50U));
    m_result["expired"] = static_cast<double>(m_fired);
  }

 private:
  // All timers being active:
  double bytes() const { return (heap_bytes() - m_heap_before) / m_count; }

  // Starts every timer, none being active, and stops every timer, each in random order. What the stops left to be
  // released later is released by ticks; the ticks themselves are not counted.
  void start_and_stop(uint32_t rounds) {
    const auto start_order = shuffled(m_count, 1);
    const auto stop_order = shuffled(m_count, 2);
    const auto ns = [this](const auto &work) { return (m_large ? long_ns(work) : short_ns(work)) / m_count; };
    const auto settle = [this] { m_timers.settle(); };
    std::vector<double> starts;
    std::vector<double> stops;
    std::vector<double> releases;
    for (auto *const times : {&starts, &stops, &releases})
      times->reserve(rounds);  // small blocks would stay in the allocator's caches
    for (uint32_t round = 0; round < rounds; ++round) {
      starts.push_back(ns([&] {
        for (uint32_t i : start_order)
          m_timers.start(i, period(i, round));
      }));
      stops.push_back(ns([&] {
        for (uint32_t i : stop_order)
          m_timers.stop(i);
      }));
      const double with_release = ns(settle);
      releases.push_back(with_release - ns(settle));
    }
    m_result["start"] = median(starts);
    m_result["stop"] = median(stops);
    m_result["release"] = std::max(0.0, median(releases));
  }

  // Restarts timers at random.
  void restart(uint32_t operations) {
    m_result["restart"] = long_ns([&] {
                            for (uint32_t i = 0; i < operations; ++i)
                              m_timers.start(mix(i, 5) % m_count, period(i, 6));
                          }) /
                          operations;
  }

  // Ticks with five restarts and four pairs of a stop and a start in each, so that most timers never expire. A tenth
  // of the timers is inactive meanwhile.
  double mixed_tick(uint32_t ticks) {
    std::vector<uint32_t> order = shuffled(m_count, 7);
    const uint32_t idle = std::max(1U, m_count / 10);  // the first so many of `order`
    for (uint32_t i = 0; i < idle; ++i)
      m_timers.stop(order[i]);
    uint32_t random = 0;
    const auto pick = [&](uint32_t from, uint32_t to) { return from + mix(random++, 8) % (to - from); };
    const double ns = long_ns([&] {
      for (uint32_t i = 0; i < ticks; ++i) {
        for (int k = 0; k < 5; ++k) {
          const uint32_t timer = order[pick(idle, m_count)];
          m_timers.start(timer, period(timer, random));
        }
        for (int k = 0; k < 4; ++k) {
          uint32_t &active = order[pick(idle, m_count)];
          uint32_t &inactive = order[pick(0, idle)];
          m_timers.stop(active);
          m_timers.start(inactive, period(inactive, random));
          std::swap(active, inactive);
        }
        tick(1);
      }
    });
    m_one_period = 0;  // so many timers due at one tick would take the wheel long to stop
    for (uint32_t i = 0; i < idle; ++i)
      m_timers.start(order[i], period(i, 9));
    return ns / ticks;
  }

  // Stops some timers at random, all of them being due at one tick.
  void stop_in_crowd(uint32_t stops) {
    const auto order = shuffled(m_count, 10);
    for (uint32_t i : order)
      m_timers.stop(i);
    for (uint32_t i : shuffled(m_count, 11))
      m_timers.start(i, period(i, 0));
    m_result["stop in a crowd"] = short_ns([&] {
                                    for (uint32_t i = 0; i < stops; ++i)
                                      m_timers.stop(order[i]);
                                  }) /
                                  stops;
  }

  // From now on, every timer has the same period.
  void one_period(uint32_t ticks) {
    m_one_period = ticks;
    m_timers.one_period(ticks);
  }

  uint32_t period(uint32_t a, uint32_t b) const {
    if (m_one_period != 0) return m_one_period;
    return 1 + static_cast<uint32_t>(uint64_t{mix(a, b)} * m_horizon >> 32);
  }

  void tick(uint32_t ticks) {
    for (uint32_t i = 0; i < ticks; ++i) {
      ++m_tick;
      m_timers.tick();
    }
  }

  static inline race *self;
  const uint32_t m_count;
  const uint32_t m_horizon = 2 * wheel_size(m_count);
  const bool m_large = m_count > 10000;
  benchmark::UserCounters &m_result;
  uint32_t m_one_period = 0;
  uint32_t m_tick = 0;
  uint64_t m_fired = 0;
  const double m_heap_before;
  contender_t m_timers;
};

template <typename contender_t>
void measure(benchmark::State &state, uint32_t count) {
  while (state.KeepRunning()) {
    // The counters' own memory comes first, so that no timer's memory is taken for it.
    for (const char *const name : {"start", "stop", "release", "restart", "tick", "mixed tick",
                                   "mixed tick, one period", "stop in a crowd", "bytes", "bytes after it", "expired"})
      state.counters[name] = 0;
    drain_heap_caches();
    const owned_clock clock;
    race<contender_t>{count, &state.counters}.run();
  }
}

template <typename... contenders_t>
void register_races() {
  for (uint32_t count : {10U, 1000U, 100000U, 1000000U}) {
    (benchmark::RegisterBenchmark((std::to_string(count) + "/" + contenders_t::name).c_str(), measure<contenders_t>,
                                  count)
         ->Iterations(1)
         ->Unit(benchmark::kMillisecond),
     ...);
  }
}

// What "now" costs, which a start asks for.
void now(benchmark::State &state, uint32_t ms_per_tick) {
  cpu_khz = UINT32_MAX;
  system_time_period = ms_per_tick;
  uint64_t exp_time = 0;
  while (state.KeepRunning()) {
    timer_calc_exp_time(1, &exp_time);
    benchmark::DoNotOptimize(exp_time);
  }
  system_time_period = 0;
}

}  // namespace

int main(int argc, char **argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 2;
  calibrate();
  register_races<wheel_timers, event_timers, common_event_timers, uv_timers, map_timers>();
  benchmark::RegisterBenchmark("now/tick mode", now, 0U);
  benchmark::RegisterBenchmark("now/polled mode", now, 10U);
  benchmark::AddCustomContext("libevent", event_get_version());
  benchmark::AddCustomContext("libuv", uv_version_string());
  benchmark::RunSpecifiedBenchmarks();
}
