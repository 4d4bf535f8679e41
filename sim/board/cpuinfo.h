// cpuinfo.h: /proc/cpuinfo of the board, with the rate at which the time-stamp counter really runs, or with one that
// makes waits short.
#pragma once

#include <cstdint>
#include <string>

#include "sim/base/options.h"

namespace sim {

// The time-stamp counter's rate in kHz, measured against the monotonic clock. Takes about 2 ms.
uint64_t tsc_khz();

// The file's contents, faults included.
//   khz  the true rate
std::string cpuinfo(const options &opts, uint64_t khz);

}  // namespace sim
