// judge.h: from what a run left behind to its outcome.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "lab/contents.h"
#include "lab/matrix.h"
#include "lab/process.h"

namespace lab {

struct run_evidence {
  process_result process;
  std::optional<uint64_t> fired;       // what the board counted; nothing if it could not tell
  std::string records;                 // the file of records, as it is
  std::vector<memory_change> changes;  // of EEPROM, NVRAM and flash
};

// Gives the run its one outcome. Of several that fit the first counts: refused, hung, other contents damaged, ended
// early, not fired, then what was reported.
[[nodiscard]] run_result judge(const run_item &run, const run_evidence &evidence);

}  // namespace lab
