#include "lab/explain/texts.h"

#include <algorithm>
#include <array>

#include "lab/base/text.h"

namespace lab {
namespace {

using enum text_condition;

// At other places on other cards.
constexpr std::string_view bridge_ids =
    "?pci-missing bus=0x16,0x2E,6 dev=0 func=0; ?pci-wrong-id bus=0x16,0x2E,6 dev=0 func=0 vendor=* device=*";
constexpr std::string_view eeprom_unreadable =
    "i2c-bus-absent bus=1; i2c-absent bus=1 addr=0x52; i2c-fail bus=1 addr=0x52 errno=* times=0";
// A line that is lost can have been that of another device, or of a block.
constexpr std::string_view eeprom_unread_at_times =
    "~i2c-absent bus=1 addr=0x52; ~i2c-fail bus=1 addr=0x52 errno=*; ?i2c-bus-absent bus=1";
constexpr std::string_view sprom_unread =
    "~i2c-absent bus=1 addr=0x52; ~i2c-fail bus=1 addr=0x52 errno=*; ?i2c-bus-absent bus=1; "
    "?eeprom-corrupt bus=1 addr=0x52 offset=* xor=*; ?sprom-corrupt image=* block=* offset=* xor=*";
constexpr std::string_view eeprom_perhaps_unreadable =
    "?i2c-bus-absent bus=1; ?i2c-absent bus=1 addr=0x52; ?i2c-fail bus=1 addr=0x52 errno=*; "
    "~i2c-absent bus=1 addr=0x52; ~i2c-fail bus=1 addr=0x52 errno=*";
constexpr std::string_view look_at_bus =
    "Look whether bus 1 has its device file and whether the EEPROM acknowledges at 0x52 (i2cdetect -y 1).";
constexpr std::string_view look_at_bridge = "Look at the bridge's base address registers (lspci -vv, setpci).";

// clang-format off
constexpr std::array table{std::to_array<text_row>({
    // row      text                                                when       also
    //          part, what
    //          causes
    //          next

    // Before the first row.
    {"",        "devmemfd:0x{n}",                                   none,      "", "", "", "", ""},
    {"",        "phys->virt: 0x{n}",                                none,      "", "", "", "", ""},
    {"",        "Unable to open /proc/cpuinfo for reading",         none,      "",
                "/proc/cpuinfo", "cannot be opened, so that nothing can be timed and the program ends",
                "cpuinfo-missing", "Mount /proc."},
    {"",        "Unable to find '{key}' in {file}",                 none,      "",
                "/proc/cpuinfo", "names no clock rate ({key}), so that nothing can be timed and the program ends",
                "cpuinfo-no-rate", "See what the kernel prints there; some kernels and machines leave the rate out."},
    {"",        "_init_ptu: Assertion `mhz != 0.0' failed",         none,      "",
                "/proc/cpuinfo", "names a clock rate of 0",
                "cpuinfo-rate khz=0", "See what the kernel prints there."},
    {"",        "_init_ptu: Assertion `0' failed",                  also,      "/proc/cpuinfo", "", "", "", ""},
    {"",        "The device could not be found for vendorID: {v} deviceID: {d} instance", none, "",
                "local-bus bridge", "not in the PCI list (vendor {v}, device {d}, decimal); NVRAM and flash are behind it",
                bridge_ids, "See lspci -n: is the bridge there, and with its own identity?"},
    {"",        "with rc 408 (HW_ERR_FILE_IO)",                     also,      "Failed mmap_get_map_pci(",
                "/proc/bus/pci/devices", "cannot be read, so that NVRAM and flash are not found",
                "pci-list-unreadable errno=*", "Mount /proc; look at the file's rights."},
    {"",        "ERROR: {dev}: no size in base address register 0x{reg}", none, "",
                "local-bus bridge", "base address register 0x{reg} has no size: nothing is mapped for {dev}",
                "bar-missing bar={reg:bar}", look_at_bridge},
    {"",        "ERROR: PCI BAR {n} is a 64-bit memory space",      none,      "",
                "local-bus bridge", "base address register {n} is the lower half of a 64-bit one, which the driver does not take",
                "?bar-64bit bar={n} high=*; ?bar-64bit bar={n_before} high=*", look_at_bridge},
    {"",        "failed to open /dev/mem. Errno {n}:",              none,      "",
                "/dev/mem", "cannot be opened (errno {n})",
                "mem-absent errno={n}", "Run as root; see whether the kernel has /dev/mem and allows it."},
    {"",        "mmap() failed. Errno {n}:",                        none,      "",
                "/dev/mem", "a region behind the bridge cannot be mapped (errno {n}): it is refused, or its address is wrong",
                "mem-mmap-refused errno={n} nth={nth}; ?bar-64bit bar={bar_before} high=*; ?bar-io bar={bar}",
                "See the kernel's log, and whether a 64-bit base address register shifts the next one (lspci -vv)."},
    {"",        "mmap_map_addr():physAddr {a} not aligned at page boundary", none, "",
                "local-bus bridge", "base address register {bar} gives the address 0x{a}, which no mapping can have",
                "?bar-64bit bar={bar_before} high=*", look_at_bridge},
    {"",        "ERROR {op}(): error creating lock: {path}",        also,      "OS Error: errno: 2,",
                "/var/lock", "does not exist: the lock {path} cannot be made",
                "lock-dir-missing", "Make the directory."},
    {"",        "ERROR {op}(): error creating lock: {path}",        also,      "OS Error: errno: 30,",
                "/var/lock", "cannot be written: the lock {path} cannot be made",
                "lock-dir-read-only", "Mount a file system there that can be written."},
    {"",        "ERROR {op}(): error creating lock: {path}",        none,      "",
                "/var/lock", "the lock {path} cannot be made",
                "?lock-dir-missing; ?lock-dir-read-only", "Look at the directory and its rights."},
    {"",        "Lock not initialized.  Fatal error, exitting",     none,      "",
                "the program", "used a lock that was never made", "", "This is a fault of the program: keep the whole log."},
    {"",        "ERROR {op}(): lock_req( m_lock, {a}, {b}) failed: OS Error: errno: {n}", none, "",
                "a lock in /var/lock", "the system refused it (errno {n})", "", "See the kernel's log."},
    {"",        "Error in opening /dev/sprom for reading",          none,      "",
                "identification driver", "/dev/sprom does not exist: the card is not known",
                "sprom-absent", "Load the driver."},
    {"",        "err: could not init sup sprom",                    none,      "",
                "supervisor SPROM", "cannot be reached, so that revision P1 is taken", "", look_at_bus},
    {"startup", "err: could not read sup sprom",                    unread,    "",
                "identity EEPROM", "cannot be read; revision P1 is taken",
                eeprom_unreadable, look_at_bus},
    {"startup", "err: could not read sup sprom",                    perhaps_unread, "",
                "identity EEPROM", "could not be read at the start; the log does not show whether it could later; revision P1 is taken",
                eeprom_perhaps_unreadable, look_at_bus},
    {"startup", "err: could not read sup sprom",                    none,      "",
                "identity EEPROM", "could not be read at the start and could later; revision P1 is taken",
                eeprom_unread_at_times, look_at_bus},
    {"",        "err: could not read sup sprom",                    none,      "", "", "", "", ""},
    {"",        "Could not open file post_results.txt",             none,      "",
                "/post", "the directory is missing or cannot be written: nothing is recorded, and no port can be tested",
                "post-missing", "Make the directory, or mount the file system that it belongs to."},
    {"",        "ERROR: Failed to open {path} (0)",                 none,      "", "", "", "", ""},

    // SEEPROM.
    {"seeprom", "Err: Sprom type does not match",                   none,      "",
                "the program", "a SPROM's descriptor is of another kind than the test expects", "", "This is a fault of the program: keep the whole log."},
    {"seeprom", "",                                                 unread,    "",
                "identity EEPROM", "cannot be read; revision P1 is taken",
                "", ""},
    {"seeprom", "",                                                 perhaps_unread, "",
                "identity EEPROM", "could not be read at the start; the log does not show whether it could later; revision P1 is taken",
                "", ""},
    {"seeprom", "",                                                 none,      "",
                "{part}", "could not be read: no block was compared",
                sprom_unread, look_at_bus},

    // GigE.
    {"gige",    "ethtool: {shell}not found",                        none,      "",
                "ethtool", "there is no such program: no port was tested",
                "ethtool-missing", "Install ethtool, or look at the path that the program is started with."},
    {"gige",    "Fail to parse /post/ethtool.log PASS/FAIL result", also,      "not found",   "", "", "", ""},
    {"gige",    "Fail to parse /post/ethtool.log PASS/FAIL result", all_ports, "",
                "ethtool", "printed no verdict for any port",
                "ethtool-silent; ?ethtool-missing", "Run ethtool -t {part} by hand: is the driver loaded, is the port there?"},
    {"gige",    "Fail to parse /post/ethtool.log PASS/FAIL result", one_port,  "",
                "{part}", "ethtool printed no verdict",
                "ethtool-silent port={part}", "Run ethtool -t {part} by hand: is the port there?"},
    {"gige",    "Fail to parse /post/ethtool.log PASS/FAIL result", none,      "",
                "{part}", "ethtool printed no verdict",
                "?ethtool-silent; ?ethtool-silent port={part}; ?ethtool-missing", "Run ethtool -t {part} by hand: is the port there?"},
    {"gige",    "Fail to open /post/ethtool.log",                   none,      "",
                "/post", "the directory is missing or cannot be written: nothing is recorded, and no port can be tested",
                "post-missing", "Make the directory, or mount the file system that it belongs to."},
    {"gige",    "cannot create {path}ethtool.log",                  none,      "", "", "", "", ""},
    {"gige",    "rm: cannot remove",                                none,      "", "", "", "", ""},

    // NVRAM and flash, beside what their models explain.
    {"nvram",   "Failed to find the region of NVRAM {n}: rc {rc} ({name})", none, "",
                "NVRAM {n}", "its region is not found behind the bridge ({name})", "", look_at_bridge},
    {"nvram",   "",                                                 stopped,   "",
                "the run", "ended within the NVRAM test without a line: the log was cut, or power, reset or a kill; what the instance under test held may be lost",
                "~nvram-power-cut instance=*", "If nobody ended it, look at the supply while the memory is written."},
    {"obfl",    "",                                                 stopped,   "",
                "the run", "ended within the flash test without a line: the log was cut, or power, reset or a kill; what the sector under test held may be lost",
                "~flash-power-cut", "If nobody ended it, look at the supply while the flash is written."},

    // PCIe.
    {"pcie",    "Unable to open /proc/bus/pci/devices",             none,      "",
                "/proc/bus/pci/devices", "cannot be read: no function was compared, and every device passes",
                "pci-list-unreadable errno=*", "Mount /proc; look at the file's rights."},
    {"pcie",    "Invalid card detected",                            none,      "",
                "identification driver", "gave no card index that the program knows: no function was compared, the SEEPROM row recorded nothing, and yet the row passes",
                "?sprom-refuse errno=* after=*", "Read the card index with the sprom tool."},
    {"",        "## Info : Based on P0 board detection",            none,      "", "", "", "", ""},
    {"",        "OS Error: errno: {n},",                            none,      "", "", "", "", ""},
    {"",        "lock_create(\"{name}\") failed",                   none,      "", "", "", "", ""},

    // What follows from another line.
    {"",        "## Error : Failed ",                               none,      "", "", "", "", ""},
    {"",        "with rc {n} (",                                    none,      "", "", "", "", ""},
    {"",        "## Assert:obfl_libinit():",                        also,      "Failed obfl_sw_init()", "", "", "", ""},
    {"",        ":\"rc == HW_SUCCESS\" is false",                   also,      "Failed obfl_sw_init()", "", "", "", ""},
    {"",        "## BT: ",                                          none,      "", "", "", "", ""},
    {"",        "nvram_libinit: Assertion `rc == HW_SUCCESS' failed", also,    "Failed nvram_sw_init()", "", "", "", ""},
    {"",        "mmap_acc_init: Assertion `len' failed",            also,      "no size in base address register", "", "", "", ""},
    {"",        "_lk_acq: Assertion `(0)' failed",                  also,      "lock_", "", "", "", ""},
    {"",        " lock_{op}: Assertion `0' failed",                 also,      "Fatal error", "", "", "", ""},
    {"",        "(): Fatal error.  Exitting...",                    none,      "", "", "", "", ""},
    {"",        "board-sim: {program} was ended by signal 6 ",      also,      "Assert", "", "", "", ""},
    {"",        "board-sim: {program} was ended by signal 9 ",      none,      "", "", "", "", ""},
    {"",        "Warning: Unsupported flag",                        none,      "", "", "", "", ""},
})};

constexpr std::array measure_table{std::to_array<measure_row>({
    // one of               and one of                what decides
    {"nvram-data-*",        "nvram-cell-*",           "Write the same words at another offset of the instance: a data line fails there too, a cell does not."},
    {"nvram-addr-*",        "nvram-cell-*",           "Write two words whose offsets differ only in the line and read both: with a bad line they are one."},
    {"nvram-data-stuck",    "nvram-data-short",       "Write a word with only the line at the other level, then with all lines at that level: a stuck line fails both, shorted lines only the first."},
    {"nvram-addr-stuck",    "nvram-addr-short",       "Measure the line against its neighbour with the power off: shorted lines show no resistance."},
    {"nvram-addr-short",    "nvram-addr-short",       "Measure the lines against each other with the power off."},
    {"nvram-data-short",    "nvram-data-short",       "Write words in which only two of the lines differ: those that are shorted read alike."},
    {"nvram-cell-stuck",    "nvram-cell-coupled*",    "Fill the memory with one value, then write only this word: a cell that is bad by itself still fails."},
    {"bar-io",              "nvram-*",                "Read the whole region: where nothing answers every word is 0xffff."},
    {"flash-data-*",        "flash-cell-*",           "Test a second sector: a data line fails there too, a cell does not."},
    {"flash-addr-*",        "flash-cell-*",           "Test the same words in a second sector: an address line fails there too, a cell does not."},
    {"flash-data-stuck",    "flash-data-short",       "Write a word with only the line at the other level, then with all lines at that level: a stuck line fails both, shorted lines only the first."},
    {"flash-addr-*",        "flash-addr-*",           "Program one word at an offset with a single line set and look which other offsets show it."},
    {"flash-erase-hangs",   "flash-cell-*",           "Erase each sector by itself: a cell fails only in its sector, and the sector that fails can be read for bits that stayed 0."},
    {"flash-program-hangs", "flash-cell-*",           "Program one word at a time: a cell fails only in its word."},
    {"flash-erase-hangs",   "flash-erase-hangs",      "Erase each sector by itself: the line does not name the sector."},
    {"flash-program-hangs", "flash-program-hangs",    "Program one word in each sector: the line does not name the sector."},
    {"flash-slow",          "flash-*-hangs",          "Wait longer: a slow chip ends, a hanging one does not."},
    {"flash-cfi",           "flash-*",                "Read the query: words 0x20, 0x21, 0x24 and 0x25 give the limits."},
    {"flash-silent",        "flash-*",                "Read the identification (query): a chip that answers nothing gives 0xffff there, too."},
    {"bar-io",              "flash-*",                "Look at base address register 5 of the bridge (lspci -vv)."},
    {"ethtool-silent",      "ethtool-silent",         "Run ethtool -t by hand for each port."},
    {"i2c-bus-absent",      "i2c-absent",             "Look for the bus's device file: a missing bus has none."},
    {"i2c-absent",          "i2c-fail",               "Ask for the address often (i2cdetect): an absent device never acknowledges."},
    {"pci-missing",         "pci-wrong-id",           "See lspci -n: a function with a wrong identity is in the list at that place, a missing one is not."},
    {"mem-mmap-refused",    "bar-64bit",              "See lspci -vv: a 64-bit register shifts the next one."},
    {"lock-dir-missing",    "lock-dir-read-only",     "Look whether the directory is there."},
    {"eeprom-corrupt",      "eeprom-corrupt",         "Compare the image with the one that was written (sprom dump): the byte that differs is the bad one."},
})};

constexpr std::array advice_table{std::to_array<advice_row>({
    {"nvram-data-*",         "Measure the data line at the bridge and at the memory: solder, via, driver."},
    {"nvram-addr-*",         "Measure the address line at the bridge and at the memory: solder, via, short to a neighbour."},
    {"nvram-cell-*",         "A bad cell is the memory itself: replace it, and look at its battery."},
    {"bar-io",               "Look at the bridge's base address registers."},
    {"flash-data-*",         "Measure the data line at the bridge and at the flash: solder, via, driver."},
    {"flash-addr-*",         "Measure the address line at the bridge and at the flash: solder, via, short to a neighbour."},
    {"flash-cell-*",         "A bad cell is the flash itself: replace it."},
    {"flash-erase-*",        "Look at the flash's supply and write protection before it is replaced."},
    {"flash-program-*",      "Look at the flash's supply and write protection before it is replaced."},
    {"flash-silent",         "Look at the flash's chip select, supply and reset."},
    {"flash-cfi",            "A query that reads wrong is the flash itself, or another type than was meant."},
    {"flash-slow",           "A flash that has become slow is worn: replace it."},
    {"ethtool-fail",         "Run the sub-test again with the cable off: a controller that still fails is to be replaced."},
    {"pci-*",                "Look at the function's supply, reset and clock, and at the bridge above it."},
    {"eeprom-corrupt",       "Write the image again (sprom write); if it comes back, replace the EEPROM."},
})};

constexpr std::pair<std::string_view, std::string_view> unseen_table[] = {
    {"seeprom", "A wrong sum shows that its block has a wrong byte, not which."},
    {"gige",    "A sub-test with the digit 0 in its result passes; so does a failing link sub-test."},
    {"nvram",   "The first failing check ends the instance's test: its further faults do not show. The upper half is not tested."},
    {"obfl",    "The first failure ends the flash test: sectors after it were not tested."},
    {"pcie",    "Only the first six functions of the card's list decide the verdict: others that are missing are only printed."},
};
// clang-format on

constexpr std::string_view field_ends = " ,;()\t";

}  // namespace

std::optional<text_fields> find_text(std::string_view pattern, std::string_view line) {
  text_fields fields;
  const auto open = std::min(pattern.find('{'), pattern.size());
  const auto start = line.find(pattern.substr(0, open));
  if (start == std::string_view::npos) return std::nullopt;
  line.remove_prefix(start + open);
  pattern.remove_prefix(open);
  while (!pattern.empty()) {
    const auto close = pattern.find('}');
    const auto name = pattern.substr(1, close - 1);
    pattern.remove_prefix(close + 1);
    const auto literal = pattern.substr(0, std::min(pattern.find('{'), pattern.size()));
    const auto end = literal.empty() ? std::min(line.find_first_of(field_ends), line.size()) : line.find(literal);
    if (end == std::string_view::npos) return std::nullopt;
    fields.insert_or_assign(std::string(name), std::string(line.substr(0, end)));
    line.remove_prefix(end + literal.size());
    pattern.remove_prefix(literal.size());
  }
  return fields;
}

std::optional<uint32_t> number_of(const text_fields &fields, std::string_view name, int base) {
  const auto found = fields.find(name);
  if (found == fields.end()) return std::nullopt;
  std::string_view text = found->second;
  const auto value = take_number<uint32_t>(&text, base);
  return text.empty() ? value : std::nullopt;
}

std::string fill_text(std::string_view text, const text_fields &fields) {
  return fill_fields(text, [&](std::string_view name, std::string_view form) -> std::string {
    const auto found = fields.find(name);
    if (found == fields.end()) return "";
    std::string_view offset = found->second;
    const auto number = form == "bar" ? take_number<uint32_t>(&offset, 16) : std::nullopt;
    return number ? std::to_string((*number - 0x10) / 4) : found->second;
  });
}

std::span<const text_row> text_rows() {
  return table;
}

std::span<const measure_row> measure_rows() {
  return measure_table;
}

std::span<const advice_row> advice_rows() {
  return advice_table;
}

std::string_view unseen_after(std::string_view row) {
  const auto *const found = std::ranges::find(unseen_table, row, &std::pair<std::string_view, std::string_view>::first);
  return found == std::end(unseen_table) ? "" : found->second;
}

}  // namespace lab
