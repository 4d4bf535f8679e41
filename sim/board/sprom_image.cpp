#include "sim/board/sprom_image.h"

#include <algorithm>
#include <array>
#include <string_view>

namespace sim {

namespace {

// clang-format off
constexpr std::array block_rows{std::to_array<image_block>({
    // kind            name       offset length signature version
    {image_kind::sup,  "header",  0,     160,   0xABAB,   3},
    {image_kind::sup,  "main",    160,   103,   0x6002,   2},
    {image_kind::sup,  "sensor",  263,   71,    0x6008,   1},
    {image_kind::bp,   "header",  0,     160,   0xABAB,   3},
    {image_kind::bp,   "main",    160,   39,    0x6001,   3},
    {image_kind::bp,   "wwn",     199,   256,   0x6005,   1},
    {image_kind::bp,   "license", 455,   16,    0x6006,   1},
    {image_kind::lc,   "header",  0,     160,   0xABAB,   3},
    {image_kind::lc,   "main",    160,   103,   0x6003,   2},
    {image_kind::ps,   "header",  0,     160,   0xABAB,   3},
    {image_kind::ps,   "main",    160,   36,    0xAB01,   2},
    {image_kind::fan,  "header",  0,     160,   0xABAB,   3},
    {image_kind::fan,  "main",    160,   32,    0xAB04,   3},
})};
// clang-format on

using image = std::vector<uint8_t>;

// Numbers lie on the device with the high byte first.
void put_number(image *to, size_t offset, size_t width, uint64_t value) {
  for (size_t i = 0; i < width; i++)
    (*to)[offset + i] = static_cast<uint8_t>(value >> 8 * (width - 1 - i));
}

void put_text(image *to, size_t offset, size_t width, std::string_view text) {
  for (size_t i = 0; i < width; i++)
    (*to)[offset + i] = static_cast<uint8_t>(i < text.size() ? text[i] : '\0');
}

void put_header_fields(image *to, const identity &id) {
  constexpr std::string_view maker = "SIMULATED BOARDS";
  constexpr std::string_view part_number = "73-10000-01";
  put_number(to, 6, 2, 0x0001);
  put_number(to, 8, 2, 0x0309);
  put_number(to, 10, 2, 0x0001);
  put_number(to, 12, 2, 0x0001);
  put_text(to, 14, 20, maker);
  put_text(to, 34, 20, id.product);
  put_text(to, 54, 20, id.serial);
  put_text(to, 74, 20, part_number);
  put_text(to, 94, 20, "A0");
  for (size_t field = 0; field < 13; field++)
    put_number(to, 114 + 2 * field, 2, 0x0100 + field);
}

void put_main_fields(image *to, image_kind kind, const identity &id) {
  put_number(to, 166, 8, 0x0000000100000002);
  if (kind == image_kind::sup || kind == image_kind::lc || kind == image_kind::bp)
    put_number(to, 174, 8, id.change_bits);
  if (kind == image_kind::sup || kind == image_kind::lc) put_number(to, 182, 2, id.card);
  if (kind == image_kind::ps) put_number(to, 174, 2, 3000);
  if (kind == image_kind::fan) put_number(to, 182, 2, 4);
}

void put_block(image *to, const image_block &block) {
  // Bodies that nothing interprets hold a pattern, so that a byte out of place shows.
  for (size_t i = 6; block.offset > 160 && i < block.length; i++)
    (*to)[block.offset + i] = static_cast<uint8_t>(block.offset + 7 * i);
  put_number(to, block.offset, 2, block.signature);
  (*to)[block.offset + 2u] = block.version;
  (*to)[block.offset + 3u] = static_cast<uint8_t>(block.length);
  uint16_t sum = 0;
  for (size_t i = 0; i < block.length; i++)
    if (i != 4 && i != 5) sum = static_cast<uint16_t>(sum + (*to)[block.offset + i]);
  put_number(to, block.offset + 4u, 2, sum);
}

// The first bytes of a memory module's presence-detect data: 256 bytes, of which 128 are in use.
image make_dimm(const identity &id) {
  image data(256);
  constexpr std::array<uint8_t, 12> first{0x80, 0x08, 0x08, 0x0E, 0x0A, 0x61, 0x48, 0x00, 0x05, 0x30, 0x45, 0x02};
  std::ranges::copy(first, data.begin());
  put_text(&data, 73, 18, id.product);
  uint8_t sum = 0;
  for (size_t i = 0; i < 63; i++)
    sum = static_cast<uint8_t>(sum + data[i]);
  data[63] = sum;
  return data;
}

}  // namespace

const image_block *image_block_of(image_kind kind, std::string_view name) {
  const auto *const found =
      std::ranges::find_if(block_rows, [&](const auto &row) { return row.kind == kind && name == row.name; });
  return found == block_rows.end() ? nullptr : found;
}

std::vector<uint8_t> make_image(image_kind kind, const identity &id) {
  if (kind == image_kind::dimm) return make_dimm(id);
  size_t size = 0;
  for (const auto &block : block_rows)
    if (block.kind == kind) size = block.offset + size_t{block.length};
  image data(size);
  put_header_fields(&data, id);
  put_main_fields(&data, kind, id);
  for (const auto &block : block_rows)
    if (block.kind == kind) put_block(&data, block);
  return data;
}

}  // namespace sim
