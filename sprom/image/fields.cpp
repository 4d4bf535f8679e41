#include "sprom/image/fields.h"

#include <stdio.h>
#include <strings.h>

#include <algorithm>
#include <array>
#include <optional>
#include <vector>

namespace tool {
namespace {

// clang-format off
constexpr std::array<kind_t, 6> kinds{{
    // type           name    title           size            base    EEPROM
    {SPROM_TYPE_SUP,  "sup",  "supervisor",   SPROM_SIZE_SUP, 0,      0x10000},
    {SPROM_TYPE_BP,   "bp",   "backplane",    SPROM_SIZE_BP,  0x1000, 0x10000},
    {SPROM_TYPE_LC,   "lc",   "line card",    SPROM_SIZE_LC,  0,      0x10000},
    {SPROM_TYPE_PS,   "ps",   "power supply", SPROM_SIZE_PS,  0,      0x100},
    {SPROM_TYPE_DIMM, "dimm", "DIMM",         0,              0,      0x100},
    {SPROM_TYPE_FAN,  "fan",  "fan",          SPROM_SIZE_FAN, 0,      0x100},
}};
// clang-format on

bool same_word(std::string_view a, std::string_view b) {
  return a.size() == b.size() && strncasecmp(a.data(), b.data(), a.size()) == 0;
}

int hex_digit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

// The byte that two hex digits at the front of `text` denote.
std::optional<uint8_t> hex_pair(std::string_view text) {
  if (text.size() < 2 || hex_digit(text[0]) < 0 || hex_digit(text[1]) < 0) return std::nullopt;
  return static_cast<uint8_t>(hex_digit(text[0]) << 4 | hex_digit(text[1]));
}

std::string parse_number(std::string_view value, std::span<uint8_t> out) {
  const bool hex = value.starts_with("0x") || value.starts_with("0X");
  const uint64_t base = hex ? 16 : 10;
  const std::string_view digits = hex ? value.substr(2) : value;
  const uint64_t max = out.size() == 8 ? UINT64_MAX : (uint64_t{1} << (8 * out.size())) - 1;
  if (digits.empty()) return "is no number";
  uint64_t number = 0;
  for (const char c : digits) {
    const int digit = hex_digit(c);
    if (digit < 0 || static_cast<uint64_t>(digit) >= base) return "is no number";
    if (number > (max - static_cast<uint64_t>(digit)) / base)
      return "does not fit in " + std::to_string(8 * out.size()) + " bits";
    number = number * base + static_cast<uint64_t>(digit);
  }
  for (size_t i = out.size(); i-- > 0; number >>= 8)
    out[i] = static_cast<uint8_t>(number);
  return {};
}

std::string put_text(std::span<const uint8_t> chars, std::span<uint8_t> out) {
  if (chars.size() > out.size()) return "is longer than " + std::to_string(out.size()) + " characters";
  std::ranges::fill(std::ranges::copy(chars, out.begin()).out, out.end(), uint8_t{0});
  return {};
}

std::string parse_text(std::string_view value, std::span<uint8_t> out) {
  std::vector<uint8_t> chars;
  while (!value.empty()) {
    if (value.front() != '\\') {
      chars.push_back(static_cast<uint8_t>(value.front()));
      value.remove_prefix(1);
    } else if (value.starts_with("\\\\")) {
      chars.push_back('\\');
      value.remove_prefix(2);
    } else {
      const auto byte = value.starts_with("\\x") ? hex_pair(value.substr(2)) : std::nullopt;
      if (!byte) return "has a bad escape (\\\\ and \\xNN are known)";
      chars.push_back(*byte);
      value.remove_prefix(4);
    }
  }
  return put_text(chars, out);
}

std::string parse_bytes(std::string_view value, std::span<uint8_t> out) {
  std::vector<uint8_t> parsed;
  while (!value.empty()) {
    if (!parsed.empty() && (value.front() == ' ' || value.front() == ':')) value.remove_prefix(1);
    const auto byte = hex_pair(value);
    if (!byte) return "is no run of hex digit pairs";
    parsed.push_back(*byte);
    value.remove_prefix(2);
  }
  if (parsed.size() != out.size())
    return "has " + std::to_string(parsed.size()) + " bytes, the field " + std::to_string(out.size());
  std::ranges::copy(parsed, out.begin());
  return {};
}

}  // namespace

std::span<const kind_t> all_kinds() {
  return kinds;
}

std::string layout_names() {
  std::string names;
  for (const kind_t &kind : kinds) {
    if (kind.has_layout()) names += (names.empty() ? "" : ", ") + std::string{kind.name};
  }
  return names;
}

const kind_t *kind_by_type(uint32_t type) {
  const auto *kind = std::ranges::find(kinds, type, &kind_t::type);
  return kind == kinds.end() ? nullptr : kind;
}

const kind_t *kind_by_name(std::string_view name) {
  const auto *kind =
      std::ranges::find_if(kinds, [=](const kind_t &k) { return same_word(name, k.name) || same_word(name, k.title); });
  return kind == kinds.end() ? nullptr : kind;
}

const kind_t *kind_by_size(size_t size) {
  if (size == 0) return nullptr;
  const auto *kind = std::ranges::find(kinds, size, &kind_t::size);
  return kind == kinds.end() ? nullptr : kind;
}

const kind_t *kind_by_signature(std::span<const uint8_t> image) {
  for (const kind_t &kind : kinds) {
    if (!kind.has_layout()) continue;
    const sprom_block_t &main = kind.blocks()[1];
    if (image.size() >= main.offset + 2U && number_of(image.subspan(main.offset, 2)) == main.signature) return &kind;
  }
  return nullptr;
}

const field_t *field_by_name(const kind_t &kind, std::string_view name) {
  const auto same = [](char a, char b) { return a == (b == '-' ? '_' : b); };
  const auto fields = kind.fields();
  const auto field =
      std::ranges::find_if(fields, [&](const field_t &f) { return std::ranges::equal(f.name, name, same); });
  return field == fields.end() ? nullptr : &*field;
}

field_source source_of(const kind_t &kind, const field_t &field) {
  for (const sprom_block_t &block : kind.blocks()) {
    switch (static_cast<uint32_t>(field.offset - block.offset)) {
      case SPROM_BLK_SIGNATURE:
      case SPROM_BLK_LENGTH:
        return field_source::format;
      case SPROM_BLK_CHECKSUM:
        return field_source::sum;
      default:
        break;
    }
  }
  return field_source::user;
}

uint64_t number_of(std::span<const uint8_t> bytes) {
  uint64_t number = 0;
  for (const uint8_t byte : bytes)
    number = number << 8 | byte;
  return number;
}

std::string_view trimmed(std::span<const uint8_t> bytes) {
  const auto is_padding = [](uint8_t c) { return c == ' ' || c == 0 || c == 0xFF; };
  while (!bytes.empty() && is_padding(bytes.back()))
    bytes = bytes.first(bytes.size() - 1);
  return {reinterpret_cast<const char *>(bytes.data()), bytes.size()};
}

std::string escaped(std::string_view text) {
  std::string result;
  for (const char c : text) {
    const auto byte = static_cast<uint8_t>(c);
    if (c == '\\') {
      result += "\\\\";
    } else if (byte >= 0x20 && byte < 0x7F) {
      result += c;
    } else {
      std::array<char, 5> escape;
      (void)snprintf(escape.data(), escape.size(), "\\x%02x", byte);  // four characters, always
      result += escape.data();
    }
  }
  return result;
}

std::string hex_bytes(std::span<const uint8_t> bytes, std::string_view separator) {
  constexpr std::string_view digits = "0123456789abcdef";
  std::string result;
  for (const uint8_t byte : bytes) {
    if (!result.empty()) result += separator;
    result += digits[byte >> 4];
    result += digits[byte & 0xF];
  }
  return result;
}

std::string value_of(const field_t &field, std::span<const uint8_t> image) {
  const auto raw = field_bytes(field, image);
  switch (field.type) {
    case SPROM_FIELD_NUMBER:
      return "0x" + hex_bytes(raw, "");
    case SPROM_FIELD_TEXT:
      return escaped(trimmed(raw));
    case SPROM_FIELD_BYTES:
      break;
  }
  return hex_bytes(raw, " ");
}

std::string exact_value_of(const field_t &field, std::span<const uint8_t> image) {
  auto raw = field_bytes(field, image);
  if (field.type == SPROM_FIELD_NUMBER) return "0x" + hex_bytes(raw, "");
  if (field.type == SPROM_FIELD_BYTES) return hex_bytes(raw, "");
  while (!raw.empty() && raw.back() == 0)
    raw = raw.first(raw.size() - 1);
  return {raw.begin(), raw.end()};
}

std::string parse_value(const field_t &field, std::string_view value, std::span<uint8_t> image) {
  const auto out = field_bytes(field, image);
  switch (field.type) {
    case SPROM_FIELD_NUMBER:
      return parse_number(value, out);
    case SPROM_FIELD_TEXT:
      return parse_text(value, out);
    case SPROM_FIELD_BYTES:
      break;
  }
  return parse_bytes(value, out);
}

std::string parse_exact_value(const field_t &field, std::string_view value, std::span<uint8_t> image) {
  if (field.type != SPROM_FIELD_TEXT) return parse_value(field, value, image);
  return put_text({reinterpret_cast<const uint8_t *>(value.data()), value.size()}, field_bytes(field, image));
}

}  // namespace tool
