// lock_holder.h: other processes that hold the board's locks until the program has waited for them.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

#include "sim/base/options.h"

namespace sim {

// Starts a process for each "lock-held" fault and waits until each has its lock. They end by themselves some time
// after the first request for the lock, which they see by the fault's count; their parent may end them sooner,
// and reaps them. Returns nothing and says why in *error on failure.
std::optional<std::vector<pid_t>> lock_holders_start(const options &opts, std::string *error);

// The program is about to call fcntl() with these arguments: counts the faults whose processes make it wait.
void lock_asked(const options &opts, int fd, int cmd, const void *arg);

}  // namespace sim
