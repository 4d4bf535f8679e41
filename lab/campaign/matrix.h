// matrix.h: what a campaign found: its runs with their outcomes, counted, and compared with a former one.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "lab/campaign/location.h"
#include "lab/campaign/outcome.h"
#include "lab/campaign/provenance.h"
#include "lab/campaign/space.h"
#include "lab/explain/explain.h"

namespace lab {

// What post-explain makes of what a run printed.
struct run_explanation {
  std::string text;     // in short, "" if there is nothing to explain
  bool listed = false;  // the fault is among the candidates
  headline_says headline = headline_says::leaves_out;
  uint64_t places = 0;  // of that finding: those that always print it, or all if the fault does only now and then
};

struct run_result {
  run_item what;
  outcome end = outcome::missed;
  std::optional<uint64_t> fired;      // how often the fault changed something; nothing if that is not known
  bool fired_more = false;            // that often at least: the true number depends on time
  std::string verdict;                // "passed", "failed" or "none"; not counting a flash row that was cut short
  std::vector<std::string> reported;  // devices that failed: "nvram.0"
  bool right = false;                 // whether they are the right ones, also if something else happened
  std::string line;                   // the first line that reports a failure, "" for none
  int status = 0;                     // exit status, 128 and its number for a signal
  std::string contents;               // what of EEPROM, NVRAM and flash differs, "" if all is as before
  std::string reason;                 // of an outcome that is not the right device's report, "" if it is not known
  std::optional<run_explanation> explained;  // nothing in a matrix of before
  std::optional<location> located;           // by post-locate, if it was asked for
  double seconds = 0;
  double cpu_seconds = 0;
};

// Times: only these differ between two campaigns of the same program.
struct campaign_times {
  double elapsed = 0;    // seconds from the first run's start to the last one's end, of parts the longest
  double run_cpu = 0;    // processor seconds of the runs
  double other_cpu = 0;  // of everything else
  unsigned jobs = 0;     // runs at a time; 0 for the longest of several parts
};

// Which part of a campaign a matrix is.
struct shard {
  size_t number = 1;  // from 1
  size_t of = 1;
  std::string plan;               // identifies the programs and the runs of the whole campaign
  size_t all_runs = 0;            // of the whole campaign
  std::vector<size_t> positions;  // of its own runs among these
  bool is_intact = true;          // they, and the runs, are what was written
};

struct matrix {
  provenance origin;
  std::string space;                                          // name of the fault space
  std::string description;                                    // one sentence
  std::vector<std::pair<std::string, std::string>> left_out;  // kinds of faults of no run, with the reason
  uint32_t repeats = 1;
  std::vector<run_result> runs;
  std::optional<campaign_times> times;
  std::optional<lab::shard> part;  // nothing: it is whole

  // Leaves out what differs between two campaigns of one state.
  void forget_times();
};

// Whether an outcome needs nobody's attention: found by the right device, a healthy board that passed, or one whose
// reason is known. A wrong answer of post-locate, or none, needs it, too.
// In the space "transients" rates are the result, so that only a fault that the board refuses needs attention.
// A fault that did not fire proves nothing, unless that was expected: by chance, or in a random cell.
[[nodiscard]] bool is_accounted_for(const run_result &run, std::string_view space);

// Whether post-locate gave a wrong answer, or none.
[[nodiscard]] bool is_misplaced(const run_result &run);

// Whether a fault that fired went unnoticed: every device passed.
[[nodiscard]] bool is_unnoticed(const run_result &run);

// The outcome for people, and the class that a page shows it in. Unreported damage counts as missed there.
[[nodiscard]] std::string title_of(const run_result &run);
[[nodiscard]] std::string style_class(const run_result &run);
// One character beside a colour; two where the right device reported a fault that something else happened to, too.
[[nodiscard]] std::string mark_of(const run_result &run);

// How many runs have each answer of post-locate; all 0 if it was not asked for.
[[nodiscard]] located_counts count_located(const std::vector<run_result> &runs);

using outcome_counts = std::array<size_t, outcome_count>;
[[nodiscard]] outcome_counts count_outcomes(const std::vector<run_result> &runs);

// The 95 % confidence interval of a rate, 0 to 1: Wilson's score interval, and the exact one of none or all. `of` is
// not 0.
struct interval {
  double low;
  double high;
};
[[nodiscard]] interval interval_of(size_t count, size_t of);

// The runs of one stratum that ended in the same way, for people.
struct stratum_class {
  std::string stratum;
  std::string title;  // of the outcome
  size_t count = 0;
  size_t of = 0;
};
// A class for each stratum and each outcome that any run of the matrix has.
[[nodiscard]] std::vector<stratum_class> strata_of(const matrix &all);

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

// What is not as in a former campaign: one line each, empty if nothing changed. A run that only one of them has counts
// if both took the same space.
[[nodiscard]] std::vector<std::string> changes_since(const matrix &former, const matrix &now);

}  // namespace lab
