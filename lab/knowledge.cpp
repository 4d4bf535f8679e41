#include "lab/knowledge.h"

#include <fnmatch.h>

#include <algorithm>
#include <array>
#include <string>

namespace lab {
namespace {

// clang-format off
constexpr std::array trait_rows{std::to_array<fault_traits>({
    // name                  mode             destroys by itself
    {"i2c-absent",           run_mode::brief, spoil::nothing, true},  // asked again until the time is over
    {"ethtool-fail",         run_mode::cut,   spoil::nothing},     // most sub-tests run in the full test alone
    {"lock-*",               run_mode::cut,   spoil::nothing},
    {"cpuinfo-*",            run_mode::cut,   spoil::nothing},
    {"nvram-data-*",         run_mode::cut,   spoil::lines},
    {"nvram-cell-*",         run_mode::cut,   spoil::cells},
    {"nvram-*",              run_mode::cut,   spoil::nothing},
    {"flash-data-*",         run_mode::full,  spoil::lines},
    {"flash-cell-*",         run_mode::full,  spoil::cells},
    {"flash-erase-leaves",   run_mode::full,  spoil::cells},
    {"flash-program-clears", run_mode::full,  spoil::sector_bit},
    {"flash-program-*",      run_mode::full,  spoil::sector},      // what was erased cannot be written back
    {"flash-erase-ignored",  run_mode::full,  spoil::sector},      // nor what was programmed
    {"flash-power-cut",      run_mode::full,  spoil::sector},
    {"flash-*",              run_mode::full,  spoil::nothing},
    {"*",                    run_mode::brief, spoil::nothing},
})};

// The PCIe row has seven devices; they stand for the first six functions of the card's list, the fifth for none.
constexpr std::string_view function_line = "(bus:{bus:02X}, dev:{dev:02X}, func:{func:02X}";
constexpr std::array expectation_rows{std::to_array<expectation>({
    // runs                                       devices                        what the output holds
    {"nvram-*",                                   "nvram.0",                     " NVRAM {instance}"},
    {"flash-*",                                   "obfl.0",                      ""},
    {"bar-* bar=2",                               "nvram.0",                     " NVRAM 0"},
    {"bar-* bar=3",                               "nvram.0",                     " NVRAM 1"},
    {"bar-* bar=4",                               "nvram.0",                     " NVRAM 2"},
    {"bar-* bar=5",                               "obfl.0",                      ""},
    {"lock-held lock=flash",                      "obfl.0",                      ""},
    {"lock-held",                                 "nvram.0",                     ""},
    {"ethtool-fail port=eth0",                    "gige.0",                      "ethtool -t eth0"},
    {"ethtool-fail port=eth1",                    "gige.1",                      "ethtool -t eth1"},
    {"ethtool-fail port=eth2",                    "gige.2",                      "ethtool -t eth2"},
    {"ethtool-fail port=eth5",                    "gige.3",                      "ethtool -t eth5"},
    {"ethtool-silent port=eth0",                  "gige.0",                      ""},
    {"ethtool-silent port=eth1",                  "gige.1",                      ""},
    {"ethtool-silent port=eth2",                  "gige.2",                      ""},
    {"ethtool-silent port=eth5",                  "gige.3",                      ""},
    {"ethtool-*",                                 "gige.0 gige.1 gige.2 gige.3", ""},
    {"sprom-corrupt image=sup",                   "seeprom.0",                   "Supervisor "},
    {"sprom-corrupt image=bp",                    "seeprom.1",                   "Backplane "},
    {"eeprom-corrupt offset=0..0xFFF",            "seeprom.0",                   ""},
    {"eeprom-corrupt",                            "seeprom.1",                   ""},
    {"i2c-*",                                     "seeprom.0 seeprom.1",         ""},
    {"pci-* card=11061,11099 bus=2 dev=0 func=0", "pcie.0",                      function_line},
    {"pci-* card=11061,11099 bus=2 dev=0 func=1", "pcie.1",                      function_line},
    {"pci-* card=11061,11099 bus=1 dev=0 func=1", "pcie.2",                      function_line},
    {"pci-* card=11061,11099 bus=1 dev=0 func=2", "pcie.3",                      function_line},
    {"pci-* card=11061,11099 bus=1 dev=0 func=3", "pcie.5",                      function_line},
    {"pci-* card=11061,11099 bus=1 dev=0 func=4", "pcie.6",                      function_line},
    {"pci-* card=11062,11111 bus=2 dev=0 func=0", "pcie.0",                      function_line},
    {"pci-* card=11062,11111 bus=3 dev=0 func=0", "pcie.1",                      function_line},
    {"pci-* card=11062,11111 bus=4 dev=1 func=0", "pcie.2",                      function_line},
    {"pci-* card=11062,11111 bus=5 dev=0 func=0", "pcie.3",                      function_line},
    {"pci-* card=11062,11111 bus=6 dev=0 func=0", "pcie.5",                      function_line},
    {"pci-* card=11062,11111 bus=7 dev=1 func=0", "pcie.6",                      function_line},
    {"pci-* card=11079,11080 bus=2 dev=0 func=0", "pcie.0",                      function_line},
    {"pci-* card=11079,11080 bus=4 dev=0 func=0", "pcie.1",                      function_line},
    {"pci-* card=11079,11080 bus=6 dev=0 func=0", "pcie.2",                      function_line},
    {"pci-* card=11079,11080 bus=7 dev=0 func=0", "pcie.3",                      function_line},
    {"pci-* card=11079,11080 bus=8 dev=1 func=0", "pcie.5",                      function_line},
    {"pci-* card=11079,11080 bus=9 dev=0 func=0", "pcie.6",                      function_line},
    {"pci-* card=11096 bus=2 dev=0 func=0",       "pcie.0",                      function_line},
    {"pci-* card=11096 bus=3 dev=0 func=0",       "pcie.1",                      function_line},
    {"pci-* card=11096 bus=4 dev=0 func=0",       "pcie.2",                      function_line},
    {"pci-* card=11096 bus=5 dev=0 func=0",       "pcie.3",                      function_line},
    {"pci-* card=11096 bus=6 dev=0 func=0",       "pcie.5",                      function_line},
    {"pci-* card=11096 bus=7 dev=0 func=0",       "pcie.6",                      function_line},
    {"*",                                         "",                            ""},
})};
constexpr std::string_view no_driver = "a driver that cannot reach its device ends the program before the first row: "
                                       "no verdict, which is no PASS";
constexpr std::string_view no_reset = "once the chip has given up (DQ5) the driver does not reset it, so that it takes no "
                                      "command and the sector under test is not written back";
constexpr std::string_view no_wait = "the driver stops waiting before the chip is done, and the sector under test is not "
                                     "written back";
constexpr std::string_view upper_half = "the upper half of each NVRAM is saved and written back, but not tested";
constexpr std::string_view saved_wrong = "it struck while the contents were saved: what is saved wrong is written back";
constexpr std::string_view no_second_read = "no cell is read twice without a write in between, so that the wrong level "
                                            "that a read leaves is not seen";
constexpr std::string_view half_lost = "no two words of the address test differ in A16 alone, so that it passes; the erase "
                                       "takes the whole sector, but saving and writing back reach half of it";
constexpr std::string_view few_words = "of each tested sector a few words are looked at, each with one value";
constexpr std::array reason_table{std::to_array<reason_row>({
    // runs                                        outcome           reason
    {"pci-* bus=0",                                outcome::missed,  "the chipset's functions are not among those that POST expects"},
    {"pci-*",                                      outcome::missed,  "printed as missing, but devices stand for the first six functions of the card's list alone"},
    {"bar-* bar=0,1",                              outcome::missed,  "these registers map what POST does not use: the bridge's own registers"},
    {"bar-64bit bar=5",                            outcome::missed,  "the last register has no upper half; its address is taken as it stands"},
    {"sprom-refuse",                               outcome::missed,  "to whom the driver refuses the card index the card is unknown: the SEEPROM row records nothing, the PCIe row compares nothing, the other rows pass"},
    {"cpuinfo-rate",                               outcome::missed,  "the rate is believed; it only changes how long the drivers wait"},
    {"lock-held",                                  outcome::missed,  "nothing is broken: POST waits until the other process lets go"},
    {"ethtool-fail test=link",                     outcome::missed,  "a failing link sub-test alone passes"},
    {"ethtool-fail code=10",                       outcome::missed,  "a sub-test passes if its result has the digit 0 anywhere"},
    {"i2c-smbus-only",                             outcome::missed,  "nothing is broken: the EEPROM is read by SMBus transfers"},
    {"i2c-fail nth=1..335",                        outcome::missed,  "a passing failure at the start: the SEEPROM row reads the image again"},
    {"nvram-addr-stuck line=14",                   outcome::missed,  upper_half},
    {"nvram-addr-short other=14",                  outcome::missed,  upper_half},
    {"nvram-addr-short line=14",                   outcome::missed,  upper_half},
    {"nvram-cell-* offset=0x4000..0x7FFF",         outcome::missed,  upper_half},
    {"nvram-cell-* victim=0x4000..0x7FFF",         outcome::missed,  upper_half},
    {"nvram-cell-read-deceptive",                  outcome::missed,  no_second_read},
    {"nvram-cell-write-disturb",                   outcome::missed,  "the cell is not written with the level that it holds and then read"},
    {"nvram-cell-coupled-*",                       outcome::missed,  "the two cells never hold the levels that show the fault when the second is read"},
    {"nvram-* nth=5000",                           outcome::missed,  saved_wrong},
    {"nvram-* nth=5000",                           outcome::damaged, saved_wrong, false},
    {"nvram-addr-stuck nth=20000",                 outcome::damaged, "it struck again while the contents were written back, which nothing checks"},
    {"flash-addr-* line=17..25",                   outcome::missed,  "each sector test writes and reads within one sector: sectors that answer for each other pass"},
    {"flash-addr-stuck line=16",                   outcome::damaged, half_lost, false},
    {"flash-addr-short line=16 wins=0",            outcome::damaged, half_lost, false},
    {"flash-cell-read-deceptive",                  outcome::missed,  no_second_read},
    {"flash-cell-*",                               outcome::missed,  few_words},
    {"flash-cfi",                                  outcome::missed,  "the waits are still long enough for this chip"},
    {"flash-slow",                                 outcome::missed,  "within the time that the chip promises"},
    {"flash-program-ignored sector=511",           outcome::missed,  "the last round writes what an erased word holds anyway, and what is written back is not compared"},
    {"flash-data-stuck nth=1000",                  outcome::missed,  saved_wrong},
    {"flash-cfi",                                  outcome::damaged, no_wait},
    {"flash-slow",                                 outcome::damaged, no_wait},
    {"flash-data-* commands=1",                    outcome::damaged, "commands or their status do not get through, and the sector under test is not written back"},
    {"flash-*",                                    outcome::damaged, no_reset},
    {"flash-cell-*",                               outcome::not_fired, "493 of the 512 sectors of the flash are never touched, and not every cell of the others meets what makes it fail"},
    {"nvram-cell-*",                               outcome::not_fired, "the cells never held the levels at which the fault acts"},
    {"flash-power-cut",                            outcome::ended,   "without power there is no verdict, which is no PASS"},
    {"pci-*",                                      outcome::ended,   no_driver},
    {"bar-*",                                      outcome::ended,   no_driver},
    {"cpuinfo-*",                                  outcome::ended,   "without a clock rate nothing can be timed: the program ends before the first row: no verdict, which is no PASS"},
    {"lock-dir-*",                                 outcome::ended,   no_driver},
    {"mem-*",                                      outcome::ended,   no_driver},
    {"post-missing",                               outcome::blamed,  "no device stands for the directory of records and logs; the ports fail for lack of their log"},
    {"sprom-absent",                               outcome::blamed,  "no device stands for the identification driver; the rows that cannot go without it fail"},
})};
// clang-format on

constexpr std::array limit_sentences{std::to_array<std::string_view>({
    "On cards 11062 and 11111 the ports eth1 and eth2 pass without a test.",
    "On cards 11061 and 11096 NVRAM 1 and NVRAM 2 are not tested.",
    "The short test (`-s`) leaves out NVRAM and flash, and of the Ethernet controllers all but the link sub-test.",
    "Of the 512 sectors of the flash 19 are tested: nothing is known of the cells of the others.",
    "A first failure hides later ones of the same NVRAM instance or of the flash.",
})};

bool name_fits(std::string_view name, std::string_view pattern) {
  return fnmatch(std::string(pattern).c_str(), std::string(name).c_str(), 0) == 0;
}

// The value of a key: of the fault, or of the run.
std::string value_of(const run_item &run, const fault_text &fault, std::string_view key) {
  if (key == "card") return std::to_string(run.board.card);
  if (key == "revision") return run.board.revision;
  if (key == "mode") return std::string(name_of(run.mode));
  return std::string(fault.find(key).value_or(""));
}

bool value_fits(std::string_view value, std::string_view pattern) {
  const auto number = parse_c_number(value);
  for (const auto piece : pieces_of(pattern, ',')) {
    const auto dots = piece.find("..");
    const auto low = parse_c_number(piece.substr(0, dots));
    const auto high = dots == std::string_view::npos ? low : parse_c_number(piece.substr(dots + 2));
    if (number && low && high ? *number >= *low && *number <= *high : value == piece) return true;
  }
  return false;
}

}  // namespace

bool fits(const run_item &run, std::string_view pattern) {
  const auto fault = parse_fault_text(run.fault);
  const auto wanted = parse_fault_text(pattern);
  if (!name_fits(fault.name, wanted.name)) return false;
  return std::ranges::all_of(
      wanted.values, [&](const auto &pair) { return value_fits(value_of(run, fault, pair.first), pair.second); });
}

const fault_traits &traits_of(std::string_view name) {
  // The last row fits all names.
  return *std::ranges::find_if(trait_rows, [&](const auto &row) { return name_fits(name, row.name); });
}

const expectation &expectation_of(const run_item &run) {
  return *std::ranges::find_if(expectation_rows, [&](const auto &row) { return fits(run, row.pattern); });
}

std::string_view reason_of(const run_item &run, outcome end, bool noticed) {
  for (const auto &row : reason_table) {
    const bool same = row.end == end && (end != outcome::damaged || row.noticed == noticed);
    if (same && fits(run, row.pattern)) return row.reason;
  }
  return "";
}

std::span<const std::string_view> limits_of_a_pass() {
  return limit_sentences;
}

std::span<const reason_row> reason_rows() {
  return reason_table;
}

}  // namespace lab
