// show.h: the commands that show what SPROMs and image files hold.
#pragma once

#include "sprom/base/options.h"
#include "sprom/base/output.h"

namespace tool {

exit_code run_list(const options_t &options);
exit_code run_show(const options_t &options);
exit_code run_get(const options_t &options);
exit_code run_verify(const options_t &options);
exit_code run_fields(const options_t &options);

}  // namespace tool
