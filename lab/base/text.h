// text.h: lines of files that anything may have written to.
#pragma once

#include <charconv>
#include <cstddef>
#include <cstdint>
#include <fstream>
#include <functional>
#include <istream>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace lab {

// A line as it may be printed anywhere: bytes that are neither printable ASCII nor a tab appear as \xNN.
[[nodiscard]] std::string printable(std::string_view text);

// The text with each "{name:form}" replaced by what `value` gives for the name and its form, "" without one.
using field_value = std::function<std::string(std::string_view name, std::string_view form)>;
[[nodiscard]] std::string fill_fields(std::string_view text, const field_value &value);

// "35.3 %" of a rate from 0 to 1.
[[nodiscard]] std::string percent(double rate);
// "12 of 34 (35.3 %)", "none" of 0.
[[nodiscard]] std::string share(size_t count, size_t of);
// "1 line", "2 lines"
[[nodiscard]] std::string counted(size_t count, std::string_view what);
// "0x0012": hexadecimal, with at least so many digits.
[[nodiscard]] std::string hex(uint64_t value, int digits = 0);

// The cells in columns two blanks apart, without blanks at line ends.
//   width  that lines are cut to, 0 for no limit
[[nodiscard]] std::string columns(const std::vector<std::vector<std::string>> &lines, size_t width = 0);

// A Markdown page whose lines are folded at blanks outside of code, to 120 columns where that is possible. A
// list item goes on below its text; tables stay as they are.
[[nodiscard]] std::string fold_page(std::string_view page);

// Collects lines from pieces of a text. What a line has beyond the limit is counted, not kept.
class line_splitter {
 public:
  static constexpr size_t limit = 4096;  // bytes of a line

  // One line without its end, which is "\n" or "\r\n".
  struct line {
    size_t number;          // from 1
    std::string_view text;  // valid during the call only
    size_t cut;             // bytes beyond the limit
    bool ended;             // false: the text stopped within the line
  };
  using line_sink = std::function<void(const line &)>;

  explicit line_splitter(line_sink sink) : m_sink(std::move(sink)) {}

  // The next piece of the text.
  void feed(std::string_view piece);
  // The end of the text: hands out a last line without an end.
  void finish();

  [[nodiscard]] size_t lines() const { return m_lines; }

 private:
  void keep(std::string_view piece);
  void hand_out(bool ended);

  line_sink m_sink;
  std::string m_line;
  size_t m_cut = 0;
  size_t m_lines = 0;
};

// Hands out the lines of a text, or of a stream. Returns how many there are.
size_t each_line(std::string_view text, const line_splitter::line_sink &sink);
size_t each_line(std::istream &in, const line_splitter::line_sink &sink);

// A stream of a file that can be read, or what keeps it from that in *error, with errno set.
[[nodiscard]] std::ifstream open_file(const std::string &path, std::string *error);

// A number for texts in this order: FNV-1a, Fowler, Noll and Vo.
class text_hash {
 public:
  void add(std::string_view bytes);
  // 16 digits.
  [[nodiscard]] std::string text() const;

 private:
  void add(uint64_t number) { m_hash = (m_hash ^ number) * 0x100000001B3; }

  uint64_t m_hash = 0xCBF29CE484222325;
};

// Takes a literal off the front. Returns whether it was there.
bool take(std::string_view *text, std::string_view literal);

// Takes an integer of the type's range off the front; "-" belongs to it, "+" and blanks do not.
template <typename Number>
[[nodiscard]] std::optional<Number> take_number(std::string_view *text, int base = 10) {
  Number number{};
  const auto [end, error] = std::from_chars(text->data(), text->data() + text->size(), number, base);
  if (error != std::errc{}) return std::nullopt;
  text->remove_prefix(static_cast<size_t>(end - text->data()));
  return number;
}

}  // namespace lab
