// nor_flash.h: parallel NOR flash, 512 uniform sectors of 64 Ki words on a 16-bit bus, with the AMD command set and the
// CFI query (Spansion S29GL-N data sheet; JEDEC JESD68.01). Erase and program suspend, unlock bypass and sector
// protection are not there, and the query says so.
#pragma once

#include <array>
#include <bitset>
#include <cstdint>
#include <optional>
#include <span>
#include <vector>

#include "models/cells.h"
#include "models/lines.h"
#include "models/memory.h"

namespace models {

inline constexpr uint32_t flash_sector_bytes = 0x20000;
inline constexpr uint32_t flash_sectors = 512;
inline constexpr uint32_t flash_bytes = flash_sector_bytes * flash_sectors;
inline constexpr uint32_t flash_page_words = 16;
inline constexpr uint32_t flash_page_bytes = 2 * flash_page_words;

// "Command Definitions", word mode.
enum flash_command : uint16_t {
  cmd_chip_erase = 0x10,
  cmd_buffer_load = 0x25,
  cmd_buffer_confirm = 0x29,
  cmd_sector_erase = 0x30,
  cmd_unlock2 = 0x55,
  cmd_erase_setup = 0x80,
  cmd_autoselect = 0x90,
  cmd_query = 0x98,
  cmd_program = 0xA0,
  cmd_unlock1 = 0xAA,
  cmd_reset = 0xF0,
};

// "Write Operation Status".
enum flash_status : uint16_t {
  dq1 = 0x02,  // write buffer aborted
  dq2 = 0x04,  // toggles within sectors that are erased
  dq3 = 0x08,  // the erase window is over
  dq5 = 0x20,  // time exceeded
  dq6 = 0x40,  // toggles while busy
  dq7 = 0x80,  // complement of the data, 0 during an erase
};

// Busy time in polls: so many status reads show an operation running, the next one shows it done. An operation that
// is never polled never ends. The first poll of an erase shows its window.
inline constexpr unsigned flash_program_polls = 0;
inline constexpr unsigned flash_erase_polls = 2;
// Status reads after which the chip gives up an operation that fails.
inline constexpr unsigned flash_give_up_polls = 4;

// "Common Flash Memory Interface": the chip's own times as exponents of 2.
struct flash_times {
  uint8_t word_us;
  uint8_t buffer_us;
  uint8_t erase_ms;
  uint8_t word_factor;  // of the typical time, for the longest one
  uint8_t buffer_factor;
  uint8_t erase_factor;
};
inline constexpr flash_times flash_times_real{7, 7, 10, 1, 5, 4};
inline constexpr flash_times flash_times_scaled{2, 2, 1, 3, 3, 3};

// A word of the query. `word` is its number; those from 0x100 on repeat the first.
[[nodiscard]] uint16_t flash_query_word(const flash_times &times, uint32_t word);

// Somebody who looks at what the chip changes.
class flash_watcher {
 public:
  // The chip begins to program these words, or to erase these sectors. Before the contents change.
  virtual void programs(std::span<const word_write> words) = 0;
  virtual void erases(const std::bitset<flash_sectors> &sectors) = 0;
  // What was begun last is done.
  virtual void done() = 0;

 protected:
  ~flash_watcher() = default;
};

struct flash_setup {
  flash_times times = flash_times_scaled;
  // Monotonic time in nanoseconds, which operations last in. Null: they last so many polls.
  int64_t (*now)() = nullptr;
  flash_watcher *watcher = nullptr;  // null for nobody; must stay
};

class nor_flash {
 public:
  nor_flash() = default;
  // Powers the chip up on its words, flash_bytes of them in blocks of a sector. The owner keeps them. Faults of other
  // parts are left out.
  explicit nor_flash(memory words, std::span<const chip_fault> faults = {}, const flash_setup &setup = {});

  // One 16-bit bus cycle at an even byte offset.
  [[nodiscard]] uint16_t read(uint32_t offset);
  void write(uint32_t offset, uint16_t data);

  // A write cycle in which the power fails: what it begins is left half done, by the seed. The chip is of no use then.
  void write_torn(uint32_t offset, uint16_t data, uint64_t seed);

  // Whether reads may go to the words at once: the chip reads its array, and nothing alters what it reads.
  [[nodiscard]] bool reads_plainly() const { return m_plain && reads_array(); }
  [[nodiscard]] bool reads_array() const;
  // Whether it waits for the first cycle of a command.
  [[nodiscard]] bool is_idle() const { return m_now == phase::array; }
  // Whether it holds its RY/BY# pin low.
  [[nodiscard]] bool is_busy() const;

