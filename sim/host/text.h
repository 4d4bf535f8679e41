// text.h: numbers and words of the command line.
#pragma once

#include <charconv>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace sim {

// A number in C notation: decimal, 0x hexadecimal, 0 octal. Nothing if the text is none or does not fit.
inline std::optional<uint64_t> parse_number(std::string_view text) {
  int base = 10;
  if (text.starts_with("0x") || text.starts_with("0X")) {
    base = 16;
    text.remove_prefix(2);
  } else if (text.size() > 1 && text.starts_with('0')) {
    base = 8;
    text.remove_prefix(1);
  }
  uint64_t value = 0;
  const char *const end = text.data() + text.size();
  const auto [stop, result] = std::from_chars(text.data(), end, value, base);
  if (text.empty() || result != std::errc{} || stop != end) return std::nullopt;
  return value;
}

inline std::string quoted(std::string_view text) {
  return "'" + std::string(text) + "'";
}

}  // namespace sim
