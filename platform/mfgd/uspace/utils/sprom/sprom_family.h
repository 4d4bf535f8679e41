// sprom_family.h: what the board families have in common; for the family sources of this directory.
#pragma once

#include <span>

#include "platform/mfgd/uspace/utils/sprom/sprom.h"

// How a board of a family is recognised.
struct sprom_family_t {
  uint32_t platform;                  // SPROM_PLATFORM_*, also the number that its straps show
  const smb_dev_t *straps_pca9539;    // board identification straps: pins 7 and 6 of port 0
  const smb_dev_t *straps_pca8575;    // the same where no PCA9539 answers: pins 7 and 6 of port 1
  std::span<const uint16_t> indexes;  // card indexes of its supervisors
};

// The address of a SPROM.
struct sprom_slot_t {
  uint32_t slot;
  uint32_t index;
};

// Stores the address; returns 0.
inline int32_t sprom_slot_answer(const sprom_slot_t &address, uint32_t *slot, uint32_t *index) {
  *slot = address.slot;
  *index = address.index;
  return 0;
}

// Recognises the family's board by the straps, then by the card index in the image of its supervisor descriptor.
// Returns the family's platform code, -EINVAL for another board or a bad image, or a device's negative result.
[[nodiscard]] int32_t sprom_family_probe(const sprom_family_t &family, sprom_t *sup);

// Write protection by I/O port: clears or sets the protect bit. Does nothing if the I/O privilege level stays refused.
void sprom_port_protect(bool on);

// Write protection by expander pins: off drives the pins in `mask` low and makes them outputs before if they are
// inputs, on drives them high. Return the last result of the access record's operations, or the first negative one.
int32_t sprom_pin_protect_off(const smb_acc_t &acc, uint16_t mask);
int32_t sprom_pin_protect_on(const smb_acc_t &acc, uint16_t mask);
