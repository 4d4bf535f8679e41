// files.h: the state directory's files.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>

namespace sim {

// Those without an error text return false or nothing with errno set when the file system refuses.

// Makes the directory and what is missing above it.
bool make_directories(const std::string &path);

// Removes a directory with all that is in it.
bool remove_tree(const std::string &path);

// Puts a file in place whole or not at all.
bool write_file(const std::string &path, std::string_view contents);

std::optional<std::string> read_file(const std::string &path);

[[nodiscard]] bool file_exists(const std::string &path);

// "PATH: what errno says".
std::string os_error(const std::string &path);

// The directory of the program or library that holds this code, without a trailing slash.
std::string own_directory();

// Contents of a device that outlive the run: a file mapped into memory.
class backing_file {
 public:
  using piece_source = std::function<std::span<const uint8_t>()>;

  backing_file() = default;
  backing_file(const backing_file &) = delete;
  backing_file &operator=(const backing_file &) = delete;
  ~backing_file();

  // Maps the file of `size` bytes. One that does not exist is made first, whole or not at all, of as many pieces from
  // `next` as it takes. Returns false and says why in *error; a file of another size is refused.
  bool open(const std::string &path, size_t size, const piece_source &next, std::string *error);
  void close();
  [[nodiscard]] bool is_open() const { return !m_bytes.empty(); }
  [[nodiscard]] std::span<uint8_t> bytes() const { return m_bytes; }

  // Maps a part once more, as mmap() does with these arguments.
  void *map(void *addr, size_t length, int prot, int flags, uint64_t offset) const;

 private:
  // Behind a pointer: an empty string is no constant initialiser for every compiler.
  std::unique_ptr<const std::string> m_path;
  std::span<uint8_t> m_bytes;
};

}  // namespace sim
