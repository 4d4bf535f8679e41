// memory.h: what the models keep their words in: somebody's bytes, or only the words that were touched.
#pragma once

#include <cstdint>
#include <span>
#include <vector>

namespace models {

// Little-endian 16-bit words of a memory at an even offset.
[[nodiscard]] inline uint16_t word_get(std::span<const uint8_t> bytes, uint32_t offset) {
  return static_cast<uint16_t>(bytes[offset] | bytes[offset + 1] << 8U);
}
inline void word_set(std::span<uint8_t> bytes, uint32_t offset, uint16_t word) {
  bytes[offset] = static_cast<uint8_t>(word);
  bytes[offset + 1] = static_cast<uint8_t>(word >> 8U);
}

// A memory that keeps only the words that were set; the others are what its filling gives. It is blanked in
// whole blocks. Nothing is allocated until more words are kept than ever before.
class sparse_memory {
 public:
  // The word that a memory holds at an even byte offset before it is used.
  using filling = uint16_t (*)(const void *with, uint32_t offset);

  // Sizes in bytes. Without a filling all words are ones.
  //   with  handed to the filling; must stay
  sparse_memory(uint32_t size, uint32_t block, filling fill = nullptr, const void *with = nullptr);

  // Forgets everything that was set and blanked, at the cost of a few stores.
  void restart(filling fill = nullptr, const void *with = nullptr);

  [[nodiscard]] uint16_t get(uint32_t offset) const;
  void set(uint32_t offset, uint16_t word);

  // Of blocks: whether all words are ones, and making them so.
  [[nodiscard]] bool is_blank(uint32_t first, uint32_t length) const;
  void blank(uint32_t first, uint32_t length);

 private:
  // Times are counted in blankings and restarts. What was set before its block was blanked counts no more.
  struct slot {
    uint32_t offset;
    uint16_t word;
    uint64_t time = 0;
  };
  struct block_state {
    uint64_t blanked = 0;
    uint32_t other_words = 0;  // since then: those that are not all ones
  };

  [[nodiscard]] size_t place_of(uint32_t offset) const;
  [[nodiscard]] bool is_of_ones(const block_state &b) const { return m_fill == nullptr || b.blanked >= m_started; }
  void grow();

  uint32_t m_block;
  filling m_fill;
  const void *m_with;
  uint64_t m_now = 1;
  uint64_t m_started = 1;
  size_t m_used = 0;
  std::vector<slot> m_slots;
  std::vector<block_state> m_blocks;
};

// Either of them, as the models see it. Offsets are even; nothing is checked.
class memory {
 public:
  memory() = default;
  // The owner keeps the bytes or words.
  explicit memory(std::span<uint8_t> bytes) : m_bytes(bytes.data()) {}
  explicit memory(sparse_memory *sparse) : m_sparse(sparse) {}

  [[nodiscard]] uint16_t get(uint32_t offset) const {
    return m_bytes != nullptr ? static_cast<uint16_t>(m_bytes[offset] | m_bytes[offset + 1] << 8U)
                              : m_sparse->get(offset);
  }
  void set(uint32_t offset, uint16_t word) const {
    if (m_bytes == nullptr) return m_sparse->set(offset, word);
    m_bytes[offset] = static_cast<uint8_t>(word);
    m_bytes[offset + 1] = static_cast<uint8_t>(word >> 8U);
  }

  // Whether all bytes of a block are 0xFF, and making them so.
  [[nodiscard]] bool is_blank(uint32_t first, uint32_t length) const;
  void blank(uint32_t first, uint32_t length) const;

 private:
  uint8_t *m_bytes = nullptr;
  sparse_memory *m_sparse = nullptr;
};

}  // namespace models
