// sprom_image.h: valid contents for the board's identity EEPROMs, in device byte order.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>
#include <vector>

namespace sim {

enum class image_kind { sup, bp, lc, ps, dimm, fan };

// One block of an image.
struct image_block {
  image_kind kind;
  const char *name;  // as faults name it
  uint16_t offset;   // in the image
  uint16_t length;   // in bytes, 256 at most
  uint16_t signature;
  uint8_t version;
};

// The block of that name, or null. DIMMs have none.
const image_block *image_block_of(image_kind kind, std::string_view name);

// What an image says of its unit.
struct identity {
  std::string_view product;  // at most 20 characters
  std::string_view serial;   // at most 20 characters
  uint64_t change_bits = 0;
  uint16_t card = 0;
};

// Builds an image with correct signatures, lengths and checksums.
std::vector<uint8_t> make_image(image_kind kind, const identity &id);

}  // namespace sim
