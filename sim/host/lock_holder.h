// lock_holder.h: other processes that hold the board's locks for a while.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

#include "sim/board/options.h"

namespace sim {

// Starts a process for each "lock-held" fault and waits until each has its lock. They end by themselves; whoever
// starts them may end them sooner, and reaps them. Returns nothing and says why in *error on failure.
std::optional<std::vector<pid_t>> lock_holders_start(const options &opts, std::string *error);

}  // namespace sim
