// journal.h: what an interrupted campaign needs to go on: its plan and the runs that are done, in its work directory.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>

#include "lab/campaign/matrix.h"
#include "lab/campaign/shards.h"
#include "lab/campaign/space.h"

namespace lab {

struct campaign_plan {
  fault_space space;
  uint32_t repeats = 1;
  uint64_t limit_ms = 0;  // of processor time
  uint64_t wall_limit_ms = 0;
  std::string board_sim;  // programs, absolute
  std::string program;
  std::optional<shard_number> shard;  // of the runs, those of this one are to be run
  bool locate = false;
  std::string fault_list;  // as the board printed it when the plan was made
};

// Writes the plan. Returns "" or what went wrong.
[[nodiscard]] std::string write_plan(const std::string &work, const campaign_plan &plan);
// On failure returns nothing and says why in *error.
[[nodiscard]] std::optional<campaign_plan> read_plan(const std::string &work, std::string *error);

// Adds a run that is done, so that it outlives this process.
[[nodiscard]] std::string add_run(const std::string &work, size_t index, const run_result &run);
// The runs that are done, by index. What was cut off while it was written is left out.
[[nodiscard]] std::map<size_t, run_result> read_runs(const std::string &work);

}  // namespace lab
