// table.h: a campaign for people at a terminal.
#pragma once

#include <chrono>
#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "lab/campaign/matrix.h"

namespace lab {

// The matrix, a run on a line. Lines are cut to `width` columns, 0 for no limit.
//   wide  with the outcome in words, board, mode, firings, the first line and the contents
// The answers of post-locate are a column where there are any.
[[nodiscard]] std::string matrix_table(const matrix &all, size_t width, bool wide);

// Counts beside percentages, what was not found by reason, what needs attention, and what it cost.
//   wide  with the runs of each reason
[[nodiscard]] std::string matrix_summary(const matrix &all, bool wide);

// Runs with the same outcome for the same reason, what went unnoticed first. Those found by the right device and
// healthy ones are in none.
struct reason_group {
  outcome end;
  std::string reason;
  std::vector<const run_result *> runs;

  // The reason, or "unexplained".
  [[nodiscard]] std::string why() const;
  // Its runs in few words.
  [[nodiscard]] std::vector<std::string> patterns() const;
};
[[nodiscard]] std::vector<reason_group> groups_of(const matrix &all);

// "12", "1+" for at least once, "-" if it is not known.
[[nodiscard]] std::string fired_text(const run_result &run);
// "0.0 % to 3.6 %" of the 95 % interval.
[[nodiscard]] std::string range_text(size_t count, size_t of);
// "1.5 s"
[[nodiscard]] std::string seconds_text(double seconds);
// How many faults the right device reported and how many went unnoticed, in two sentences; "" without faults.
[[nodiscard]] std::string sentence_counts(const matrix &all);
// How often post-locate gave each answer; "" if it was not asked for.
[[nodiscard]] std::string located_sentence(const matrix &all);
// How long it took, and how much of it besides the runs.
[[nodiscard]] std::string times_text(const matrix &all);

// How far a campaign is, on standard error: on a terminal one line after each run, else a line now and then.
class live_line {
 public:
  //   between  least time between two lines of a log
  live_line(const std::vector<run_item> &left, unsigned jobs, std::chrono::seconds between = std::chrono::seconds(30));
  void add(const run_result &run);
  // Takes the line away.
  void end();

 private:
  [[nodiscard]] double seconds_left() const;

  bool m_terminal;
  std::chrono::seconds m_between;
  std::chrono::steady_clock::time_point m_began = std::chrono::steady_clock::now();
  std::chrono::steady_clock::time_point m_said = m_began;
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
