// sets.cpp: the built-in fault spaces, as patterns.
#include <algorithm>
#include <array>
#include <random>
#include <span>

#include "lab/space.h"

namespace lab {
namespace {

// clang-format off

// Every kind of fault with parameters worth having, on a card where it bites.
constexpr std::array standard_patterns{std::to_array<std::string_view>({
    // Files and services of the operating system.
    "post-missing",
    "pci-list-unreadable",
    "--card=11061 pci-missing function=*",
    "--card=11062 --revision=P0 pci-missing function=*",
    "--card=11062 pci-missing function=*",
    "--card=11079 pci-missing function=*",
    "--card=11096 pci-missing function=*",
    "--card=11062 pci-wrong-id function=* device=0xFFFE",
    "--card=11079 pci-wrong-id bus=2 dev=0 func=0 vendor=0x1234",
    "bar-missing bar=*",
    "--mode=cut bar-64bit bar=0..4",
    "bar-64bit bar=5",
    "--mode=cut bar-io bar=0,2..4",
    "--mode=full bar-io bar=5",
    "sprom-absent",
    "--mode=cut sprom-refuse after=0..9",
    "cpuinfo-missing",
    "cpuinfo-no-rate",
    "cpuinfo-rate khz=0",
    "cpuinfo-rate khz=1,10000000",
    "--mode=full cpuinfo-rate khz=100000",
    "lock-dir-missing",
    "lock-dir-read-only",
    "--mode=cut lock-held lock=nvram0,nvram1,nvram2 kind=*",
    "--mode=full lock-held lock=flash kind=*",
    "mem-absent",
    "mem-mmap-refused nth=1..4",

    // Ethernet controllers. Card 11079 tests all four ports.
    "--card=11079 ethtool-missing",
    "--card=11079 ethtool-silent",
    "--card=11079 ethtool-silent port=*",
    "--card=11079 ethtool-fail port=* test=*",
    "--card=11079 ethtool-fail port=eth0 test=register,eeprom,interrupt,loopback code=10",

    // The identity EEPROM: the supervisor's image is read first, 334 bytes, then the backplane's, 471 bytes.
    "i2c-bus-absent bus=1",
    "i2c-smbus-only",
    "i2c-absent bus=1 addr=0x52",
    "i2c-fail bus=1 addr=0x52 nth=1,200,334,335,600,805",
    "i2c-fail bus=1 addr=0x52 nth=1,200,335 times=0",
    "eeprom-corrupt bus=1 addr=0x52 offset=0..333/9",
    "eeprom-corrupt bus=1 addr=0x52 offset=0x1000..0x11D6/9",
    "eeprom-corrupt bus=1 addr=0x52 offset=0x10 nth=1 times=1",
    "sprom-corrupt image=sup block=header,main,sensor offset=0,2,3,4,8",
    "sprom-corrupt image=bp block=header,main,wwn,license offset=0,2,3,4,8",

    // NVRAM: every line at both levels, neighbours shorted, cells at both ends of the half that is looked at.
    "nvram-data-stuck instance=* line=* level=*",
    "nvram-addr-stuck instance=* line=* level=*",
    "nvram-data-short instance=0 line=0,7,14 other=15 wins=*",
    "nvram-data-short instance=1 line=0 other=1,8 wins=*",
    "nvram-addr-short instance=0 line=1 other=2,8,13,14 wins=*",
    "nvram-addr-short instance=2 line=12 other=13,14 wins=*",
    "nvram-data-floating instance=* line=0,15",
    "nvram-cell-stuck instance=0 offset=0,0x1FFE,0x3FFF bit=0,7 level=*",
    "nvram-cell-stuck instance=0 offset=0x4000,0x7FFF bit=0 level=0",
    "nvram-cell-stuck instance=0 offset=0x4000,0x7FFF bit=7 level=1",
    "nvram-cell-transition instance=0 offset=0x10,0x3FFF bit=0 level=*",
    "nvram-cell-read-disturb instance=0 offset=0x10,0x3FFF,0x4000 bit=0",
    "nvram-cell-read-deceptive instance=0 offset=0x10,0x3FFF,0x4000 bit=0",
    "nvram-cell-read-wrong instance=0 offset=0x10,0x3FFF,0x4000 bit=0",
    "nvram-cell-write-disturb instance=0 offset=0x10,0x3FFF,0x4000 bit=0",
    "nvram-cell-coupled instance=0 offset=0x10 bit=0 victim=0x12,0x3FFF,0x4000 vbit=1",
    "nvram-cell-coupled instance=0 offset=0x3FFE bit=0 victim=0x10 vbit=1",
    "nvram-cell-coupled-read instance=0 offset=0x10 bit=0 victim=0x12,0x4000 vbit=1",
    "nvram-cell-coupled-write instance=0 offset=0x10 bit=0 victim=0x12,0x4000 vbit=1",
    "nvram-cell-coupled-state instance=0 offset=0x10 bit=0 victim=0x12 vbit=1 level=* vlevel=*",
    "nvram-cell-coupled-state instance=0 offset=0x10 bit=0 victim=0x4000 vbit=1 level=* vlevel=0",
    "nvram-cell-coupled-transition instance=0 offset=0x10 bit=0 victim=0x12 vbit=1 level=0 vlevel=0",
    "nvram-cell-coupled-transition instance=0 offset=0x10 bit=0 victim=0x12 vbit=1 level=1 vlevel=1",

    // Intermittent: while the contents are saved, and while the pattern is written.
    "nvram-data-stuck instance=0 line=3 level=0 nth=5000,20000 times=1,1000",
    "nvram-addr-stuck instance=0 line=3 level=0 nth=5000,20000 times=1,1000",

    // Flash: the same; a cell of each sector test's words, and cells that none reads.
    "flash-data-stuck line=* level=*",
    "flash-addr-stuck line=* level=*",
    "flash-data-stuck line=0,5,6,15 level=* commands=1",
    "flash-addr-stuck line=1,11,12 level=* commands=1",
    "flash-data-short line=0,7,14 other=15 wins=*",
    "flash-addr-short line=1 other=2,16 wins=*",
    "flash-addr-short line=17 other=25 wins=0",
    "flash-data-floating line=0,15",
    "flash-cell-stuck offset=0x2,0x4CAFE bit=0 level=*",
    "flash-cell-stuck offset=0xC0000 bit=0 level=0",
    "flash-cell-stuck offset=0x100000 bit=3 level=0",
    "flash-cell-transition offset=0xC0002 bit=0 level=0",
    "flash-cell-transition offset=0xC0000 bit=2 level=1",
    "flash-cell-read-disturb offset=0xC0002 bit=0,1",
    "flash-cell-read-deceptive offset=0xC0002 bit=1",
    "flash-cell-read-wrong offset=0xC0002 bit=0",
    "flash-cell-write-disturb offset=0xC0000 bit=0",
    "flash-cell-coupled offset=0xC0002 bit=0 victim=0xC0004 vbit=2",
    "flash-cell-coupled-read offset=0xC0002 bit=1 victim=0xC0004 vbit=2",
    "flash-cell-coupled-write offset=0xC0002 bit=1 victim=0xC0004 vbit=2",
    "flash-cell-coupled-state offset=0xC0002 bit=0 victim=0xC0004 vbit=2",
    "flash-cell-coupled-transition offset=0xC0002 bit=1 victim=0xC0004 vbit=0",
    "flash-data-stuck line=3 level=0 nth=1000 times=1",
    "flash-silent",
    "flash-cfi word=0x20 value=0",
    "flash-cfi word=0x21 value=0xFF",
    "flash-cfi word=0x25 value=0",
    "flash-slow program=1 erase=3",
    "flash-slow program=1000 erase=1000",
    "flash-erase-hangs",
    "flash-erase-hangs sector=0 dq5=*",
    "flash-erase-hangs sector=511",
    "flash-program-hangs dq5=*",
    "flash-program-hangs sector=509",
    "flash-erase-ignored",
    "flash-erase-ignored sector=0",
    "flash-program-ignored",
    "flash-program-ignored sector=511",
    "flash-erase-leaves offset=0xC0000 bit=0",
    "flash-erase-leaves offset=0x100000 bit=0",
    "flash-program-clears sector=6 offset=0x2,0x1000 bit=0",
    "flash-power-cut nth=1,100,100000",
})};

constexpr std::array left_out_rows{std::to_array<left_out_kind>({
    {"iopl-refused",     "only boards of other families use I/O ports"},
    {"port-stuck",       "only boards of other families use I/O ports"},
    {"straps",           "only boards of other families have I/O expanders"},
    {"pin-stuck",        "only boards of other families have I/O expanders"},
    {"eeprom-protected", "POST never writes an EEPROM"},
    {"eeprom-busy",      "POST never writes an EEPROM"},
    {"eeprom-power-cut", "POST never writes an EEPROM"},
    {"eeprom-dies",      "POST never writes an EEPROM"},
    {"nvram-power-cut",  "a run without power has no verdict; docs/power-cut.md tells what it loses"},
})};

// Every single line of NVRAM and flash stuck at either level, every pair of lines shorted with either level winning.
constexpr std::array lines_patterns{std::to_array<std::string_view>({
    "nvram-data-stuck instance=* line=* level=*",
    "nvram-data-short instance=* line=* other=*>line wins=*",
    "nvram-addr-stuck instance=* line=* level=*",
    "nvram-addr-short instance=* line=* other=*>line wins=*",
    "flash-data-stuck line=* level=*",
    "flash-data-short line=* other=*>line wins=*",
    "flash-addr-stuck line=* level=*",
    "flash-addr-short line=* other=*>line wins=*",
})};

// Cards that the program knows.
constexpr std::array<uint32_t, 7> cards{11061, 11062, 11079, 11080, 11096, 11099, 11111};
// clang-format on

bool expand_all(std::span<const std::string_view> patterns, const space_source &source, fault_space *space,
                std::string *error) {
  for (const auto pattern : patterns) {
    const auto runs = expand(pattern, {}, source, error);
    if (!runs) return false;
    space->runs.insert(space->runs.end(), runs->begin(), runs->end());
  }
  return true;
}

// A number from LOW to HIGH that is the same on every machine, which the library's distributions do not promise.
uint64_t pick(uint64_t low, uint64_t high, std::mt19937_64 *random) {
  return low + (*random)() % (high - low + 1);
}

std::string pick_value(const fault_parameter &parameter, std::mt19937_64 *random) {
  if (!parameter.is_number()) return parameter.words[static_cast<size_t>(pick(0, parameter.words.size() - 1, random))];
  return std::to_string(pick(parameter.low, parameter.high, random));
}

// A fault in a random cell: every parameter that must be given has a random value.
std::string pick_cell(const fault_kind &kind, std::mt19937_64 *random) {
  auto text = kind.name;
  for (const auto &parameter : kind.parameters)
    if (!parameter.optional) text += " " + parameter.key + "=" + pick_value(parameter, random);
  return text;
}

std::vector<const fault_kind *> cell_kinds(const fault_list &faults) {
  std::vector<const fault_kind *> kinds;
  for (const auto &kind : faults.kinds)
    if (kind.name.find("-cell-") != std::string::npos && kind.find("offset") != nullptr) kinds.push_back(&kind);
  return kinds;
}

// A fault that happens by chance, with the seed of its turn.
std::string with_seed(const std::string &text, uint64_t turn) {
  const auto fault = parse_fault_text(text);
  if (!fault.find("p")) return text;
  std::string seeded = fault.name;
  for (const auto &[key, value] : fault.values)
    if (key != "seed") seeded += " " + key + "=" + value;
  return seeded + " seed=" + std::to_string(fault.number("seed", 1) + turn);
}

}  // namespace

std::vector<board_setting> all_boards() {
  std::vector<board_setting> boards;
  for (const auto *const revision : {"P1", "P0"})
    for (const auto card : cards)
      boards.push_back({card, revision});
  return boards;
}

std::optional<fault_space> standard_space(const space_source &source, std::string *error) {
  fault_space space{"standard", "", {}};
  if (!expand_all(standard_patterns, source, &space, error)) return std::nullopt;
  space.description =
      "every kind of fault that POST can meet, with parameters worth having, every data and address line of each "
      "memory "
      "stuck at both levels; one fault a run";
  return space;
}

std::optional<fault_space> lines_space(const space_source &source, std::string *error) {
  fault_space space{"lines", "", {}};
  if (!expand_all(lines_patterns, source, &space, error)) return std::nullopt;
  space.description =
      "every single data and address line of NVRAM and flash stuck at both levels, every pair of them "
      "shorted with either level winning; one fault a run";
  return space;
}

std::optional<fault_space> cells_space(uint64_t samples, uint64_t seed, const space_source &source,
                                       std::string *error) {
  const auto kinds = cell_kinds(source.faults);
  if (kinds.empty()) {
    *error = "the list of faults has no cell faults";
    return std::nullopt;
  }
  fault_space space{"cells", "", {}};
  space.description = std::to_string(samples) + " random cells of NVRAM and flash, over " +
                      std::to_string(kinds.size()) + " kinds of cell faults in turn, seed " + std::to_string(seed) +
                      "; one fault a run";
  std::mt19937_64 random(seed);
  for (uint64_t i = 0; i < samples; ++i) {
    auto runs = expand(pick_cell(*kinds[static_cast<size_t>(i % kinds.size())], &random), {}, source, error);
    if (!runs) return std::nullopt;
    space.runs.push_back(std::move(runs->front()));
  }
  return space;
}

fault_space healthy_space(uint64_t count, std::optional<run_mode> mode) {
  fault_space space{"healthy", std::to_string(count) + " runs of healthy boards, over all cards and revisions", {}};
  const auto boards = all_boards();
  for (uint64_t i = 0; i < count; ++i)
    space.runs.push_back({"", boards[static_cast<size_t>(i % boards.size())], mode.value_or(run_mode::full),
                          static_cast<uint32_t>(i / boards.size())});
  return space;
}

void repeat_runs(fault_space *space, uint32_t count) {
  if (count < 2) return;
  std::vector<run_item> runs;
  for (const auto &run : space->runs) {
    for (uint32_t i = 0; i < count; ++i) {
      runs.push_back(run);
      runs.back().repeat = i;
      runs.back().fault = with_seed(run.fault, i);
    }
  }
  space->runs = std::move(runs);
}

std::vector<left_out_kind> left_out_kinds() {
  return {left_out_rows.begin(), left_out_rows.end()};
}

}  // namespace lab
