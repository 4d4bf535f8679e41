// files.h: the state directory's files.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

namespace sim {

// All return false or nothing with errno set when the file system refuses.

// Makes the directory and what is missing above it.
bool make_directories(const std::string &path);

// Removes a directory with all that is in it.
bool remove_tree(const std::string &path);

// Puts a file in place whole or not at all.
bool write_file(const std::string &path, std::string_view contents);

std::optional<std::string> read_file(const std::string &path);

// The directory of the program or library that holds this code, without a trailing slash.
std::string own_directory();

// Contents of a device that outlive the run: a file mapped into memory.
class backing_file {
 public:
  backing_file() = default;
  backing_file(const backing_file &) = delete;
  backing_file &operator=(const backing_file &) = delete;
  ~backing_file();

  // Maps the file; one that does not exist is made from `initial` first. A file of another size is refused with
  // EFBIG.
  bool open(const std::string &path, std::span<const uint8_t> initial);
  [[nodiscard]] std::span<uint8_t> bytes() const { return m_bytes; }

 private:
  std::span<uint8_t> m_bytes;
};

}  // namespace sim
