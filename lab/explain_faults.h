// explain_faults.h: single faults of a memory as hypotheses: what a bad line does to the levels on it, what a bad cell
// does to reads and writes (van de Goor, "Testing Semiconductor Memories").
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace lab {

// ---- lines

enum class line_kind : uint8_t { stuck, shorted, floating };

struct bad_lines_of_bus {
  line_kind kind = line_kind::stuck;
  uint32_t lines = 0;  // as bits; 0: the bus is good
  bool high = false;   // level of the stuck line; the level that wins where two are shorted

  // What arrives at the other end. `kept` are the levels that floating lines have there.
  [[nodiscard]] uint32_t pass(uint32_t levels, uint32_t kept = 0) const;
};

// A data bus of 16 lines that may be bad. Either side of an open line keeps the level last driven there.
class data_bus {
 public:
  explicit data_bus(const bad_lines_of_bus &bad = {}) : m_bad(bad) {}
  // What the chip takes of a word that is written. Lines outside of `lanes` are not driven.
  [[nodiscard]] uint16_t write(uint16_t word, uint16_t lanes = 0xFFFF);
  // What the bus takes of a word that the chip drives.
  [[nodiscard]] uint16_t read(uint16_t word);

 private:
  bad_lines_of_bus m_bad;
  uint16_t m_on_bus = 0;
  uint16_t m_at_chip = 0;
};

struct line_fault {
  bool address = false;  // lines of the address bus, else of the data bus
  bad_lines_of_bus bad;
};

// Every single fault of address lines first_line..last_line and of 16 data lines: stuck, shorted, floating.
[[nodiscard]] std::vector<line_fault> line_faults(unsigned first_line, unsigned last_line);

// ---- cells

enum class cell_kind : uint8_t {
  stuck,
  transition,      // cannot be changed to the level
  read_disturb,    // a read of the level inverts the cell and gives the new level
  read_deceptive,  // a read of the level gives it and inverts the cell
  read_wrong,      // a read of the level gives the inverse
  write_disturb,   // a write of the level that it holds inverts the cell
  erase_leaves,    // a flash cell that an erase leaves programmed
  spoiled,         // a flash cell that programming anything in its sector programs
  // Two cells: the second is the victim.
  change,             // a change of the first to the level hits the victim
  read,               // a read of the first hits the victim
  write,              // a write to the first hits the victim
  state,              // while the first has the level, the victim is forced
  sense,              // while the first has the level, the victim reads as forced
  transition_of_two,  // while the first has the level, the victim cannot be changed to its level
};

inline constexpr uint8_t either = 2;

struct cell_fault {
  cell_kind kind;
  uint8_t level = either;
  uint8_t victim_level = either;  // `either` inverts what the victim holds

  [[nodiscard]] bool two_cells() const { return kind >= cell_kind::change; }
};

// A fault of the table with one choice of its levels.
struct cell_variant {
  cell_fault fault;
  std::string_view name;       // "nvram-cell-stuck"
  std::string_view what;       // for people, of the cell that reads wrong
  std::string_view levels[2];  // values of level and vlevel as given, "" where left out
};

enum class memory_kind : uint8_t { nvram, flash };
[[nodiscard]] std::vector<cell_variant> cell_variants(memory_kind memory);

// An access to the words that hold the bad cell and its victim.
struct cell_access {
  bool first = false;   // the word is that of the first cell,
  bool second = false;  // and that of the victim; a fault of one cell has no victim
};

// The bad cell and its victim, as bits. What reads wrong is the victim, or the cell itself where there is none.
class cell_pair {
 public:
  cell_pair(const cell_fault &fault, bool first, bool second) : m_fault(fault), m_first(first), m_second(second) {}

  // A read. Returns what the cell that reads wrong gives; it counts only where its word is read.
  bool read(cell_access at);
  // A write of these levels.
  void write(cell_access at, bool first, bool second);
  // Programming: a 0 clears a cell, a 1 leaves it. Returns whether the words hold then what they were to take and were
  // asked to hold, as the chip sees it.
  [[nodiscard]] bool program(cell_access at, bool first, bool second);
  // An erase of the sectors of either. Returns whether the chip sees all its cells erased.
  [[nodiscard]] bool erase(cell_access at);

  [[nodiscard]] bool first() const { return m_first; }

 private:
  [[nodiscard]] bool suits(bool level) const { return m_fault.level == either || (m_fault.level != 0) == level; }
  void hit();
  void disturb(cell_access at, bool first_before, bool first_wanted);
  [[nodiscard]] bool taken_first(bool wanted) const;
  [[nodiscard]] bool taken_second(bool wanted) const;

  cell_fault m_fault;
  bool m_first;
  bool m_second;
};

}  // namespace lab
