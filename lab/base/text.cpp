#include "lab/base/text.h"

#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>

namespace lab {

std::string printable(std::string_view text) {
  constexpr char digits[] = "0123456789abcdef";
  std::string out;
  out.reserve(text.size());
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    if (c == '\t' || (byte >= 0x20 && byte < 0x7F)) {
      out += c;
    } else {
      out += {'\\', 'x', digits[byte >> 4], digits[byte & 0xF]};
    }
  }
  return out;
}

std::string fill_fields(std::string_view text, const field_value &value) {
  std::string filled;
  while (!text.empty()) {
    const auto open = std::min(text.find('{'), text.size());
    filled += text.substr(0, open);
    const auto close = text.find('}', open);
    if (close == std::string_view::npos) break;
    const auto field = text.substr(open + 1, close - open - 1);
    const auto colon = std::min(field.find(':'), field.size());
    filled += value(field.substr(0, colon), field.substr(std::min(colon + 1, field.size())));
    text.remove_prefix(close + 1);
  }
  return filled;
}

std::string percent(double rate) {
  char text[32];
  (void)std::snprintf(text, sizeof text, "%.1f %%", 100 * rate);
  return text;
}

std::string share(size_t count, size_t of) {
  if (of == 0) return "none";
  return std::to_string(count) + " of " + std::to_string(of) + " (" +
         percent(static_cast<double>(count) / static_cast<double>(of)) + ")";
}

std::string counted(size_t count, std::string_view what) {
  return std::to_string(count) + " " + std::string(what) + (count == 1 ? "" : "s");
}

std::string hex(uint64_t value, int digits) {
  char text[32];
  (void)std::snprintf(text, sizeof text, "0x%0*llx", digits, static_cast<unsigned long long>(value));
  return text;
}

namespace {

// Characters of UTF-8, each of which takes one column.
size_t width_of(std::string_view text) {
  return static_cast<size_t>(std::ranges::count_if(text, [](char c) { return (c & 0xC0) != 0x80; }));
}

std::string cut_to(std::string text, size_t width) {
  while (width > 0 && width_of(text) > width)
    text.pop_back();
  return text;
}

// The last blank outside of code from `first` on that leaves at most this many columns before it, else the next one.
size_t place_to_fold(std::string_view line, size_t first, size_t columns) {
  size_t end = line.npos;
  bool code = false;
  for (size_t i = 0; i < line.size(); ++i) {
    code ^= line[i] == '`';
    if (line[i] != ' ' || code || i < first) continue;
    if (end != line.npos && width_of(line.substr(0, i)) > columns) break;
    end = i;
  }
  return end;
}

}  // namespace

std::string columns(const std::vector<std::vector<std::string>> &lines, size_t width) {
  std::vector<size_t> widths;
  for (const auto &line : lines) {
    widths.resize(std::max(widths.size(), line.size()));
    for (size_t i = 0; i < line.size(); ++i)
      widths[i] = std::max(widths[i], width_of(line[i]));
  }
  std::string out;
  for (const auto &line : lines) {
    std::string text;
    for (size_t i = 0; i < line.size(); ++i)
      text += line[i] + std::string(widths[i] - width_of(line[i]) + 2, ' ');
    text.erase(text.find_last_not_of(' ') + 1);
    out += cut_to(std::move(text), width) + "\n";
  }
  return out;
}

std::string fold_page(std::string_view page) {
  constexpr size_t columns = 120;
  std::string folded;
  while (!page.empty()) {
    auto line = page.substr(0, page.find('\n'));
    page.remove_prefix(std::min(page.size(), line.size() + 1));
    const bool is_table = line.starts_with('|');
    const std::string indent(line.starts_with("- ") || line.starts_with("  ") ? 2 : 0, ' ');
    while (!is_table && width_of(line) > columns - indent.size()) {
      const auto end = place_to_fold(line, indent.size(), columns - indent.size());
      if (end == line.npos) break;
      folded.append(line.substr(0, end)).append("\n" + indent);
      line.remove_prefix(end + 1);
    }
    folded.append(line).append("\n");
  }
  return folded;
}

void line_splitter::feed(std::string_view piece) {
  for (size_t end = piece.find('\n'); end != std::string_view::npos; end = piece.find('\n')) {
    keep(piece.substr(0, end));
    hand_out(true);
    piece.remove_prefix(end + 1);
  }
  keep(piece);
}

void line_splitter::finish() {
  if (!m_line.empty()) hand_out(false);
}

void line_splitter::keep(std::string_view piece) {
  const size_t room = std::min(piece.size(), limit - m_line.size());
  m_line += piece.substr(0, room);
  m_cut += piece.size() - room;
}

void line_splitter::hand_out(bool ended) {
  std::string_view text = m_line;
  if (ended && text.ends_with('\r')) text.remove_suffix(1);
  m_sink({++m_lines, text, m_cut, ended});
  m_line.clear();
  m_cut = 0;
}

std::ifstream open_file(const std::string &path, std::string *error) {
  struct stat status {};
  std::ifstream file;
  errno = 0;
  if (stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode)) {
    errno = EISDIR;
  } else {
    file.open(path, std::ios::binary);
  }
  if (!file.is_open()) *error = path + ": " + strerror(errno);
  return file;
}

size_t each_line(std::string_view text, const line_splitter::line_sink &sink) {
  line_splitter lines(sink);
  lines.feed(text);
  lines.finish();
  return lines.lines();
}

size_t each_line(std::istream &in, const line_splitter::line_sink &sink) {
  line_splitter lines(sink);
  std::array<char, 65536> piece;
  while (in.read(piece.data(), piece.size()) || in.gcount() > 0)
    lines.feed({piece.data(), static_cast<size_t>(in.gcount())});
  lines.finish();
  return lines.lines();
}

void text_hash::add(std::string_view bytes) {
  for (const char c : bytes)
    add(static_cast<unsigned char>(c));
  add(bytes.size());
}

std::string text_hash::text() const {
  char digits[24];
  (void)std::snprintf(digits, sizeof digits, "%016llx", static_cast<unsigned long long>(m_hash));
  return digits;
}

bool take(std::string_view *text, std::string_view literal) {
  if (!text->starts_with(literal)) return false;
  text->remove_prefix(literal.size());
  return true;
}

}  // namespace lab
