// sprom_dorvan.h: the SPROMs of the dorvan boards.
//
// The supervisor and the backplane image share one AT24C512; the backplane's starts at EEPROM offset 0x1000.
#pragma once

#include "platform/mfgd/uspace/utils/sprom/sprom.h"

extern "C" {
extern const smb_dev_t dorvan_sup_dev;
extern const smb_dev_t dorvan_bp_dev;

extern sprom_t dorvan_sprom_sup;
extern sprom_t dorvan_sprom_bp;

// Write-protect hooks. These boards need none: both do nothing and return 0.
int32_t velto_dorvan_sprom_we(void);
int32_t velto_dorvan_sprom_wd(void);

// Finds a SPROM of the dorvan boards.
//   platform_type  not looked at; all cards of the family share the descriptors
//   slot, index    1, 1 is the supervisor's SPROM, 0, 0 the backplane's
// Returns the descriptor, or null for every other pair.
[[nodiscard]] sprom_t *sprom_init_dorvan(uint32_t platform_type, uint32_t slot, uint32_t index);
}
