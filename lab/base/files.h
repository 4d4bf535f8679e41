// files.h: files as the campaign needs them. Every path is used as given.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

namespace lab {

// The whole file, or nothing with errno set.
[[nodiscard]] std::optional<std::string> read_whole(const std::string &path);
// Replaces the file as a whole, or leaves it as it was. "-" is standard output. Returns "" or what went wrong.
[[nodiscard]] std::string write_whole(const std::string &path, std::string_view contents);
// "PATH: " and what errno says.
[[nodiscard]] std::string os_error(const std::string &path);

// A file in memory; what is written there is in the file.
class mapped_file {
 public:
  explicit mapped_file(const std::string &path);
  mapped_file(const mapped_file &) = delete;
  mapped_file &operator=(const mapped_file &) = delete;
  ~mapped_file();
  [[nodiscard]] bool is_open() const { return !m_bytes.empty(); }
  [[nodiscard]] std::span<uint8_t> bytes() const { return m_bytes; }

 private:
  std::span<uint8_t> m_bytes;
};

}  // namespace lab
