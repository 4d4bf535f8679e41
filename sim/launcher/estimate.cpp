#include "sim/launcher/estimate.h"

#include <signal.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <limits>

#include "sim/base/real.h"
#include "sim/devices/flash.h"

namespace sim {

namespace {

// As measured. An access by signal costs an exception, its decoding and the driver's locks; one by jump the locks and
// the registers' way into memory and back; a log's line its text and its writing.
constexpr double access_in_traps = 1.25;
constexpr double access_in_calls = 2.8;
constexpr double line_in_calls = 7;

// The program sleeps where a wait is longer, by a clock that is always true.
constexpr double longest_spin = 0.01;

constexpr unsigned seconds_between_lines = 10;

double seconds_of(int64_t nsec) {
  return static_cast<double>(nsec) * 1e-9;
}

// The time of one turn of `body`, by the shortest of several rounds: the one that nothing else interrupted.
template <class Body>
double shortest_seconds(Body body) {
  constexpr int rounds = 20;
  constexpr int turns = 100;
  int64_t shortest = std::numeric_limits<int64_t>::max();
  for (int round = 0; round < rounds; ++round) {
    const int64_t began = monotonic_nsec();
    for (int turn = 0; turn < turns; ++turn)
      body();
    shortest = std::min(shortest, monotonic_nsec() - began);
  }
  return seconds_of(shortest) / turns;
}

std::string whole_seconds(double seconds) {
  return std::to_string(std::max<int64_t>(1, std::llround(std::ceil(seconds)))) + " s";
}

}  // namespace

run_times estimate(const options &opts, const run_counts &counts, const machine_costs &costs) {
  const bool logs = !opts.trace.empty();
  const double access = opts.patch ? access_in_calls * costs.call : access_in_traps * costs.trap;
  const double accesses =
      (access + (logs ? line_in_calls * costs.call : 0)) * (counts.answered + (logs ? counts.answered_by_log : 0));
  const auto &times = opts.real_times ? models::flash_times_real : models::flash_times_scaled;
  const auto waited = [&](double seconds) { return opts.short_waits && seconds <= longest_spin ? 0 : seconds; };
  const double erase = waited(std::exp2(times.erase_ms) * 1e-3) * counts.erases;
  const double program = waited(std::exp2(times.buffer_us) * 1e-6) * counts.programs;
  // The driver waits for the typical time before each look, and where looks count as time, the first one at an erase
  // meets its window.
  const double erase_waits = opts.busy == busy::polls ? 2 : 1;
  return {erase_waits * erase + program + accesses,
          std::exp2(times.erase_factor) * erase + std::exp2(times.buffer_factor) * program + accesses};
}

machine_costs measure_costs() {
  struct sigaction found {};
  struct sigaction act {};
  act.sa_sigaction = [](int, siginfo_t *, void *) {};
  act.sa_flags = SA_SIGINFO | SA_NODEFER;
  (void)sigaction(SIGTRAP, &act, &found);
  const machine_costs costs{shortest_seconds([] {
                              asm volatile("int3" ::: "memory");
                            }),
                            shortest_seconds([] { (void)::syscall(SYS_getppid); })};
  (void)sigaction(SIGTRAP, &found, nullptr);
  return costs;
}

std::string told_before(const run_counts &counts, const run_times &times) {
  return "about " + whole_seconds(times.usual) + " on an idle processor, " + whole_seconds(times.longest) +
         " with the flash's longest times: " + std::to_string(counts.erases) + " erases, " +
         std::to_string(counts.programs) + " page programs";
}

std::string told_during(const run_times &times, double elapsed) {
  if (elapsed < times.usual) return "about " + whole_seconds(times.usual - elapsed) + " left";
  return "longer than estimated: " + whole_seconds(elapsed) + " so far";
}

void start_countdown(const run_times &times) {
  const pid_t parent = getpid();
  if (fork() != 0) return;
  (void)prctl(PR_SET_PDEATHSIG, SIGKILL);
  const int64_t began = monotonic_nsec();
  while (getppid() == parent) {
    (void)sleep(seconds_between_lines);
    const auto line = "board-sim: " + told_during(times, seconds_of(monotonic_nsec() - began)) + "\n";
    if (sys::write(STDERR_FILENO, line.data(), line.size()) < 0) break;
  }
  _exit(0);
}

}  // namespace sim
