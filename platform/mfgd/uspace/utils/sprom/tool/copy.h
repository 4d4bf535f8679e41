// copy.h: the commands that copy images to files and compare them.
#pragma once

#include "platform/mfgd/uspace/utils/sprom/tool/options.h"
#include "platform/mfgd/uspace/utils/sprom/tool/output.h"

namespace tool {

exit_code run_dump(const options_t &options);

// Status 0 if both are alike, 1 if they differ, 2 if that cannot be told.
exit_code run_diff(const options_t &options);

}  // namespace tool
