// text.h: numbers and words of the command line, and whether progress can be shown beside it.
#pragma once

#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <cstdlib>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace sim {

// Whether standard error is a terminal that can clear a line (ECMA-48, "EL"), to show progress in one.
inline bool can_rewrite_a_line() {
  const char *const terminal = std::getenv("TERM");
  return terminal != nullptr && std::string_view(terminal) != "dumb" && isatty(STDERR_FILENO) != 0;
}

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

// Takes the text up to the first separator off its front; the separator goes, too.
inline std::string_view take_piece(std::string_view *text, std::string_view separators) {
  const auto end = std::min(text->find_first_of(separators), text->size());
  const auto piece = text->substr(0, end);
  text->remove_prefix(std::min(end + 1, text->size()));
  return piece;
}

// The words between blanks, tabs and line ends.
inline std::vector<std::string_view> words_of(std::string_view text) {
  std::vector<std::string_view> words;
  while (!text.empty()) {
    const auto word = take_piece(&text, " \t\r\n");
    if (!word.empty()) words.push_back(word);
  }
  return words;
}

// How many characters one text takes to become the other: each inserted, removed or replaced.
inline size_t edits_between(std::string_view from, std::string_view to) {
  std::vector<size_t> row(to.size() + 1);
  for (size_t i = 0; i < row.size(); ++i)
    row[i] = i;
  for (size_t i = 0; i < from.size(); ++i) {
    size_t diagonal = std::exchange(row[0], i + 1);
    for (size_t j = 0; j < to.size(); ++j) {
      const size_t replaced = diagonal + (from[i] == to[j] ? 0 : 1);
      diagonal = row[j + 1];
      row[j + 1] = std::min({replaced, row[j + 1] + 1, row[j] + 1});
    }
  }
  return row.back();
}

// " (did you mean 'NAME'?)" for the name that the text is most like, "" if it is like none.
inline std::string did_you_mean(std::string_view text, std::span<const std::string_view> names) {
  size_t fewest = std::min<size_t>(3, text.size() / 3) + 1;
  std::string_view nearest;
  for (const auto name : names) {
    const size_t edits = edits_between(text, name);
    if (edits < fewest) nearest = name;
    fewest = std::min(fewest, edits);
  }
  return nearest.empty() ? "" : " (did you mean '" + std::string(nearest) + "'?)";
}

inline std::string quoted(std::string_view text) {
  return "'" + std::string(text) + "'";
}

}  // namespace sim
