// access_cases.h: device accesses on the simulated board, each beside the least that it can cost.
#pragma once

#include <cstdint>
#include <span>
#include <vector>

struct access_case {
  const char *name;
  void (*run)(uint64_t n);    // n times
  const char *floor_name;     // what stands beside it:
  void (*floor)(uint64_t n);  // n times; null where it is a time that was asked for,
  double asked_ns;            // which is this
};

std::span<const access_case> access_cases();

// Starts a board in a temporary directory, with healthy memories but for NVRAM 2, whose accesses are trapped, and the
// drivers on it. Ends the process where that fails.
void access_start();
void access_stop();

// What repetitions of a case took, in nanoseconds a time.
struct access_times {
  std::vector<double> run;
  std::vector<double> floor;
};

// Prints the shortest times, which other programs disturbed least, and their ratio: a row of a Markdown table for each
// case.
void access_report(std::span<const access_times> times);
