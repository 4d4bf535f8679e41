// board.h: the board families and their SPROMs.
#pragma once

#include <stdint.h>

#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "platform/mfgd/uspace/utils/sprom/sprom.h"

namespace tool {

// One SPROM of a family.
struct entry_t {
  sprom_t *sprom;
  // Without a slot the SPROM is reached by name alone; with a slot but no index it answers to every index.
  std::optional<uint32_t> slot;
  std::optional<uint32_t> index;
};

struct family_t;

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

}  // namespace tool
