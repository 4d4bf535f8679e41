#include "sim/host/estimate.h"

#include <signal.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <limits>

#include "sim/bus/resume.h"
#include "sim/devices/flash.h"
#include "sim/host/real.h"

namespace sim {

namespace {

// An access costs an exception, its decoding and the driver's locks; one with a log also its line. As measured.
constexpr double access_in_traps = 1.25;
constexpr double logged_access_in_traps = 1.85;

constexpr unsigned seconds_between_lines = 10;

double seconds_of(int64_t nsec) {
  return static_cast<double>(nsec) * 1e-9;
}

std::string whole_seconds(double seconds) {
  return std::to_string(std::max<int64_t>(1, std::llround(std::ceil(seconds)))) + " s";
}

// Goes back as the handler of trapped accesses does.
void go_back(int, siginfo_t *, void *context) {
  resume(*static_cast<ucontext_t *>(context), __builtin_return_address(0));
}

}  // namespace

run_times estimate(const options &opts, const run_counts &counts, double trap_seconds) {
  const auto &times = opts.real_times ? flash_times_real : flash_times_scaled;
  const double erase = std::exp2(times.erase_ms) * 1e-3 * counts.erases;
  const double program = std::exp2(times.buffer_us) * 1e-6 * counts.programs;
  // The driver waits for the typical time before each look, and where looks count as time, the first one at an erase
  // meets its window.
  const double erase_waits = opts.busy == busy::polls ? 2 : 1;
  const double access = trap_seconds * (opts.trace.empty() ? access_in_traps : logged_access_in_traps) *
                        (counts.trapped + (opts.trace.empty() ? 0 : counts.trapped_by_log));
  return {erase_waits * erase + program + access,
          std::exp2(times.erase_factor) * erase + std::exp2(times.buffer_factor) * program + access};
}

double trap_seconds() {
  constexpr int rounds = 20;
  constexpr int traps = 100;
  struct sigaction found {};
  struct sigaction act {};
  act.sa_sigaction = go_back;
  act.sa_flags = SA_SIGINFO | SA_NODEFER;
  (void)sigaction(SIGTRAP, &act, &found);
  // The shortest round is the one that nothing else interrupted.
  int64_t shortest = std::numeric_limits<int64_t>::max();
  for (int round = 0; round < rounds; ++round) {
    const int64_t began = monotonic_nsec();
    for (int i = 0; i < traps; ++i)
      asm volatile("int3" ::: "memory");
    shortest = std::min(shortest, monotonic_nsec() - began);
  }
  (void)sigaction(SIGTRAP, &found, nullptr);
  return seconds_of(shortest) / traps;
}

std::string told_before(const run_counts &counts, const run_times &times) {
  return "about " + whole_seconds(times.usual) + " on an idle processor, " + whole_seconds(times.longest) +
         " with the flash's longest times: " + std::to_string(counts.erases) + " erases, " +
         std::to_string(counts.programs) + " page programs";
}

std::string told_during(const run_times &times, double elapsed) {
  if (elapsed < times.usual) return "about " + whole_seconds(times.usual - elapsed) + " left";
  return "longer than was told: " + whole_seconds(elapsed) + " so far";
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
