// explain.h: from what a run printed to the part that is broken, as far as the lines tell.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "lab/explain_group.h"
#include "lab/records.h"
#include "lab/run_log.h"

namespace lab {

// One thing that is wrong.
struct finding {
  std::string device;                // that tells of it, "nvram.0"; "" for none
  std::string part;                  // "NVRAM 1"
  std::string what;                  // how it fails, as the lines show it
  std::vector<message> evidence;     // the lines
  std::vector<fault_group> faults;   // any of these gives the lines
  std::vector<fault_group> passing;  // any of these does if it comes and goes
  uint64_t places = 0;               // where they are: lines, pairs of lines, cells, operations
  uint64_t sure_places = 0;          // of these, of faults that give the lines whatever the memory held before
  std::vector<std::string> apart;    // what would tell them apart
  std::vector<std::string> next;     // what to do
  std::string unseen;                // what the lines cannot show, "" for nothing
  bool known = true;                 // false: what is known says nothing of these lines

  // "NVRAM 1: data line D3 stuck at 0 (...)", or what is seen with the places that it can come from.
  [[nodiscard]] std::string headline() const;
};

struct explanation {
  static constexpr size_t unknown_kept = 20;

  std::vector<finding> findings;
  std::vector<message> unknown;  // the first lines that are of no known text
  size_t unknown_count = 0;

  // The headlines with "; " between them, "" for none.
  [[nodiscard]] std::string in_short() const;
};

// Explains one run.
//   log      null if there is none: then nothing but the records' failures can be told
//   records  of this run, may be none
[[nodiscard]] explanation explain_run(const run_log *log, std::span<const record> records = {});

// How many places the groups name.
//   sure  those alone that do not depend on what the memory held
[[nodiscard]] uint64_t count_places(std::span<const fault_group> groups, bool sure);

// The groups of a finding put together for people: those that differ in one list alone are one.
[[nodiscard]] std::vector<fault_group> in_few_groups(std::span<const fault_group> groups);

}  // namespace lab
