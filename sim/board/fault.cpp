// fault.cpp: the table of faults and the parser of what the command line asks for.
#include "sim/board/fault.h"

#include <algorithm>
#include <array>
#include <vector>

#include "sim/host/text.h"

namespace sim {

namespace {

// clang-format off
constexpr std::array fault_rows{std::to_array<fault_row>({
    // name                 parameters                                                              what it does

    // Files and services of the operating system.
    {"post-missing",        "",                                                                     "/post does not exist"},
    {"pci-list-unreadable", "[errno=1..133:13]",                                                    "/proc/bus/pci/devices cannot be opened"},
    {"pci-missing",         "bus=0..0xFF dev=0..31 func=0..7",                                      "the PCI list lacks this function"},
    {"pci-wrong-id",        "bus=0..0xFF dev=0..31 func=0..7 [vendor=0..0xFFFF] [device=0..0xFFFF]", "the function answers with another vendor or device id"},
    {"bar-missing",         "bar=0..5",                                                             "this base address register of the local-bus bridge is 0 and has no size"},
    {"bar-64bit",           "bar=0..5 [high=1..0xFFFFFFFF:1]",                                      "this register is the lower half of a 64-bit one, the next holds the upper half"},
    {"bar-io",              "bar=0..5",                                                             "this register maps I/O space"},
    {"sprom-absent",        "",                                                                     "/dev/sprom does not exist"},
    {"sprom-refuse",        "[errno=1..133:22] [after=0..1000000:0]",                               "the SPROM driver refuses every request after the first ones"},
    {"cpuinfo-missing",     "",                                                                     "/proc/cpuinfo does not exist"},
    {"cpuinfo-no-rate",     "",                                                                     "/proc/cpuinfo names no clock rate"},
    {"cpuinfo-rate",        "khz=0..0xFFFFFFFFFF",                                                  "/proc/cpuinfo names this clock rate in place of the true one"},
    {"lock-dir-missing",    "",                                                                     "/var/lock does not exist"},
    {"lock-dir-read-only",  "",                                                                     "/var/lock cannot be written"},
    {"lock-held",           "lock=nvram0|nvram1|nvram2|flash kind=read|write [ms=1..600000:500]",   "another process holds this lock from the start for a while"},
    {"mem-absent",          "[errno=1..133:2]",                                                     "/dev/mem cannot be opened"},
    {"mem-mmap-refused",    "[nth=1..1000:1] [times=0..1000:0] [errno=1..133:1]",                   "mmap of /dev/mem fails from the nth on, so many times; times 0 is for ever"},
    {"iopl-refused",        "[errno=1..133:1]",                                                     "the I/O privilege level cannot be raised"},
    {"port-stuck",          "bit=0..31 level=0..1",                                                 "this bit of I/O port 0x50C is stuck"},

    // Ethernet controllers.
    {"ethtool-missing",     "",                                                                     "there is no ethtool"},
    {"ethtool-silent",      "[port=eth0|eth1|eth2|eth5]",                                           "ethtool prints nothing"},
    {"ethtool-fail",        "port=eth0|eth1|eth2|eth5 test=register|eeprom|interrupt|loopback|link [code=1..99:1]", "this sub-test of the controller fails with the code"},

    // I2C buses, EEPROMs and expanders.
    {"i2c-bus-absent",      "bus=0..255",                                                           "the bus has no device file"},
    {"i2c-smbus-only",      "[bus=0..255]",                                                         "the adapter offers SMBus transfers alone"},
    {"i2c-absent",          "bus=0..255 addr=0x03..0x77",                                           "nothing acknowledges at this address"},
    {"i2c-fail",            "bus=0..255 addr=0x03..0x77 [nth=1..1000000:1] [times=0..1000000:1] [errno=1..133:5]", "the nth transaction with the device fails, and those after it, so many times; times 0 is for ever"},
    {"eeprom-corrupt",      "bus=0..255 addr=0x03..0x77 offset=0..0xFFFF [xor=1..0xFF:0xFF]",       "a byte of the EEPROM reads wrong"},
    {"sprom-corrupt",       "image=sup|bp|dc1|lc2|lc3|ps1|ps2 block=header|main|sensor|wwn|license [offset=0..255:8] [xor=1..0xFF:0xFF]", "a byte of this block of a SPROM image reads wrong"},
    {"eeprom-protected",    "bus=0..255 addr=0x03..0x77",                                           "the EEPROM's write protection is stuck: writes are acknowledged and ignored"},
    {"eeprom-busy",         "bus=0..255 addr=0x03..0x77 [polls=0..1000000:0]",                      "write cycles last this many polls; polls 0 is for ever"},
    {"straps",              "value=0..3",                                                           "the board identification straps read this value"},
    {"pin-stuck",           "bus=0..255 addr=0x03..0x77 pin=0..15 level=0..1",                      "this pin of an I/O expander is stuck"},

    // Battery-backed RAM. A line is the number of its bit in the byte offset or the data word.
    {"nvram-data-stuck",    "instance=0..2 line=0..15 level=0..1",                                  "a data line is stuck"},
    {"nvram-data-short",    "instance=0..2 line=0..15 other=0..15 [wins=0..1:0]",                   "two data lines are shorted; the level that wins"},
    {"nvram-addr-stuck",    "instance=0..2 line=1..14 level=0..1",                                  "an address line is stuck"},
    {"nvram-addr-short",    "instance=0..2 line=1..14 other=1..14 [wins=0..1:0]",                   "two address lines are shorted; the level that wins"},
    {"nvram-cell-stuck",    "instance=0..2 offset=0..0x7FFF bit=0..7 level=0..1",                   "a cell is stuck"},
    {"nvram-cell-coupled",  "instance=0..2 offset=0..0x7FFF bit=0..7 victim=0..0x7FFF vbit=0..7",   "a change of one cell inverts another"},

    // NOR flash. Lines as above; the chip's address A0 is bit 1 of the byte offset.
    {"flash-data-stuck",    "line=0..15 level=0..1 [commands=0..1:0]",                              "a data line is stuck; commands=1: for command and status cycles too"},
    {"flash-data-short",    "line=0..15 other=0..15 [wins=0..1:0] [commands=0..1:0]",               "two data lines are shorted; the level that wins; commands=1: for command and status cycles too"},
    {"flash-addr-stuck",    "line=1..25 level=0..1 [commands=0..1:0]",                              "an address line is stuck; commands=1: for command and status cycles too"},
    {"flash-addr-short",    "line=1..25 other=1..25 [wins=0..1:0] [commands=0..1:0]",               "two address lines are shorted; the level that wins; commands=1: for command and status cycles too"},
    {"flash-cell-stuck",    "offset=0..0x3FFFFFF bit=0..7 level=0..1",                              "a cell is stuck"},
    {"flash-cell-coupled",  "offset=0..0x3FFFFFF bit=0..7 victim=0..0x3FFFFFF vbit=0..7",           "programming one cell programs another"},
    {"flash-silent",        "",                                                                     "the flash does not answer: all ones"},
    {"flash-cfi",           "word=0x10..0xFF value=0..0xFFFF",                                      "this word of the CFI query reads wrong"},
    {"flash-slow",          "[program=0..1000000:0] [erase=1..1000000:2]",                          "so many status reads show a program or an erase running, in place of the usual number"},
    {"flash-erase-hangs",   "[sector=0..511] [dq5=0..1:0]",                                         "erase never ends, with or without DQ5"},
    {"flash-program-hangs", "[sector=0..511] [dq5=0..1:0]",                                         "programming never ends, with or without DQ5"},
    {"flash-erase-leaves",  "offset=0..0x3FFFFFF bit=0..7",                                         "erase leaves this bit programmed"},
    {"flash-program-clears", "sector=0..511 offset=0..0x1FFFF bit=0..7",                            "programming anything in the sector clears this bit of it too"},
    {"flash-power-cut",     "nth=1..100000000",                                                     "the run is killed at the nth write cycle to the flash"},
})};
// clang-format on

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

std::optional<uint64_t> parm_value(const parm_spec &spec, std::string_view text) {
  for (size_t i = 0; i < spec.words.size(); i++)
    if (spec.words[i] == text) return i;
  const auto value = spec.words.empty() ? parse_number(text) : std::nullopt;
  if (value && (*value < spec.low || *value > spec.high)) return std::nullopt;
  return value;
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
    if (!f->parm.emplace(key, *value).second) return "parameter " + quoted(key) + " is given twice";
    return "";
  }
  return "no parameter " + quoted(key);
}

}  // namespace

std::span<const fault_row> fault_table() {
  return fault_rows;
}

uint64_t fault::get(std::string_view key, uint64_t otherwise) const {
  const auto found = parm.find(key);
  return found == parm.end() ? otherwise : found->second;
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

  fault f{row->name, {}, row->name};
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
    if (spec.otherwise) f.parm.emplace(spec.key, *spec.otherwise);
    if (spec.optional) continue;
    *error = "fault " + quoted(row->name) + ": parameter " + quoted(spec.key) + " is missing";
    return std::nullopt;
  }
  return f;
}

}  // namespace sim
