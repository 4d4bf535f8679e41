// sprom_image.h: valid contents for the board's identity EEPROMs, in device byte order.
#pragma once

#include <cstdint>
#include <string_view>
#include <vector>

#include "platform/mfgd/uspace/utils/sprom/sprom_layout.h"

namespace sim {

// The block of an image kind (SPROM_TYPE_*) whose label ends in this word, or null. DIMMs have none.
const sprom_block_t *image_block_of(uint32_t kind, std::string_view word);

// The data of a unit in its image.
struct identity {
  std::string_view product;  // at most 20 characters
  std::string_view serial;   // at most 20 characters
  uint64_t change_bits = 0;
  uint16_t card = 0;
};

// Builds an image of a kind with correct signatures, lengths and checksums.
std::vector<uint8_t> make_image(uint32_t kind, const identity &id);

}  // namespace sim