 private:
  // Where in a command the chip is.
  enum class phase : uint8_t {
    array,
    unlock1,
    unlock2,
    erase_setup,
    erase_unlock1,
    erase_unlock2,
    word,        // the next cycle is a word to program
    wb_count,    // write-buffer programming: number of words less 1,
    wb_load,     // words,
    wb_confirm,  // confirmation
    lost,        // a cycle was out of order; only a reset leads out
    autoselect,
    query,
    query_in_autoselect,
    aborted,  // write buffer aborted; only its own reset leads out
    aborted_unlock1,
    aborted_unlock2,
    erase_window,  // sectors may be added
    erasing,
    programming,
    failed,  // given up, DQ5; reset leads out
  };
  // How the running operation ends: well, given up with DQ5, or never.
  enum class ending : uint8_t { success, failure, never };

  struct state_row;
  struct cycle_row;
  struct state_table;
  enum class answer : uint8_t;
  enum class place : uint8_t;
  enum class action : uint8_t;

  struct word_load {
    uint32_t offset;
    uint16_t data;
  };
  // What the chip looks at in a cycle.
  struct decoded_lines {
    uint32_t address;
    uint16_t data;
  };

  [[nodiscard]] const state_row &state() const;
  [[nodiscard]] const cycle_row *row_of(uint8_t code) const;
  [[nodiscard]] decoded_lines decoded(uint8_t code) const;
  [[nodiscard]] bool is_at(place wanted, uint32_t offset) const;

  [[nodiscard]] uint16_t chip_read(uint32_t offset);
  [[nodiscard]] uint16_t steady_word(uint32_t offset) const;
  [[nodiscard]] uint16_t query_word(uint32_t word) const;
  [[nodiscard]] uint16_t array_word(uint32_t offset);
  [[nodiscard]] uint16_t status(uint32_t offset);

  void bus_write(uint32_t offset, uint16_t data);
  void chip_write(uint32_t offset, uint16_t data);
  void act(action what, uint32_t offset, uint16_t data);
  void load(uint32_t offset, uint16_t data);

  [[nodiscard]] bool is_silent() const;
  [[nodiscard]] const chip_fault *struck(fault_id id, uint32_t sector) const;
  [[nodiscard]] bool is_blank(uint32_t sector) const;
  void program(std::span<const word_load> loads, unsigned typical_us, unsigned factor);
  [[nodiscard]] bool program_word(const word_load &load);
  void clear_bit(const chip_fault &f, uint32_t offset) const;
  void open_window(uint32_t sector);
  void erase();
  [[nodiscard]] bool erase_sector(uint32_t addressed);
  void erase_torn(uint32_t sector);

  void run(phase busy, int64_t typical_ns, unsigned factor, uint64_t polls);
  void poll();
  void pass_time();
  void finish();

  memory m_words;
  flash_setup m_setup;
  phase m_now = phase::array;

  // Faults. The lines of a cycle are those between bus and chip, the lines of the array come after the command decoder.
  bool m_plain = true;  // nothing alters what the array reads
  data_lines m_cycle_data;
  data_lines m_array_data;
  bus_lines m_cycle_address;
  bus_lines m_array_address;
  bad_cells m_cells;
  std::vector<const fault *> m_silent;  // causes
  std::optional<chip_fault> m_slow;
  std::vector<chip_fault> m_others;  // of the query, and programs and erases gone wrong
  std::optional<uint64_t> m_cut;     // the power fails in this cycle: state of the random numbers

  // The write buffer.
  uint32_t m_buffer_sector = 0;
  uint32_t m_buffer_count = 0;   // cycles that the count cycle announced,
  uint32_t m_buffer_cycles = 0;  // those that came,
  uint32_t m_buffer_words = 0;   // and the places that they named
  std::array<word_load, flash_page_words> m_buffer{};

  // The running operation.
  std::bitset<flash_sectors> m_erasing_sectors;  // empty while programming
  ending m_ending = ending::success;
  uint64_t m_polls_left = 0;
  uint64_t m_usual_polls_left = 0;  // of a chip that is not slow
  int64_t m_deadline_ns = 0;
  int64_t m_window_end_ns = 0;
  uint16_t m_toggles = 0;    // DQ6 and DQ2 as they are
  bool m_data_bit7 = false;  // of the word last loaded
};

}  // namespace models
