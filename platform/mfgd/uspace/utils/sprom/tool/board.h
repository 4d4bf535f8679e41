// board.h: the board families and their SPROMs.
#pragma once

#include <stdint.h>

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/mfgd/uspace/utils/sprom/sprom_family.h"

namespace tool {

struct family_t;

// One SPROM of a family.
struct entry_t {
  const family_t *family;
  sprom_t *sprom;
  // Without a slot the SPROM is reached by name alone; with a slot but no index it answers to every index.
  std::optional<uint32_t> slot;
  std::optional<uint32_t> index;

  const smb_dev_t &dev() const { return *sprom->smb_acc->dev; }
};

// Finds a family by name; null if there is none.
const family_t *family_by_name(std::string_view name);

// Asks the board for its family: the SPROM kernel driver first, which knows the dorvan cards, then the straps and the
// supervisor's SPROM.
//   report  what the library had to say of a bad supervisor image
// Returns null if the board is of no known family.
const family_t *detect_family(std::string &report);

const char *family_name(const family_t &family);
// The names of all families, with `separator` between them.
std::string family_names(std::string_view separator);

// All SPROMs of a family in the order of slots; those without one come last.
std::vector<entry_t> family_sproms(const family_t &family);

// Finds a SPROM by "SLOT,INDEX" or by name, whose case and blanks do not matter.
std::optional<entry_t> find_sprom(const family_t &family, std::string_view name);

// Whether any family could mean a SPROM by this word.
[[nodiscard]] bool is_sprom_name(std::string_view name);

// How the SPROM's write protection is wired.
sprom_wiring_t wiring_of(const entry_t &entry);

// For messages: "/dev/i2c-6:0x53", "slot 0, index 2", and with both "PS2 (slot 0, index 2, /dev/i2c-6:0x53)".
std::string device_text(const char *path, uint32_t addr);
std::string device_text(const smb_dev_t &dev);
std::string place_text(const entry_t &entry);
std::string label_of(const entry_t &entry);

// Why a service that goes by identities alone is not to be trusted with a SPROM.
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
