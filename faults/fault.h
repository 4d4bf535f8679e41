// fault.h: injected faults. One table names them all; a fault is a row and its parameters.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

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

// What faults are asked for with. `error` is "errno" on the command line, `invert` is "xor".
// clang-format off
enum class parm : uint8_t {
  none,
  bus, dev, func, vendor, device, bar, high, error, after, khz, lock, kind, ms, bit, level, port, test, code, addr,
  offset, invert, image, block, polls, nth, torn, value, pin, instance, line, other, wins, victim, vbit, vlevel, commands,
  seed, word, program, erase, sector, dq5, times, p,
};
// clang-format on

// A parameter's name on the command line.
std::string_view parm_name(parm key);

// A parameter of a kind of fault.
struct parm_row {
  enum class given : uint8_t { always, may, or_default };

  parm key = parm::none;
  uint64_t low = 0;
  uint64_t high = 0;
  bool hex = false;             // printed in hexadecimal
  const char *words = nullptr;  // "word|word": the words that it takes; its value is the position, from 0
  parm_row::given given = given::always;
  uint64_t otherwise = 0;  // the default

  // The highest value, of words the position of the last.
  [[nodiscard]] uint64_t highest() const;
  // The word at this position, "" for none.
  [[nodiscard]] std::string_view word(uint64_t value) const;
  // A value as text, and back: nothing if it is not allowed.
  [[nodiscard]] std::string print(uint64_t value) const;
  [[nodiscard]] std::optional<uint64_t> parse(std::string_view text) const;
  // "LOW..HIGH" or "word|word".
  [[nodiscard]] std::string allowed() const;
  // "key=LOW..HIGH", "[key=LOW..HIGH]" or "[key=LOW..HIGH:DEFAULT]".
  [[nodiscard]] std::string usage() const;
};

// What a fault needs of the board that it is asked of; without it, it would do nothing.
enum class fault_need : uint8_t {
  nothing,
  pci_function,  // one at bus, dev and func
  other_ids,     // vendor and device differ from those of the function
  memory_bar,    // the base address register does not map I/O space
  i2c_bus,       // bus, if it is given
  i2c_device,    // any at bus and addr
  eeprom,        // one there
  eeprom_byte,   // it has the offset
  expander,      // one there
  straps,        // any
  other_straps,  // their value differs
  sprom,         // the image
  sprom_block,   // it has the block
  block_byte,    // which has the offset
  other_word,    // the word of the CFI query differs
  other_times,   // program and erase differ from the usual numbers
};

struct fault_row {
  fault_id id;
  fault_part part;
  fault_when when;
  const char *name;                     // as written on the command line
  std::array<fault_need, 3> all_needs;  // the rest is `nothing`
  std::array<parm_row, 7> all_parms;    // but those of `when`; the rest is `none`
  const char *what;                     // one line for --list-faults

  [[nodiscard]] std::span<const fault_need> needs() const;
  // Its own parameters, and those that it has by its `when`.
  [[nodiscard]] std::span<const parm_row> parms() const;
  [[nodiscard]] std::span<const parm_row> trigger_parms() const;
  // The row of a parameter, or null.
  [[nodiscard]] const parm_row *find(parm key) const;
  [[nodiscard]] const parm_row *find(std::string_view key) const;
  // "NAME PARAMETERS": how the fault is asked for, without the parameters that it has by its `when`.
  [[nodiscard]] std::string usage() const;
};

// The text of --list-faults: what parameters mean, then each fault under its part of the board with an example.
std::string fault_list();
// Options of board-sim that inject the fault.
std::string fault_example(const fault_row &row);

// Every fault the board knows, in the order in which --list-faults prints them.
std::span<const fault_row> fault_table();

// The row of that name, or null.
const fault_row *fault_named(std::string_view name, std::span<const fault_row> table = fault_table());

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
  // Those so far.
  [[nodiscard]] uint64_t occasions() const { return m_occasions; }

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
  std::map<parm, uint64_t> values;  // what was given, and the defaults of what was not
  std::string text;                 // as it was asked for, single blanks between its parts
  mutable fault_trigger trigger;
  std::atomic<uint64_t> *count = nullptr;  // of the whole run; see fault_counts.h

  [[nodiscard]] const fault_row &row() const;
  // The value of a parameter that is given or has a default. To ask for one that the fault's kind lacks is a mistake of
  // the program: an assertion fails, here and in the next three.
  [[nodiscard]] uint64_t get(parm key) const;
  // The same; `otherwise` if it was left out.
  [[nodiscard]] uint64_t get(parm key, uint64_t otherwise) const;
  [[nodiscard]] bool has(parm key) const;
  // The word of a parameter that takes one; "" if it was left out.
  [[nodiscard]] std::string_view word(parm key) const;
  // For faults of any kind: nothing if the parameter was left out or the kind lacks it.
  [[nodiscard]] std::optional<uint64_t> find(parm key) const;
  // Whether both are faults of one thing that can be wrong in one way only: then one of them would do nothing.
  [[nodiscard]] bool excludes(const fault &other) const;
  // The parameter errno.
  [[nodiscard]] int error() const { return static_cast<int>(get(parm::error)); }
  // Whether the parameters bus and addr name this I2C device.
  [[nodiscard]] bool is_at(uint64_t bus, uint64_t addr) const {
    return get(parm::bus) == bus && get(parm::addr) == addr;
  }

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

// A fault or a pattern of faults as written: a name and what follows it, in pairs of key and value.
struct fault_text {
  std::string name;
  std::vector<std::pair<std::string, std::string>> values;

  // The value as it is written, or nothing.
  [[nodiscard]] std::optional<std::string_view> find(std::string_view key) const;
  // The value as a number; `otherwise` if it is left out or is none.
  [[nodiscard]] uint64_t number(std::string_view key, uint64_t otherwise = 0) const;
};

// Splits "NAME key=value ...". A word without '=' is a key with the value "".
fault_text parse_fault_text(std::string_view text);

// Parses one fault against the table. On failure returns nothing and says why in *error: unknown name, unknown,
// repeated, missing or bad parameter, parameters with which it would do nothing.
std::optional<fault> fault_parse(std::string_view text, std::string *error);

}  // namespace sim
