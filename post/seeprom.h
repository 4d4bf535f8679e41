// seeprom.h: the identity EEPROM images of the supervisor (device 0) and the backplane (device 1).
#pragma once

#include "post/post_tbl.h"

extern "C" {
// Reads the device's image and verifies its blocks; a PostTestFn.
// Returns 0 when the image is good or there is nothing to test (no card index, unknown card, device 2), 2 when the
// descriptor is of another kind, -12 without memory, the negative read result or the negative verdict.
uint32_t dorvan_brd_seeprom_test(uint32_t reserved, uint32_t *result, uint32_t device, uint32_t *scratch);
}
