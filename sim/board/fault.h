// fault.h: injected faults. One table names them all; a fault is a row and its parameters.
#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <string_view>

namespace sim {

// The faults that the board knows, in the order of their table.
// clang-format off
enum class fault_id : uint8_t {
  post_missing, pci_list_unreadable, pci_missing, pci_wrong_id, bar_missing, bar_64bit, bar_io, sprom_absent,
  sprom_refuse, cpuinfo_missing, cpuinfo_no_rate, cpuinfo_rate, lock_dir_missing, lock_dir_read_only, lock_held,
  mem_absent, mem_mmap_refused, iopl_refused, port_stuck,

  ethtool_missing, ethtool_silent, ethtool_fail,

  i2c_bus_absent, i2c_smbus_only, i2c_absent, i2c_fail, eeprom_corrupt, sprom_corrupt, eeprom_protected, eeprom_busy,
  eeprom_power_cut, eeprom_dies, straps, pin_stuck,

  nvram_data_stuck, nvram_data_short, nvram_data_floating, nvram_addr_stuck, nvram_addr_short, nvram_cell_stuck,
  nvram_cell_transition, nvram_cell_read_disturb, nvram_cell_read_deceptive, nvram_cell_read_wrong,
  nvram_cell_write_disturb, nvram_cell_coupled, nvram_cell_coupled_read, nvram_cell_coupled_write,
  nvram_cell_coupled_state, nvram_cell_coupled_transition, nvram_power_cut,

  flash_data_stuck, flash_data_short, flash_data_floating, flash_addr_stuck, flash_addr_short, flash_cell_stuck,
  flash_cell_transition, flash_cell_read_disturb, flash_cell_read_deceptive, flash_cell_read_wrong,
  flash_cell_write_disturb, flash_cell_coupled, flash_cell_coupled_read, flash_cell_coupled_write,
  flash_cell_coupled_state, flash_cell_coupled_transition, flash_silent, flash_cfi, flash_slow, flash_erase_hangs,
  flash_program_hangs, flash_erase_ignored, flash_program_ignored, flash_erase_leaves, flash_program_clears,
  flash_power_cut,
};
// clang-format on

// What a fault is in.
enum class fault_part : uint8_t { service, ethernet, i2c, eeprom, expander, nvram, flash };

// How often a fault acts when it could: each time, or as the parameters nth, times, p and seed say, where times is for
// ever or 1 if it is not given.
enum class fault_when : uint8_t { always, lasting, once };

struct fault_row {
  fault_id id;
  fault_part part;
  fault_when when;
  const char *name;   // as written on the command line
  const char *parms;  // parameters separated by a blank, "" for none but those of `when`:
                      //   key=LOW..HIGH            a number, must be given
                      //   key=word|word            one of the words; its value is its position, from 0
                      //   [...]                    may be left out
                      //   [key=LOW..HIGH:DEFAULT]  may be left out and is then DEFAULT
  const char *what;   // one line for --list-faults
};

// Every fault the board knows, in the order in which --list-faults prints them.
std::span<const fault_row> fault_table();

// "NAME PARAMETERS": how the fault is asked for, in the table's notation.
std::string fault_usage(const fault_row &row);

// The parameters that a fault has by its `when`, in the table's notation.
const char *fault_parms(fault_when when);

// A parameter as given.
struct fault_parm {
  uint64_t value;
  std::string_view word;  // the table's, "" for a number
};

// The occasions of a fault, counted from 1 in each process: it takes those from the nth on, so many in a row, each by
// chance. The same seed makes the same choice.
class fault_trigger {
 public:
  static constexpr uint64_t certain = 1'000'000;

  fault_trigger() = default;
  // times  0 for ever
  // ppm    the chance of each occasion, in millionths
  fault_trigger(uint64_t nth, uint64_t times, uint64_t ppm, uint64_t seed)
      : m_nth(nth), m_times(times), m_ppm(ppm), m_random(seed) {}

  // One occasion more: whether it is taken.
  [[nodiscard]] bool next();

 private:
  uint64_t m_nth = 1;
  uint64_t m_times = 0;
  uint64_t m_ppm = certain;
  uint64_t m_random = 0;
  uint64_t m_occasions = 0;
};

// One fault as asked for: "NAME key=value ...", numbers in C notation.
struct fault {
  fault_id id;
  std::map<std::string, fault_parm, std::less<>> parms;  // what was given, and the defaults of what was not
  std::string text;                                      // as it was asked for, single blanks between its parts
  mutable fault_trigger trigger;
  std::atomic<uint64_t> *count = nullptr;  // of the whole run; see fault_counts.h

  [[nodiscard]] const fault_row &row() const;
  // The value of a parameter; `otherwise` if it was left out and has no default.
  [[nodiscard]] uint64_t get(std::string_view key, uint64_t otherwise = 0) const;
  [[nodiscard]] bool has(std::string_view key) const { return parms.find(key) != parms.end(); }
  // The word of a parameter that takes one; "" if it was left out.
  [[nodiscard]] std::string_view word(std::string_view key) const;
  // The parameter errno.
  [[nodiscard]] int error() const { return static_cast<int>(get("errno")); }
  // Whether the parameters bus and addr name this I2C device.
  [[nodiscard]] bool is_at(uint64_t bus, uint64_t addr) const { return get("bus") == bus && get("addr") == addr; }

  // One more occasion on which the fault could act: whether it does.
  [[nodiscard]] bool acts() const { return trigger.next(); }
  // Counts: the fault changed what the program got or what a memory keeps.
  void fired() const {
    if (count != nullptr) count->fetch_add(1, std::memory_order_relaxed);
  }
  // The two in one, on an occasion where acting makes that difference.
  [[nodiscard]] bool strikes() const {
    const bool does = acts();
    if (does) fired();
    return does;
  }
};

// Parses one fault against the table. On failure returns nothing and says why in *error: unknown name, unknown,
// repeated, missing or bad parameter, parameters with which it would do nothing.
std::optional<fault> fault_parse(std::string_view text, std::string *error);

}  // namespace sim
