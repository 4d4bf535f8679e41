// needs.h: whether the board has what a fault needs.
#pragma once

#include "sim/base/options.h"

namespace sim {

// One thing that a fault may need, and what is said where it is lacking.
struct need_row {
  fault_need need;
  bool (*is_met)(const options &opts, const fault &f);
  const char *lack;
};

}  // namespace sim
