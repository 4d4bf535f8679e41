// sprom_tool.h: runs the `sprom` program in a directory of its own, on image files or on an I2C service's double.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "platform/mfgd/uspace/utils/sprom/sprom.h"
#include "tests/unit/process.h"
#include "tests/unit/sprom_image.h"

using bytes = std::vector<uint8_t>;

struct tool_kind {
  uint32_t type;
  const char *name;
  const char *title;
  std::vector<uint8_t> versions;  // of the blocks
};
inline const std::vector<tool_kind> tool_kinds{
    {SPROM_TYPE_SUP, "sup", "supervisor", {3, 2, 1}}, {SPROM_TYPE_BP, "bp", "backplane", {3, 3, 1, 1}},
    {SPROM_TYPE_LC, "lc", "line card", {3, 2}},       {SPROM_TYPE_PS, "ps", "power supply", {3, 2}},
    {SPROM_TYPE_FAN, "fan", "fan", {3, 3}},
};

// The valid image of a kind whose fields are zero.
inline bytes zero_image(const tool_kind &kind) {
  const test_block &last = test_blocks.at(kind.type).back();
  bytes image(last.offset + last.length);
  for (size_t i = 0; i < kind.versions.size(); ++i) {
    const test_block &block = test_blocks.at(kind.type)[i];
    image[block.offset] = static_cast<uint8_t>(block.signature >> 8);
    image[block.offset + 1] = static_cast<uint8_t>(block.signature);
    image[block.offset + 2] = kind.versions[i];
    image[block.offset + 3] = static_cast<uint8_t>(block.length);
  }
  seal_image(&image, kind.type);
  return image;
}

// An image with other bytes at an offset, its checksums right.
inline bytes patched(bytes image, uint32_t type, size_t offset, const bytes &patch) {
  std::copy(patch.begin(), patch.end(), image.begin() + static_cast<std::ptrdiff_t>(offset));
  seal_image(&image, type);
  return image;
}

inline bytes with_byte(bytes image, size_t offset, uint8_t byte) {
  image.at(offset) = byte;
  return image;
}

// The 16-bit number at an offset as the program shows it.
inline std::string hex16(const bytes &image, size_t offset) {
  char text[7];
  (void)snprintf(text, sizeof text, "0x%02x%02x", image.at(offset), image.at(offset + 1));
  return text;
}

inline void save(const std::string &path, const bytes &data) {
  std::ofstream file{path, std::ios::binary};
  file.write(reinterpret_cast<const char *>(data.data()), static_cast<std::streamsize>(data.size()));
  ASSERT_TRUE(file.flush().good()) << path;
}

inline bytes load(const std::string &path) {
  std::ifstream file{path, std::ios::binary};
  return {std::istreambuf_iterator<char>{file}, {}};
}

class sprom_tool : public testing::Test {
 protected:
  void SetUp() override {
    std::string name = std::filesystem::temp_directory_path() / "sprom-tool-XXXXXX";
    ASSERT_NE(mkdtemp(name.data()), nullptr);
    m_dir = name;
  }
  void TearDown() override { std::filesystem::remove_all(m_dir); }

  std::string path(const std::string &name) const { return m_dir + "/" + name; }

  // What stands before the program's path, such as a program that runs it on a simulated board.
  std::vector<std::string> prefix;
  // What a run is given beside its arguments.
  process surroundings;

  process_result tool(const std::vector<std::string> &args) const {
    process what = surroundings;
    what.args = prefix;
    what.args.push_back(POST_BIN_DIR "/sprom");
    what.args.insert(what.args.end(), args.begin(), args.end());
    return run(what);
  }

  std::vector<std::string> files() const {
    std::vector<std::string> names;
    for (const auto &entry : std::filesystem::directory_iterator{m_dir})
      names.push_back(entry.path().filename());
    std::sort(names.begin(), names.end());
    return names;
  }

 private:
  std::string m_dir;
};
