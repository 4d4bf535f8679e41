// lines.h: stuck and shorted lines of a bus, and stuck cells behind it.
#pragma once

#include <cstdint>
#include <span>
#include <vector>

#include "sim/board/fault.h"

namespace sim {

// The lines of one address or data bus, as bits of a number.
class bus_lines {
 public:
  // Adds the fault if it is `stuck` (parameters line, level) or `shorted` (line, other, wins: the level that both
  // lines take when they differ). Returns whether it was.
  bool add(const fault &f, fault_id stuck, fault_id shorted);

  [[nodiscard]] bool healthy() const { return stuck_high == 0 && stuck_low == 0 && shorts.empty(); }

  // What arrives at the other end.
  [[nodiscard]] uint32_t pass(uint32_t levels) const;

 private:
  struct pair {
    uint32_t both;
    bool high_wins;
  };
  uint32_t stuck_high = 0;
  uint32_t stuck_low = 0;
  std::vector<pair> shorts;
};

// Bad cells of a memory, by byte offset and bit.
class bad_cells {
 public:
  struct stuck_cell {
    uint32_t offset;
    uint8_t mask;
    bool high;
  };
  struct coupled_cell {
    uint32_t offset;
    uint8_t mask;
    uint32_t victim;
    uint8_t victim_mask;
  };

  // Adds the fault if it is `stuck` (offset, bit, level) or `coupled` (offset, bit, victim, vbit) and lies in a memory
  // of `size` bytes. Returns whether it was.
  bool add(const fault &f, fault_id stuck, fault_id coupled, size_t size);

  [[nodiscard]] bool healthy() const { return stuck.empty() && coupled.empty(); }

  // The 16-bit word at `offset` as the stuck cells make it.
  [[nodiscard]] uint16_t force(uint32_t offset, uint16_t word) const;

  // The coupled cells whose leading cell is set in `changed`, a mask of bits of the word at `offset`.
  [[nodiscard]] std::vector<coupled_cell> disturbed(uint32_t offset, uint16_t changed) const;

 private:
  std::vector<stuck_cell> stuck;
  std::vector<coupled_cell> coupled;
};

// Little-endian 16-bit words of a memory at an even offset.
[[nodiscard]] uint16_t word_get(std::span<const uint8_t> bytes, uint32_t offset);
void word_set(std::span<uint8_t> bytes, uint32_t offset, uint16_t word);

}  // namespace sim
