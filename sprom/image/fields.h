// fields.h: the image kinds and the values of their fields, as the command line shows and takes them.
#pragma once

#include <stdint.h>

#include <span>
#include <string>
#include <string_view>

#include "platform/mfgd/uspace/utils/sprom/sprom_fields.h"

namespace tool {

// Who gives a field its value.
enum class field_source : uint8_t {
  user,    // the command line
  format,  // the block's format: signature and length
  sum,     // the block's other bytes
};

using field_t = sprom_field_t;

struct kind_t {
  uint32_t type;      // SPROM_TYPE_*
  const char *name;   // on the command line
  const char *title;  // in sentences
  uint32_t size;      // of the image, bytes; 0 for a kind without a layout
  uint32_t base;      // of the image in the boards' EEPROMs
  uint32_t chip;      // of the EEPROM, bytes; up to 256 it takes one address byte, else two

  bool has_layout() const { return size != 0; }
  std::span<const sprom_block_t> blocks() const { return sprom_blocks(type); }
  std::span<const field_t> fields() const { return sprom_fields(type); }
};

// The kind of contents that are neither blank nor a known image.
inline constexpr kind_t unknown_kind{0, "unknown", "unknown", 0, 0, 0};

// All kinds, in the order of their codes; the names of those with a layout, with commas.
std::span<const kind_t> all_kinds();
std::string layout_names();

// Finds a kind; null if there is none. The name is the command line's or the title.
const kind_t *kind_by_type(uint32_t type);
const kind_t *kind_by_name(std::string_view name);
const kind_t *kind_by_size(size_t size);
// By the main block's signature of an image in device order, which may be cut short.
const kind_t *kind_by_signature(std::span<const uint8_t> image);

// Finds a field of a kind; null if there is none. Dashes in the name mean underscores.
const field_t *field_by_name(const kind_t &kind, std::string_view name);

// Block headers belong to the format.
field_source source_of(const kind_t &kind, const field_t &field);

// The part of an image (in device order) that a field takes up.
inline std::span<const uint8_t> field_bytes(const field_t &field, std::span<const uint8_t> image) {
  return image.subspan(field.offset, field.width);
}
inline std::span<uint8_t> field_bytes(const field_t &field, std::span<uint8_t> image) {
  return image.subspan(field.offset, field.width);
}

uint64_t number_of(std::span<const uint8_t> bytes);

// Text without its padding: trailing blanks, NULs and 0xFF.
std::string_view trimmed(std::span<const uint8_t> bytes);

// Any text with everything but printable ASCII as \xNN, and the backslash doubled.
std::string escaped(std::string_view text);

// Pairs of hex digits with `separator` between them.
std::string hex_bytes(std::span<const uint8_t> bytes, std::string_view separator);

// A field's value in the form that parse_value takes: 0x and all digits, escaped text, pairs of hex digits.
std::string value_of(const field_t &field, std::span<const uint8_t> image);

// The same for programs: the bytes of text as they are, without trailing NULs; pairs of hex digits side by side.
std::string exact_value_of(const field_t &field, std::span<const uint8_t> image);

// Puts a value given on the command line into an image.
//   value  number: decimal, or hexadecimal after 0x; text: up to the field's width, with the escapes \\ and \xNN,
//          padded with NULs; bytes: as many pairs of hex digits as the field has bytes, blanks or colons between pairs
// Returns an empty text, or what is wrong with the value; the image is then unchanged.
std::string parse_value(const field_t &field, std::string_view value, std::span<uint8_t> image);

// The same for what exact_value_of returned: text without escapes.
std::string parse_exact_value(const field_t &field, std::string_view value, std::span<uint8_t> image);

}  // namespace tool
