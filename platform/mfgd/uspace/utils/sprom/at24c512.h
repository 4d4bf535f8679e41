// at24c512.h: the serial EEPROM driver (Atmel AT24C512 data sheet).
//
// Byte by byte through the I2C service. The identity of the EEPROM follows only from `path` of the device record;
// `addr` matters only to a service that is told the record's own bus and address. Offsets are taken modulo 65536, the
// size of the device. Nothing is retried; waiting for the EEPROM's write cycle is the service's business.
#pragma once

#include "platform/mfgd/uspace/utils/sprom/sprom.h"

extern "C" {
// Sequential read: one transaction sets the EEPROM's address counter, then each byte is a transaction of its own.
//   length  bytes; with 0 only the address is set
// Returns  >= 0  the last service result
//          <  0  the first negative service result; buf holds the bytes before the failing one
[[nodiscard]] int32_t at24c512_rd(const smb_dev_t *dev, uint32_t offset, uint32_t length, void *buf);

// Byte writes, one transaction each; no page write, no pause.
//   length  bytes; with 0 nothing is done
// Returns  0    all bytes written
//          < 0  the first negative service result; the bytes before the failing one are written
[[nodiscard]] int32_t at24c512_wr(const smb_dev_t *dev, uint32_t offset, uint32_t length, const void *buf);
}
