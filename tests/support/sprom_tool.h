// sprom_tool.h: the `sprom` program in a directory of its own, and images to feed it.
#pragma once

#include "platform/mfgd/uspace/utils/sprom/sprom.h"
#include "tests/support/run.h"
#include "tests/support/sprom_image.h"

using bytes = std::vector<uint8_t>;

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

// Compares what a run ended with. Each text may be a matcher.
inline void expect_run(const outcome &run, int status, const testing::Matcher<std::string> &out,
                       const testing::Matcher<std::string> &err = "") {
  EXPECT_EQ(run.status, status) << run.out << run.err;
  EXPECT_THAT(run.out, out);
  EXPECT_THAT(run.err, err);
}

class sprom_tool : public testing::Test {
 protected:
  [[nodiscard]] std::filesystem::path path(const std::string &name) const { return m_dir.path() / name; }
  // Old images are kept in the directory .old, which is made for it.
  [[nodiscard]] outcome sh(const std::string &command) const {
    return run_shell(m_dir.path(), "mkdir -p .old; export SPROM_BACKUP_DIR=.old\n" + command);
  }

  void save(const std::string &name, const bytes &data) const {
    std::ofstream file{path(name), std::ios::binary};
    file.write(reinterpret_cast<const char *>(data.data()), static_cast<std::streamsize>(data.size()));
    ASSERT_TRUE(file.flush().good()) << name;
  }
  [[nodiscard]] bytes load(const std::string &name) const {
    const std::string text = read_file(path(name));
    return {text.begin(), text.end()};
  }

 private:
  temp_dir m_dir;
};
