#include "sprom/image/plan.h"

#include <algorithm>

namespace tool {
namespace {

constexpr uint8_t mark = 0xFF;

constexpr uint32_t highest_sum(const sprom_block_t &block) {
  return (block.length - 2U) * 0xFF;
}
constexpr bool is_markable(std::span<const sprom_block_t> blocks) {
  return std::ranges::all_of(blocks, [](const sprom_block_t &block) { return highest_sum(block) < mark << 8; });
}
static_assert(is_markable(sprom_blocks_sup) && is_markable(sprom_blocks_bp) && is_markable(sprom_blocks_lc) &&
              is_markable(sprom_blocks_ps) && is_markable(sprom_blocks_fan));

// The contents of the chip at each step of the plan.
class writer_t {
 public:
  explicit writer_t(std::span<const uint8_t> from) : m_now(from.begin(), from.end()) {}

  void put(size_t offset, uint8_t value) {
    if (m_now[offset] == value) return;
    m_now[offset] = value;
    m_steps.push_back({static_cast<uint16_t>(offset), value});
  }
  std::vector<write_step_t> take() { return std::move(m_steps); }

 private:
  std::vector<uint8_t> m_now;
  std::vector<write_step_t> m_steps;
};

// A block in what is written.
struct placed_block_t {
  size_t start;
  size_t end;
  size_t checksum;  // its first byte
};

std::vector<placed_block_t> blocks_of(std::span<const image_place_t> images) {
  std::vector<placed_block_t> blocks;
  for (const image_place_t &image : images) {
    for (const sprom_block_t &block : image.kind->blocks()) {
      const size_t start = image.base + block.offset;
      blocks.push_back({start, start + block.length, start + SPROM_BLK_CHECKSUM});
    }
  }
  return blocks;
}

}  // namespace

std::vector<write_step_t> plan_write(std::span<const image_place_t> images, std::span<const uint8_t> from,
                                     std::span<const uint8_t> to) {
  const std::vector<placed_block_t> blocks = blocks_of(images);
  std::vector<bool> is_checksum(to.size());
  for (const placed_block_t &block : blocks)
    is_checksum[block.checksum] = is_checksum[block.checksum + 1] = true;
  size_t differing = 0;
  for (size_t offset = 0; offset < to.size(); ++offset)
    differing += from[offset] != to[offset] ? 1U : 0U;
  writer_t writer{from};
  for (const placed_block_t &block : blocks) {
    bool is_changed = false;
    for (size_t offset = block.start; offset < block.end; ++offset)
      is_changed = is_changed || (from[offset] != to[offset] && (!is_checksum[offset] || differing > 1));
    if (is_changed) writer.put(block.checksum, mark);
  }
  for (size_t offset = 0; offset < to.size(); ++offset) {
    if (!is_checksum[offset]) writer.put(offset, to[offset]);
  }
  for (const placed_block_t &block : blocks) {
    for (const size_t offset : {block.checksum + 1, block.checksum})
      writer.put(offset, to[offset]);
  }
  return writer.take();
}

}  // namespace tool
