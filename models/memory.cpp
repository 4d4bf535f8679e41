#include "models/memory.h"

#include <cstring>

namespace models {

namespace {

constexpr uint16_t ones = 0xFFFF;
constexpr size_t first_slots = 1024;  // a power of two

}  // namespace

sparse_memory::sparse_memory(uint32_t size, uint32_t block, filling fill, const void *with)
    : m_block(block), m_fill(fill), m_with(with), m_slots(first_slots), m_blocks(size / block) {}

void sparse_memory::restart(filling fill, const void *with) {
  m_fill = fill;
  m_with = with;
  m_started = ++m_now;
  m_used = 0;
}

// The slot of a word, or the free one where it belongs. What is left from before the last restart is free.
size_t sparse_memory::place_of(uint32_t offset) const {
  const size_t last = m_slots.size() - 1;
  size_t place = (offset / 2 * 0x9E3779B1U >> 7U) & last;
  while (m_slots[place].time >= m_started && m_slots[place].offset != offset)
    place = (place + 1) & last;
  return place;
}

uint16_t sparse_memory::get(uint32_t offset) const {
  const auto &block = m_blocks[offset / m_block];
  const auto &kept = m_slots[place_of(offset)];
  if (kept.time >= m_started && kept.time >= block.blanked) return kept.word;
  return is_of_ones(block) ? ones : m_fill(m_with, offset);
}

void sparse_memory::set(uint32_t offset, uint16_t word) {
  auto &block = m_blocks[offset / m_block];
  // Blocks forget at a restart when they are used next.
  if (block.blanked < m_started && m_fill == nullptr) block = {m_started, 0};
  const bool was_other = is_of_ones(block) && get(offset) != ones;
  if (is_of_ones(block)) block.other_words += static_cast<uint32_t>(word != ones) - static_cast<uint32_t>(was_other);
  size_t place = place_of(offset);
  if (m_slots[place].time < m_started && 2 * ++m_used > m_slots.size()) {
    grow();
    place = place_of(offset);
  }
  m_slots[place] = {offset, word, m_now};
}

void sparse_memory::grow() {
  std::vector<slot> old(2 * m_slots.size());
  old.swap(m_slots);
  for (const auto &kept : old)
    if (kept.time >= m_started) m_slots[place_of(kept.offset)] = kept;
}

bool sparse_memory::is_blank(uint32_t first, uint32_t length) const {
  for (uint32_t number = first / m_block; number * m_block < first + length; ++number) {
    const auto &block = m_blocks[number];
    if (!is_of_ones(block)) {
      for (uint32_t at = number * m_block; at < (number + 1) * m_block; at += 2)
        if (get(at) != ones) return false;
    } else if (block.blanked >= m_started && block.other_words != 0) {
      return false;
    }
  }
  return true;
}

void sparse_memory::blank(uint32_t first, uint32_t length) {
  ++m_now;
  for (uint32_t number = first / m_block; number * m_block < first + length; ++number)
    m_blocks[number] = {m_now, 0};
}

bool memory::is_blank(uint32_t first, uint32_t length) const {
  if (m_bytes == nullptr) return m_sparse->is_blank(first, length);
  const uint8_t *const bytes = m_bytes + first;
  return length == 0 || (*bytes == 0xFF && std::memcmp(bytes, bytes + 1, length - 1) == 0);
}

void memory::blank(uint32_t first, uint32_t length) const {
  if (m_bytes == nullptr) return m_sparse->blank(first, length);
  std::memset(m_bytes + first, 0xFF, length);
}

}  // namespace models
