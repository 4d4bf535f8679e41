// explain_chip.h: a parallel NOR flash with one fault, as far as the flash test can tell: command cycles, status, write
// buffer and query of a chip with the AMD command set (Spansion S29GL-N data sheet, "Command Definitions", "Write
// Operation Status"; JEDEC JESD68.01).
//
// Only the words that are touched are kept; the others are as the contents say.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <unordered_map>
#include <vector>

#include "lab/explain_faults.h"

namespace lab {

inline constexpr uint32_t chip_sectors = 512;
inline constexpr uint32_t chip_sector_bytes = 0x20000;
inline constexpr uint32_t chip_page_bytes = 0x20;

// What the chip held before.
struct chip_contents {
  enum class kind : uint8_t {
    noise,           // no word looks like a reset command
    noise_of_reset,  // of which each looks like a reset command
    blank,
    zero,
  };
  kind base = kind::noise;
  std::map<uint32_t, uint16_t> words;  // by byte address, in place of the base's

  [[nodiscard]] uint16_t at(uint32_t address) const;
};

struct chip_fault {
  enum class kind : uint8_t {
    none,
    lines,
    silent,       // nothing answers: all ones
    query,        // a word of the query reads wrong
    slow,         // so many status reads show an operation running
    erase_hangs,  // never ends
    program_hangs,
    erase_ignored,  // reports success and does nothing
    program_ignored,
  };
  kind what = kind::none;
  line_fault lines = {};
  bool commands = false;                // the lines are bad for commands and status, too
  std::optional<uint32_t> sector = {};  // of an operation; nothing for all
  bool gives_up = false;                // a hanging operation ends with DQ5
  uint32_t word = 0;                    // of the query, or status reads of a slow program
  uint32_t value = 0;                   // of that word, or status reads of a slow erase
};

class flash_chip {
 public:
  flash_chip(const chip_fault &fault, const chip_contents &contents);

  // One bus cycle at an even byte address.
  [[nodiscard]] uint16_t read(uint32_t address);
  void write(uint32_t address, uint16_t data);

 private:
  enum class mode : uint8_t {
    array,
    unlock1,
    unlock2,
    erase_setup,
    erase_unlock1,
    erase_unlock2,
    word,
    buffer_count,
    buffer_load,
    buffer_confirm,
    lost,  // out of order: only a reset leads out
    query,
    aborted,
    aborted_unlock1,
    aborted_unlock2,
    erase_window,
    erasing,
    programming,
    failed,
  };
  struct load {
    uint32_t address;
    uint16_t data;
  };
  struct cell_word {
    uint16_t data;
    uint32_t erased;  // how often its sector was
  };

  [[nodiscard]] bool is(chip_fault::kind what, uint32_t sector) const;
  [[nodiscard]] uint32_t array_line_fault(uint32_t address) const;
  [[nodiscard]] uint16_t cell(uint32_t address) const;
  void set_cell(uint32_t address, uint16_t data);
  [[nodiscard]] std::pair<uint32_t, uint16_t> looked_at(uint8_t code) const;
  [[nodiscard]] uint16_t answer(uint32_t address);
  [[nodiscard]] uint16_t status(uint32_t address);
  [[nodiscard]] uint16_t query_word(uint32_t word) const;
  void cycle(uint32_t address, uint16_t data);
  void step(bool in_order, mode next, uint8_t code);
  void command(uint32_t address, uint8_t code);
  void leave(uint32_t word, uint8_t code);
  void buffer(uint32_t address, uint16_t data);
  void busy(uint8_t code);
  void program(const std::vector<load> &words);
  [[nodiscard]] bool program_word(const load &word);
  void erase();
  void run(mode busy, uint32_t polls);
  void poll();

  chip_fault m_fault;
  const chip_contents *m_contents;
  data_bus m_cycle_data;
  data_bus m_array_data;
  bad_lines_of_bus m_cycle_address;
  bad_lines_of_bus m_array_address;
  std::unordered_map<uint32_t, cell_word> m_cells;
  std::vector<uint32_t> m_erased;

  mode m_mode = mode::array;
  uint32_t m_buffer_sector = 0;
  uint32_t m_buffer_count = 0;
  uint32_t m_buffer_cycles = 0;
  std::vector<load> m_buffer;
  bool m_bit7 = false;                // of the word last loaded
  std::optional<uint32_t> m_erasing;  // sector, while no program has begun
  bool m_fails = false;
  bool m_never = false;
  uint32_t m_polls = 0;
  uint16_t m_toggles = 0;
};

}  // namespace lab
