// copy.h: the commands that copy images to files and compare them.
#pragma once

#include "sprom/base/options.h"
#include "sprom/base/output.h"

namespace tool {

exit_code run_dump(const options_t &options);

// Status 0 if both are alike, 1 if they differ, 2 if that is not known, 4 if another process has the
// EEPROM.
exit_code run_diff(const options_t &options);

}  // namespace tool
