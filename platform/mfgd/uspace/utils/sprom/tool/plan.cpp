#include "platform/mfgd/uspace/utils/sprom/tool/plan.h"

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

// What stands on the chip as the plan goes on.
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

size_t checksum_of(const sprom_block_t &block) {
  return block.offset + size_t{SPROM_BLK_CHECKSUM};
}

// The offsets of a block's bytes but its checksum's.
template <typename F>
void for_body(const sprom_block_t &block, F visit) {
  for (size_t offset = block.offset; offset < size_t{block.offset} + block.length; ++offset) {
    if (offset - checksum_of(block) > 1) visit(offset);
  }
}

}  // namespace

std::vector<write_step_t> plan_write(const kind_t &kind, std::span<const uint8_t> from, std::span<const uint8_t> to) {
  writer_t writer{from};
  for (const sprom_block_t &block : kind.blocks()) {
    bool is_changed = false;
    for_body(block, [&](size_t offset) { is_changed = is_changed || from[offset] != to[offset]; });
    if (is_changed) writer.put(checksum_of(block), mark);
  }
  for (const sprom_block_t &block : kind.blocks())
    for_body(block, [&](size_t offset) { writer.put(offset, to[offset]); });
  for (const sprom_block_t &block : kind.blocks()) {
    for (const size_t offset : {checksum_of(block), checksum_of(block) + 1})
      writer.put(offset, to[offset]);
  }
  return writer.take();
}

}  // namespace tool
