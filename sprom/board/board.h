// board.h: the board families and their SPROMs.
#pragma once

#include <stdint.h>

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/mfgd/uspace/utils/sprom/sprom_family.h"
#include "sprom/image/plan.h"

namespace tool {

struct family_t;

// One SPROM of a family.
struct entry_t {
  const family_t *family;
  sprom_t *sprom;
  // Without a slot the SPROM is reached only by name; with a slot but no index it answers to every index.
  std::optional<uint32_t> slot;
  std::optional<uint32_t> index;

  const smb_dev_t &dev() const { return *sprom->smb_acc->dev; }
};

// Finds a family by name; null if there is none.
const family_t *family_by_name(std::string_view name);

// Ask the board for its family: the SPROM kernel driver, which knows the dorvan cards, or the straps and the
// supervisor's SPROM, whose EEPROM is `probed_device`.
//   report  what the library had to say of a bad supervisor image
// Return null if the board is of no family that is known to it.
const family_t *family_of_driver();
const family_t *family_of_probe(std::string &report);
const smb_dev_t &probed_device();

const char *family_name(const family_t &family);
// The names of all families, with `separator` between them.
std::string family_names(std::string_view separator);

// All SPROMs of a family in the order of slots; those without one come last.
std::vector<entry_t> family_sproms(const family_t &family);

// Finds a SPROM by "SLOT,INDEX" or by name, whose case and blanks do not matter.
std::optional<entry_t> find_sprom(const family_t &family, std::string_view name);

// Whether any family could mean a SPROM by this word.
[[nodiscard]] bool is_sprom_name(std::string_view name);

// The SPROM of a unit in a fixture, which belongs to no family; there is one at a time. Its write protection, if any,
// is not known.
//   bus   I2C bus number, up to highest_bus
//   addr  7-bit I2C address
entry_t unit_entry(uint32_t bus, uint32_t addr, const kind_t &kind);
[[nodiscard]] bool is_unit(const entry_t &entry);
inline constexpr uint32_t highest_bus = 0xFFFFF;  // minor numbers of devices have 20 bits

// The images that belong in the SPROM's EEPROM, at their places there; a unit's may be without the others.
std::vector<image_place_t> chip_images(const entry_t &entry);

// How the SPROM's write protection is wired.
sprom_wiring_t wiring_of(const entry_t &entry);

// For messages: "/dev/i2c-6:0x53", "slot 0, index 2", and with both "PS2 (slot 0, index 2, /dev/i2c-6:0x53)".
std::string device_text(const char *path, uint32_t addr);
std::string device_text(const smb_dev_t &dev);
std::string place_text(const entry_t &entry);
std::string label_of(const entry_t &entry);

// Why a service that knows only identities cannot be used for a SPROM.
enum class hazard {
  none,
  one_byte,  // its EEPROM takes one address byte, so that setting an address would write to it
  shared,    // another device of the board has the same identity
};

// The hazard of asking the SPROM's EEPROM, of asking the expander that holds its protect pin, and of writing it, which
// does both.
//   others  with hazard::shared: the names of what else may be meant
hazard reading_hazard(const entry_t &entry, std::string &others);
hazard expander_hazard(const entry_t &entry, std::string &others);
hazard writing_hazard(const entry_t &entry, std::string &others);

}  // namespace tool
