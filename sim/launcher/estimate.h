// estimate.h: how long a run of `post` on a sound board takes, shown before and during the run.
#pragma once

#include <cstdint>
#include <string>

#include "sim/base/options.h"

namespace sim {

// The operations of the board in a run of `post`.
struct run_counts {
  uint32_t erases;
  uint32_t programs;         // of a page
  uint32_t answered;         // accesses that device models answer,
  uint32_t answered_by_log;  // and those that they do only for the log
};
inline constexpr run_counts full_run{40, 81965, 1'885'000, 1'515'000};
inline constexpr run_counts short_run{0, 0, 0, 0};

struct run_times {
  double usual;    // seconds
  double longest;  // if every flash operation takes the longest time that the chip names
};

// The costs of operations on this machine, in seconds.
struct machine_costs {
  double trap;  // an exception and its handler
  double call;  // a system call
};
[[nodiscard]] machine_costs measure_costs();

[[nodiscard]] run_times estimate(const options &opts, const run_counts &counts, const machine_costs &costs);

// Before the run.
[[nodiscard]] std::string told_before(const run_counts &counts, const run_times &times);
// During the run: whole seconds, at least one.
[[nodiscard]] std::string told_during(const run_times &times, double elapsed);

// Starts a process that writes the remaining time to standard error every ten seconds. It ends with this process, or
// with its other children.
void start_countdown(const run_times &times);

}  // namespace sim
