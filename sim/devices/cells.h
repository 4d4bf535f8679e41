// cells.h: bad cells of a memory of 16-bit words: the fault models of the memory-test literature (van de Goor, "Testing
// Semiconductor Memories").
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <vector>

#include "sim/board/fault.h"

namespace sim {

// A write to the word at an even offset.
struct word_write {
  uint32_t at;
  uint16_t before;  // what the word held
  uint16_t wanted;  // what it should hold
  uint16_t lanes = 0xFFFF;
};

// What the word holds when the power fails while it is written: all, some or none of its bits are.
[[nodiscard]] uint16_t torn_word(const word_write &w, uint64_t *random);

class bad_cells {
 public:
  // Adds the fault if it is one of a cell. Returns whether it is. The fault must stay.
  bool add(const fault &f);

  [[nodiscard]] bool healthy() const { return m_cells.empty(); }
  // Whether a read gives what the memory holds, and changes nothing.
  [[nodiscard]] bool read_plainly() const { return m_plain; }

  // What a read of the word at `at` gives. Nobody looks at bits outside of `lanes`.
  [[nodiscard]] uint16_t read(std::span<uint8_t> memory, uint32_t at, uint16_t lanes = 0xFFFF) const;

  // What the word holds after a write.
  [[nodiscard]] uint16_t take(std::span<const uint8_t> memory, const word_write &w) const;

  // What a write does besides, once the word holds what it took.
  void disturb(std::span<uint8_t> memory, const word_write &w) const;

  // The offsets in [first, first + length) of words that may not take what is written.
  [[nodiscard]] std::vector<uint32_t> words(uint32_t first, uint32_t length) const;

 private:
  enum class kind : uint8_t {
    stuck,               // at `level`
    transition,          // cannot be changed to `level`
    read_disturb,        // a read inverts it and gives the new level
    read_deceptive,      // a read gives the level and inverts it
    read_wrong,          // a read gives the inverse
    write_disturb,       // a write of its own level inverts it
    coupled_change,      // its change to `level` hits the victim
    coupled_read,        // a read of it hits the victim
    coupled_write,       // a write to it hits the victim
    coupled_state,       // while at `level`, the victim is forced
    coupled_sense,       // while at `level`, the victim reads as forced
    coupled_transition,  // while at `level`, the victim cannot be changed to its level
  };
  static constexpr uint8_t any = 2;

  struct place {
    uint32_t at;  // of the word
    uint16_t mask;

    place(uint64_t offset, uint64_t bit);
    [[nodiscard]] bool get(std::span<const uint8_t> memory) const;
    void invert(std::span<uint8_t> memory) const;
  };

  struct bad_cell {
    const fault *cause;
    bad_cells::kind kind;
    place cell;
    place victim;
    uint8_t level;         // `any` for both
    uint8_t victim_level;  // `any` for the inverse of what it holds

    [[nodiscard]] bool suits(bool holds) const { return level == any || level == static_cast<uint8_t>(holds); }
    void hit(std::span<uint8_t> memory) const;
    [[nodiscard]] uint16_t read(std::span<uint8_t> memory, uint16_t word, uint16_t lanes) const;
    [[nodiscard]] bool refuses(std::span<const uint8_t> memory, const word_write &w) const;
    void disturb(std::span<uint8_t> memory, const word_write &w, uint16_t changed) const;
  };

  // How a fault of the table becomes a bad cell.
  struct kind_row {
    fault_id id;
    bad_cells::kind kind;
    uint8_t level;  // where the fault has no such parameter
    uint8_t victim_level;
    bool read_plainly;
  };
  static const kind_row *row_of(fault_id id);

  std::vector<bad_cell> m_cells;
  bool m_plain = true;
};

}  // namespace sim
