// change.h: the commands that write SPROMs and image files.
#pragma once

#include "sprom/base/options.h"
#include "sprom/base/output.h"

namespace tool {

// Without --no-backup they keep a copy of the old image; where a SPROM's chip cannot be locked, the old image not
// read or not kept, nothing is written. What was written is read back and compared, and the write protection looked at:
// EXIT_OK means that the SPROM holds the new image and is protected again.
exit_code run_write(const options_t &options);
exit_code run_edit(const options_t &options);
exit_code run_make(const options_t &options);

}  // namespace tool
