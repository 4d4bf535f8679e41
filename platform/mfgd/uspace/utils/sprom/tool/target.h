// target.h: what a command works on, a SPROM of the board or an image file in its place.
#pragma once

#include <stdint.h>

#include <optional>
#include <string>

#include "platform/mfgd/uspace/utils/sprom/tool/board.h"
#include "platform/mfgd/uspace/utils/sprom/tool/image.h"

namespace tool {

struct target_t {
  const kind_t *kind;
  std::string name;              // the SPROM's label, or the file's path
  std::optional<entry_t> entry;  // empty for a file
  image_t loaded;                // of a file: its content when it was found
};

// Loads an image file of any kind and checks its size.
//   wanted  the kind that the file must be of, or null: its size tells
// Returns the kind, or null after a message.
const kind_t *load_image(const std::string &path, const kind_t *wanted, image_t &image);

// Gets what the target holds: a file's content as it was loaded, a SPROM's from the device itself and never from a
// cache. Returns false after a message.
[[nodiscard]] bool read_target(const target_t &target, image_t &image);

// Writes a whole image, then reads it back. A SPROM shows its progress on a terminal; an interrupt stops it between two
// bytes, with the write protection restored.
//   before  what the target held, to tell whether anything has changed
// Returns true if the target was read back and holds the image, and the write protection is restored; false after a
// message that says how far it came.
[[nodiscard]] bool write_target(const target_t &target, const image_t &before, const image_t &image);

}  // namespace tool
