// timer_report.h: the timer benchmark's results as a table and as JSON.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

struct timer_report {
  // By name of the measurement: ns per operation, and bytes.
  using measurements_t = std::map<std::string, double>;

  std::vector<std::pair<std::string, std::string>> machine;  // what it is and what ran on it, as name and value
  std::vector<std::string> contenders;                       // the timer service, its two peers, the baseline
  std::map<uint32_t, std::map<std::string, measurements_t>> results;  // by number of timers and contender
  double polled_start_ns;  // what reading the clock adds to a start in polled mode

  [[nodiscard]] std::string markdown() const;
  [[nodiscard]] std::string json() const;
};
