// sprom_family.h: what the board families have in common; for the family sources of this directory and the tool.
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

// How a SPROM's write protection is wired.
struct sprom_wiring_t {
  enum { NONE, PORT, PIN } by;  // PORT: bit 27 of I/O port 0x50C
  const smb_acc_t *expander;    // of PIN
  uint16_t pin;                 // of PIN, as its bit in the register pair
};

extern "C" {
// The wiring of a family's SPROM.
[[nodiscard]] sprom_wiring_t sprom_wiring_pellin(const sprom_t *sprom);
[[nodiscard]] sprom_wiring_t sprom_wiring_tosk(const sprom_t *sprom);

// The pin, as in sprom_wiring_t, that protects the mezzanine's SPROM on a pellin board with these hardware change bits.
[[nodiscard]] uint16_t sprom_mezz_pin_pellin(uint64_t change_bits);

// Looks at the port, or at the level that the pin itself has, whatever was last written there. Returns
// 1, 0  protected or not
// < 0   the expander's negative result, or a negative errno value where the I/O privilege level stays refused
// The wiring must not be NONE.
[[nodiscard]] int32_t sprom_is_protected(const sprom_wiring_t *wiring);
}

// Write protection by I/O port: clears or sets the protect bit. Does nothing if the I/O privilege level stays refused.
void sprom_port_protect(bool on);

// Write protection by expander pins: off drives the pins in `mask` low and makes them outputs before if they are
// inputs, on drives them high. Return the last result of the access record's operations, or the first negative one.
int32_t sprom_pin_protect_off(const smb_acc_t &acc, uint16_t mask);
int32_t sprom_pin_protect_on(const smb_acc_t &acc, uint16_t mask);
