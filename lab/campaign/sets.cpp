// sets.cpp: the built-in fault spaces, as patterns.
#include <algorithm>
#include <array>
#include <map>
#include <random>
#include <set>
#include <span>

#include "lab/campaign/fault_facts.h"
#include "lab/run/rows.h"
#include "models/nor_flash.h"
#include "post/dorvan/cards.h"

namespace lab {
namespace {

// clang-format off

// On one board for each list of PCI functions.
constexpr std::string_view for_each_list = "pci-missing function=*";

// Every kind of fault with parameters worth having, on a card where it acts.
constexpr std::array standard_patterns{std::to_array<std::string_view>({
    // Files and services of the operating system.
    "post-missing",
    "pci-list-unreadable",
    for_each_list,
    "pci-wrong-id function=* device=0xFFFE",
    "--card=11079 pci-wrong-id bus=2 dev=0 func=0 vendor=0x1234",
    "bar-missing bar=*",
    "--mode=no-flash bar-64bit bar=0..4",
    "bar-64bit bar=5",
    "--mode=no-flash bar-io bar=0,2..4",
    "--mode=full bar-io bar=5",
    "sprom-absent",
    "--mode=no-flash sprom-refuse after=0..9",
    "cpuinfo-missing",
    "cpuinfo-no-rate",
    "cpuinfo-rate khz=0",
    "cpuinfo-rate khz=1,10000000",
    "--mode=full cpuinfo-rate khz=100000",
    "lock-dir-missing",
    "lock-dir-read-only",
    "--mode=no-flash lock-held lock=nvram0,nvram1,nvram2 kind=*",
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
// Every line of each memory at either level, in cycles of every kind, and the identity EEPROM's transactions.
constexpr std::array transient_patterns{std::to_array<std::string_view>({
    "i2c-fail bus=1 addr=0x52",
    "nvram-data-stuck instance=* line=* level=*",
    "nvram-addr-stuck instance=* line=* level=*",
    "flash-data-stuck line=* level=* commands=1",
    "flash-addr-stuck line=* level=* commands=1",
})};
// clang-format on

// A board for each list of PCI functions, the first with it; P0 only where that has a list of its own.
std::vector<board_setting> boards_of_all_lists() {
  std::vector<board_setting> boards;
  std::set<const pci_dev_tbl_entry *> seen;
  for (const auto &card : dorvan_cards) {
    if (card.pci_p0.data() != card.pci_p1.data() && seen.insert(card.pci_p0.data()).second)
      boards.push_back({card.card_index, "P0"});
    if (seen.insert(card.pci_p1.data()).second) boards.push_back({card.card_index, "P1"});
  }
  return boards;
}

bool expand_all(std::span<const std::string_view> patterns, const space_source &source, fault_space *space,
                std::string *error) {
  for (const auto pattern : patterns) {
    for (const auto &board : pattern == for_each_list ? boards_of_all_lists() : std::vector<board_setting>(1)) {
      const auto runs = expand(pattern, {board, std::nullopt}, source, error);
      if (!runs) return false;
      space->runs.insert(space->runs.end(), runs->begin(), runs->end());
    }
  }
  return true;
}

// A number from LOW to HIGH that is the same on every machine, which the library's distributions do not promise.
uint64_t pick(uint64_t low, uint64_t high, std::mt19937_64 *random) {
  return low + (*random)() % (high - low + 1);
}

// A number from 1 to the limit with as many small ones as large ones.
uint64_t pick_magnitude(uint64_t limit, std::mt19937_64 *random) {
  return pick(1, std::max<uint64_t>(limit >> pick(0, 30, random), 1), random);
}

// Whether a board is like that without a fault, which the simulated one refuses then: a register that maps I/O space
// anyway, the usual busy times.
bool is_usual(const sim::fault &f) {
  using sim::parm;
  if (f.id == sim::fault_id::bar_io) return f.get(parm::bar) == 1;
  return f.id == sim::fault_id::flash_slow && f.get(parm::program) == models::flash_program_polls &&
         f.get(parm::erase) == models::flash_erase_polls;
}

// A fault of one kind with random parameters. It favours what POST touches: most sectors of the flash it does not.
class random_fault {
 public:
  random_fault(const fault_row &kind, const run_item &run, const space_source &source, std::mt19937_64 *random)
      : m_kind(kind), m_random(random), m_text(kind.name) {
    if (needs(sim::fault_need::pci_function)) add_function(source.functions(run.board));
    if (needs(sim::fault_need::i2c_bus) || needs(sim::fault_need::i2c_device)) m_text += " bus=1";
    if (needs(sim::fault_need::i2c_device)) m_text += " addr=0x52";
    if (needs(sim::fault_need::sprom)) add_block();
    for (const auto &parameter : kind.parms())
      if (!parse_fault_text(m_text).find(parm_name(parameter.key))) add(parameter);
    if (kind.when == sim::fault_when::once) m_text += " nth=" + std::to_string(pick(1, 900, random));
  }
  [[nodiscard]] const std::string &text() const { return m_text; }

 private:
  [[nodiscard]] bool needs(sim::fault_need need) const {
    return std::ranges::find(m_kind.needs(), need) != m_kind.needs().end();
  }
  [[nodiscard]] bool toss() { return pick(0, 1, m_random) == 0; }

  void add_function(const std::vector<pci_position> &functions) {
    if (functions.empty()) return;
    const auto &at = functions[static_cast<size_t>(pick(0, functions.size() - 1, m_random))];
    m_text += " bus=" + std::to_string(at.bus) + " dev=" + std::to_string(at.dev) + " func=" + std::to_string(at.func);
  }

  void add_block() {
    constexpr std::array<const char *, 7> blocks{"sup block=header", "sup block=main", "sup block=sensor",
                                                 "bp block=header",  "bp block=main",  "bp block=wwn",
                                                 "bp block=license"};
    m_text += std::string(" image=") + blocks[static_cast<size_t>(pick(0, blocks.size() - 1, m_random))];
    m_text += " offset=" + std::to_string(pick(0, 9, m_random));
  }

  void add(const parm_row &parameter) {
    if (parameter.given != parm_row::given::always && toss()) return;
    m_text += " " + std::string(parm_name(parameter.key)) + "=" + parameter.print(value_of(parameter));
  }

  uint64_t value_of(const parm_row &parameter) {
    const auto high = parameter.highest();
    if (m_kind.id == sim::fault_id::eeprom_corrupt && parameter.key == sim::parm::offset)
      return pick(0, 1, m_random) * 0x1000 + pick(0, 0x1FF, m_random);
    if (parameter.key == sim::parm::sector && toss()) return touched_sector();
    if (high == 0x3FFFFFF && toss()) return touched_sector() << 17 | pick(0, toss() ? 0x3F : 0x1FFFF, m_random);
    if (!parameter.hex && high > 0xFFFF) return pick_magnitude(high, m_random);
    return pick(parameter.low, high, m_random);
  }

  uint64_t touched_sector() {
    auto sector = pick(0, 511, m_random);
    while (!touches_sector(sector))
      sector = pick(0, 511, m_random);
    return sector;
  }

  const fault_row &m_kind;
  std::mt19937_64 *m_random;
  std::string m_text;
};

// Its kind, all its values and its board: two texts of one fault give the same.
std::string identity_of(const run_item &run) {
  std::string text = std::to_string(run.board.card) + run.board.revision + run.fault;
  const auto fault = fault_of(run);
  if (!fault) return text;
  text.resize(text.size() - run.fault.size());
  text += fault->row().name;
  for (const auto &[key, value] : fault->values)
    text += " " + std::string(parm_name(key)) + "=" + std::to_string(value);
  return text;
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

// So many different numbers below the limit, each set of them as likely (R. W. Floyd's method).
std::set<uint64_t> pick_different(uint64_t count, uint64_t limit, std::mt19937_64 *random) {
  std::set<uint64_t> numbers;
  for (uint64_t top = limit - std::min(count, limit); top < limit; ++top)
    if (!numbers.insert(pick(0, top, random)).second) numbers.insert(top);
  return numbers;
}

std::string stratum_of(const occasion_range &range) {
  const auto fault = parse_fault_text(range.fault);
  const auto *const row = std::ranges::find(rows, range.row, &row_info::title);
  const auto memory = fault.name == "i2c-fail" ? "EEPROM"
                      : fault.find("instance") ? "NVRAM " + std::to_string(fault.number("instance"))
                                               : "flash";
  return memory + ", " + (row == rows.end() ? "start-up" : "row " + std::string(row->key));
}

}  // namespace

std::vector<board_setting> all_boards() {
  std::vector<board_setting> boards;
  for (const auto *const revision : {"P1", "P0"})
    for (const auto &card : dorvan_cards)
      boards.push_back({card.card_index, revision});
  return boards;
}

std::optional<fault_space> standard_space(const space_source &source, std::string *error) {
  fault_space space{"standard", "", {}};
  if (!expand_all(standard_patterns, source, &space, error)) return std::nullopt;
  space.description =
      "every kind of fault that POST can meet, with parameters worth having, every data and address line of each "
      "memory stuck at both levels; one fault a run";
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

std::optional<fault_space> drawn_space(drawn what, uint64_t samples, uint64_t seed, const space_source &source,
                                       std::string *error) {
  const bool cells = what == drawn::cells;
  const auto standard = cells ? fault_space{} : standard_space(source, error).value_or(fault_space{});
  if (!cells && standard.runs.empty()) return std::nullopt;
  std::set<std::string> known;
  for (const auto &run : standard.runs)
    known.insert(identity_of(run));
  std::vector<const fault_row *> kinds;
  for (const auto &kind : source.faults)
    if (cells ? std::string_view(kind.name).find("-cell-") != std::string_view::npos
              : facts_of(kind.id).left_out.empty() && !kind.parms().empty())
      kinds.push_back(&kind);
  fault_space space{cells ? "cells" : "drawn", "", {}};
  space.description = std::to_string(samples) +
                      (cells ? " random cells of NVRAM and flash" : " random faults outside of the standard set") +
                      ", over " + std::to_string(kinds.size()) + " kinds of faults in turn, seed " +
                      std::to_string(seed) + "; one fault a run";
  std::mt19937_64 random(seed);
  const auto boards = all_boards();
  for (uint64_t turn = 0; space.runs.size() < samples; ++turn) {
    const auto &kind = *kinds[static_cast<size_t>(turn % kinds.size())];
    run_item run{"", cells ? board_setting{} : boards[static_cast<size_t>(pick(0, boards.size() - 1, &random))],
                 facts_of(kind.id).mode, 0};
    run.fault = random_fault(kind, run, source, &random).text();
    const auto fault = fault_of(run);
    if (fault && !is_usual(*fault) && known.insert(identity_of(run)).second) space.runs.push_back(std::move(run));
  }
  return space;
}

std::optional<fault_space> transients_space(uint64_t samples, uint64_t seed, const space_source &source,
                                            std::string *error) {
  fault_space probes;
  if (!expand_all(transient_patterns, source, &probes, error)) return std::nullopt;
  std::vector<std::string> faults;
  std::ranges::transform(probes.runs, std::back_inserter(faults), &run_item::fault);
  std::map<std::string, std::vector<occasion_range>> strata;
  for (auto &range : source.occasions(faults))
    strata[stratum_of(range)].push_back(std::move(range));
  if (strata.empty()) *error = "the healthy run that counts the accesses failed";
  fault_space space{"transients", "", {}};
  std::mt19937_64 random(seed);
  for (const auto &[name, ranges] : strata) {
    uint64_t all = 0;
    for (const auto &range : ranges)
      all += range.last - range.first + 1;
    const auto stratum = name + ", " + std::to_string(all) + " occasions";
    auto range = ranges.begin();
    uint64_t before = 0;  // occasions of the ranges before this one
    for (const auto number : pick_different(samples, all, &random)) {
      for (; number - before > range->last - range->first; ++range)
        before += range->last - range->first + 1;
      const auto nth = " nth=" + std::to_string(range->first + number - before) + " times=1";
      space.runs.push_back({range->fault + nth,
                            {},
                            facts_of(sim::fault_named(parse_fault_text(range->fault).name)->id).mode,
                            0,
                            stratum});
    }
  }
  space.description =
      "faults that strike one access of a run, drawn from all accesses and lines of each memory in each "
      "row, " +
      std::to_string(samples) + " of each or all, seed " + std::to_string(seed);
  if (strata.empty()) return std::nullopt;
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
  std::vector<left_out_kind> kinds;
  for (const auto &row : sim::fault_table())
    if (const auto why = facts_of(row.id).left_out; !why.empty()) kinds.push_back({row.name, why});
  return kinds;
}

}  // namespace lab
