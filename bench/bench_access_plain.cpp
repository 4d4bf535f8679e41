// bench_access: device accesses, timed by plain loops where there is no Google Benchmark.
#include <time.h>

#include "bench/access_cases.h"

namespace {

double now_ns() {
  timespec now = {};
  (void)clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<double>(now.tv_sec) * 1e9 + static_cast<double>(now.tv_nsec);
}

// Nanoseconds of one time, over at least half a millisecond.
double measure(void (*run)(uint64_t n)) {
  for (uint64_t n = 1;; n *= 2) {
    const double start = now_ns();
    run(n);
    const double taken = now_ns() - start;
    if (taken > 5e5) return taken / static_cast<double>(n);
  }
}

}  // namespace

int main() {
  access_start();
  std::vector<access_times> times(access_cases().size());
  for (int repetition = 0; repetition < 101; ++repetition) {
    for (size_t i = 0; i < times.size(); ++i) {
      const access_case &c = access_cases()[i];
      times[i].run.push_back(measure(c.run));
      if (c.floor != nullptr) times[i].floor.push_back(measure(c.floor));
    }
  }
  access_report(times);
  access_stop();
}
