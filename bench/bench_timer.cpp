// Races the timer service against the timers of libevent, of libuv and of std::multimap.
//
//   bench_timer [--markdown=FILE] [--json=FILE] [Google Benchmark's options]
//
// Every contender gets the same timers, periods and order of operations, on a clock that only the benchmark moves.
// Numbers of timers that expired must be the same for all, or the run fails.
#include <benchmark/benchmark.h>
#include <gnu/libc-version.h>
#include <malloc.h>
#include <sys/syscall.h>
#include <sys/utsname.h>
#include <time.h>
#include <unistd.h>
#include <x86intrin.h>

#include <array>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <map>
#include <memory>
#include <numeric>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "bench/owned_clock.h"
#include "bench/timer_contenders.h"
#include "bench/timer_report.h"

void (*expired)(uint32_t timer);

namespace {

double cycles_per_ns;
double stopwatch_cycles;  // that an empty measurement takes

void calibrate() {
  using clock = std::chrono::steady_clock;
  const auto from = clock::now();
  const uint64_t cycles = __rdtsc();
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  const std::chrono::duration<double, std::nano> ns = clock::now() - from;
  cycles_per_ns = static_cast<double>(__rdtsc() - cycles) / ns.count();
  uint64_t least = UINT64_MAX;
  for (int i = 0; i < 1000; i++) {
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

// Leaves nothing in the allocator's caches of small blocks, which would not be told from blocks in use.
void drain_heap_caches() {
  static std::vector<std::unique_ptr<char[]>> held;
  for (size_t size = 8; size <= 1032; size += 16) {
    for (int i = 0; i < 7; i++)
      held.push_back(std::make_unique<char[]>(size));
  }
}

uint64_t heap_bytes() {
  const struct mallinfo2 info = mallinfo2();
  return info.uordblks + info.hblkhd;
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

// The measurements of one contender, in the order of the table.
enum measurement_t { START, STOP, RESTART, TICK, MIXED, MIXED_ONE_PERIOD, STOP_IN_CROWD, BYTES, MEASUREMENTS };
constexpr const char *measurement_names[MEASUREMENTS] = {
    "start", "stop", "restart", "tick", "mixed tick", "mixed tick, one period", "stop in a crowd", "bytes per timer",
};
using measurements_t = std::array<double, MEASUREMENTS>;  // ns per operation, and bytes per timer

constexpr uint32_t sizes[] = {10, 1000, 100000, 1000000};
constexpr uint32_t one_period = 30000;  // ticks

// One contender with `count` timers, and periods spread over twice the wheel.
template <typename contender_t>
class race {
 public:
  explicit race(uint32_t count)
      : m_count(count), m_horizon(2 * wheel_size(count)), m_heap_before(heap_bytes()), m_timers(count) {
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

  uint64_t fired() const { return m_fired; }

  // Starts every timer, none being active, and stops every timer, each in random order.
  void start_and_stop(uint32_t rounds, measurements_t &result) {
    const auto start_order = shuffled(m_count, 1);
    const auto stop_order = shuffled(m_count, 2);
    const auto ns = [this](const auto &work) { return m_count > 10000 ? long_ns(work) : short_ns(work); };
    std::vector<double> starts;
    std::vector<double> stops;
    for (uint32_t round = 0; round < rounds; round++) {
      starts.push_back(ns([&] {
        for (uint32_t i : start_order)
          m_timers.start(i, period(i, round));
      }));
      stops.push_back(ns([&] {
        for (uint32_t i : stop_order)
          m_timers.stop(i);
      }));
      m_timers.settle();
    }
    result[START] = median(starts) / m_count;
    result[STOP] = median(stops) / m_count;
  }

  void populate() {
    for (uint32_t i : shuffled(m_count, 3))
      m_timers.start(i, period(i, 4));
  }

  // All timers being active:

  double bytes() const { return static_cast<double>(heap_bytes() - m_heap_before) / m_count; }

  // Restarts timers at random.
  double restart(uint32_t operations) {
    const double ns = long_ns([&] {
      for (uint32_t i = 0; i < operations; i++)
        m_timers.start(mix(i, 5) % m_count, period(i, 6));
    });
    return ns / operations;
  }

  // Ticks; what expires starts again.
  double tick(uint32_t ticks) {
    return long_ns([&] { run(ticks); }) / ticks;
  }

  // Ticks with five restarts and four pairs of a stop and a start in each, so that most timers never expire. A tenth
  // of the timers is inactive meanwhile.
  double mixed_tick(uint32_t ticks, uint32_t fixed_period) {
    m_fixed_period = fixed_period;
    std::vector<uint32_t> order = shuffled(m_count, 7);
    const uint32_t idle = std::max(1U, m_count / 10);  // the first so many of `order`
    for (uint32_t i = 0; i < idle; i++)
      m_timers.stop(order[i]);
    uint32_t random = 0;
    const auto pick = [&](uint32_t from, uint32_t to) { return from + mix(random++, 8) % (to - from); };
    const double ns = long_ns([&] {
      for (uint32_t i = 0; i < ticks; i++) {
        for (int k = 0; k < 5; k++) {
          const uint32_t timer = order[pick(idle, m_count)];
          m_timers.start(timer, period(timer, random));
        }
        for (int k = 0; k < 4; k++) {
          uint32_t &active = order[pick(idle, m_count)];
          uint32_t &inactive = order[pick(0, idle)];
          m_timers.stop(active);
          m_timers.start(inactive, period(inactive, random));
          std::swap(active, inactive);
        }
        run(1);
      }
    });
    m_fixed_period = 0;
    for (uint32_t i = 0; i < idle; i++)
      m_timers.start(order[i], period(i, 9));
    return ns / ticks;
  }

  // Stops some timers at random, all of them being due at one tick. Leaves them stopped.
  double stop_in_crowd() {
    const auto order = shuffled(m_count, 10);
    const uint32_t stops = m_count > 10000 ? 5 : std::min(m_count, 50U);
    for (uint32_t i : order)
      m_timers.stop(i);
    for (uint32_t i : shuffled(m_count, 11))
      m_timers.start(i, m_horizon);
    const double ns = short_ns([&] {
      for (uint32_t i = 0; i < stops; i++)
        m_timers.stop(order[i]);
    });
    return ns / stops;
  }

 private:
  uint32_t period(uint32_t a, uint32_t b) const {
    if (m_fixed_period != 0) return m_fixed_period;
    return 1 + static_cast<uint32_t>(uint64_t{mix(a, b)} * m_horizon >> 32);
  }

  void run(uint32_t ticks) {
    for (uint32_t i = 0; i < ticks; i++) {
      m_tick++;
      m_timers.tick();
    }
  }

  static inline race *self;
  const uint32_t m_count;
  const uint32_t m_horizon;
  uint32_t m_fixed_period = 0;
  uint32_t m_tick = 0;
  uint64_t m_fired = 0;
  const uint64_t m_heap_before;
  contender_t m_timers;
};

template <typename contender_t>
uint64_t run_race(uint32_t count, measurements_t &result) {
  drain_heap_caches();
  const owned_clock clock;
  const bool large = count > 10000;
  race<contender_t> subject{count};
  subject.start_and_stop(std::max(1U, 200000 / count), result);
  subject.populate();
  result[BYTES] = subject.bytes();
  result[RESTART] = subject.restart(large ? 200000 : 100000);
  result[TICK] = subject.tick(large ? 50000 : 200000);
  result[MIXED] = subject.mixed_tick(20000, 0);
  result[MIXED_ONE_PERIOD] = subject.mixed_tick(40000, one_period);
  result[STOP_IN_CROWD] = subject.stop_in_crowd();
  return subject.fired();
}

template <typename contender_t>
void measure(benchmark::State &state, uint32_t count) {
  for (auto _ : state) {
    measurements_t result{};
    const uint64_t fired = run_race<contender_t>(count, result);
    for (size_t i = 0; i < MEASUREMENTS; i++)
      state.counters[measurement_names[i]] = result[i];
    state.counters["fired"] = static_cast<double>(fired);
  }
}

std::string run_name(const char *contender, uint32_t count) {
  return std::to_string(count) + "/" + contender;
}

template <typename... contenders_t>
void register_races() {
  for (uint32_t count : sizes) {
    (benchmark::RegisterBenchmark(run_name(contenders_t::name, count).c_str(), measure<contenders_t>, count)
         ->Iterations(1)
         ->Repetitions(count > 100000 ? 3 : 7)
         ->ComputeStatistics("best",
                             [](const std::vector<double> &values) { return *std::ranges::min_element(values); })
         ->ReportAggregatesOnly()
         ->Unit(benchmark::kMillisecond),
     ...);
  }
}

// Collects the runs beside the usual display.
class collector : public benchmark::ConsoleReporter {
 public:
  collector() : ConsoleReporter(OO_Tabular) {}

  void ReportRuns(const std::vector<Run> &runs) override {
    ConsoleReporter::ReportRuns(runs);
    for (const auto &run : runs) {
      if (run.error_occurred || run.aggregate_name != "best") continue;
      for (const auto &[name, counter] : run.counters)
        m_best[run.run_name.function_name][name] = counter;
    }
  }

  // Null where the filter left the run out.
  const std::map<std::string, double> *best(const std::string &run) const {
    const auto found = m_best.find(run);
    return found != m_best.end() ? &found->second : nullptr;
  }

 private:
  std::map<std::string, std::map<std::string, double>> m_best;
};

// False when the contenders disagree on what expired. Leaves out a size of which the filter left something out.
bool collect(const collector &runs, timer_report &report) {
  for (uint32_t count : sizes) {
    double fired = -1;
    for (const auto &contender : report.contenders) {
      const auto *const best = runs.best(run_name(contender.c_str(), count));
      if (best == nullptr) {
        report.results.erase(count);
        break;
      }
      if (fired >= 0 && best->at("fired") != fired) {
        fprintf(stderr, "%u timers: %.0f of %s expired, not %.0f\n", count, best->at("fired"), contender.c_str(),
                fired);
        return false;
      }
      fired = best->at("fired");
      report.results[count][contender] = *best;
    }
  }
  return true;
}

std::string first_line_with(const char *path, const std::string &key) {
  std::ifstream file{path};
  std::string line;
  while (std::getline(file, line)) {
    if (line.starts_with(key)) return line.substr(std::min(line.size(), line.find(": ") + 2));
  }
  return "unknown";
}

std::vector<std::pair<std::string, std::string>> describe_machine() {
  utsname system{};
  (void)uname(&system);
  double load = 0;
  (void)getloadavg(&load, 1);
  char text[100];
  (void)snprintf(text, sizeof text, "%ld, time-stamp counter at %.0f MHz, load average %.1f at the start",
                 sysconf(_SC_NPROCESSORS_ONLN), cycles_per_ns * 1000, load);
  return {
      {"Processor", first_line_with("/proc/cpuinfo", "model name")},
      {"Processors", text},
      {"System", std::string{system.sysname} + " " + system.release + " " + system.machine},
      {"Compiler", BENCH_BUILD},
      {"C library", std::string{"glibc "} + gnu_get_libc_version()},
      {"libevent", event_get_version()},
      {"libuv", uv_version_string()},
      {"Google Benchmark", BENCHMARK_VERSION},
  };
}

// What "now" costs in polled mode, which a start pays and a start in tick mode does not.
double polled_start_ns() {
  constexpr int rounds = 1000000;
  cpu_khz = UINT32_MAX;
  const auto ns = [] {
    uint64_t exp_time = 0;
    return long_ns([&] {
             for (int i = 0; i < rounds; i++) {
               timer_calc_exp_time(1, &exp_time);
               benchmark::DoNotOptimize(exp_time);
             }
           }) /
           rounds;
  };
  system_time_period = 0;
  const double tick_mode = ns();
  system_time_period = 10;
  const double polled_mode = ns();
  system_time_period = 0;
  return polled_mode - tick_mode;
}

// Takes "--name=value" out of the arguments.
std::string take_option(int &argc, char **argv, const std::string &name) {
  for (int i = 1; i < argc; i++) {
    const std::string arg = argv[i];
    if (!arg.starts_with(name + "=")) continue;
    std::rotate(argv + i, argv + i + 1, argv + argc);
    argc--;
    return arg.substr(name.size() + 1);
  }
  return {};
}

bool write_file(const std::string &path, const std::string &text) {
  if (path.empty()) return true;
  std::ofstream file{path};
  file << text;
  file.close();
  if (file.fail()) fprintf(stderr, "bench_timer: cannot write %s\n", path.c_str());
  return !file.fail();
}

}  // namespace

int main(int argc, char **argv) {
  const std::string markdown = take_option(argc, argv, "--markdown");
  const std::string json = take_option(argc, argv, "--json");
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 2;
  calibrate();
  timer_report report{};
  report.machine = describe_machine();
  register_races<wheel_timers, event_timers, uv_timers, map_timers>();
  collector runs;
  benchmark::RunSpecifiedBenchmarks(&runs);
  report.contenders = {wheel_timers::name, event_timers::name, uv_timers::name, map_timers::name};
  report.polled_start_ns = polled_start_ns();
  if (!collect(runs, report)) return 1;
  return write_file(markdown, report.markdown()) && write_file(json, report.json()) ? 0 : 1;
}
