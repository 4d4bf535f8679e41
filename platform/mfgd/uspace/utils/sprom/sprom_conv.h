// sprom_conv.h: byte order of SPROM images.
//
// Numbers are big-endian on the device and little-endian in memory. The conversion exchanges the bytes of each number
// in place and does not change text and byte fields, so that each operation is its own inverse.
#pragma once

#include "platform/mfgd/uspace/utils/sprom/sprom.h"

extern "C" {
// Converts an image that was read from the device to host order.
//   sprom  descriptor; only `type` is read
//   image  at least the image size of the kind; may be null, then nothing is done
// Returns  0        converted
//          -EINVAL  the kind has no layout (0, DIMM, above SPROM_TYPE_FAN); the image is untouched
[[nodiscard]] int32_t sprom_ntoh(const sprom_t *sprom, void *image);

// Converts an image in host order to the device's. Arguments and results as sprom_ntoh.
[[nodiscard]] int32_t sprom_hton(const sprom_t *sprom, void *image);
}
