// sprom_fields.h: the fields of each image kind: name, offset, width, order of bytes.
//
// One table for all code that needs to know where something is in an image: the conversion of byte order, the queries,
// the command-line tool and the simulated board.
#pragma once

#include <algorithm>
#include <array>
#include <span>
#include <string_view>

#include "platform/mfgd/uspace/utils/sprom/sprom_layout.h"

// What a field holds, and with it the order of its bytes on the device.
enum sprom_field_type_t : uint8_t {
  SPROM_FIELD_NUMBER,  // high byte first
  SPROM_FIELD_TEXT,    // as read; padded with NULs, blanks or 0xFF, without a terminator
  SPROM_FIELD_BYTES,   // as read
};

// One field of an image. What nothing in the system interprets is named after its offset.
struct sprom_field_t {
  std::string_view name;
  uint16_t offset;  // from the image's start
  uint16_t width;   // bytes
  sprom_field_type_t type;
};

namespace sprom_field_tables {

constexpr auto number = SPROM_FIELD_NUMBER;
constexpr auto text = SPROM_FIELD_TEXT;
constexpr auto bytes = SPROM_FIELD_BYTES;

// clang-format off
inline constexpr std::array<sprom_field_t, 26> common{{
    // name              offset width type
    {"common_signature",      0,    2, number},
    {"common_version",        2,    1, number},
    {"common_length",         3,    1, number},
    {"common_checksum",       4,    2, number},
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
inline constexpr std::array<sprom_field_t, 5> main{{
    {"main_signature",      160,    2, number},
    {"main_version",        162,    1, number},
    {"main_length",         163,    1, number},
    {"main_checksum",       164,    2, number},
    {"num_166",             166,    8, number},
}};
// Supervisor and line card.
inline constexpr std::array<sprom_field_t, 10> card{{
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
inline constexpr std::array<sprom_field_t, 5> sensor{{
    {"sensor_signature",    263,    2, number},
    {"sensor_version",      265,    1, number},
    {"sensor_length",       266,    1, number},
    {"sensor_checksum",     267,    2, number},
    {"bytes_269",           269,   65, bytes},
}};
inline constexpr std::array<sprom_field_t, 8> bp{{
    {"hw_change_bits",      174,    8, number},
    {"num_182",             182,    2, number},
    {"bytes_184",           184,    6, bytes},
    {"num_190",             190,    2, number},
    {"num_192",             192,    2, number},
    {"num_194",             194,    2, number},
    {"num_196",             196,    2, number},
    {"bytes_198",           198,    1, bytes},
}};
inline constexpr std::array<sprom_field_t, 10> wwn_license{{
    {"wwn_signature",       199,    2, number},
    {"wwn_version",         201,    1, number},
    {"wwn_length",          202,    1, number},
    {"wwn_checksum",        203,    2, number},
    {"bytes_205",           205,  250, bytes},
    {"license_signature",   455,    2, number},
    {"license_version",     457,    1, number},
    {"license_length",      458,    1, number},
    {"license_checksum",    459,    2, number},
    {"bytes_461",           461,   10, bytes},
}};
inline constexpr std::array<sprom_field_t, 4> ps{{
    {"num_174",             174,    2, number},
    {"num_176",             176,    2, number},
    {"num_178",             178,    2, number},
    {"bytes_180",           180,   16, bytes},
}};
inline constexpr std::array<sprom_field_t, 4> fan{{
    {"num_174",             174,    8, number},
    {"num_182",             182,    2, number},
    {"num_184",             184,    2, number},
    {"bytes_186",           186,    6, bytes},
}};
// clang-format on

template <size_t... sizes>
constexpr auto joined(const std::array<sprom_field_t, sizes> &...parts) {
  std::array<sprom_field_t, (sizes + ...)> all{};
  auto *next = all.data();
  ((next = std::ranges::copy(parts, next).out), ...);
  return all;
}

inline constexpr auto sup_image = joined(common, main, card, sensor);
inline constexpr auto bp_image = joined(common, main, bp, wwn_license);
inline constexpr auto lc_image = joined(common, main, card);
inline constexpr auto ps_image = joined(common, main, ps);
inline constexpr auto fan_image = joined(common, main, fan);

}  // namespace sprom_field_tables

// The fields of an image kind (SPROM_TYPE_*) in image order: they tile the image, every byte belongs to exactly one.
// None for a kind without a layout.
constexpr std::span<const sprom_field_t> sprom_fields(uint32_t type) {
  switch (type) {
    case SPROM_TYPE_SUP:
      return sprom_field_tables::sup_image;
    case SPROM_TYPE_BP:
      return sprom_field_tables::bp_image;
    case SPROM_TYPE_LC:
      return sprom_field_tables::lc_image;
    case SPROM_TYPE_PS:
      return sprom_field_tables::ps_image;
    case SPROM_TYPE_FAN:
      return sprom_field_tables::fan_image;
    default:
      return {};
  }
}

// The field of that name, or null.
constexpr const sprom_field_t *sprom_find_field(uint32_t type, std::string_view name) {
  for (const sprom_field_t &field : sprom_fields(type)) {
    if (field.name == name) return &field;
  }
  return nullptr;
}

constexpr bool sprom_fields_tile(uint32_t type, uint32_t size) {
  uint32_t end = 0;
  for (const sprom_field_t &field : sprom_fields(type)) {
    if (field.offset != end) return false;
    end += field.width;
  }
  return end == size;
}
static_assert(sprom_fields_tile(SPROM_TYPE_SUP, SPROM_SIZE_SUP));
static_assert(sprom_fields_tile(SPROM_TYPE_BP, SPROM_SIZE_BP));
static_assert(sprom_fields_tile(SPROM_TYPE_LC, SPROM_SIZE_LC));
static_assert(sprom_fields_tile(SPROM_TYPE_PS, SPROM_SIZE_PS));
static_assert(sprom_fields_tile(SPROM_TYPE_FAN, SPROM_SIZE_FAN));

// The fields that the library itself reads, offsets from the image's start.
enum : uint32_t {
  SPROM_OFF_PRODUCT_ID = sprom_find_field(SPROM_TYPE_SUP, "product_id")->offset,          // every kind
  SPROM_OFF_SERIAL_NUMBER = sprom_find_field(SPROM_TYPE_SUP, "serial_number")->offset,    // every kind
  SPROM_OFF_HW_CHANGE_BITS = sprom_find_field(SPROM_TYPE_SUP, "hw_change_bits")->offset,  // with line card, backplane
  SPROM_OFF_CARD_INDEX = sprom_find_field(SPROM_TYPE_SUP, "card_index")->offset,          // with line card
};
static_assert(SPROM_OFF_HW_CHANGE_BITS == sprom_find_field(SPROM_TYPE_BP, "hw_change_bits")->offset);

// Bytes of a text field.
enum : uint32_t { SPROM_TEXT_LEN = sprom_find_field(SPROM_TYPE_SUP, "serial_number")->width };
