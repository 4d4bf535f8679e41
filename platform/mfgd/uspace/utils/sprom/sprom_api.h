// sprom_api.h: SPROMs by board family, slot and index, and single fields read straight from a SPROM.
#pragma once

#include "platform/mfgd/uspace/utils/sprom/sprom.h"

extern "C" {
// The descriptor at an SPROM address of a family, or null if there is none.
//   platform  SPROM_PLATFORM_*
//   slot      0 the chassis, 1 the supervisor's own slot, higher ones the module slots
//   index     of the SPROM within the slot
[[nodiscard]] sprom_t *sprom_init(uint32_t platform, uint32_t slot, uint32_t index);

// Finds out to which family the board belongs, by the families' probes in turn; see their headers for what they read
// and print. Any failure of one probe is followed by the next.
// Returns  SPROM_PLATFORM_*
//          -EINVAL  none; " platform undefined" is printed, without a line end
[[nodiscard]] int32_t sprom_get_platform(void);

// Store the address of a family's supervisor, backplane or chassis SPROM in *slot and *index.
// Return  0        stored
//         -EINVAL  no such family; outputs untouched
[[nodiscard]] int32_t sprom_get_slot_sup(uint32_t platform, uint32_t *slot, uint32_t *index);
[[nodiscard]] int32_t sprom_get_slot_bp(uint32_t platform, uint32_t *slot, uint32_t *index);
[[nodiscard]] int32_t sprom_get_slot_chassis(uint32_t platform, uint32_t *slot, uint32_t *index);

// Read one field from the device, each time again: the descriptor's cache is neither used nor filled, the image not
// verified. Null arguments and an access record without a read operation are asserted.
//   pid, sn       20 bytes, without terminator, with the SPROM's fill bytes
//   hw_change     hardware change bits
//   card_index    the card's model
// Return  >= 0     read; the device's result
//         -EINVAL  the kind has no such field: pid, sn and hw_change belong to supervisor, backplane and line card,
//                  card_index to supervisor and line card. Nothing read, output untouched
//         <  0     the device's result, the output is not valid
[[nodiscard]] int32_t sprom_get_pid(const sprom_t *sprom, char *pid);
[[nodiscard]] int32_t sprom_get_sn(const sprom_t *sprom, char *sn);
[[nodiscard]] int32_t sprom_get_hw_change(const sprom_t *sprom, uint64_t *hw_change);
[[nodiscard]] int32_t sprom_get_card_index(const sprom_t *sprom, uint16_t *card_index);
}
