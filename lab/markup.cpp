#include "lab/markup.h"

#include "lab/text.h"

namespace lab {

std::string element(std::string_view name, std::initializer_list<markup_attribute> attributes,
                    std::string_view content) {
  std::string html = "<" + std::string(name);
  for (const auto &attribute : attributes)
    html += " " + std::string(attribute.name) + "=\"" + escape_markup(attribute.value) + "\"";
  return html + ">" + std::string(content) + "</" + std::string(name) + ">";
}

std::string element(std::string_view name, std::string_view content) {
  return element(name, {}, content);
}

}  // namespace lab
