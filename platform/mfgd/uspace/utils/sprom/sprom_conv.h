// sprom_conv.h: image layout and byte order.
#pragma once

#include "platform/mfgd/uspace/utils/sprom/sprom.h"

extern "C" {
[[nodiscard]] int32_t sprom_ntoh(const sprom_t *sprom, void *image);
[[nodiscard]] int32_t sprom_hton(const sprom_t *sprom, void *image);
}
