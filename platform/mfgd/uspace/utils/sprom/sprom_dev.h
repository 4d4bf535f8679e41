// sprom_dev.h: whole-image access to SPROMs.
#pragma once

#include "platform/mfgd/uspace/utils/sprom/sprom.h"

extern "C" {
[[nodiscard]] int32_t diag_sprom_rd(const sprom_t *sprom, uint32_t offset, uint32_t length, void *buf);
[[nodiscard]] int32_t diag_sprom_wr(const sprom_t *sprom, uint32_t offset, uint32_t length, const void *buf);
[[nodiscard]] int32_t sprom_read(sprom_t *sprom, void *image);
[[nodiscard]] int32_t sprom_write(sprom_t *sprom, void *image);
[[nodiscard]] int32_t sprom_get_size(const sprom_t *sprom);
const char *sprom_get_name(const sprom_t *sprom);
}
