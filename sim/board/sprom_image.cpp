#include "sim/board/sprom_image.h"

#include <strings.h>

#include <algorithm>
#include <array>
#include <span>
#include <string>

#include "platform/mfgd/uspace/utils/sprom/sprom_fields.h"

namespace sim {

namespace {

using image = std::vector<uint8_t>;

// Numbers lie on the device with the high byte first.
void put_number(std::span<uint8_t> to, uint64_t value) {
  for (size_t i = to.size(); i-- > 0; value >>= 8)
    to[i] = static_cast<uint8_t>(value);
}

void put_text(std::span<uint8_t> to, std::string_view text) {
  std::ranges::fill(to, uint8_t{0});
  std::ranges::copy(text, to.begin());
}

// The bytes of a field; none where the kind has no such field.
std::span<uint8_t> field_of(image *in, uint32_t kind, std::string_view name) {
  const auto *const field = sprom_find_field(kind, name);
  return field == nullptr ? std::span<uint8_t>{} : std::span(*in).subspan(field->offset, field->width);
}

void put_fields(image *to, uint32_t kind, const identity &id) {
  struct number_row {
    std::string_view name;
    uint64_t value;
  };
  // clang-format off
  const auto numbers = std::to_array<number_row>({
      {"num_6",          0x0001},
      {"num_8",          0x0309},
      {"num_10",         0x0001},
      {"num_12",         0x0001},
      {"num_166",        0x0000000100000002},
      {"hw_change_bits", id.change_bits},
      {"card_index",     id.card},
  });
  // clang-format on
  for (const auto &row : numbers)
    put_number(field_of(to, kind, row.name), row.value);
  for (size_t i = 0; i < 13; ++i)
    put_number(field_of(to, kind, "num_" + std::to_string(114 + 2 * i)), 0x0100 + i);
  if (kind == SPROM_TYPE_PS) put_number(field_of(to, kind, "num_174"), 3000);  // in watts
  if (kind == SPROM_TYPE_FAN) put_number(field_of(to, kind, "num_182"), 4);
  put_text(field_of(to, kind, "bytes_14"), "SIMULATED BOARDS");
  put_text(field_of(to, kind, "product_id"), id.product);
  put_text(field_of(to, kind, "serial_number"), id.serial);
  put_text(field_of(to, kind, "bytes_74").first(20), "73-10000-01");
  put_text(field_of(to, kind, "bytes_74").last(20), "A0");
}

void put_block(std::span<uint8_t> block, const sprom_block_t &row) {
  // Bodies that nothing interprets hold a pattern, so that a byte out of place shows.
  for (size_t i = 6; row.offset > 160 && i < block.size(); ++i)
    block[i] = static_cast<uint8_t>(row.offset + 7 * i);
  put_number(block.subspan(SPROM_BLK_SIGNATURE, 2), row.signature);
  block[SPROM_BLK_VERSION] = row.version;
  block[SPROM_BLK_LENGTH] = static_cast<uint8_t>(row.length);
  uint16_t sum = 0;
  for (size_t i = 0; i < block.size(); ++i)
    if (i != SPROM_BLK_CHECKSUM && i != SPROM_BLK_CHECKSUM + 1) sum = static_cast<uint16_t>(sum + block[i]);
  put_number(block.subspan(SPROM_BLK_CHECKSUM, 2), sum);
}

// The first bytes of a memory module's presence-detect data: 256 bytes, 128 of them in use.
image make_dimm(const identity &id) {
  image data(256);
  constexpr std::array<uint8_t, 12> first{0x80, 0x08, 0x08, 0x0E, 0x0A, 0x61, 0x48, 0x00, 0x05, 0x30, 0x45, 0x02};
  std::ranges::copy(first, data.begin());
  put_text(std::span(data).subspan(73, 18), id.product);
  uint8_t sum = 0;
  for (size_t i = 0; i < 63; ++i)
    sum = static_cast<uint8_t>(sum + data[i]);
  data[63] = sum;
  return data;
}

bool ends_in(std::string_view label, std::string_view word) {
  if (label.size() < word.size()) return false;
  return strncasecmp(label.substr(label.size() - word.size()).data(), word.data(), word.size()) == 0;
}

}  // namespace

const sprom_block_t *image_block_of(uint32_t kind, std::string_view word) {
  for (const auto &row : sprom_blocks(kind))
    if (ends_in(row.label, word)) return &row;
  return nullptr;
}

std::vector<uint8_t> make_image(uint32_t kind, const identity &id) {
  if (kind == SPROM_TYPE_DIMM) return make_dimm(id);
  const auto blocks = sprom_blocks(kind);
  image data(blocks.back().offset + size_t{blocks.back().length});
  put_fields(&data, kind, id);
  for (const auto &row : blocks)
    put_block(std::span(data).subspan(row.offset, row.length), row);
  return data;
}

}  // namespace sim
