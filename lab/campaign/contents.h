// contents.h: what the memories of a board hold before and after a run.
//
// NVRAM and flash hold noise before every run, the EEPROMs what the simulated board makes for the card. The flash's
// file is large, so it moves from run to run; the changes of a run are undone after it.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "lab/campaign/fault_facts.h"

namespace lab {

// What a run changed in one memory, in bytes.
struct memory_change {
  std::string memory;  // its file: "flash", "nvram1", "eeprom-1-52"
  uint64_t bytes = 0;
  uint64_t first = 0;
  uint64_t last = 0;
  uint64_t beyond = 0;        // that the fault does not destroy by itself
  uint64_t first_beyond = 0;  // undefined if there are none

  // "flash: 131072 bytes, 0xc0000 to 0xdffff, 3 beyond the fault from 0xc0004"
  [[nodiscard]] std::string text() const;
};

// All of them, with "; " between, "" for none.
[[nodiscard]] std::string contents_text(const std::vector<memory_change> &changes);

// Which bits of a byte a fault destroys by itself.
class damage_map {
 public:
  //   fault  null for a healthy board
  explicit damage_map(const sim::fault *fault);
  // `offset` of a byte that differs; of differing bytes the first comes first.
  [[nodiscard]] uint8_t bits(std::string_view memory, uint64_t offset);

 private:
  void add_cell(uint64_t offset, uint64_t bit);

  own_damage m_kind = own_damage::nothing;
  std::string m_memory;
  uint16_t m_lines = 0;
  std::map<uint64_t, uint8_t> m_cells;
  std::optional<uint64_t> m_sector;
};

// Compares a memory with what it held before. Adds nothing if all is as before.
void compare_memory(const std::string &name, std::span<const uint8_t> before, std::span<const uint8_t> after,
                    damage_map *own, std::vector<memory_change> *changes);

// The contents before every run, in a directory of their own.
class contents_template {
 public:
  // Keeps everything below this directory, which is made. Returns "" or what went wrong.
  [[nodiscard]] std::string use(const std::string &directory);
  // Makes the contents of NVRAM and flash.
  [[nodiscard]] std::string make() const;
  // Takes the EEPROMs of a board from a state directory in which a healthy board has run.
  [[nodiscard]] std::string take_eeproms(const board_setting &board, const std::string &state);
  // Whether that was done.
  [[nodiscard]] bool has_eeproms(const board_setting &board) const;

  // Fills a new state directory. `flash` is a file that holds the template's flash, and is moved there; it is made if
  // it does not exist. Without a name there is none: for runs that do not reach the flash.
  [[nodiscard]] std::string fill(const run_item &run, const std::string &state, const std::string &flash) const;
  // Compares what the state directory holds now, puts its flash right and moves it back to `flash`. Where the run had
  // none, one that is there now counts as changed all over.
  //   keep  leaves a flash that differs where it is
  [[nodiscard]] std::vector<memory_change> compare(const run_item &run, const std::string &state,
                                                   const std::string &flash, bool keep) const;

 private:
  [[nodiscard]] std::string board_directory(const board_setting &board) const;

  std::string m_directory;
};

}  // namespace lab
