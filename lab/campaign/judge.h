// judge.h: the outcome of a run, from its records and output.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "lab/base/process.h"
#include "lab/campaign/contents.h"
#include "lab/campaign/matrix.h"

namespace lab {

struct run_evidence {
  process_result process;
  std::optional<uint64_t> fired;       // what the board counted; nothing if it could not count
  std::string records;                 // the file of records, as it is
  std::vector<memory_change> changes;  // of EEPROM, NVRAM and flash
};

// Gives the run its one outcome. Of several that fit the first counts: refused, hung, other contents damaged, ended
// early, not fired, then what was reported.
[[nodiscard]] run_result judge(const run_item &run, const run_evidence &evidence);

}  // namespace lab
