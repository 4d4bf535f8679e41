// fault.cpp: the table of faults and the parser of what the command line asks for.
#include "sim/board/fault.h"

#include <algorithm>
#include <array>
#include <vector>

#include "sim/host/text.h"

namespace sim {

namespace {

using id = fault_id;
using part = fault_part;

// clang-format off
constexpr std::array fault_rows{std::to_array<fault_row>({
    // id                      part            name                    parameters                                                              what it does

    // Files and services of the operating system.
    {id::post_missing,         part::service,  "post-missing",         "",                                                                      "/post does not exist"},
    {id::pci_list_unreadable,  part::service,  "pci-list-unreadable",  "[errno=1..133:13]",                                                     "/proc/bus/pci/devices cannot be opened"},
    {id::pci_missing,          part::service,  "pci-missing",          "bus=0..0xFF dev=0..31 func=0..7",                                       "the PCI list lacks this function"},
    {id::pci_wrong_id,         part::service,  "pci-wrong-id",         "bus=0..0xFF dev=0..31 func=0..7 [vendor=0..0xFFFF] [device=0..0xFFFF]", "the function answers with another vendor or device id"},
    {id::bar_missing,          part::service,  "bar-missing",          "bar=0..5",                                                              "this base address register of the local-bus bridge is 0 and has no size"},
    {id::bar_64bit,            part::service,  "bar-64bit",            "bar=0..5 [high=1..0xFFFFFFFF:1]",                                       "this register is the lower half of a 64-bit one, the next holds the upper half"},
    {id::bar_io,               part::service,  "bar-io",               "bar=0..5",                                                              "this register maps I/O space"},
    {id::sprom_absent,         part::service,  "sprom-absent",         "",                                                                      "/dev/sprom does not exist"},
    {id::sprom_refuse,         part::service,  "sprom-refuse",         "[errno=1..133:22] [after=0..1000000:0]",                                "the SPROM driver refuses every request after the first ones"},
    {id::cpuinfo_missing,      part::service,  "cpuinfo-missing",      "",                                                                      "/proc/cpuinfo does not exist"},
    {id::cpuinfo_no_rate,      part::service,  "cpuinfo-no-rate",      "",                                                                      "/proc/cpuinfo names no clock rate"},
    {id::cpuinfo_rate,         part::service,  "cpuinfo-rate",         "khz=0..0xFFFFFFFFFF",                                                   "/proc/cpuinfo names this clock rate in place of the true one"},
    {id::lock_dir_missing,     part::service,  "lock-dir-missing",     "",                                                                      "/var/lock does not exist"},
    {id::lock_dir_read_only,   part::service,  "lock-dir-read-only",   "",                                                                      "/var/lock cannot be written"},
    {id::lock_held,            part::service,  "lock-held",            "lock=nvram0|nvram1|nvram2|flash kind=read|write [ms=1..600000:500]",    "another process holds this lock from the start for a while"},
    {id::mem_absent,           part::service,  "mem-absent",           "[errno=1..133:2]",                                                      "/dev/mem cannot be opened"},
    {id::mem_mmap_refused,     part::service,  "mem-mmap-refused",     "[nth=1..1000:1] [times=0..1000:0] [errno=1..133:1]",                    "mmap of /dev/mem fails from the nth on, so many times; times 0 is for ever"},
    {id::iopl_refused,         part::service,  "iopl-refused",         "[errno=1..133:1]",                                                      "the I/O privilege level cannot be raised"},
    {id::port_stuck,           part::service,  "port-stuck",           "bit=0..31 level=0..1",                                                  "this bit of I/O port 0x50C is stuck"},

    // Ethernet controllers.
    {id::ethtool_missing,      part::ethernet, "ethtool-missing",      "",                                                                      "there is no ethtool"},
    {id::ethtool_silent,       part::ethernet, "ethtool-silent",       "[port=eth0|eth1|eth2|eth5]",                                            "ethtool prints nothing"},
    {id::ethtool_fail,         part::ethernet, "ethtool-fail",         "port=eth0|eth1|eth2|eth5 test=register|eeprom|interrupt|loopback|link [code=1..99:1]", "this sub-test of the controller fails with the code"},

    // I2C buses, EEPROMs and expanders.
    {id::i2c_bus_absent,       part::i2c,      "i2c-bus-absent",       "bus=0..255",                                                            "the bus has no device file"},
    {id::i2c_smbus_only,       part::i2c,      "i2c-smbus-only",       "[bus=0..255]",                                                          "the adapter offers SMBus transfers alone"},
    {id::i2c_absent,           part::i2c,      "i2c-absent",           "bus=0..255 addr=0x03..0x77",                                            "nothing acknowledges at this address"},
    {id::i2c_fail,             part::i2c,      "i2c-fail",             "bus=0..255 addr=0x03..0x77 [nth=1..1000000:1] [times=0..1000000:1] [errno=1..133:5]", "the nth transaction with the device fails, and those after it, so many times; times 0 is for ever"},
    {id::eeprom_corrupt,       part::eeprom,   "eeprom-corrupt",       "bus=0..255 addr=0x03..0x77 offset=0..0xFFFF [xor=1..0xFF:0xFF]",        "a byte of the EEPROM reads wrong"},
    {id::sprom_corrupt,        part::eeprom,   "sprom-corrupt",        "image=sup|bp|dc1|lc2|lc3|ps1|ps2 block=header|main|sensor|wwn|license [offset=0..255:8] [xor=1..0xFF:0xFF]", "a byte of this block of a SPROM image reads wrong"},
    {id::eeprom_protected,     part::eeprom,   "eeprom-protected",     "bus=0..255 addr=0x03..0x77",                                            "the EEPROM's write protection is stuck: writes are acknowledged and ignored"},
    {id::eeprom_busy,          part::eeprom,   "eeprom-busy",          "bus=0..255 addr=0x03..0x77 [polls=0..1000000:0]",                       "write cycles last this many polls; polls 0 is for ever"},
    {id::straps,               part::expander, "straps",               "value=0..3",                                                            "the board identification straps read this value"},
    {id::pin_stuck,            part::expander, "pin-stuck",            "bus=0..255 addr=0x03..0x77 pin=0..15 level=0..1",                       "this pin of an I/O expander is stuck"},

    // Battery-backed RAM. A line is the number of its bit in the byte offset or the data word.
    {id::nvram_data_stuck,     part::nvram,    "nvram-data-stuck",     "instance=0..2 line=0..15 level=0..1",                                   "a data line is stuck"},
    {id::nvram_data_short,     part::nvram,    "nvram-data-short",     "instance=0..2 line=0..15 other=0..15 [wins=0..1:0]",                    "two data lines are shorted; the level that wins"},
    {id::nvram_addr_stuck,     part::nvram,    "nvram-addr-stuck",     "instance=0..2 line=1..14 level=0..1",                                   "an address line is stuck"},
    {id::nvram_addr_short,     part::nvram,    "nvram-addr-short",     "instance=0..2 line=1..14 other=1..14 [wins=0..1:0]",                    "two address lines are shorted; the level that wins"},
    {id::nvram_cell_stuck,     part::nvram,    "nvram-cell-stuck",     "instance=0..2 offset=0..0x7FFF bit=0..7 level=0..1",                    "a cell is stuck"},
    {id::nvram_cell_coupled,   part::nvram,    "nvram-cell-coupled",   "instance=0..2 offset=0..0x7FFF bit=0..7 victim=0..0x7FFF vbit=0..7",    "a change of one cell inverts another"},

    // NOR flash. Lines as above; the chip's address A0 is bit 1 of the byte offset.
    {id::flash_data_stuck,     part::flash,    "flash-data-stuck",     "line=0..15 level=0..1 [commands=0..1:0]",                               "a data line is stuck; commands=1: for command and status cycles too"},
    {id::flash_data_short,     part::flash,    "flash-data-short",     "line=0..15 other=0..15 [wins=0..1:0] [commands=0..1:0]",                "two data lines are shorted; the level that wins; commands=1: for command and status cycles too"},
    {id::flash_addr_stuck,     part::flash,    "flash-addr-stuck",     "line=1..25 level=0..1 [commands=0..1:0]",                               "an address line is stuck; commands=1: for command and status cycles too"},
    {id::flash_addr_short,     part::flash,    "flash-addr-short",     "line=1..25 other=1..25 [wins=0..1:0] [commands=0..1:0]",                "two address lines are shorted; the level that wins; commands=1: for command and status cycles too"},
    {id::flash_cell_stuck,     part::flash,    "flash-cell-stuck",     "offset=0..0x3FFFFFF bit=0..7 level=0..1",                               "a cell is stuck"},
    {id::flash_cell_coupled,   part::flash,    "flash-cell-coupled",   "offset=0..0x3FFFFFF bit=0..7 victim=0..0x3FFFFFF vbit=0..7",            "programming one cell programs another"},
    {id::flash_silent,         part::flash,    "flash-silent",         "",                                                                      "the flash does not answer: all ones"},
    {id::flash_cfi,            part::flash,    "flash-cfi",            "word=0x10..0xFF value=0..0xFFFF",                                       "this word of the CFI query reads wrong"},
    {id::flash_slow,           part::flash,    "flash-slow",           "[program=0..1000000:0] [erase=1..1000000:2]",                           "so many status reads show a program or an erase running, in place of the usual number"},
    {id::flash_erase_hangs,    part::flash,    "flash-erase-hangs",    "[sector=0..511] [dq5=0..1:0]",                                          "erase never ends, with or without DQ5"},
    {id::flash_program_hangs,  part::flash,    "flash-program-hangs",  "[sector=0..511] [dq5=0..1:0]",                                          "programming never ends, with or without DQ5"},
    {id::flash_erase_leaves,   part::flash,    "flash-erase-leaves",   "offset=0..0x3FFFFFF bit=0..7",                                          "erase leaves this bit programmed"},
    {id::flash_program_clears, part::flash,    "flash-program-clears", "sector=0..511 offset=0..0x1FFFF bit=0..7",                              "programming anything in the sector clears this bit of it too"},
    {id::flash_power_cut,      part::flash,    "flash-power-cut",      "nth=1..100000000",                                                      "the run is killed at the nth write cycle to the flash"},
})};
// clang-format on

constexpr bool in_order() {
  for (size_t i = 0; i < fault_rows.size(); i++)
    if (fault_rows[i].id != static_cast<fault_id>(i)) return false;
  return fault_rows.back().id == fault_id::flash_power_cut;
}
static_assert(in_order(), "a row for each fault, in the order of their enumeration");

// One parameter of a row, taken apart: "key=LOW..HIGH", "[key=LOW..HIGH:DEFAULT]" or "key=word|word".
struct parm_spec {
  std::string_view key;
  std::vector<std::string_view> words;  // empty for a number
  uint64_t low = 0;
  uint64_t high = 0;
  bool optional = false;
  std::optional<uint64_t> otherwise;
  std::string_view values;  // as the table has them, for messages
};

std::vector<std::string_view> split(std::string_view text, std::string_view separators) {
  std::vector<std::string_view> parts;
  while (true) {
    const auto start = text.find_first_not_of(separators);
    if (start == std::string_view::npos) return parts;
    text.remove_prefix(start);
    const auto end = std::min(text.find_first_of(separators), text.size());
    parts.push_back(text.substr(0, end));
    text.remove_prefix(end);
  }
}

parm_spec parm_of(std::string_view text) {
  parm_spec spec;
  if (text.starts_with('[')) {
    spec.optional = true;
    text = text.substr(1, text.size() - 2);
  }
  const auto equals = text.find('=');
  spec.key = text.substr(0, equals);
  spec.values = text.substr(equals + 1);
  const auto dots = spec.values.find("..");
  if (dots == std::string_view::npos) {
    spec.words = split(spec.values, "|");
    return spec;
  }
  const auto colon = spec.values.find(':');
  if (colon != std::string_view::npos) {
    spec.otherwise = parse_number(spec.values.substr(colon + 1));
    spec.values = spec.values.substr(0, colon);
  }
  spec.low = parse_number(spec.values.substr(0, dots)).value_or(0);
  spec.high = parse_number(spec.values.substr(dots + 2)).value_or(0);
  return spec;
}

std::optional<fault_parm> parm_value(const parm_spec &spec, std::string_view text) {
  for (size_t i = 0; i < spec.words.size(); i++)
    if (spec.words[i] == text) return fault_parm{i, spec.words[i]};
  const auto value = spec.words.empty() ? parse_number(text) : std::nullopt;
  if (!value || *value < spec.low || *value > spec.high) return std::nullopt;
  return fault_parm{*value, ""};
}

const fault_row *row_of(std::string_view name) {
  for (const auto &row : fault_rows)
    if (name == row.name) return &row;
  return nullptr;
}

// Takes one "key=value" into *f. Returns what is wrong with it, "" for nothing.
std::string parm_take(std::string_view text, const std::vector<parm_spec> &specs, fault *f) {
  const auto equals = text.find('=');
  if (equals == std::string_view::npos) return "parameter " + quoted(text) + " is not of the form key=value";
  const auto key = text.substr(0, equals);
  for (const auto &spec : specs) {
    if (spec.key != key) continue;
    const auto value = parm_value(spec, text.substr(equals + 1));
    if (!value) return "bad value in " + quoted(text) + ", allowed is " + std::string(spec.values);
    if (!f->parms.emplace(key, *value).second) return "parameter " + quoted(key) + " is given twice";
    return "";
  }
  return "no parameter " + quoted(key);
}

}  // namespace

std::span<const fault_row> fault_table() {
  return fault_rows;
}

const fault_row &fault::row() const {
  return fault_rows[static_cast<size_t>(id)];
}

uint64_t fault::get(std::string_view key, uint64_t otherwise) const {
  const auto found = parms.find(key);
  return found == parms.end() ? otherwise : found->second.value;
}

std::string_view fault::word(std::string_view key) const {
  const auto found = parms.find(key);
  return found == parms.end() ? std::string_view() : found->second.word;
}

bool fault::hits(uint64_t event) const {
  const auto nth = get("nth");
  const auto times = get("times");
  return event >= nth && (times == 0 || event - nth < times);
}

std::optional<fault> fault_parse(std::string_view text, std::string *error) {
  const auto parts = split(text, " \t\n");
  if (parts.empty()) {
    *error = "empty fault";
    return std::nullopt;
  }
  const auto *const row = row_of(parts[0]);
  if (row == nullptr) {
    *error = "unknown fault " + quoted(parts[0]);
    return std::nullopt;
  }
  std::vector<parm_spec> specs;
  for (const auto spec : split(row->parms, " "))
    specs.push_back(parm_of(spec));

  fault f{row->id, {}, row->name};
  for (size_t i = 1; i < parts.size(); i++) {
    f.text.append(" ").append(parts[i]);
    const auto wrong = parm_take(parts[i], specs, &f);
    if (!wrong.empty()) {
      *error = "fault " + quoted(row->name) + ": " + wrong;
      return std::nullopt;
    }
  }
  for (const auto &spec : specs) {
    if (f.has(spec.key)) continue;
    if (spec.otherwise) f.parms.emplace(spec.key, fault_parm{*spec.otherwise, ""});
    if (spec.optional) continue;
    *error = "fault " + quoted(row->name) + ": parameter " + quoted(spec.key) + " is missing";
    return std::nullopt;
  }
  return f;
}

}  // namespace sim
