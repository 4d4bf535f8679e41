// sprom_image.h: valid SPROM images made from nothing.
#pragma once

#include "tests/support/test.h"

using bytes = std::vector<uint8_t>;

// Block starts, signatures and lengths of an image kind, kept apart from the library's own tables.
// clang-format off
struct test_block { uint32_t offset; uint16_t signature; uint32_t length; const char *label; };
inline const std::array<std::vector<test_block>, 7> test_blocks{{
    {},
    {{0, 0xABAB, 160, "Supervisor Common Header"},   {160, 0x6002, 103, "Supervisor Main"},
     {263, 0x6008, 71, "Supervisor Extra Sensor"}},
    {{0, 0xABAB, 160, "Backplane Common Header"},    {160, 0x6001,  39, "Backplane Main"},
     {199, 0x6005, 256, "Backplane WWN"},            {455, 0x6006,  16, "Backplane License"}},
    {{0, 0xABAB, 160, "Line card Common Header"},    {160, 0x6003, 103, "Line card Main"}},
    {{0, 0xABAB, 160, "Power Supply Common Header"}, {160, 0xAB01,  36, "Power Supply Main"}},
    {},
    {{0, 0xABAB, 160, "Fan Common Header"},          {160, 0xAB04,  32, "Fan Main"}},
}};
// clang-format on

inline void put_half(uint8_t *at, uint32_t value) {
  at[0] = static_cast<uint8_t>(value >> 8);
  at[1] = static_cast<uint8_t>(value);
}

// Puts the checksums right, in an image in device order.
inline void seal_image(bytes *image, uint32_t type) {
  for (const test_block &block : test_blocks.at(type)) {
    uint8_t *start = image->data() + block.offset;
    uint32_t sum = 0;
    for (uint32_t i = 0; i < block.length; ++i)
      sum += i == 4 || i == 5 ? 0U : start[i];
    put_half(start + 4, sum);
  }
}

// Puts signatures, lengths and checksums right.
inline void make_valid(bytes *image, uint32_t type) {
  for (const test_block &block : test_blocks.at(type)) {
    uint8_t *start = image->data() + block.offset;
    put_half(start, block.signature);
    start[3] = static_cast<uint8_t>(block.length);
  }
  seal_image(image, type);
}

// Blocks that are the same in two images, as bits.
inline unsigned same_blocks(const bytes &one, const bytes &other, uint32_t type) {
  unsigned bits = 0, bit = 1;
  for (const test_block &block : test_blocks.at(type)) {
    if (std::equal(&one[block.offset], &one[block.offset] + block.length, &other[block.offset])) bits |= bit;
    bit *= 2;
  }
  return bits;
}

// Blocks of a device image that verification accepts, by its own rules, as bits; all of them, or a whole image.
inline unsigned accepted_blocks(const bytes &image, uint32_t type) {
  bytes right = image;
  make_valid(&right, type);
  return same_blocks(right, image, type);
}
inline bool is_accepted(const bytes &image, uint32_t type) {
  return accepted_blocks(image, type) + 1 == 1U << test_blocks.at(type).size();
}

// Whether a block, or the image as a whole, verifies and is neither that of `old` nor that of `wanted`.
inline bool is_false(const bytes &image, const bytes &old, const bytes &wanted, uint32_t type) {
  const unsigned known = same_blocks(image, old, type) | same_blocks(image, wanted, type);
  return (accepted_blocks(image, type) & ~known) != 0 || (is_accepted(image, type) && image != old && image != wanted);
}

// The bytes with others from an offset on.
inline bytes overlaid(bytes all, size_t offset, const bytes &part) {
  std::copy(part.begin(), part.end(), all.begin() + static_cast<std::ptrdiff_t>(offset));
  return all;
}

// A valid image in device order, every byte of it different from its neighbours; a supervisor or line card has the
// card index given.
inline bytes device_image(uint32_t type, uint16_t card_index = 0x2AFB) {
  const test_block &last = test_blocks.at(type).back();
  bytes image(last.offset + last.length);
  for (size_t i = 0; i < image.size(); ++i)
    image[i] = static_cast<uint8_t>(i * 7 + 3);
  put_half(&image[182], card_index);
  make_valid(&image, type);
  return image;
}

// Where an image has numbers of two bytes and of eight, apart from those of the common header.
// clang-format off
struct test_numbers { std::vector<uint32_t> halves, wides; };
inline const std::vector<uint32_t> common_halves{
    0, 4, 6, 8, 10, 12, 114, 116, 118, 120, 122, 124, 126, 128, 130, 132, 134, 136, 138, 160, 164};
inline const std::array<test_numbers, 7> test_numbers_of{{
    {},
    {{182, 190, 240, 258, 260, 263, 267}, {166, 174}}, {{182, 190, 192, 194, 196, 199, 203, 455, 459}, {166, 174}},
    {{182, 190, 240, 258, 260},           {166, 174}}, {{174, 176, 178}, {166}},
    {},
    {{182, 184}, {166, 174}},
}};
// clang-format on

// Exchanges the bytes of each number.
inline bytes host_image(bytes image, uint32_t type) {
  const auto &[halves, wides] = test_numbers_of.at(type);
  for (const auto *const list : {&common_halves, &halves})
    for (const uint32_t at : *list)
      std::swap(image[at], image[at + 1]);
  for (const uint32_t at : wides)
    std::reverse(&image[at], &image[at] + 8);
  return image;
}

inline bytes host_image(uint32_t type) {
  return host_image(device_image(type), type);
}
