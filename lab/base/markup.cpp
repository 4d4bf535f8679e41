#include "lab/base/markup.h"

namespace lab {
namespace {

// As in an attribute or between tags. What XML does not allow at all becomes \xNN.
std::string escaped(std::string_view text) {
  constexpr char digits[] = "0123456789abcdef";
  std::string out;
  out.reserve(text.size());
  for (size_t i = 0; i < text.size(); ++i) {
    const auto byte = static_cast<unsigned char>(text[i]);
    const bool is_no_character =
        text.substr(i).starts_with("\xEF\xBF\xBE") || text.substr(i).starts_with("\xEF\xBF\xBF");
    switch (text[i]) {
      // clang-format off
      case '&':  out += "&amp;";  break;
      case '<':  out += "&lt;";   break;
      case '>':  out += "&gt;";   break;
      case '"':  out += "&quot;"; break;
      case '\t': out += "&#9;";   break;
      case '\n': out += '\n';     break;
        // clang-format on
      default:
        if (byte < 0x20 || byte == 0x7F || is_no_character)
          out += {'\\', 'x', digits[byte >> 4], digits[byte & 0xF]};
        else
          out += text[i];
    }
    if (!is_no_character) continue;
    out += text[i + 2] == '\xBE' ? "\\xbf\\xbe" : "\\xbf\\xbf";
    i += 2;
  }
  return out;
}

}  // namespace

markup::markup(std::string_view text) : m_html(escaped(text)) {}

markup markup::raw(std::string_view html) {
  markup made;
  made.m_html = html;
  return made;
}

markup element(std::string_view name, const markup_attributes &attributes, const markup &content) {
  const std::string tag(name);
  auto html = markup::raw("<" + tag);
  for (const auto &attribute : attributes)
    html += markup::raw(" " + std::string(attribute.name) + "=\"") + attribute.value + markup::raw("\"");
  return html + markup::raw(">") + content + markup::raw("</" + tag + ">");
}

markup element(std::string_view name, const markup &content) {
  return element(name, {}, content);
}

}  // namespace lab
