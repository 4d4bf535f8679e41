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

#include "sim/base/real.h"

namespace sim {

// On failure the functions return false or nothing and say why in *error, which begins with the path.

// A path that does not depend on the current directory.
std::optional<std::string> absolute_path(const std::string &path, std::string *error);

// Makes the directory and what is missing above it.
bool make_directories(const std::string &path, std::string *error);

// Removes a directory with its contents. Anything that cannot be removed stays.
void remove_tree(const std::string &path);

// Writes a file as a whole or not at all.
bool write_file(const std::string &path, std::string_view contents, std::string *error);

// Removes the unfinished files that a killed run left in a state directory.
void remove_unfinished(const std::string &state);

// Everything up to the end; nothing if reading fails.
std::optional<std::string> read_all(const file &from);

// Nothing for a file that cannot be read.
std::optional<std::string> read_file(const std::string &path);

[[nodiscard]] bool file_exists(const std::string &path);

// "PATH: " and the text for errno.
std::string os_error(const std::string &path);

// Ends a program for which there is no board: "board-sim: WHY" on standard error, status 2. May be used in a signal's
// handler that an access to the board raised.
[[noreturn]] void end_run(const std::string &why);

// The directory of the program or library that holds this code, without a trailing slash or links.
std::string own_directory();

// Contents of a device that outlive the run: a file mapped into memory.
class backing_file {
 public:
  using piece_source = std::function<std::span<const uint8_t>()>;

  backing_file() = default;
  backing_file(const backing_file &) = delete;
  backing_file &operator=(const backing_file &) = delete;
  ~backing_file();

  // Maps the file of `size` bytes. If it does not exist, it is first written, as a whole or not at all, from as many
  // pieces of `next` as it takes. Returns false and says why in *error; a file of another size is refused.
  bool open(const std::string &path, size_t size, const piece_source &next, std::string *error);
  void close();
  [[nodiscard]] bool is_open() const { return !m_bytes.empty(); }
  [[nodiscard]] std::span<uint8_t> bytes() const { return m_bytes; }

  // Maps a part once more, as mmap() does with these arguments.
  void *map(void *addr, size_t length, int prot, int flags, uint64_t offset) const;

 private:
  // A pointer, because not every compiler accepts an empty string as a constant initialiser.
  std::unique_ptr<const std::string> m_path;
  std::span<uint8_t> m_bytes;
};

}  // namespace sim
