// matrix.h: what a campaign found: its runs with their outcomes, counted, stored, and compared with a former one.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "lab/outcome.h"
#include "lab/space.h"

namespace lab {

// What post-explain makes of what a run printed.
struct run_explanation {
  std::string text;          // in short, "" if there is nothing to explain
  bool listed = false;       // the fault is among the candidates
  uint64_t places = 0;       // of the finding that lists it
  uint64_t sure_places = 0;  // of these, whatever the memory held
  uint64_t line_places = 0;  // of these, lines and pairs of lines
};

struct run_result {
  run_item what;
  outcome end = outcome::missed;
  std::optional<uint64_t> fired;      // how often the fault changed something; nothing if that is not known
  bool fired_more = false;            // that often at least: the true number depends on time
  std::string verdict;                // "passed", "failed" or "none"; not counting a flash row that was cut short
  std::vector<std::string> reported;  // devices that failed: "nvram.0"
  bool right = false;                 // whether they are the right ones, whatever else happened
  std::string line;                   // the first line that tells of a failure, "" for none
  int status = 0;                     // exit status, 128 and its number for a signal
  std::string contents;               // what of EEPROM, NVRAM and flash differs, "" if all is as before
  std::string reason;                 // of an outcome that is not the right device's report, "" if it is not known
  std::optional<run_explanation> explained;  // nothing in a matrix of before
  double seconds = 0;
  double cpu_seconds = 0;
};

// Times, which alone differ between two campaigns of one state.
struct campaign_times {
  double elapsed = 0;    // seconds from the first run's start to the last one's end
  double run_cpu = 0;    // processor seconds of the runs
  double other_cpu = 0;  // of everything else
  unsigned jobs = 0;
};

struct matrix {
  std::string space;                                          // name of the fault space
  std::string description;                                    // one sentence
  std::vector<std::pair<std::string, std::string>> left_out;  // kinds of faults of no run, with the reason
  uint32_t repeats = 1;
  std::vector<run_result> runs;
  std::optional<campaign_times> times;
};

// Whether an outcome needs nobody's attention: found by the right device, a healthy board that passed, or one whose
// reason is known.
// A fault that did not fire tells nothing, unless that was to be expected: by chance, or in a random cell.
[[nodiscard]] bool is_accounted_for(const run_result &run, std::string_view space);

// Whether a fault that fired went unnoticed: every device passed.
[[nodiscard]] bool is_unnoticed(const run_result &run);

// The outcome for people, and the class that a page shows it in. Damage of which nobody is told counts as missed there.
[[nodiscard]] std::string title_of(const run_result &run);
[[nodiscard]] std::string style_class(const run_result &run);

using outcome_counts = std::array<size_t, outcome_count>;
[[nodiscard]] outcome_counts count_outcomes(const std::vector<run_result> &runs);

// The 95 % confidence interval of a rate (Wilson's score interval), 0 to 1. `of` is not 0.
struct interval {
  double low;
  double high;
};
[[nodiscard]] interval wilson(size_t count, size_t of);

// The runs of one fault that was repeated. Its rate is that of the runs in which it fired.
struct repeated_fault {
  run_item what;
  size_t runs = 0;
  size_t fired = 0;
  size_t found = 0;                             // by the right device
  std::optional<size_t> first_found = {};       // run in which it was first found, from 1
  std::optional<double> seconds_to_found = {};  // of all runs up to that one
};
[[nodiscard]] std::vector<repeated_fault> rates(const matrix &all);

// As JSON, a run on a line. Without times two campaigns of one state are equal byte for byte.
[[nodiscard]] std::string matrix_to_json(const matrix &all);
[[nodiscard]] std::string run_to_json(const run_result &run, bool times);
// On failure both return nothing and say why in *error.
[[nodiscard]] std::optional<matrix> matrix_from_json(std::string_view text, std::string *error);
[[nodiscard]] std::optional<run_result> run_from_json(std::string_view text, std::string *error);

// What is not as in a former campaign: one line each, empty if nothing changed. A run that only one of them has counts
// if both took the same space.
[[nodiscard]] std::vector<std::string> changes_since(const matrix &former, const matrix &now);

}  // namespace lab
