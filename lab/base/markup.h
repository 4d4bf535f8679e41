// markup.h: pieces of HTML, SVG and XML. A text becomes markup only by being escaped, or by being raw() in the source.
#pragma once

#include <concepts>
#include <string>
#include <string_view>
#include <vector>

namespace lab {

class markup {
 public:
  markup() = default;
  // A text, escaped; control characters appear as \xNN.
  markup(std::string_view text);
  markup(const std::string &text) : markup(std::string_view(text)) {}
  markup(const char *text) : markup(std::string_view(text)) {}
  // What the source itself has written as markup.
  [[nodiscard]] static markup raw(std::string_view html);

  markup &operator+=(const markup &other) {
    m_html += other.m_html;
    return *this;
  }
  friend markup operator+(markup left, const markup &right) { return left += right; }

  [[nodiscard]] bool empty() const { return m_html.empty(); }
  [[nodiscard]] const std::string &str() const { return m_html; }

 private:
  std::string m_html;
};

struct markup_attribute {
  markup_attribute(std::string_view key, std::string_view text) : name(key), value(text) {}
  markup_attribute(std::string_view key, std::integral auto number) : name(key), value(std::to_string(number)) {}

  std::string_view name;
  std::string value;  // a text
};
using markup_attributes = std::vector<markup_attribute>;

// "<NAME ATTRIBUTES>CONTENT</NAME>"
[[nodiscard]] markup element(std::string_view name, const markup_attributes &attributes, const markup &content = {});
[[nodiscard]] markup element(std::string_view name, const markup &content);

}  // namespace lab
