// nvram.h: battery-backed RAM on a 16-bit bus, with bad lines and cells.
#pragma once

#include <cstdint>
#include <span>

#include "models/cells.h"
#include "models/lines.h"
#include "models/memory.h"

namespace models {

class nvram {
 public:
  nvram() = default;
  // The owner keeps the words. The faults are all of this memory; with any, every access is a cycle.
  explicit nvram(memory words, std::span<const chip_fault> faults = {});

  // Whether every access may go to the words at once.
  [[nodiscard]] bool healthy() const { return m_healthy; }

  // One 16-bit read cycle at an even offset.
  //   lanes  0x00FF, 0xFF00 or both: the bytes that somebody wants
  [[nodiscard]] uint16_t read(uint32_t offset, uint16_t lanes = 0xFFFF);

  // One write cycle at an even offset.
  //   lanes  the bytes that are written
  void write(uint32_t offset, uint16_t word, uint16_t lanes = 0xFFFF) { take(arrives(offset, word, lanes)); }

  // The two halves of a write cycle: which data reaches which word, and how its cells change.
  [[nodiscard]] word_write arrives(uint32_t offset, uint16_t word, uint16_t lanes);
  void take(const word_write &w) { (void)m_cells.write(m_words, w); }
  // Instead of the second half: the power fails in it, and the word is written in part.
  void tear(const word_write &w, uint64_t seed) { m_words.set(w.at, torn_word(w, &seed)); }

 private:
  memory m_words;
  bool m_healthy = true;
  data_lines m_data;
  bus_lines m_address;
  bad_cells m_cells;
};

}  // namespace models
