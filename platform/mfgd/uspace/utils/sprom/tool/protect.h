// protect.h: the command that shows the SPROMs' write protection and switches it on.
#pragma once

#include "platform/mfgd/uspace/utils/sprom/tool/options.h"
#include "platform/mfgd/uspace/utils/sprom/tool/output.h"

namespace tool {

exit_code run_protect(const options_t &options);

}  // namespace tool
