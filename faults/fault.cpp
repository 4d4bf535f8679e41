// fault.cpp: the table of faults.
#include "faults/fault.h"

#include <algorithm>
#include <array>
#include <cassert>
#include <utility>

#include "faults/random.h"

namespace sim {

namespace {

using id = fault_id;
using part = fault_part;
using when = fault_when;
using need = fault_need;

// clang-format off
constexpr std::array parm_names{std::to_array<std::pair<parm, std::string_view>>({
    {parm::none, ""},
    {parm::bus, "bus"}, {parm::dev, "dev"}, {parm::func, "func"}, {parm::vendor, "vendor"}, {parm::device, "device"},
    {parm::bar, "bar"}, {parm::high, "high"}, {parm::error, "errno"}, {parm::after, "after"}, {parm::khz, "khz"},
    {parm::lock, "lock"}, {parm::kind, "kind"}, {parm::ms, "ms"}, {parm::bit, "bit"}, {parm::level, "level"},
    {parm::port, "port"}, {parm::test, "test"}, {parm::code, "code"}, {parm::addr, "addr"}, {parm::offset, "offset"},
    {parm::invert, "xor"}, {parm::image, "image"}, {parm::block, "block"}, {parm::polls, "polls"}, {parm::nth, "nth"},
    {parm::torn, "torn"}, {parm::value, "value"}, {parm::pin, "pin"}, {parm::instance, "instance"},
    {parm::line, "line"}, {parm::other, "other"}, {parm::wins, "wins"}, {parm::victim, "victim"},
    {parm::vbit, "vbit"}, {parm::vlevel, "vlevel"}, {parm::commands, "commands"}, {parm::seed, "seed"}, {parm::word, "word"},
    {parm::program, "program"}, {parm::erase, "erase"}, {parm::sector, "sector"}, {parm::dq5, "dq5"},
    {parm::times, "times"}, {parm::p, "p"},
})};
// clang-format on
constexpr bool names_in_order() {
  for (size_t i = 0; i < parm_names.size(); ++i)
    if (parm_names[i].first != static_cast<parm>(i)) return false;
  return parm_names.back().first == parm::p;
}
static_assert(names_in_order(), "a name for each parameter, in the order of their enumeration");

constexpr parm_row number(parm key, uint64_t low, uint64_t high) {
  return {.key = key, .low = low, .high = high};
}

constexpr parm_row hex(parm key, uint64_t low, uint64_t high) {
  return {.key = key, .low = low, .high = high, .hex = true};
}

constexpr parm_row words(parm key, const char *list) {
  return {.key = key, .words = list};
}

// May be left out, and has a default then, or none.
constexpr parm_row may(parm_row row) {
  row.given = parm_row::given::may;
  return row;
}

constexpr parm_row may(parm_row row, uint64_t otherwise) {
  row.given = parm_row::given::or_default;
  row.otherwise = otherwise;
  return row;
}

// The errno that a call fails with.
constexpr parm_row error_of(uint64_t otherwise) {
  return may(number(parm::error, 1, 133), otherwise);
}

// Parameters that several faults have.
constexpr parm_row bit_in_byte = number(parm::bit, 0, 7);
constexpr parm_row instance = number(parm::instance, 0, 2);
constexpr parm_row level = number(parm::level, 0, 1);
constexpr parm_row flash_offset = hex(parm::offset, 0, 0x3FFFFFF);
constexpr parm_row nvram_offset = hex(parm::offset, 0, 0x7FFF);
constexpr parm_row vbit = number(parm::vbit, 0, 7);
constexpr parm_row i2c_bus = number(parm::bus, 0, 255);
constexpr parm_row i2c_addr = hex(parm::addr, 0x03, 0x77);
constexpr parm_row data_line = number(parm::line, 0, 15);
constexpr parm_row may_level = may(number(parm::level, 0, 1));
constexpr parm_row nvram_victim = hex(parm::victim, 0, 0x7FFF);
constexpr parm_row flash_victim = hex(parm::victim, 0, 0x3FFFFFF);
constexpr parm_row commands = may(number(parm::commands, 0, 1), 0);
constexpr parm_row wins = may(number(parm::wins, 0, 1), 0);
constexpr parm_row may_sector = may(number(parm::sector, 0, 511));
constexpr parm_row bar = number(parm::bar, 0, 5);
constexpr parm_row may_vlevel = may(number(parm::vlevel, 0, 1));
constexpr parm_row vlevel = number(parm::vlevel, 0, 1);
constexpr parm_row pci_bus = hex(parm::bus, 0, 0xFF);
constexpr parm_row pci_dev = number(parm::dev, 0, 31);
constexpr parm_row pci_func = number(parm::func, 0, 7);
constexpr parm_row inverted = may(hex(parm::invert, 1, 0xFF), 0xFF);
constexpr parm_row nth_byte = number(parm::nth, 1, 1000000);
constexpr parm_row torn = may(hex(parm::torn, 0, 0xFF), 0x0F);
constexpr parm_row data_other = number(parm::other, 0, 15);
constexpr parm_row nvram_line = number(parm::line, 1, 14);
constexpr parm_row nvram_other = number(parm::other, 1, 14);
constexpr parm_row nth_cycle = number(parm::nth, 1, 100000000);
constexpr parm_row seed = may(hex(parm::seed, 0, 0xFFFFFFFF), 0);
constexpr parm_row flash_line = number(parm::line, 1, 25);
constexpr parm_row flash_other = number(parm::other, 1, 25);
constexpr parm_row dq5 = may(number(parm::dq5, 0, 1), 0);

constexpr std::array lasting_parms{may(number(parm::nth, 1, 1000000000), 1), may(number(parm::times, 0, 1000000000), 0),
                                   may(number(parm::p, 1, fault_trigger::certain), fault_trigger::certain), seed};
constexpr std::array once_parms{lasting_parms[0], may(number(parm::times, 0, 1000000000), 1), lasting_parms[2], seed};

// clang-format off
constexpr std::array fault_rows{std::to_array<fault_row>({
    // id                              part            when           name                             needs                                        parameters                                                   what it does

    // Files and services of the operating system.
    {id::post_missing,                  part::service,  when::always,  "post-missing",                  {},                                          {},                                                          "/post does not exist"},
    {id::pci_list_unreadable,           part::service,  when::always,  "pci-list-unreadable",           {},                                          {error_of(13)},                                              "/proc/bus/pci/devices cannot be opened"},
    {id::pci_missing,                   part::service,  when::always,  "pci-missing",                   {need::pci_function},                        {pci_bus, pci_dev, pci_func},                                "the PCI list lacks this function"},
    {id::pci_wrong_id,                  part::service,  when::always,  "pci-wrong-id",                  {need::pci_function, need::other_ids},       {pci_bus, pci_dev, pci_func, may(hex(parm::vendor, 0, 0xFFFF)), may(hex(parm::device, 0, 0xFFFF))},"the function answers with another vendor or device id"},
    {id::bar_missing,                   part::service,  when::always,  "bar-missing",                   {},                                          {bar},                                                       "this base address register of the local-bus bridge is 0 and has no size"},
    {id::bar_64bit,                     part::service,  when::always,  "bar-64bit",                     {},                                          {bar, may(hex(parm::high, 1, 0xFFFFFFFF), 1)},               "this register is the lower half of a 64-bit one, the next holds the upper half"},
    {id::bar_io,                        part::service,  when::always,  "bar-io",                        {need::memory_bar},                          {bar},                                                       "this register maps I/O space"},
    {id::sprom_absent,                  part::service,  when::always,  "sprom-absent",                  {},                                          {},                                                          "/dev/sprom does not exist"},
    {id::sprom_refuse,                  part::service,  when::always,  "sprom-refuse",                  {},                                          {error_of(22), may(number(parm::after, 0, 1000000), 0)},     "the SPROM driver refuses every request after the first ones"},
    {id::cpuinfo_missing,               part::service,  when::always,  "cpuinfo-missing",               {},                                          {},                                                          "/proc/cpuinfo does not exist"},
    {id::cpuinfo_no_rate,               part::service,  when::always,  "cpuinfo-no-rate",               {},                                          {},                                                          "/proc/cpuinfo shows no clock rate"},
    {id::cpuinfo_rate,                  part::service,  when::always,  "cpuinfo-rate",                  {},                                          {hex(parm::khz, 0, 0xFFFFFFFFFF)},                           "/proc/cpuinfo shows this clock rate instead of the true one"},
    {id::lock_dir_missing,              part::service,  when::always,  "lock-dir-missing",              {},                                          {},                                                          "/var/lock does not exist"},
    {id::lock_dir_read_only,            part::service,  when::always,  "lock-dir-read-only",            {},                                          {},                                                          "/var/lock cannot be written"},
    {id::lock_held,                     part::service,  when::always,  "lock-held",                     {},                                          {words(parm::lock, "nvram0|nvram1|nvram2|flash"), words(parm::kind, "read|write"), may(number(parm::ms, 1, 600000), 500)},"another process holds this lock from the start until this long after the first request for it"},
    {id::mem_absent,                    part::service,  when::always,  "mem-absent",                    {},                                          {error_of(2)},                                               "/dev/mem cannot be opened"},
    {id::mem_mmap_refused,              part::service,  when::lasting, "mem-mmap-refused",              {},                                          {error_of(1)},                                               "mmap of /dev/mem fails"},
    {id::iopl_refused,                  part::service,  when::always,  "iopl-refused",                  {},                                          {error_of(1)},                                               "the I/O privilege level cannot be raised"},
    {id::port_stuck,                    part::service,  when::lasting, "port-stuck",                    {},                                          {number(parm::bit, 0, 31), level},                           "this bit of I/O port 0x50C is stuck"},

    // Ethernet controllers.
    {id::ethtool_missing,               part::ethernet, when::always,  "ethtool-missing",               {},                                          {},                                                          "there is no ethtool"},
    {id::ethtool_silent,                part::ethernet, when::always,  "ethtool-silent",                {},                                          {may(words(parm::port, "eth0|eth1|eth2|eth5"))},             "ethtool prints nothing"},
    {id::ethtool_fail,                  part::ethernet, when::always,  "ethtool-fail",                  {},                                          {words(parm::port, "eth0|eth1|eth2|eth5"), words(parm::test, "register|eeprom|interrupt|loopback|link"), may(number(parm::code, 1, 99), 1)},"this sub-test of the controller fails with the code"},

    // I2C buses, EEPROMs and expanders.
    {id::i2c_bus_absent,                part::i2c,      when::always,  "i2c-bus-absent",                {need::i2c_bus},                             {i2c_bus},                                                   "the bus has no device file"},
    {id::i2c_smbus_only,                part::i2c,      when::always,  "i2c-smbus-only",                {need::i2c_bus},                             {may(number(parm::bus, 0, 255))},                            "the adapter offers only SMBus transfers"},
    {id::i2c_absent,                    part::i2c,      when::lasting, "i2c-absent",                    {need::i2c_device},                          {i2c_bus, i2c_addr},                                         "nothing acknowledges at this address"},
    {id::i2c_fail,                      part::i2c,      when::once,    "i2c-fail",                      {need::i2c_device},                          {i2c_bus, i2c_addr, error_of(5)},                            "a transaction with the device fails"},
    {id::eeprom_corrupt,                part::eeprom,   when::lasting, "eeprom-corrupt",                {need::i2c_device, need::eeprom, need::eeprom_byte},{i2c_bus, i2c_addr, hex(parm::offset, 0, 0xFFFF), inverted}, "a byte of the EEPROM reads wrong"},
    {id::sprom_corrupt,                 part::eeprom,   when::lasting, "sprom-corrupt",                 {need::sprom, need::sprom_block, need::block_byte},{words(parm::image, "sup|bp|dc1|lc2|lc3|ps1|ps2"), words(parm::block, "header|main|sensor|wwn|license"), may(number(parm::offset, 0, 255), 8), inverted},"a byte of this block of a SPROM image reads wrong"},
    {id::eeprom_protected,              part::eeprom,   when::lasting, "eeprom-protected",              {need::i2c_device, need::eeprom},            {i2c_bus, i2c_addr},                                         "the EEPROM's write protection is stuck: writes are acknowledged and ignored"},
    {id::eeprom_busy,                   part::eeprom,   when::always,  "eeprom-busy",                   {need::i2c_device, need::eeprom},            {i2c_bus, i2c_addr, may(number(parm::polls, 0, 1000000), 0)},"write cycles last this many polls; polls 0 is for ever"},
    {id::eeprom_power_cut,              part::eeprom,   when::always,  "eeprom-power-cut",              {need::i2c_device, need::eeprom},            {i2c_bus, i2c_addr, nth_byte, torn},                         "the run is killed in the write cycle of the nth byte written; only the bits of torn are written"},
    {id::eeprom_dies,                   part::eeprom,   when::always,  "eeprom-dies",                   {need::i2c_device, need::eeprom},            {i2c_bus, i2c_addr, nth_byte, torn},                         "the EEPROM dies in the write cycle of the nth byte written; only the bits of torn are written"},
    {id::straps,                        part::expander, when::lasting, "straps",                        {need::straps, need::other_straps},          {number(parm::value, 0, 3)},                                 "the board identification straps read this value"},
    {id::pin_stuck,                     part::expander, when::lasting, "pin-stuck",                     {need::i2c_device, need::expander},          {i2c_bus, i2c_addr, number(parm::pin, 0, 15), level},        "this pin of an I/O expander is stuck"},

    // Battery-backed RAM. A line is the number of its bit in the byte offset or the data word.
    {id::nvram_data_stuck,              part::nvram,    when::lasting, "nvram-data-stuck",              {},                                          {instance, data_line, level},                                "a data line is stuck"},
    {id::nvram_data_short,              part::nvram,    when::lasting, "nvram-data-short",              {},                                          {instance, data_line, data_other, wins},                     "two data lines are shorted; the level that wins"},
    {id::nvram_data_floating,           part::nvram,    when::lasting, "nvram-data-floating",           {},                                          {instance, data_line},                                       "a data line is open between bus and chip: on either side it keeps the level last driven there"},
    {id::nvram_addr_stuck,              part::nvram,    when::lasting, "nvram-addr-stuck",              {},                                          {instance, nvram_line, level},                               "an address line is stuck"},
    {id::nvram_addr_short,              part::nvram,    when::lasting, "nvram-addr-short",              {},                                          {instance, nvram_line, nvram_other, wins},                   "two address lines are shorted; the level that wins"},
    {id::nvram_cell_stuck,              part::nvram,    when::lasting, "nvram-cell-stuck",              {},                                          {instance, nvram_offset, bit_in_byte, level},                "a cell is stuck"},
    {id::nvram_cell_transition,         part::nvram,    when::lasting, "nvram-cell-transition",         {},                                          {instance, nvram_offset, bit_in_byte, level},                "a cell cannot be changed to this level"},
    {id::nvram_cell_read_disturb,       part::nvram,    when::lasting, "nvram-cell-read-disturb",       {},                                          {instance, nvram_offset, bit_in_byte, may_level},            "reading a cell, or one that holds this level, inverts it and gives the new level"},
    {id::nvram_cell_read_deceptive,     part::nvram,    when::lasting, "nvram-cell-read-deceptive",     {},                                          {instance, nvram_offset, bit_in_byte, may_level},            "reading a cell, or one that holds this level, gives its level and then inverts it"},
    {id::nvram_cell_read_wrong,         part::nvram,    when::lasting, "nvram-cell-read-wrong",         {},                                          {instance, nvram_offset, bit_in_byte, may_level},            "reading a cell, or one that holds this level, gives the inverse; the cell keeps its level"},
    {id::nvram_cell_write_disturb,      part::nvram,    when::lasting, "nvram-cell-write-disturb",      {},                                          {instance, nvram_offset, bit_in_byte, may_level},            "writing a cell with the level that it already holds, or only if that is this level, inverts it"},
    {id::nvram_cell_coupled,            part::nvram,    when::lasting, "nvram-cell-coupled",            {},                                          {instance, nvram_offset, bit_in_byte, nvram_victim, vbit, may_level, may_vlevel},"a change of one cell, or that to this level, inverts another or gives it a level"},
    {id::nvram_cell_coupled_read,       part::nvram,    when::lasting, "nvram-cell-coupled-read",       {},                                          {instance, nvram_offset, bit_in_byte, nvram_victim, vbit, may_vlevel},"reading one cell inverts another or gives it a level"},
    {id::nvram_cell_coupled_write,      part::nvram,    when::lasting, "nvram-cell-coupled-write",      {},                                          {instance, nvram_offset, bit_in_byte, nvram_victim, vbit, may_vlevel},"writing one cell, even with the level that it holds, inverts another or gives it a level"},
    {id::nvram_cell_coupled_state,      part::nvram,    when::lasting, "nvram-cell-coupled-state",      {},                                          {instance, nvram_offset, bit_in_byte, nvram_victim, vbit, level, vlevel},"while one cell holds this level, another takes a level"},
    {id::nvram_cell_coupled_transition, part::nvram,    when::lasting, "nvram-cell-coupled-transition", {},                                          {instance, nvram_offset, bit_in_byte, nvram_victim, vbit, level, vlevel},"while one cell holds this level, another cannot be changed to a level"},
    {id::nvram_power_cut,               part::nvram,    when::always,  "nvram-power-cut",               {},                                          {instance, nth_cycle, seed},                                 "the run is killed at the nth write cycle to the instance; the word is written in part, chosen by the seed"},

    // NOR flash. Lines as above; the chip's address A0 is bit 1 of the byte offset. An erased cell reads 1, a programmed
    // one 0; what disturbs a cell can but program it, and only an erase undoes that.
    {id::flash_data_stuck,              part::flash,    when::lasting, "flash-data-stuck",              {},                                          {data_line, level, commands},                                "a data line is stuck; commands=1: for command and status cycles too"},
    {id::flash_data_short,              part::flash,    when::lasting, "flash-data-short",              {},                                          {data_line, data_other, wins, commands},                     "two data lines are shorted; the level that wins; commands=1: for command and status cycles too"},
    {id::flash_data_floating,           part::flash,    when::lasting, "flash-data-floating",           {},                                          {data_line, commands},                                       "a data line is open: on either side it keeps the level last driven there; commands=1: for command and status cycles too"},
    {id::flash_addr_stuck,              part::flash,    when::lasting, "flash-addr-stuck",              {},                                          {flash_line, level, commands},                               "an address line is stuck; commands=1: for command and status cycles too"},
    {id::flash_addr_short,              part::flash,    when::lasting, "flash-addr-short",              {},                                          {flash_line, flash_other, wins, commands},                   "two address lines are shorted; the level that wins; commands=1: for command and status cycles too"},
    {id::flash_cell_stuck,              part::flash,    when::lasting, "flash-cell-stuck",              {},                                          {flash_offset, bit_in_byte, level},                          "a cell is stuck"},
    {id::flash_cell_transition,         part::flash,    when::lasting, "flash-cell-transition",         {},                                          {flash_offset, bit_in_byte, level},                          "a cell cannot be programmed (level 0) or erased (level 1); the chip notices"},
    {id::flash_cell_read_disturb,       part::flash,    when::lasting, "flash-cell-read-disturb",       {},                                          {flash_offset, bit_in_byte},                                 "reading an erased cell programs it and gives the new level"},
    {id::flash_cell_read_deceptive,     part::flash,    when::lasting, "flash-cell-read-deceptive",     {},                                          {flash_offset, bit_in_byte},                                 "reading an erased cell gives its level and then programs it"},
    {id::flash_cell_read_wrong,         part::flash,    when::lasting, "flash-cell-read-wrong",         {},                                          {flash_offset, bit_in_byte, may_level},                      "reading a cell, or one that holds this level, gives the inverse: the sense amplifier cannot distinguish its charge"},
    {id::flash_cell_write_disturb,      part::flash,    when::lasting, "flash-cell-write-disturb",      {},                                          {flash_offset, bit_in_byte},                                 "programming its word also programs this cell, which should stay erased; the chip does not notice"},
    {id::flash_cell_coupled,            part::flash,    when::lasting, "flash-cell-coupled",            {},                                          {flash_offset, bit_in_byte, flash_victim, vbit},             "programming one cell programs another"},
    {id::flash_cell_coupled_read,       part::flash,    when::lasting, "flash-cell-coupled-read",       {},                                          {flash_offset, bit_in_byte, flash_victim, vbit},             "reading one cell programs another"},
    {id::flash_cell_coupled_write,      part::flash,    when::lasting, "flash-cell-coupled-write",      {},                                          {flash_offset, bit_in_byte, flash_victim, vbit},             "programming the word of one cell, even if the cell stays erased, programs another"},
    {id::flash_cell_coupled_state,      part::flash,    when::lasting, "flash-cell-coupled-state",      {},                                          {flash_offset, bit_in_byte, flash_victim, vbit},             "while one cell is programmed, another that is erased reads as programmed"},
    {id::flash_cell_coupled_transition, part::flash,    when::lasting, "flash-cell-coupled-transition", {},                                          {flash_offset, bit_in_byte, flash_victim, vbit},             "while one cell is erased so far that it leaks, another on its bit line cannot be programmed; the chip notices"},
    {id::flash_silent,                  part::flash,    when::lasting, "flash-silent",                  {},                                          {},                                                          "the flash does not answer: all ones"},
    {id::flash_cfi,                     part::flash,    when::lasting, "flash-cfi",                     {need::other_word},                          {hex(parm::word, 0x10, 0xFF), hex(parm::value, 0, 0xFFFF)},  "this word of the CFI query reads wrong"},
    {id::flash_slow,                    part::flash,    when::always,  "flash-slow",                    {need::other_times},                         {may(number(parm::program, 0, 1000000), 0), may(number(parm::erase, 1, 1000000), 2)},"this many status reads show a program or an erase running, instead of the usual number"},
    {id::flash_erase_hangs,             part::flash,    when::lasting, "flash-erase-hangs",             {},                                          {may_sector, dq5},                                           "erase never ends, with or without DQ5"},
    {id::flash_program_hangs,           part::flash,    when::lasting, "flash-program-hangs",           {},                                          {may_sector, dq5},                                           "programming never ends, with or without DQ5"},
    {id::flash_erase_ignored,           part::flash,    when::lasting, "flash-erase-ignored",           {},                                          {may_sector},                                                "erase does nothing and reports success"},
    {id::flash_program_ignored,         part::flash,    when::lasting, "flash-program-ignored",         {},                                          {may_sector},                                                "programming does nothing and reports success"},
    {id::flash_erase_leaves,            part::flash,    when::lasting, "flash-erase-leaves",            {},                                          {flash_offset, bit_in_byte},                                 "erase leaves this bit programmed"},
    {id::flash_program_clears,          part::flash,    when::lasting, "flash-program-clears",          {},                                          {number(parm::sector, 0, 511), hex(parm::offset, 0, 0x1FFFF), bit_in_byte},"programming anything in the sector clears this bit of it too"},
    {id::flash_power_cut,               part::flash,    when::always,  "flash-power-cut",               {},                                          {nth_cycle, seed},                                           "the run is killed at the nth write cycle to the flash; the operation that it begins is left unfinished, chosen by the seed"},
})};

// clang-format on

constexpr bool in_order() {
  for (size_t i = 0; i < fault_rows.size(); ++i)
    if (fault_rows[i].id != static_cast<fault_id>(i)) return false;
  return fault_rows.back().id == fault_id::flash_power_cut;
}
static_assert(in_order(), "a row for each fault, in the order of their enumeration");

}  // namespace

std::span<const fault_row> fault_table() {
  return fault_rows;
}

const fault_row &fault::row() const {
  return fault_rows[static_cast<size_t>(id)];
}

std::string_view parm_name(parm key) {
  return parm_names[static_cast<size_t>(key)].second;
}

const fault_row *fault_named(std::string_view name, std::span<const fault_row> table) {
  const auto found = std::ranges::find(table, name, &fault_row::name);
  return found == table.end() ? nullptr : &*found;
}

std::span<const fault_need> fault_row::needs() const {
  return {all_needs.begin(), std::ranges::find(all_needs, fault_need::nothing)};
}

std::span<const parm_row> fault_row::parms() const {
  return {all_parms.begin(), std::ranges::find(all_parms, parm::none, &parm_row::key)};
}

std::span<const parm_row> fault_row::trigger_parms() const {
  if (when == fault_when::always) return {};
  return when == fault_when::once ? once_parms : lasting_parms;
}

const parm_row *fault_row::find(parm key) const {
  for (const auto list : {parms(), trigger_parms()})
    for (const auto &parm : list)
      if (parm.key == key) return &parm;
  return nullptr;
}

const parm_row *fault_row::find(std::string_view key) const {
  const auto *const found = std::ranges::find(parm_names, key, &std::pair<parm, std::string_view>::second);
  return found == parm_names.end() ? nullptr : find(found->first);
}

std::optional<uint64_t> fault::find(parm key) const {
  const auto found = values.find(key);
  return found == values.end() ? std::nullopt : std::optional(found->second);
}

bool fault::has(parm key) const {
  assert(row().find(key) != nullptr && "the kind of fault has this parameter");
  return find(key).has_value();
}

uint64_t fault::get(parm key) const {
  const auto value = find(key);
  assert(value && "the parameter is given or has a default");
  return *value;
}

uint64_t fault::get(parm key, uint64_t otherwise) const {
  return has(key) ? get(key) : otherwise;
}

std::string_view fault::word(parm key) const {
  return has(key) ? row().find(key)->word(get(key)) : "";
}

// Faults with occasions take turns.
bool fault::excludes(const fault &other) const {
  // How a thing is wrong; the other parameters say which one.
  constexpr std::array how{parm::vendor, parm::device, parm::high,    parm::error, parm::after,
                           parm::khz,    parm::ms,     parm::code,    parm::polls, parm::nth,
                           parm::torn,   parm::seed,   parm::program, parm::erase};
  if (id != other.id) return false;
  if (row().when != fault_when::always) return values == other.values;
  return std::ranges::all_of(row().parms(), [&](const parm_row &parm) {
    const auto own = find(parm.key);
    const auto others = other.find(parm.key);
    return own == others || !own || !others || std::ranges::find(how, parm.key) != how.end();
  });
}

bool fault_trigger::next() {
  ++m_occasions;
  if (m_occasions < m_nth || (m_times != 0 && m_occasions - m_nth >= m_times)) return false;
  return m_ppm == certain || random_next(&m_random) % certain < m_ppm;
}

}  // namespace sim
