// flash.h: parallel NOR flash, 512 uniform sectors of 64 Ki words behind a 16-bit bus, with the AMD command set and
// the CFI query (Spansion S29GL-N data sheet; JEDEC JESD68.01). Erase and program suspend, unlock bypass and sector
// protection are not there, and the query says so.
#pragma once

#include <array>
#include <bitset>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "sim/board/options.h"
#include "sim/devices/cells.h"
#include "sim/devices/lines.h"

namespace sim {

inline constexpr uint32_t flash_sector_bytes = 0x20000;
inline constexpr uint32_t flash_sectors = 512;
inline constexpr uint32_t flash_bytes = flash_sector_bytes * flash_sectors;
inline constexpr uint32_t flash_page_words = 16;
inline constexpr uint32_t flash_page_bytes = 2 * flash_page_words;

// Busy time in polls: so many status reads show an operation running, the next one shows it done. An operation that
// is never polled never ends. The first poll of an erase shows its window.
inline constexpr unsigned flash_program_polls = 0;
inline constexpr unsigned flash_erase_polls = 2;
// Status reads after which the chip gives up an operation that fails.
inline constexpr unsigned flash_give_up_polls = 4;

// The chip's own times, as the query tells them: exponents of 2.
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

// Tells why a fault that `opts` asks of the flash would do nothing: "" if each does something.
std::string flash_check(const options &opts);

class cut_audit;

class flash_model {
 public:
  // Powers the chip up on its contents (flash_bytes of them). They stay the caller's, who keeps `opts`, too.
  void start(std::span<uint8_t> contents, const options &opts);

  // Tells the audit of every write from now on. It must stay.
  void tell(cut_audit *audit) { m_audit = audit; }

  // One 16-bit bus cycle at an even byte offset.
  [[nodiscard]] uint16_t read(uint32_t offset);
  void write(uint32_t offset, uint16_t data);

  // Whether reads may go to the contents at once: the chip reads its array, and nothing alters what it reads.
  [[nodiscard]] bool reads_plainly() const { return m_plain && reads_array(); }
  // Whether it holds its RY/BY# pin low.
  [[nodiscard]] bool is_busy() const { return m_mode >= phase::erase_window; }
  [[nodiscard]] bool reads_array() const { return m_mode < phase::autoselect; }

 private:
  // Where in a command the chip stands. Up to wb_confirm, reads deliver the array.
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

  struct word_load {
    uint32_t offset;
    uint16_t data;
  };

  // What becomes of the running operation: it ends, is given up with DQ5, or runs for ever.
  enum class ending : uint8_t { success, failure, never };

  std::span<uint8_t> m_memory;
  phase m_mode = phase::array;

  // The board and its faults. The lines of a cycle are those between bus and chip, the lines of the array lie behind
  // the command decoder.
  bool m_real_time = false;
  flash_times m_times = flash_times_scaled;
  const fault *m_silent = nullptr;
  const fault *m_slow = nullptr;
  const fault *m_power_cut = nullptr;
  data_lines m_cycle_data;
  data_lines m_array_data;
  bus_lines m_cycle_address;
  bus_lines m_array_address;
  bad_cells m_cells;
  std::vector<const fault *> m_wrong_words;  // of the query
  std::vector<const fault *> m_operations;   // programs and erases gone wrong
  bool m_plain = true;                       // nothing alters what the array reads
  std::optional<uint64_t> m_cut;             // the power fails in this cycle: state of the random numbers
  std::array<uint16_t, 0x100> m_query_table{};
  cut_audit *m_audit = nullptr;

  // The write buffer.
  uint32_t m_buffer_sector = 0;
  uint32_t m_buffer_count = 0;   // cycles that the count cycle announced,
  uint32_t m_buffer_cycles = 0;  // and those that came
  std::vector<word_load> m_buffer;

  // The running operation.
  std::bitset<flash_sectors> m_erasing_sectors;  // empty while programming
  ending m_outcome = ending::success;
  uint64_t m_polls_left = 0;
  uint64_t m_usual_polls_left = 0;  // of a chip that is not slow
  int64_t m_deadline_ns = 0;
  int64_t m_window_end_ns = 0;
  uint16_t m_toggles = 0;    // DQ6 and DQ2 as they stand
  bool m_data_bit7 = false;  // of the word last loaded

  // What of a cycle the chip looks at.
  struct decoded_lines {
    uint32_t address;
    uint16_t data;
  };

  void add(const fault &f);
  [[nodiscard]] const fault *struck(fault_id id, uint32_t sector) const;
  [[nodiscard]] bool is_blank(uint32_t sector) const;
  [[nodiscard]] uint32_t cell_sector(uint32_t sector);
  [[nodiscard]] decoded_lines decoded(uint8_t code) const;
  [[nodiscard]] uint16_t steady_word(uint32_t offset) const;
  [[nodiscard]] uint16_t chip_read(uint32_t offset);
  [[nodiscard]] uint16_t query_word(uint32_t word) const;
  [[nodiscard]] uint16_t array_word(uint32_t offset);
  [[nodiscard]] uint16_t status(uint32_t offset);

  void chip_write(uint32_t offset, uint16_t data);
  void next_cycle(bool in_order, phase next, uint8_t code);
  void array_cycle(uint32_t word, uint8_t code);
  void command_cycle(uint32_t offset, uint8_t code);
  void erase_cycle(uint32_t offset, uint8_t code);
  void mode_cycle(uint32_t word, uint8_t code);
  void buffer_cycle(uint32_t offset, uint16_t data);
  void buffer_word(uint32_t offset, uint16_t data);
  void busy_cycle(uint32_t offset, uint8_t code);

  void program(std::span<const word_load> words, unsigned typical_us, unsigned factor);
  [[nodiscard]] bool program_word(uint32_t offset, uint16_t data);
  void tell_program(std::span<const word_load> words) const;
  void tell_erase() const;
  void clear_bit(const fault &f, uint32_t base);
  void open_window();
  void erase();
  [[nodiscard]] bool erase_sector(uint32_t addressed);
  void erase_torn(uint32_t sector);
  void run(phase busy, int64_t typical_ns, unsigned factor, uint64_t polls);
  void poll();
  void pass_time();
  void finish();
};

}  // namespace sim
