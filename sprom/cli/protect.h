// protect.h: the command that shows the SPROMs' write protection and switches it on.
#pragma once

#include "sprom/base/options.h"
#include "sprom/base/output.h"

namespace tool {

exit_code run_protect(const options_t &options);

}  // namespace tool
