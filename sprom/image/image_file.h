// image_file.h: image files: one image, or the dump of a whole EEPROM with the images in it.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "sprom/image/image.h"
#include "sprom/image/plan.h"

namespace tool {

struct image_file_t {
  std::vector<uint8_t> content;
  std::vector<image_place_t> images;  // one at least

  image_t image(const image_place_t &place) const {
    const auto start = content.begin() + static_cast<std::ptrdiff_t>(place.base);
    return {start, start + static_cast<std::ptrdiff_t>(place.kind->size)};
  }
  // Why the kind of what is at an offset is unknown.
  std::string unknown_text(size_t base) const;
};

// Erased, or never filled.
[[nodiscard]] bool is_blank(std::span<const uint8_t> bytes);

// Loads a file and finds its images. In the dump of an EEPROM, all that is not blank where the boards have images is
// one; its kind follows from the signature of its main block.
//   wanted  the kind to look for, or null for any. Where no main block has its signature, but something of unknown kind
//           is in its place, this is taken for it.
// Returns nothing after a message: the file cannot be read, or is of no size that fits, or has no such image.
std::optional<image_file_t> load_image_file(const std::string &path, const kind_t *wanted);

}  // namespace tool
