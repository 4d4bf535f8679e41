// process.h: running one program to its end, or to the end of its time.
#pragma once

#include <chrono>
#include <cstddef>
#include <string>
#include <vector>

namespace lab {

struct process_result {
  int status = 0;            // exit status, or 128 and the signal's number
  int error = 0;             // errno if the program could not be started at all
  bool timed_out = false;    // ended because its time was over, of the processor or of the clock
  bool stopped = false;      // ended by us: we were asked to stop
  bool more_output = false;  // it printed more than was kept
  std::string output;        // standard output and standard error, in their order
  double seconds = 0;        // from start to end
  double cpu_seconds = 0;    // of the program and what it waited for
};

struct run_limits {
  std::chrono::milliseconds processor{120'000};  // of each process, in whole seconds upwards
  std::chrono::milliseconds wall{1'200'000};
};

// Runs a program in a process group of its own, with an empty standard input, and ends the whole group with it.
//   words    the program's path and its arguments
//   limits   how long it may run
//   stop_fd  when this can be read, the program is ended; -1 for never
[[nodiscard]] process_result run_process(const std::vector<std::string> &words, const run_limits &limits, int stop_fd);

// How much of the output is kept.
inline constexpr size_t output_limit = size_t{4} << 20;

}  // namespace lab
