// cells.h: bad cells of a memory of 16-bit words: the fault models of the memory-test literature (van de Goor, "Testing
// Semiconductor Memories").
#pragma once

#include <cstdint>
#include <vector>

#include "models/fault.h"
#include "models/memory.h"

namespace models {

// A write to the word at an even offset.
struct word_write {
  uint32_t at;
  uint16_t before;  // what the word held
  uint16_t wanted;  // what it should hold
  uint16_t lanes = 0xFFFF;
};

// What the word holds when the power fails while it is written: all, some or none of its bits are.
//   random  state of the random numbers
[[nodiscard]] uint16_t torn_word(const word_write &w, uint64_t *random);

// Whether a fault is one of a cell, and of two of them: the second is the victim.
[[nodiscard]] bool is_cell_fault(fault_id id);
[[nodiscard]] bool is_coupling_fault(fault_id id);

class bad_cells {
 public:
  // Adds the fault if it is one of a cell. Returns whether it is.
  bool add(const chip_fault &f);

  [[nodiscard]] bool healthy() const { return m_cells.empty(); }
  // Whether a read gives what the memory holds, and changes nothing.
  [[nodiscard]] bool read_plainly() const { return m_plain; }

  // What a read of the word at `at` gives. Nobody looks at bits outside of `lanes`.
  [[nodiscard]] uint16_t read(const memory &words, uint32_t at, uint16_t lanes = 0xFFFF) const;

  // A write: the word takes what its cells let it, then cells disturb others. Returns what the word took.
  uint16_t write(const memory &words, const word_write &w) const;

  // An erase of the bytes [first, first + length) to ones. Returns whether all their cells are erased, as the chip
  // sees it.
  bool erase(const memory &words, uint32_t first, uint32_t length);

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

  // How a fault of the table becomes a bad cell.
  struct kind_row {
    fault_id id;
    bad_cells::kind kind;
    uint8_t level;  // where the fault has no such parameter
    uint8_t vlevel;
    bool read_plainly;
  };
  static const kind_row *row_of(fault_id id);
  friend bool is_cell_fault(fault_id id);
  friend bool is_coupling_fault(fault_id id);

  struct place {
    uint32_t at;  // of the word
    uint16_t mask;

    place(uint32_t offset, unsigned bit);
    [[nodiscard]] bool get(const memory &words) const { return (words.get(at) & mask) != 0; }
    void invert(const memory &words) const { words.set(at, words.get(at) ^ mask); }
  };

  struct bad_cell {
    bad_cells::kind kind;
    uint8_t level;   // either_level for both
    uint8_t vlevel;  // either_level for the inverse of what the victim holds
    place cell;
    place victim;
    const fault *cause;

    [[nodiscard]] bool suits(bool holds) const { return level == either_level || level == static_cast<uint8_t>(holds); }
    void hit(const memory &words) const;
    [[nodiscard]] uint16_t read(const memory &words, uint16_t word, uint16_t lanes) const;
    [[nodiscard]] bool refuses(const memory &words, const word_write &w) const;
    void disturb(const memory &words, const word_write &w, uint16_t changed) const;
  };

  [[nodiscard]] uint16_t take(const memory &words, const word_write &w) const;

  std::vector<bad_cell> m_cells;
  std::vector<uint32_t> m_words;  // with a bad cell, in ascending order
  std::vector<uint16_t> m_taken;  // of an erase, by m_words
  bool m_plain = true;
};

}  // namespace models
