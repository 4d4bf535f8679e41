// image_file.h: image files: one image, or the dump of a whole EEPROM with the images in it.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "platform/mfgd/uspace/utils/sprom/tool/image.h"

namespace tool {

// Where an image stands in a file.
struct image_place_t {
  const kind_t *kind;
  size_t base;
};

struct image_file_t {
  std::vector<uint8_t> content;
  std::vector<image_place_t> images;  // one at least

  image_t image(const image_place_t &place) const {
    const auto start = content.begin() + static_cast<std::ptrdiff_t>(place.base);
    return {start, start + static_cast<std::ptrdiff_t>(place.kind->size)};
  }
};

// Loads a file and finds its images. In the dump of an EEPROM they are looked for where the boards have them, by the
// signature of their main block.
//   wanted  the kind to look for, or null for any
// Returns nothing after a message: the file cannot be read, or is of no size that fits, or has no such image.
std::optional<image_file_t> load_image_file(const std::string &path, const kind_t *wanted);

}  // namespace tool
