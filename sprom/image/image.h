// image.h: SPROM images as they are on the chip, numbers big-endian.
#pragma once

#include <stdint.h>

#include <span>
#include <string>
#include <vector>

#include "sprom/image/fields.h"

namespace tool {

using image_t = std::vector<uint8_t>;

struct verdict_t {
  bool is_good;
  std::string lines;  // the library's lines
};

// Checks a whole image of its kind's size.
verdict_t verify_image(const kind_t &kind, std::span<const uint8_t> image);

// Checks one block of such an image.
verdict_t verify_block(const kind_t &kind, const sprom_block_t &block, std::span<const uint8_t> image);

// A valid image whose fields are zero.
image_t new_image(const kind_t &kind);

// Puts the checksum that fits a block's bytes into its header.
void update_checksum(const sprom_block_t &block, std::span<uint8_t> image);

// The fields in which two images differ. Both have the kind's size.
std::vector<const field_t *> changed_fields(const kind_t &kind, std::span<const uint8_t> from,
                                            std::span<const uint8_t> to);

// The same, one line a field.
std::vector<std::string> changes(const kind_t &kind, std::span<const uint8_t> from, std::span<const uint8_t> to);

// The same byte by byte below each field's line: "  0x0036: 41 -> 42".
std::vector<std::string> byte_changes(const kind_t &kind, std::span<const uint8_t> from, std::span<const uint8_t> to);

// How many bytes differ, and where the first one is.
struct difference_t {
  size_t count;
  size_t first;
};
difference_t difference(std::span<const uint8_t> from, std::span<const uint8_t> to);

}  // namespace tool
