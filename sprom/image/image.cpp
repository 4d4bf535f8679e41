#include "sprom/image/image.h"

#include <algorithm>
#include <array>

#include "platform/mfgd/cmn_lib/diag_util/diag_assert.h"
#include "platform/mfgd/uspace/utils/sprom/sprom_conv.h"
#include "platform/mfgd/uspace/utils/sprom/sprom_verify.h"
#include "sprom/base/output.h"

namespace tool {
namespace {

// A descriptor; the library reads only its kind.
sprom_t of_kind(const kind_t &kind) {
  sprom_t sprom{};
  sprom.type = kind.type;
  return sprom;
}

image_t in_host_order(const kind_t &kind, std::span<const uint8_t> image) {
  const sprom_t sprom = of_kind(kind);
  image_t host{image.begin(), image.end()};
  assert(host.size() == kind.size);
  const int32_t result = sprom_ntoh(&sprom, host.data());
  assert(result == 0);
  return host;
}

void put_u16(uint32_t value, std::span<uint8_t> out) {
  out[0] = static_cast<uint8_t>(value >> 8);
  out[1] = static_cast<uint8_t>(value);
}

constexpr size_t short_bytes = 8;  // up to here a run of bytes is shown in full

// How a field that differs does so.
std::string change_of(const field_t &field, std::span<const uint8_t> from, std::span<const uint8_t> to) {
  const auto [count, first] = difference(field_bytes(field, from), field_bytes(field, to));
  std::string line{field.name};
  line.resize(std::max<size_t>(line.size() + 1, 18), ' ');
  const std::string before = value_of(field, from);
  const std::string after = value_of(field, to);
  // Long runs, and texts that differ only in their padding, are shown by position.
  if (before == after || (field.type == SPROM_FIELD_BYTES && field.width > short_bytes))
    return line + std::to_string(count) + " of " + std::to_string(field.width) + " bytes differ, the first at offset " +
           std::to_string(field.offset + first);
  if (field.type == SPROM_FIELD_TEXT) return line + '"' + before + "\" -> \"" + after + '"';
  return line + before + " -> " + after;
}

}  // namespace

verdict_t verify_image(const kind_t &kind, std::span<const uint8_t> image) {
  const sprom_t sprom = of_kind(kind);
  const image_t host = in_host_order(kind, image);
  verdict_t verdict{};
  verdict.lines = captured([&] { verdict.is_good = sprom_verify(&sprom, host.data()) == 0; });
  return verdict;
}

verdict_t verify_block(const kind_t &kind, const sprom_block_t &block, std::span<const uint8_t> image) {
  const image_t host = in_host_order(kind, image);
  verdict_t verdict{};
  verdict.lines = captured([&] {
    const uint8_t *start = host.data() + block.offset;
    verdict.is_good = sprom_verify_block(start, block.label, block.signature, block.length) == 0;
  });
  return verdict;
}

image_t new_image(const kind_t &kind) {
  image_t image(kind.size);
  for (const sprom_block_t &block : kind.blocks()) {
    const auto header = std::span{image}.subspan(block.offset, 6);
    put_u16(block.signature, header.subspan(SPROM_BLK_SIGNATURE));
    header[SPROM_BLK_VERSION] = block.version;
    header[SPROM_BLK_LENGTH] = static_cast<uint8_t>(block.length);  // 256 is stored as 0
    update_checksum(block, image);
  }
  return image;
}

void update_checksum(const sprom_block_t &block, std::span<uint8_t> image) {
  const auto bytes = image.subspan(block.offset, block.length);
  put_u16(diag_sprom_compute_xsum(bytes.data(), block.length), bytes.subspan(SPROM_BLK_CHECKSUM));
}

std::vector<const field_t *> changed_fields(const kind_t &kind, std::span<const uint8_t> from,
                                            std::span<const uint8_t> to) {
  std::vector<const field_t *> fields;
  for (const field_t &field : kind.fields()) {
    if (difference(field_bytes(field, from), field_bytes(field, to)).count != 0) fields.push_back(&field);
  }
  return fields;
}

std::vector<std::string> changes(const kind_t &kind, std::span<const uint8_t> from, std::span<const uint8_t> to) {
  std::vector<std::string> lines;
  for (const field_t *field : changed_fields(kind, from, to))
    lines.push_back(change_of(*field, from, to));
  return lines;
}

std::vector<std::string> byte_changes(const kind_t &kind, std::span<const uint8_t> from, std::span<const uint8_t> to) {
  std::vector<std::string> lines;
  for (const field_t *field : changed_fields(kind, from, to)) {
    lines.push_back(change_of(*field, from, to));
    for (size_t i = field->offset; i < size_t{field->offset} + field->width; ++i) {
      if (from[i] == to[i]) continue;
      const std::array<uint8_t, 2> offset{static_cast<uint8_t>(i >> 8), static_cast<uint8_t>(i)};
      lines.push_back("  0x" + hex_bytes(offset, "") + ": " + hex_bytes(from.subspan(i, 1), "") + " -> " +
                      hex_bytes(to.subspan(i, 1), ""));
    }
  }
  return lines;
}

difference_t difference(std::span<const uint8_t> from, std::span<const uint8_t> to) {
  difference_t result{0, 0};
  for (size_t i = from.size(); i-- > 0;) {
    if (from[i] == to[i]) continue;
    ++result.count;
    result.first = i;
  }
  return result;
}

}  // namespace tool
