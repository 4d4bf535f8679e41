// cases.h: the result of each device, from the records of a run and from what it printed.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "lab/run/records.h"
#include "lab/run/rows.h"
#include "lab/run/run_log.h"

namespace lab {

enum class verdict {
  pass,
  fail,
  skip,   // nothing was tested, on purpose
  error,  // nothing is known of the device: the run ended before, or evidence is missing
};
[[nodiscard]] std::string_view verdict_name(verdict value);  // "PASS", "FAIL", "SKIP", "ERROR"

struct test_case {
  size_t row = 0;  // in `rows`
  int32_t device = 0;
  verdict result = verdict::error;
  std::string reason;  // of SKIP and ERROR always, else empty or what contradicts the result
  message_list messages;

  [[nodiscard]] std::string name() const;  // "gige.3"
  [[nodiscard]] std::string_view part() const { return rows[row].parts[static_cast<size_t>(device)]; }
};

struct report {
  std::array<test_case, case_count> cases;  // in the order of a run
  std::array<std::optional<int32_t>, row_count> seconds;
  std::optional<uint64_t> change_bits;
  std::optional<bool> short_test;     // nothing where that was not seen
  std::optional<bool> passed;         // the verdict that it printed
  std::vector<std::string> warnings;  // what keeps the run from being clean beside its cases
  message_list messages;              // those of no device

  [[nodiscard]] size_t count(verdict value) const;
  // No FAIL, no ERROR, no warning.
  [[nodiscard]] bool clean() const;
};

// Merges the records of one run with what it printed. PASS needs a record that says so, and no word of the log against
// it.
//   records  only of this run, in order
//   log      null if there is none
[[nodiscard]] report make_report(std::span<const record> records, const run_log *log);

// The runs of a file of records and of a log, oldest first. The log's runs are the last ones.
struct run_pair {
  std::vector<record> records;
  const run_log *log;  // null for runs before the log's
};
[[nodiscard]] std::vector<run_pair> pair_runs(const std::deque<record> &records, const std::deque<run_log> &logs);

}  // namespace lab
