// table.h: a campaign for people at a terminal.
#pragma once

#include <chrono>
#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "lab/matrix.h"

namespace lab {

// The matrix, a run on a line. Lines are cut to `width` columns, 0 for no limit.
[[nodiscard]] std::string matrix_table(const matrix &all, size_t width);

// Counts beside percentages, what was not found by reason, what needs attention, and what it cost.
[[nodiscard]] std::string matrix_summary(const matrix &all);

// Runs with the same outcome for the same reason, what went unnoticed first. Those found by the right device and
// healthy ones are in none.
struct reason_group {
  outcome end;
  std::string reason;
  std::vector<const run_result *> runs;

  // Its runs in few words.
  [[nodiscard]] std::vector<std::string> patterns() const;
};
[[nodiscard]] std::vector<reason_group> groups_of(const matrix &all);

// "12", "1+" for at least once, "-" if it is not known.
[[nodiscard]] std::string fired_text(const run_result &run);
// "12 of 34 (35.3 %)"
[[nodiscard]] std::string share(size_t count, size_t of);
// "35.3 %" of a rate from 0 to 1, "1.5 s".
[[nodiscard]] std::string percent(double rate);
[[nodiscard]] std::string seconds_text(double seconds);
// How many faults the right device reported, and how many went unnoticed, in two sentences; "" of healthy boards alone.
[[nodiscard]] std::string sentence_counts(const matrix &all);
// How long it took, and how much of it besides the runs.
[[nodiscard]] std::string times_text(const matrix &all);

// A line that tells how far a campaign has come, over and over.
class live_line {
 public:
  // Shows nothing if standard error is no terminal.
  live_line(const std::vector<run_item> &left, unsigned jobs);
  void add(const run_result &run);
  // Takes the line away.
  void end();

 private:
  [[nodiscard]] double seconds_left() const;

  bool m_shown;
  unsigned m_jobs;
  size_t m_all;
  size_t m_done = 0;
  size_t m_found = 0;
  size_t m_missed = 0;
  std::array<size_t, 3> m_left{};     // by mode
  std::array<double, 3> m_seconds{};  // of those done
  std::array<size_t, 3> m_counted{};
};

}  // namespace lab
