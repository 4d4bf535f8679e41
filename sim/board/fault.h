// fault.h: injected faults. One table names them all; a fault is a row and its parameters.
#pragma once

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
  straps, pin_stuck,

  nvram_data_stuck, nvram_data_short, nvram_addr_stuck, nvram_addr_short, nvram_cell_stuck, nvram_cell_coupled,

  flash_data_stuck, flash_data_short, flash_addr_stuck, flash_addr_short, flash_cell_stuck, flash_cell_coupled,
  flash_silent, flash_cfi, flash_slow, flash_erase_hangs, flash_program_hangs, flash_erase_leaves,
  flash_program_clears, flash_power_cut,
};
// clang-format on

// What a fault is in.
enum class fault_part : uint8_t { service, ethernet, i2c, eeprom, expander, nvram, flash };

struct fault_row {
  fault_id id;
  fault_part part;
  const char *name;   // as written on the command line
  const char *parms;  // parameters separated by a blank, "" for none:
                      //   key=LOW..HIGH            a number, must be given
                      //   key=word|word            one of the words; its value is its position, from 0
                      //   [...]                    may be left out
                      //   [key=LOW..HIGH:DEFAULT]  may be left out and is then DEFAULT
  const char *what;   // one line for --list-faults
};

// Every fault the board knows, in the order in which --list-faults prints them.
std::span<const fault_row> fault_table();

// A parameter as given.
struct fault_parm {
  uint64_t value;
  std::string_view word;  // the table's, "" for a number
};

// One fault as asked for: "NAME key=value ...", numbers in C notation.
struct fault {
  fault_id id;
  std::map<std::string, fault_parm, std::less<>> parms;  // what was given, and the defaults of what was not
  std::string text;                                      // as it was asked for

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
  // Whether the parameters nth and times, 0 for ever, name the event of this number, from 1.
  [[nodiscard]] bool hits(uint64_t event) const;
};

// Parses one fault against the table. On failure returns nothing and says why in *error: unknown name, unknown,
// repeated, missing or bad parameter.
std::optional<fault> fault_parse(std::string_view text, std::string *error);

}  // namespace sim
