// bench_access: device accesses by Google Benchmark.
#include <benchmark/benchmark.h>

#include <map>
#include <string>

#include "bench/access_cases.h"

namespace {

void add(const std::string &name, void (*run)(uint64_t n)) {
  constexpr uint64_t batch = 1;
  benchmark::RegisterBenchmark(name.c_str(),
                               [run](benchmark::State &state) {
                                 while (state.KeepRunningBatch(batch))
                                   run(batch);
                               })
      ->Repetitions(101)
      ->MinTime(0.0005)
      ->UseRealTime();
}

// Collects the times of each repetition.
class collector : public benchmark::BenchmarkReporter {
 public:
  bool ReportContext(const Context & /*context*/) override { return true; }
  void ReportRuns(const std::vector<Run> &runs) override {
    for (const Run &run : runs)
      if (run.run_type == Run::RT_Iteration) times[run.run_name.function_name].push_back(run.GetAdjustedRealTime());
  }

  std::map<std::string, std::vector<double>> times;
};

}  // namespace

int main() {
  access_start();
  for (const auto &c : access_cases()) {
    add(c.name, c.run);
    if (c.floor != nullptr) add(std::string(c.name) + " floor", c.floor);
  }
  // What runs beside on the machine then meets a case and its floor alike.
  char program[] = "bench_access";
  char interleave[] = "--benchmark_enable_random_interleaving=true";
  char *arguments[] = {program, interleave, nullptr};
  int count = 2;
  benchmark::Initialize(&count, arguments);
  collector collected;
  benchmark::RunSpecifiedBenchmarks(&collected);
  std::vector<access_times> times;
  for (const auto &c : access_cases())
    times.push_back({collected.times[c.name], collected.times[std::string(c.name) + " floor"]});
  access_report(times);
  access_stop();
}
