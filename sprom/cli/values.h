// values.h: the values that a command line gives to an image's fields.
#pragma once

#include "sprom/base/options.h"
#include "sprom/base/output.h"
#include "sprom/image/image.h"

namespace tool {

// Puts the fields of --from, then those of --FIELD=VALUE into an image, and renews the checksums of the blocks that
// changed. A JSON text has what `show --json` prints, or its kind and some of its blocks and fields: checksums in it
// count for nothing, and what belongs to the format must be as the format has it. With --force, blocks whose header it
// has get theirs from the format, and a new checksum.
// Returns EXIT_OK, or another status after a message; the image is then not to be used.
exit_code set_fields(const options_t &options, const kind_t &kind, image_t &image);

// Says that a kind of image has no field of this name. Returns EXIT_USAGE.
exit_code complain_no_field(const kind_t &kind, const std::string &name);

}  // namespace tool
