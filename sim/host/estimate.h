// estimate.h: how long a run of `post` on a sound board takes, told before and while it runs.
#pragma once

#include <cstdint>
#include <string>

#include "sim/board/options.h"

namespace sim {

// What a run of `post` asks of the board.
struct run_counts {
  uint32_t erases;
  uint32_t programs;        // of a page
  uint32_t trapped;         // accesses that a handler carries out,
  uint32_t trapped_by_log;  // and those that it does only for the log
};
inline constexpr run_counts full_run{40, 81965, 1'885'000, 1'515'000};
inline constexpr run_counts short_run{0, 0, 0, 0};

struct run_times {
  double usual;    // seconds
  double longest;  // if every flash operation takes the longest time that the chip names
};

// `trap_seconds` is what trap_seconds() measured.
[[nodiscard]] run_times estimate(const options &opts, const run_counts &counts, double trap_seconds);

// What one exception and its handler cost on this machine, in seconds.
[[nodiscard]] double trap_seconds();

// Before the run.
[[nodiscard]] std::string told_before(const run_counts &counts, const run_times &times);
// During the run: whole seconds, never none of them.
[[nodiscard]] std::string told_during(const run_times &times, double elapsed);

// Starts a process that writes, every ten seconds, what is left to standard error. It ends with this process, or with
// its other children.
void start_countdown(const run_times &times);

}  // namespace sim
