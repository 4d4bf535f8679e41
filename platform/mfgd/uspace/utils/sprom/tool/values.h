// values.h: the values that a command line gives to an image's fields.
#pragma once

#include "platform/mfgd/uspace/utils/sprom/tool/image.h"
#include "platform/mfgd/uspace/utils/sprom/tool/options.h"
#include "platform/mfgd/uspace/utils/sprom/tool/output.h"

namespace tool {

// Puts the fields of --from, then those of --FIELD=VALUE into an image, and renews the checksums of the blocks that
// changed. A JSON text has what `show --json` prints, or its kind and some of its blocks and fields: checksums in it
// count for nothing, and what belongs to the format must be as the format has it.
// Returns EXIT_OK, or another status after a message; the image is then not to be used.
exit_code set_fields(const options_t &options, const kind_t &kind, image_t &image);

}  // namespace tool
