// sprom_verify.h: block checks of SPROM images.
#pragma once

#include "platform/mfgd/uspace/utils/sprom/sprom.h"

extern "C" {
[[nodiscard]] int32_t sprom_verify(const sprom_t *sprom, const void *image);
uint32_t diag_sprom_compute_xsum(const void *block, uint32_t length);
}
