#include "platform/mfgd/uspace/utils/sprom/tool/fields.h"

#include <stdio.h>
#include <strings.h>

#include <algorithm>
#include <array>
#include <optional>
#include <vector>

namespace tool {
namespace {

using enum field_type;
using enum field_source;

// clang-format off
constexpr std::array<field_t, 26> common_fields{{
    // name              offset width type
    {"common_signature",      0,    2, number, format},
    {"common_version",        2,    1, number},
    {"common_length",         3,    1, number, format},
    {"common_checksum",       4,    2, number, sum},
    {"num_6",                 6,    2, number},
    {"num_8",                 8,    2, number},
    {"num_10",               10,    2, number},
    {"num_12",               12,    2, number},
    {"bytes_14",             14,   20, bytes},
    {"product_id",           34,   20, text},
    {"serial_number",        54,   20, text},
    {"bytes_74",             74,   40, bytes},
    {"num_114",             114,    2, number},
    {"num_116",             116,    2, number},
    {"num_118",             118,    2, number},
    {"num_120",             120,    2, number},
    {"num_122",             122,    2, number},
    {"num_124",             124,    2, number},
    {"num_126",             126,    2, number},
    {"num_128",             128,    2, number},
    {"num_130",             130,    2, number},
    {"num_132",             132,    2, number},
    {"num_134",             134,    2, number},
    {"num_136",             136,    2, number},
    {"num_138",             138,    2, number},
    {"bytes_140",           140,   20, bytes},
}};
// Every kind's main block begins alike.
constexpr std::array<field_t, 5> main_fields{{
    {"main_signature",      160,    2, number, format},
    {"main_version",        162,    1, number},
    {"main_length",         163,    1, number, format},
    {"main_checksum",       164,    2, number, sum},
    {"num_166",             166,    8, number},
}};
constexpr std::array<field_t, 10> card_fields{{
    {"hw_change_bits",      174,    8, number},
    {"card_index",          182,    2, number},
    {"bytes_184",           184,    6, bytes},
    {"num_190",             190,    2, number},
    {"bytes_192",           192,   48, bytes},
    {"num_240",             240,    2, number},
    {"bytes_242",           242,   16, bytes},
    {"num_258",             258,    2, number},
    {"num_260",             260,    2, number},
    {"bytes_262",           262,    1, bytes},
}};
constexpr std::array<field_t, 5> sensor_fields{{
    {"sensor_signature",    263,    2, number, format},
    {"sensor_version",      265,    1, number},
    {"sensor_length",       266,    1, number, format},
    {"sensor_checksum",     267,    2, number, sum},
    {"bytes_269",           269,   65, bytes},
}};
constexpr std::array<field_t, 8> bp_fields{{
    {"hw_change_bits",      174,    8, number},
    {"num_182",             182,    2, number},
    {"bytes_184",           184,    6, bytes},
    {"num_190",             190,    2, number},
    {"num_192",             192,    2, number},
    {"num_194",             194,    2, number},
    {"num_196",             196,    2, number},
    {"bytes_198",           198,    1, bytes},
}};
constexpr std::array<field_t, 10> wwn_license_fields{{
    {"wwn_signature",       199,    2, number, format},
    {"wwn_version",         201,    1, number},
    {"wwn_length",          202,    1, number, format},
    {"wwn_checksum",        203,    2, number, sum},
    {"bytes_205",           205,  250, bytes},
    {"license_signature",   455,    2, number, format},
    {"license_version",     457,    1, number},
    {"license_length",      458,    1, number, format},
    {"license_checksum",    459,    2, number, sum},
    {"bytes_461",           461,   10, bytes},
}};
constexpr std::array<field_t, 4> ps_fields{{
    {"num_174",             174,    2, number},
    {"num_176",             176,    2, number},
    {"num_178",             178,    2, number},
    {"bytes_180",           180,   16, bytes},
}};
constexpr std::array<field_t, 4> fan_fields{{
    {"num_174",             174,    8, number},
    {"num_182",             182,    2, number},
    {"num_184",             184,    2, number},
    {"bytes_186",           186,    6, bytes},
}};
// clang-format on

template <size_t... sizes>
constexpr auto joined(const std::array<field_t, sizes> &...parts) {
  std::array<field_t, (sizes + ...)> all{};
  auto *next = all.data();
  ((next = std::ranges::copy(parts, next).out), ...);
  return all;
}

constexpr auto sup_image = joined(common_fields, main_fields, card_fields, sensor_fields);
constexpr auto bp_image = joined(common_fields, main_fields, bp_fields, wwn_license_fields);
constexpr auto lc_image = joined(common_fields, main_fields, card_fields);
constexpr auto ps_image = joined(common_fields, main_fields, ps_fields);
constexpr auto fan_image = joined(common_fields, main_fields, fan_fields);

constexpr bool tiles(std::span<const field_t> fields, uint32_t size) {
  uint32_t end = 0;
  for (const field_t &field : fields) {
    if (field.offset != end) return false;
    end += field.width;
  }
  return end == size;
}
static_assert(tiles(sup_image, SPROM_SIZE_SUP));
static_assert(tiles(bp_image, SPROM_SIZE_BP));
static_assert(tiles(lc_image, SPROM_SIZE_LC));
static_assert(tiles(ps_image, SPROM_SIZE_PS));
static_assert(tiles(fan_image, SPROM_SIZE_FAN));

// clang-format off
constexpr std::array<kind_t, 6> kinds{{
    {SPROM_TYPE_SUP,  "sup",  "supervisor",   SPROM_SIZE_SUP, sup_image},
    {SPROM_TYPE_BP,   "bp",   "backplane",    SPROM_SIZE_BP,  bp_image},
    {SPROM_TYPE_LC,   "lc",   "line card",    SPROM_SIZE_LC,  lc_image},
    {SPROM_TYPE_PS,   "ps",   "power supply", SPROM_SIZE_PS,  ps_image},
    {SPROM_TYPE_DIMM, "dimm", "DIMM",         0,              {}},
    {SPROM_TYPE_FAN,  "fan",  "fan",          SPROM_SIZE_FAN, fan_image},
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
  if (chars.size() > out.size()) return "is longer than " + std::to_string(out.size()) + " characters";
  chars.resize(out.size());
  std::ranges::copy(chars, out.begin());
  return {};
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
    if (kind.size == 0) continue;
    const sprom_block_t &main = kind.blocks()[1];
    if (image.size() >= main.offset + 2U && number_of(image.subspan(main.offset, 2)) == main.signature) return &kind;
  }
  return nullptr;
}

const field_t *field_by_name(const kind_t &kind, std::string_view name) {
  const auto same = [](char a, char b) { return a == (b == '-' ? '_' : b); };
  const auto field =
      std::ranges::find_if(kind.fields, [&](const field_t &f) { return std::ranges::equal(f.name, name, same); });
  return field == kind.fields.end() ? nullptr : &*field;
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
    case number:
      return "0x" + hex_bytes(raw, "");
    case text:
      return escaped(trimmed(raw));
    case bytes:
      break;
  }
  return hex_bytes(raw, " ");
}

std::string parse_value(const field_t &field, std::string_view value, std::span<uint8_t> image) {
  const auto out = field_bytes(field, image);
  switch (field.type) {
    case number:
      return parse_number(value, out);
    case text:
      return parse_text(value, out);
    case bytes:
      break;
  }
  return parse_bytes(value, out);
}

}  // namespace tool
