// explain.h: from what a run printed to the part that is broken, as far as the lines show it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "lab/explain/candidates.h"
#include "lab/run/records.h"
#include "lab/run/run_log.h"

namespace lab {

// What a headline says of a fault.
enum class headline_says : uint8_t {
  leaves_out,  // that it is something else
  no_place,    // that the log does not show the place, which may be this fault's
  names,       // its place, or its kind of place
};
// "leaves it out", "names no place", "names it"
[[nodiscard]] std::string_view name_of(headline_says what);
[[nodiscard]] std::optional<headline_says> headline_named(std::string_view name);

// One thing that is wrong.
struct finding {
  std::string device;                     // that reports it, "nvram.0"; "" for none
  std::string part;                       // "NVRAM 1"
  std::string what;                       // how it fails, as the lines show it
  std::vector<message> evidence;          // the lines
  std::vector<fault_group> faults;        // any of these gives the lines
  std::vector<fault_group> now_and_then;  // any of these can if it comes and goes
  std::vector<std::string> measures;      // what would decide between them
  std::vector<std::string> next;          // what to do
  std::string unseen;                     // what the lines cannot show, "" for nothing
  bool known = true;                      // false: nothing known explains these lines

  // "NVRAM 1: data line D3 (...)", or what is seen with every place that it can come from.
  [[nodiscard]] std::string headline() const;
  [[nodiscard]] headline_says headline_on(const fault_text &fault) const;
  // Whether the fault is among the candidates.
  [[nodiscard]] bool lists(const fault_text &fault) const;
};

struct explanation {
  static constexpr size_t unknown_kept = 20;

  std::vector<finding> findings;
  std::vector<message> unknown;  // the first lines that are of no known text
  size_t unknown_count = 0;

  // The headlines with "; " between them, "" for none.
  [[nodiscard]] std::string in_short() const;
};

// Explains one run. A run that was not completed is always a finding.
//   log      null if there is none: then only the records' failures can be reported
//   records  of this run, may be none
[[nodiscard]] explanation explain_run(const run_log *log, std::span<const record> records = {});

}  // namespace lab
