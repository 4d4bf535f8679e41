// markup.h: elements of HTML and SVG as text.
#pragma once

#include <concepts>
#include <initializer_list>
#include <string>
#include <string_view>

namespace lab {

struct markup_attribute {
  markup_attribute(std::string_view key, std::string_view text) : name(key), value(text) {}
  markup_attribute(std::string_view key, std::integral auto number) : name(key), value(std::to_string(number)) {}

  std::string_view name;
  std::string value;
};

// "<NAME ATTRIBUTES>CONTENT</NAME>". Values are escaped, the content stands as it is.
[[nodiscard]] std::string element(std::string_view name, std::initializer_list<markup_attribute> attributes,
                                  std::string_view content = "");
[[nodiscard]] std::string element(std::string_view name, std::string_view content);

}  // namespace lab
