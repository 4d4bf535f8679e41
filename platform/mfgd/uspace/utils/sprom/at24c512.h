// at24c512.h: the serial EEPROM driver (Atmel AT24C512 data sheet).
#pragma once

#include "platform/mfgd/uspace/utils/sprom/sprom.h"

extern "C" {
[[nodiscard]] int32_t at24c512_rd(const smb_dev_t *dev, uint32_t offset, uint32_t length, void *buf);
[[nodiscard]] int32_t at24c512_wr(const smb_dev_t *dev, uint32_t offset, uint32_t length, const void *buf);
}
