// fault_list.h: the faults of the simulated board, as board-sim --list-faults prints them, and faults as texts.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace lab {

struct fault_parameter {
  std::string key;
  std::vector<std::string> words;  // the values of a parameter that takes words, in their order
  uint64_t low = 0;                // range of one that takes numbers
  uint64_t high = 0;
  bool optional = false;
  std::string otherwise;  // its value if it is left out, "" for none

  [[nodiscard]] bool is_number() const { return words.empty(); }
};

struct fault_kind {
  std::string name;
  std::vector<fault_parameter> parameters;
  std::string what;

  // The parameter of that key, or null.
  [[nodiscard]] const fault_parameter *find(std::string_view key) const;
};

struct fault_list {
  std::vector<fault_kind> kinds;

  // The kind of that name, or null.
  [[nodiscard]] const fault_kind *find(std::string_view name) const;
};

// Parses the list: a line "NAME PARAMETER..." and below it, four blanks in, what the fault does. A parameter is
// key=LOW..HIGH or key=word|word, in brackets if it may be left out, then with ":DEFAULT" if it has one.
// On failure returns nothing and names the line in *error.
[[nodiscard]] std::optional<fault_list> parse_fault_list(std::string_view text, std::string *error);

// One fault: "NAME key=value ...".
struct fault_text {
  std::string name;
  std::vector<std::pair<std::string, std::string>> values;

  // The value as it stands, or nothing.
  [[nodiscard]] std::optional<std::string_view> find(std::string_view key) const;
  // The value as a number; `otherwise` if it is left out or is none.
  [[nodiscard]] uint64_t number(std::string_view key, uint64_t otherwise = 0) const;
};

[[nodiscard]] fault_text parse_fault_text(std::string_view text);

// A whole number in C notation: decimal, hexadecimal after 0x, octal after 0.
[[nodiscard]] std::optional<uint64_t> parse_c_number(std::string_view text);

// The words of a text that blanks and tabs separate.
[[nodiscard]] std::vector<std::string_view> words_of(std::string_view text);

// The pieces between separators, empty ones included.
[[nodiscard]] std::vector<std::string_view> pieces_of(std::string_view text, char separator);

}  // namespace lab
