// sprom_tool.h: the `sprom` program in a directory of its own, and images to feed it.
#pragma once

#include "platform/mfgd/uspace/utils/sprom/sprom.h"
#include "tests/support/run.h"
#include "tests/support/sprom_image.h"

// An image with other bytes at an offset, its checksums right.
inline bytes patched(const bytes &old, uint32_t type, size_t offset, const bytes &patch) {
  bytes image = overlaid(old, offset, patch);
  seal_image(&image, type);
  return image;
}

inline bytes with_byte(bytes image, size_t offset, uint8_t byte) {
  image.at(offset) = byte;
  return image;
}

// A whole EEPROM with these at the places where the boards have images.
inline bytes eeprom_with(const bytes &supervisor, const bytes &backplane = {}) {
  return overlaid(overlaid(bytes(0x10000, 0xFF), 0, supervisor), 0x1000, backplane);
}

class sprom_tool : public in_directory {
 protected:
  // Old images are kept in the directory .old, which is made for it.
  sprom_tool() : in_directory("mkdir -p .old; export SPROM_BACKUP_DIR=.old BOARD_SIM_TSC_KHZ=1000000\n") {}

  void save(const std::string &name, const bytes &data) const { in_directory::save(name, {data.begin(), data.end()}); }
  [[nodiscard]] bytes load(const std::string &name) const {
    const std::string text = in_directory::load(name);
    return {text.begin(), text.end()};
  }
};
