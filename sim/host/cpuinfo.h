// cpuinfo.h: /proc/cpuinfo of the board, with the rate at which the time-stamp counter really runs.
#pragma once

#include <cstdint>
#include <string>

#include "sim/board/options.h"

namespace sim {

// The time-stamp counter's rate in kHz, measured against the monotonic clock. Takes about 2 ms.
uint64_t tsc_khz();

// The file's contents, faults included.
std::string cpuinfo(const options &opts, uint64_t khz);

}  // namespace sim
