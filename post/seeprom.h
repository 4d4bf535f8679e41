// seeprom.h: the identity EEPROM images of the supervisor (device 0) and the backplane (device 1).
//
// Detects an EEPROM that does not answer and blocks with a wrong signature, length or checksum.
// Does not detect wrong bytes that leave a checksum, a 16-bit sum, as it is, nor a well-formed image of another unit.
// The supervisor's image is as a rule the copy that was read at start: the EEPROM may have failed since.
#pragma once

#include "post/post_tbl.h"

extern "C" {
// Reads the device's image and verifies its blocks; a PostTestFn.
// Returns 0 when the image is good or there is nothing to test (no card index, unknown card, device 2), 2 when the
// descriptor is of another kind, -12 without memory, the negative read result or the negative verdict.
uint32_t dorvan_brd_seeprom_test(uint32_t reserved, uint32_t *result, uint32_t device, uint32_t *scratch);
}
