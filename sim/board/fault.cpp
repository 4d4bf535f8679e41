// fault.cpp: the table of faults.
#include "sim/board/fault.h"

#include <array>

#include "sim/board/random.h"

namespace sim {

namespace {

using id = fault_id;
using part = fault_part;
using when = fault_when;

// clang-format off
constexpr std::array fault_rows{std::to_array<fault_row>({
    // id                              part            when           name                              parameters                                                                what it does

    // Files and services of the operating system.
    {id::post_missing,                   part::service,  when::always,  "post-missing",                   "",                                                                       "/post does not exist"},
    {id::pci_list_unreadable,            part::service,  when::always,  "pci-list-unreadable",            "[errno=1..133:13]",                                                      "/proc/bus/pci/devices cannot be opened"},
    {id::pci_missing,                    part::service,  when::always,  "pci-missing",                    "bus=0..0xFF dev=0..31 func=0..7",                                        "the PCI list lacks this function"},
    {id::pci_wrong_id,                   part::service,  when::always,  "pci-wrong-id",                   "bus=0..0xFF dev=0..31 func=0..7 [vendor=0..0xFFFF] [device=0..0xFFFF]",  "the function answers with another vendor or device id"},
    {id::bar_missing,                    part::service,  when::always,  "bar-missing",                    "bar=0..5",                                                               "this base address register of the local-bus bridge is 0 and has no size"},
    {id::bar_64bit,                      part::service,  when::always,  "bar-64bit",                      "bar=0..5 [high=1..0xFFFFFFFF:1]",                                        "this register is the lower half of a 64-bit one, the next holds the upper half"},
    {id::bar_io,                         part::service,  when::always,  "bar-io",                         "bar=0..5",                                                               "this register maps I/O space"},
    {id::sprom_absent,                   part::service,  when::always,  "sprom-absent",                   "",                                                                       "/dev/sprom does not exist"},
    {id::sprom_refuse,                   part::service,  when::always,  "sprom-refuse",                   "[errno=1..133:22] [after=0..1000000:0]",                                 "the SPROM driver refuses every request after the first ones"},
    {id::cpuinfo_missing,                part::service,  when::always,  "cpuinfo-missing",                "",                                                                       "/proc/cpuinfo does not exist"},
    {id::cpuinfo_no_rate,                part::service,  when::always,  "cpuinfo-no-rate",                "",                                                                       "/proc/cpuinfo names no clock rate"},
    {id::cpuinfo_rate,                   part::service,  when::always,  "cpuinfo-rate",                   "khz=0..0xFFFFFFFFFF",                                                    "/proc/cpuinfo names this clock rate in place of the true one"},
    {id::lock_dir_missing,               part::service,  when::always,  "lock-dir-missing",               "",                                                                       "/var/lock does not exist"},
    {id::lock_dir_read_only,             part::service,  when::always,  "lock-dir-read-only",             "",                                                                       "/var/lock cannot be written"},
    {id::lock_held,                      part::service,  when::always,  "lock-held",                      "lock=nvram0|nvram1|nvram2|flash kind=read|write [ms=1..600000:500]",     "another process holds this lock from the start until so long after the first request for it"},
    {id::mem_absent,                     part::service,  when::always,  "mem-absent",                     "[errno=1..133:2]",                                                       "/dev/mem cannot be opened"},
    {id::mem_mmap_refused,               part::service,  when::lasting, "mem-mmap-refused",               "[errno=1..133:1]",                                                       "mmap of /dev/mem fails"},
    {id::iopl_refused,                   part::service,  when::always,  "iopl-refused",                   "[errno=1..133:1]",                                                       "the I/O privilege level cannot be raised"},
    {id::port_stuck,                     part::service,  when::lasting, "port-stuck",                     "bit=0..31 level=0..1",                                                   "this bit of I/O port 0x50C is stuck"},

    // Ethernet controllers.
    {id::ethtool_missing,                part::ethernet, when::always,  "ethtool-missing",                "",                                                                       "there is no ethtool"},
    {id::ethtool_silent,                 part::ethernet, when::always,  "ethtool-silent",                 "[port=eth0|eth1|eth2|eth5]",                                             "ethtool prints nothing"},
    {id::ethtool_fail,                   part::ethernet, when::always,  "ethtool-fail",                   "port=eth0|eth1|eth2|eth5 test=register|eeprom|interrupt|loopback|link [code=1..99:1]", "this sub-test of the controller fails with the code"},

    // I2C buses, EEPROMs and expanders.
    {id::i2c_bus_absent,                 part::i2c,      when::always,  "i2c-bus-absent",                 "bus=0..255",                                                             "the bus has no device file"},
    {id::i2c_smbus_only,                 part::i2c,      when::always,  "i2c-smbus-only",                 "[bus=0..255]",                                                           "the adapter offers SMBus transfers alone"},
    {id::i2c_absent,                     part::i2c,      when::lasting, "i2c-absent",                     "bus=0..255 addr=0x03..0x77",                                             "nothing acknowledges at this address"},
    {id::i2c_fail,                       part::i2c,      when::once,    "i2c-fail",                       "bus=0..255 addr=0x03..0x77 [errno=1..133:5]",                            "a transaction with the device fails"},
    {id::eeprom_corrupt,                 part::eeprom,   when::lasting, "eeprom-corrupt",                 "bus=0..255 addr=0x03..0x77 offset=0..0xFFFF [xor=1..0xFF:0xFF]",         "a byte of the EEPROM reads wrong"},
    {id::sprom_corrupt,                  part::eeprom,   when::lasting, "sprom-corrupt",                  "image=sup|bp|dc1|lc2|lc3|ps1|ps2 block=header|main|sensor|wwn|license [offset=0..255:8] [xor=1..0xFF:0xFF]", "a byte of this block of a SPROM image reads wrong"},
    {id::eeprom_protected,               part::eeprom,   when::lasting, "eeprom-protected",               "bus=0..255 addr=0x03..0x77",                                             "the EEPROM's write protection is stuck: writes are acknowledged and ignored"},
    {id::eeprom_busy,                    part::eeprom,   when::always,  "eeprom-busy",                    "bus=0..255 addr=0x03..0x77 [polls=0..1000000:0]",                        "write cycles last this many polls; polls 0 is for ever"},
    {id::eeprom_power_cut,               part::eeprom,   when::always,  "eeprom-power-cut",               "bus=0..255 addr=0x03..0x77 nth=1..1000000 [torn=0..0xFF:0x0F]",          "the run is killed in the write cycle of the nth byte written, of which the bits of torn are written all the same"},
    {id::eeprom_dies,                    part::eeprom,   when::always,  "eeprom-dies",                    "bus=0..255 addr=0x03..0x77 nth=1..1000000 [torn=0..0xFF:0x0F]",          "the EEPROM dies in the write cycle of the nth byte written, of which the bits of torn are written all the same"},
    {id::straps,                         part::expander, when::lasting, "straps",                         "value=0..3",                                                             "the board identification straps read this value"},
    {id::pin_stuck,                      part::expander, when::lasting, "pin-stuck",                      "bus=0..255 addr=0x03..0x77 pin=0..15 level=0..1",                        "this pin of an I/O expander is stuck"},

    // Battery-backed RAM. A line is the number of its bit in the byte offset or the data word.
    {id::nvram_data_stuck,               part::nvram,    when::lasting, "nvram-data-stuck",               "instance=0..2 line=0..15 level=0..1",                                    "a data line is stuck"},
    {id::nvram_data_short,               part::nvram,    when::lasting, "nvram-data-short",               "instance=0..2 line=0..15 other=0..15 [wins=0..1:0]",                     "two data lines are shorted; the level that wins"},
    {id::nvram_data_floating,            part::nvram,    when::lasting, "nvram-data-floating",            "instance=0..2 line=0..15",                                               "a data line is open between bus and chip: on either side it keeps the level last driven there"},
    {id::nvram_addr_stuck,               part::nvram,    when::lasting, "nvram-addr-stuck",               "instance=0..2 line=1..14 level=0..1",                                    "an address line is stuck"},
    {id::nvram_addr_short,               part::nvram,    when::lasting, "nvram-addr-short",               "instance=0..2 line=1..14 other=1..14 [wins=0..1:0]",                     "two address lines are shorted; the level that wins"},
    {id::nvram_cell_stuck,               part::nvram,    when::lasting, "nvram-cell-stuck",               "instance=0..2 offset=0..0x7FFF bit=0..7 level=0..1",                     "a cell is stuck"},
    {id::nvram_cell_transition,          part::nvram,    when::lasting, "nvram-cell-transition",          "instance=0..2 offset=0..0x7FFF bit=0..7 level=0..1",                     "a cell cannot be changed to this level"},
    {id::nvram_cell_read_disturb,        part::nvram,    when::lasting, "nvram-cell-read-disturb",        "instance=0..2 offset=0..0x7FFF bit=0..7 [level=0..1]",                   "reading a cell, or one that holds this level, inverts it and gives the new level"},
    {id::nvram_cell_read_deceptive,      part::nvram,    when::lasting, "nvram-cell-read-deceptive",      "instance=0..2 offset=0..0x7FFF bit=0..7 [level=0..1]",                   "reading a cell, or one that holds this level, gives its level and then inverts it"},
    {id::nvram_cell_read_wrong,          part::nvram,    when::lasting, "nvram-cell-read-wrong",          "instance=0..2 offset=0..0x7FFF bit=0..7 [level=0..1]",                   "reading a cell, or one that holds this level, gives the inverse; the cell keeps its level"},
    {id::nvram_cell_write_disturb,       part::nvram,    when::lasting, "nvram-cell-write-disturb",       "instance=0..2 offset=0..0x7FFF bit=0..7 [level=0..1]",                   "writing a cell the level, or this level, that it holds inverts it"},
    {id::nvram_cell_coupled,             part::nvram,    when::lasting, "nvram-cell-coupled",             "instance=0..2 offset=0..0x7FFF bit=0..7 victim=0..0x7FFF vbit=0..7 [level=0..1] [vlevel=0..1]", "a change of one cell, or that to this level, inverts another or gives it a level"},
    {id::nvram_cell_coupled_read,        part::nvram,    when::lasting, "nvram-cell-coupled-read",        "instance=0..2 offset=0..0x7FFF bit=0..7 victim=0..0x7FFF vbit=0..7 [vlevel=0..1]", "reading one cell inverts another or gives it a level"},
    {id::nvram_cell_coupled_write,       part::nvram,    when::lasting, "nvram-cell-coupled-write",       "instance=0..2 offset=0..0x7FFF bit=0..7 victim=0..0x7FFF vbit=0..7 [vlevel=0..1]", "writing one cell, be it the level that it holds, inverts another or gives it a level"},
    {id::nvram_cell_coupled_state,       part::nvram,    when::lasting, "nvram-cell-coupled-state",       "instance=0..2 offset=0..0x7FFF bit=0..7 victim=0..0x7FFF vbit=0..7 level=0..1 vlevel=0..1", "while one cell holds this level, another takes a level"},
    {id::nvram_cell_coupled_transition,  part::nvram,    when::lasting, "nvram-cell-coupled-transition",  "instance=0..2 offset=0..0x7FFF bit=0..7 victim=0..0x7FFF vbit=0..7 level=0..1 vlevel=0..1", "while one cell holds this level, another cannot be changed to a level"},
    {id::nvram_power_cut,                part::nvram,    when::always,  "nvram-power-cut",                "instance=0..2 nth=1..100000000 [seed=0..0xFFFFFFFF:0]",                  "the run is killed at the nth write cycle to the instance; the word is written in part, by the seed"},

    // NOR flash. Lines as above; the chip's address A0 is bit 1 of the byte offset. An erased cell reads 1, a programmed
    // one 0; what disturbs a cell can but program it, and only an erase undoes that.
    {id::flash_data_stuck,               part::flash,    when::lasting, "flash-data-stuck",               "line=0..15 level=0..1 [commands=0..1:0]",                                "a data line is stuck; commands=1: for command and status cycles too"},
    {id::flash_data_short,               part::flash,    when::lasting, "flash-data-short",               "line=0..15 other=0..15 [wins=0..1:0] [commands=0..1:0]",                 "two data lines are shorted; the level that wins; commands=1: for command and status cycles too"},
    {id::flash_data_floating,            part::flash,    when::lasting, "flash-data-floating",            "line=0..15 [commands=0..1:0]",                                           "a data line is open: on either side it keeps the level last driven there; commands=1: for command and status cycles too"},
    {id::flash_addr_stuck,               part::flash,    when::lasting, "flash-addr-stuck",               "line=1..25 level=0..1 [commands=0..1:0]",                                "an address line is stuck; commands=1: for command and status cycles too"},
    {id::flash_addr_short,               part::flash,    when::lasting, "flash-addr-short",               "line=1..25 other=1..25 [wins=0..1:0] [commands=0..1:0]",                 "two address lines are shorted; the level that wins; commands=1: for command and status cycles too"},
    {id::flash_cell_stuck,               part::flash,    when::lasting, "flash-cell-stuck",               "offset=0..0x3FFFFFF bit=0..7 level=0..1",                                "a cell is stuck"},
    {id::flash_cell_transition,          part::flash,    when::lasting, "flash-cell-transition",          "offset=0..0x3FFFFFF bit=0..7 level=0..1",                                "a cell cannot be programmed (level 0) or erased (level 1); the chip notices"},
    {id::flash_cell_read_disturb,        part::flash,    when::lasting, "flash-cell-read-disturb",        "offset=0..0x3FFFFFF bit=0..7",                                           "reading an erased cell programs it and gives the new level"},
    {id::flash_cell_read_deceptive,      part::flash,    when::lasting, "flash-cell-read-deceptive",      "offset=0..0x3FFFFFF bit=0..7",                                           "reading an erased cell gives its level and then programs it"},
    {id::flash_cell_read_wrong,          part::flash,    when::lasting, "flash-cell-read-wrong",          "offset=0..0x3FFFFFF bit=0..7 [level=0..1]",                              "reading a cell, or one that holds this level, gives the inverse: its charge is beside what the sense amplifier tells apart"},
    {id::flash_cell_write_disturb,       part::flash,    when::lasting, "flash-cell-write-disturb",       "offset=0..0x3FFFFFF bit=0..7",                                           "programming its word programs this cell too, which was to stay erased; the chip does not notice"},
    {id::flash_cell_coupled,             part::flash,    when::lasting, "flash-cell-coupled",             "offset=0..0x3FFFFFF bit=0..7 victim=0..0x3FFFFFF vbit=0..7",             "programming one cell programs another"},
    {id::flash_cell_coupled_read,        part::flash,    when::lasting, "flash-cell-coupled-read",        "offset=0..0x3FFFFFF bit=0..7 victim=0..0x3FFFFFF vbit=0..7",             "reading one cell programs another"},
    {id::flash_cell_coupled_write,       part::flash,    when::lasting, "flash-cell-coupled-write",       "offset=0..0x3FFFFFF bit=0..7 victim=0..0x3FFFFFF vbit=0..7",             "programming the word of one cell, be the cell to stay erased, programs another"},
    {id::flash_cell_coupled_state,       part::flash,    when::lasting, "flash-cell-coupled-state",       "offset=0..0x3FFFFFF bit=0..7 victim=0..0x3FFFFFF vbit=0..7",             "while one cell is programmed, another that is erased reads as programmed"},
    {id::flash_cell_coupled_transition,  part::flash,    when::lasting, "flash-cell-coupled-transition",  "offset=0..0x3FFFFFF bit=0..7 victim=0..0x3FFFFFF vbit=0..7",             "while one cell is erased, so far that it leaks, another on its bit line cannot be programmed; the chip notices"},
    {id::flash_silent,                   part::flash,    when::lasting, "flash-silent",                   "",                                                                       "the flash does not answer: all ones"},
    {id::flash_cfi,                      part::flash,    when::lasting, "flash-cfi",                      "word=0x10..0xFF value=0..0xFFFF",                                        "this word of the CFI query reads wrong"},
    {id::flash_slow,                     part::flash,    when::always,  "flash-slow",                     "[program=0..1000000:0] [erase=1..1000000:2]",                            "so many status reads show a program or an erase running, in place of the usual number"},
    {id::flash_erase_hangs,              part::flash,    when::lasting, "flash-erase-hangs",              "[sector=0..511] [dq5=0..1:0]",                                           "erase never ends, with or without DQ5"},
    {id::flash_program_hangs,            part::flash,    when::lasting, "flash-program-hangs",            "[sector=0..511] [dq5=0..1:0]",                                           "programming never ends, with or without DQ5"},
    {id::flash_erase_ignored,            part::flash,    when::lasting, "flash-erase-ignored",            "[sector=0..511]",                                                        "erase does nothing and reports success"},
    {id::flash_program_ignored,          part::flash,    when::lasting, "flash-program-ignored",          "[sector=0..511]",                                                        "programming does nothing and reports success"},
    {id::flash_erase_leaves,             part::flash,    when::lasting, "flash-erase-leaves",             "offset=0..0x3FFFFFF bit=0..7",                                           "erase leaves this bit programmed"},
    {id::flash_program_clears,           part::flash,    when::lasting, "flash-program-clears",           "sector=0..511 offset=0..0x1FFFF bit=0..7",                               "programming anything in the sector clears this bit of it too"},
    {id::flash_power_cut,                part::flash,    when::always,  "flash-power-cut",                "nth=1..100000000 [seed=0..0xFFFFFFFF:0]",                                "the run is killed at the nth write cycle to the flash; what that cycle begins is left half done, by the seed"},
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

const char *fault_parms(fault_when when) {
  switch (when) {
    case fault_when::lasting:
      return "[nth=1..1000000000:1] [times=0..1000000000:0] [p=1..1000000:1000000] [seed=0..0xFFFFFFFF:0]";
    case fault_when::once:
      return "[nth=1..1000000000:1] [times=0..1000000000:1] [p=1..1000000:1000000] [seed=0..0xFFFFFFFF:0]";
    default:
      return "";
  }
}

std::string fault_usage(const fault_row &row) {
  std::string usage = row.name;
  for (const char *const parms : {row.parms, fault_parms(row.when)})
    if (*parms != '\0') usage.append(" ").append(parms);
  return usage;
}

uint64_t fault::get(std::string_view key, uint64_t otherwise) const {
  const auto found = parms.find(key);
  return found == parms.end() ? otherwise : found->second.value;
}

std::string_view fault::word(std::string_view key) const {
  const auto found = parms.find(key);
  return found == parms.end() ? std::string_view() : found->second.word;
}

bool fault_trigger::next() {
  ++m_occasions;
  if (m_occasions < m_nth || (m_times != 0 && m_occasions - m_nth >= m_times)) return false;
  return m_ppm == certain || random_next(&m_random) % certain < m_ppm;
}

}  // namespace sim
