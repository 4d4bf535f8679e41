// sprom_layout.h: the blocks of the SPROM images.
//
// An image is a chain of blocks without gaps, the common header first, the kind's main block second. Each block begins
// with a header of six bytes. Numbers are big-endian on the device and in host order in memory; several blocks begin at
// odd offsets, so that numbers are read and written byte by byte.
#pragma once

#include <stdint.h>
#include <string.h>

#include <array>
#include <span>

#include "platform/mfgd/uspace/utils/sprom/sprom.h"

// Block header, offsets from the block's start.
enum : uint32_t {
  SPROM_BLK_SIGNATURE = 0,  // 16 bits
  SPROM_BLK_VERSION = 2,    // 8 bits
  SPROM_BLK_LENGTH = 3,     // 8 bits: length of the block, header included; 0 means 256
  SPROM_BLK_CHECKSUM = 4,   // 16 bits: sum of the block's other bytes
};

// Image sizes in bytes, the sum of the blocks' lengths.
enum : uint32_t {
  SPROM_SIZE_SUP = 334,
  SPROM_SIZE_BP = 471,
  SPROM_SIZE_LC = 263,
  SPROM_SIZE_PS = 196,
  SPROM_SIZE_FAN = 192,  // of the layout; sprom_get_size has none for fans
};

// One block of the current formats.
struct sprom_block_t {
  const char *label;   // as messages name it
  uint16_t offset;     // from the image's start
  uint16_t signature;  // expected
  uint8_t version;     // current; not checked
  uint16_t length;     // expected, bytes
};

// clang-format off
inline constexpr std::array<sprom_block_t, 3> sprom_blocks_sup{{
    // label                      offset signature version length
    {"Supervisor Common Header",       0,   0xABAB,      3,   160},
    {"Supervisor Main",              160,   0x6002,      2,   103},
    {"Supervisor Extra Sensor",      263,   0x6008,      1,    71},
}};
inline constexpr std::array<sprom_block_t, 4> sprom_blocks_bp{{
    {"Backplane Common Header",        0,   0xABAB,      3,   160},
    {"Backplane Main",               160,   0x6001,      3,    39},
    {"Backplane WWN",                199,   0x6005,      1,   256},
    {"Backplane License",            455,   0x6006,      1,    16},
}};
inline constexpr std::array<sprom_block_t, 2> sprom_blocks_lc{{
    {"Line card Common Header",        0,   0xABAB,      3,   160},
    {"Line card Main",               160,   0x6003,      2,   103},
}};
inline constexpr std::array<sprom_block_t, 2> sprom_blocks_ps{{
    {"Power Supply Common Header",     0,   0xABAB,      3,   160},
    {"Power Supply Main",            160,   0xAB01,      2,    36},
}};
inline constexpr std::array<sprom_block_t, 2> sprom_blocks_fan{{
    {"Fan Common Header",              0,   0xABAB,      3,   160},
    {"Fan Main",                     160,   0xAB04,      3,    32},
}};
// clang-format on

// True if the blocks follow one another without gaps and end at `size`.
constexpr bool sprom_blocks_fill(std::span<const sprom_block_t> blocks, uint32_t size) {
  uint32_t end = 0;
  for (const sprom_block_t &block : blocks) {
    if (block.offset != end) return false;
    end += block.length;
  }
  return end == size;
}
static_assert(sprom_blocks_fill(sprom_blocks_sup, SPROM_SIZE_SUP));
static_assert(sprom_blocks_fill(sprom_blocks_bp, SPROM_SIZE_BP));
static_assert(sprom_blocks_fill(sprom_blocks_lc, SPROM_SIZE_LC));
static_assert(sprom_blocks_fill(sprom_blocks_ps, SPROM_SIZE_PS));
static_assert(sprom_blocks_fill(sprom_blocks_fan, SPROM_SIZE_FAN));

// The blocks of an image kind (SPROM_TYPE_*) in image order; none for a kind without a layout.
constexpr std::span<const sprom_block_t> sprom_blocks(uint32_t type) {
  switch (type) {
    case SPROM_TYPE_SUP:
      return sprom_blocks_sup;
    case SPROM_TYPE_BP:
      return sprom_blocks_bp;
    case SPROM_TYPE_LC:
      return sprom_blocks_lc;
    case SPROM_TYPE_PS:
      return sprom_blocks_ps;
    case SPROM_TYPE_FAN:
      return sprom_blocks_fan;
    default:
      return {};
  }
}

// The number in host order at `field`, which may be unaligned.
inline uint16_t sprom_get_u16(const uint8_t *field) {
  uint16_t value;
  memcpy(&value, field, sizeof value);
  return value;
}
