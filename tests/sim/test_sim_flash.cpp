// The NOR flash model, cycle by cycle.
#include <atomic>

#include "sim/base/real.h"
#include "sim/devices/flash.h"
#include "tests/sim/fault_cases.h"
#include "tests/support/board.h"

namespace {

constexpr uint32_t sector(uint32_t number) {
  return number * models::flash_sector_bytes;
}
constexpr uint16_t mark(uint32_t number) {
  return static_cast<uint16_t>(0x4000 | number);
}

// A chip that is erased, but for a mark at the start of every sector. Scripts are words of hexadecimal numbers:
//   OFFSET=DATA   writes
//   OFFSET:DATA   reads and expects
//   OFFSET~MASK   polls in pairs of reads until the bits no longer toggle, which must be soon
//   OFFSET^MASK   the same, but it must not end
//   U             the two unlock cycles
//   E             the command that erases sector 7, at E0000; X: the same, with its polls at the first word
//   P             programs 1234 at E0040 by the write buffer; Q: the same, with its polls at the sector's first word
struct chip {
  explicit chip(const std::vector<const char *> &with = {}) : opts(board_options("/", with)) {
    memset(memory.data(), 0xFF, memory.size());
    for (uint32_t s = 0; s < models::flash_sectors; ++s)
      models::word_set(memory, sector(s), mark(s));
    *count = 0;
    if (!opts.faults.empty()) opts.faults[0].count = count;
    model.start(memory, opts);
  }

  void run(const std::string &script) {
    static const std::map<std::string, std::string> shorthands{
        {"U", "AAA=AA 554=55"}, {"E", "U AAA=80 U E0000=30"},
        {"X", "E E0000~44"},    {"P", "U E0000=25 E0000=0 E0040=1234 E0000=29"},
        {"Q", "P E0000~40"},
    };
    for (const std::string &word : lines_of(script, ' ')) {
      if (const auto found = shorthands.find(word); found != shorthands.end()) {
        run(found->second);
        continue;
      }
      const auto kind = word.find_first_of("=:~^");
      const auto offset = static_cast<uint32_t>(std::stoul(word, nullptr, 16));
      const auto data = static_cast<uint16_t>(std::stoul(word.substr(kind + 1), nullptr, 16));
      if (word[kind] == '=')
        model.write(offset, data);
      else if (word[kind] == ':')
        EXPECT_EQ(model.read(offset), data) << word;
      else
        EXPECT_EQ(ends(offset, data), word[kind] == '~') << word;
    }
  }

  [[nodiscard]] bool ends(uint32_t offset, uint16_t mask) {
    for (unsigned polls = 0; polls < 8; ++polls) {
      const uint16_t first = model.read(offset);
      if (((first ^ model.read(offset)) & mask) != mask) return true;
    }
    return false;
  }

  // The sectors whose mark is gone.
  [[nodiscard]] std::vector<uint64_t> changed() const {
    std::vector<uint64_t> list;
    for (uint32_t s = 0; s < models::flash_sectors; ++s)
      if (cell(sector(s)) != mark(s)) list.push_back(s);
    return list;
  }
  [[nodiscard]] uint16_t cell(uint32_t offset) const { return models::word_get(memory, offset); }

  // How often the first fault fired.
  [[nodiscard]] uint64_t fired() const { return *count; }

  // Shared with the processes of death tests.
  static inline uint8_t *const shared = static_cast<uint8_t *>(
      mmap(nullptr, models::flash_bytes + sim::page_size, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
  static inline auto *const count = new (shared + models::flash_bytes) std::atomic<uint64_t>;

  sim::options opts;
  sim::flash_model model;
  std::span<uint8_t> memory{shared, models::flash_bytes};
};

TEST(sim_flash, takes_commands_as_the_chip_does) {
  const script_case cases[] = {
      // clang-format off
      {"autoselect",                   {}, "U AAA=90 0:1 2:227E 4:0 1C:2223 1E:2201 E0000=F0 0:4000"},
      {"query",                        {}, "AA=98 20:51 22:52 24:59 26:2 2A:40 80:50 82:52 84:49 3E:2 40:2 42:1 46:3 48:3 4A:3 "
                                           "4E:1A 54:5 58:1 5A:FF 5C:1 5E:0 60:2 0=F0 20:FFFF"},
      {"query with real times",        {"--real-times"}, "AA=98 3E:7 40:7 42:A 46:1 48:5 4A:4"},
      {"only reset leaves the query",  {}, "AA=98 E U 0=25 20:51 AAA=90 20:51 0=F0 0:4000"},
      {"query within autoselect",      {}, "U AAA=90 E 1C:2223 AA=98 20:51 0=F0 1E:2201 0=F0 0:4000"},
      {"don't-care bits",              {}, "3FF0AAA=12AA 10554=FF55 2000AAA=190 0:1"},
      {"reset before",                 {}, "AAA=AA AAA=F0 U AAA=90 0:1"},
      {"reset between the cycles",     {}, "U AAA=F0 U AAA=80 0=F0 U AAA=80 AAA=AA 0=F0 U AAA=80 U 0=F0 X", {7}},

      // DQ2 toggles within the sector alone.
      {"DQ2 elsewhere",                {"flash-slow erase=5"}, "E 100000:40 100000:8 100000:48 E0000:C E0000:48 100000:4008", {7}},
      {"usual erase",                  {}, "E E0000:44 E0000:8 E0000:FFFF", {7}},
      {"more sectors in the window",   {}, "E C80040=30 3FE0000=30 3FE0000~44", {7, 100, 511}},
      {"reset in the window",          {}, "E AAA=F0 E0000:4007"},
      {"another command there",        {}, "E E0000=B0 E0000:4007"},
      {"busy erasing",                 {"flash-slow erase=6"}, "E E0000:44 AAA=F0 100000=30 U AAA=90 E0000:8 E0000~44", {7}},

      // DQ7 is the complement of the word's bit 7. Programming only clears bits and gives up on setting one, with DQ5.
      {"word",                         {"flash-slow program=3"}, "U AAA=A0 100=1234 100:C0 100:80 100:C0 100:1234"},
      {"word with DQ7 set",            {"flash-slow program=3"}, "U AAA=A0 102=1284 102:40 102:0 102:40 102:1284"},
      {"busy programming",             {"flash-slow program=5"}, "U AAA=A0 100=0 100:C0 AAA=F0 E 100~40 100:0 E0000:4007"},
      {"bits that are 0",              {}, "U AAA=A0 100=F0F0 100~40 U AAA=A0 100=FF0F 100:C0 100:80 100:C0 100:80 100:E0 100:A0 "
                                           "U AAA=90 100:E0 100=F0 100:F000"},
      {"buffer",                       {}, "U E0000=25 E0000=1 E0040=1234 E0042=5678 E0000=29 E0042:5678 E0040:1234 E003E:FFFF E0044:FFFF"},
      {"in any order, the last counts", {}, "U E0555=25 E0000=2 E005E=1 E0040=2 E005E=3 E0800=29 E005E~40 E0040:2 E005E:3"},
      {"29 as data",                   {}, "U E0000=25 E0000=2 E0042=29 E0044=29 E0042:FFFF E0046=29 E0000=29 E0046~40 E0042:29 E0046:29"},
      {"a whole page",                 {}, "U E0000=25 E0000=F E0020=0 E0022=1 E0024=2 E0026=3 E0028=4 E002A=5 E002C=6 E002E=7 "
                                           "E0030=8 E0032=9 E0034=A E0036=B E0038=C E003A=D E003C=E E003E=F E0000=29 E003E~40 E0020:0 E0030:8 E003E:F"},
      // clang-format on
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.name);
    chip flash(c.with);
    flash.run(c.script);
    EXPECT_EQ(flash.changed(), c.expected);
  }
}

TEST(sim_flash, does_nothing_after_a_cycle_out_of_order_but_a_reset) {
  const char *const cases[] = {
      // clang-format off
      "AAA=90", "AAA=98 0=0", "AAA=10", "E0000=30", "AAA=A8 554=55 AAA=90", "554=55 AAA=90", "554=55 AAA=AA AAA=90",
      "AAA=AA AAA=90", "AAA=AA 554=54 AAA=90", "AAA=AA 554=54", "AAA=AA AAA=55 AAA=90", "AAA=AA AAA=AA 554=55 AAA=90",
      "AAA=AA 10=0 554=55 AAA=90", "U AAA=33", "U 554=90", "U AAA=F0 AAA=90", "U E0000=80 U E0000=30",
      "U AAA=80 AAA=30", "U AAA=80 AAA=A8 554=55 E0000=30", "U AAA=80 E0000=30", "U AAA=80 AAA=AA AAA=55",
      "U AAA=80 AAA=AA AAA=55 E0000=30", "U AAA=80 AAA=AA E0000=30", "U AAA=80 U E0000=31", "U AAA=80 U 554=10",
      // clang-format on
  };
  for (const char *const cycles : cases) {
    SCOPED_TRACE(cycles);
    chip flash;
    flash.run(cycles);
    flash.run("0:4000 E0000:4007 U AAA=90 0:4000 AAA=98 0:4000 E E0000:4007 0=F0 U AAA=90 0:1 0=F0 X");
    EXPECT_EQ(flash.changed(), std::vector<uint64_t>{7});
  }
}

TEST(sim_flash, erases_the_whole_chip) {
  chip flash;
  flash.run("U AAA=80 U AAA=10 0~44");
  EXPECT_EQ(flash.memory[0], 0xFF);
  EXPECT_EQ(memcmp(&flash.memory[0], &flash.memory[1], flash.memory.size() - 1), 0);
}

TEST(sim_flash, aborts_a_write_buffer_that_does_not_fit) {
  const std::pair<const char *, const char *> cases[] = {
      {"17 words", "E0000=10"},
      {"count beyond a byte", "E0000=100"},
      {"count in another sector", "100000=1"},
      {"first word in another sector", "E0000=1 100040=0"},
      {"second word in another sector", "E0000=1 E0040=1100 100042=0"},
      {"word in the next page", "E0000=1 E0040=1100 E0060=0"},
      {"no confirmation", "E0000=1 E0040=1100 E0042=0 E0044=0"},
      {"another command", "E0000=1 E0040=1100 E0042=0 E0000=30"},
      {"confirmed elsewhere", "E0000=1 E0040=1100 E0042=0 100000=29"},
  };
  for (const auto &[name, script] : cases) {
    SCOPED_TRACE(name);
    chip flash;
    flash.run("U E0000=25 " + std::string(script));
    // DQ1, no DQ5, DQ6 alone toggles; a plain reset or one elsewhere is not enough.
    flash.run("E0000:C2 E0000:82 E0000^40 AAA=F0 554=55 AAA=F0 E0000:C2 U 554=F0 E0000:82 U AAA=F0 E0000:4007");
    EXPECT_EQ(flash.changed(), std::vector<uint64_t>{});
    for (uint32_t at = 2; at < 0x80; at += 2)
      ASSERT_EQ(flash.cell(sector(7) + at), 0xFFFF);
  }
}

// clang-format off
const fault_case flash_faults[] = {
    {"flash-erase-hangs sector=8",                             "X Q E0040:1234",                                     0},
    {"flash-erase-hangs sector=7",                             "E E0040^44 E0040:4C AAA=F0 E0040:8 E0040:4C",        1},
    {"flash-program-hangs sector=7 dq5=1",                     "X P E0000^40 E0000:E0 AAA=F0 E0040:FFFF",            1},
    {"flash-erase-ignored sector=7",                           "X E0000:4007 X Q E0040:1234",                        2},
    {"flash-program-ignored",                                  "X Q E0040:FFFF Q E0040:FFFF",                        2},
    {"flash-erase-leaves offset=0xE0041 bit=5",                "X Q E0040:1234",                                     1},
    {"flash-erase-leaves offset=0xE0041 bit=1",                "X P E0000^40 E0000:E0 AAA=F0 E0040:1034",            1},
    {"flash-program-clears sector=7 offset=0x50 bit=2",        "X Q E0050:FFFB Q E0050:FFFB",                        1},
    {"flash-cfi word=0x21 value=0xFFFF",                       "AA=98 40:2 42:FFFF 42:FFFF 0=F0",                    2},
    // The window, then DQ3; DQ7 is 0 until the cells are erased.
    {"flash-slow erase=4",                                     "E E0010:44 E0010:8 E0010:4C E0010:8 E0010:FFFF E0000:FFFF", 2},
    {"flash-slow erase=1",                                     "E E0000:44 E0000:FFFF",                              1},
    {"flash-slow program=2",                                   "X P E0040:C0 E0040:80 E0040:1234",                   2},
    {"flash-silent",                                           "E0000:FFFF U AAA=90 2:FFFF",                         4, false},
    {"flash-silent nth=2 times=1",                             "E0000:4007 E0000:FFFF E0000:4007",                   1, false},

    // Lines of the array: commands reach the chip, but what its cells hold or give is mixed up.
    {"flash-data-stuck line=5 level=0",                        "X Q E0040:1214 E0040:1214",                          5, false},
    {"flash-data-short line=0 other=2 wins=1",                 "X Q E0040:1235",                                     1, false},
    {"flash-addr-stuck line=1 level=1",                        "X Q E0042:1234 E0040:1234",                          2, false},
    {"flash-addr-stuck line=25 level=1",                       "E0000:4107 X E0000:FFFF",                            5, false},
    {"flash-addr-short line=6 other=8",                        "X Q E0000:1234",                                     1, false},
    {"flash-addr-short line=6 other=8 wins=1",                 "X Q E0140:1234",                                     1, false},
    // Open: the bus keeps a read's 0, the chip drives 1 from then on.
    {"flash-data-floating line=2",                             "X E0050:FFFB Q E0040:1234 E0050:FFFF",               3, false},

    // Lines of every cycle. Bit 1 of AA is lost; bit 12 does no harm, nor does a line that commands do not look at.
    {"flash-data-stuck line=1 level=0 commands=1",             "E E0000:4005 AAA=F0 P E0000:4005 AAA=F0 E0040:FFFD", 6, false},
    {"flash-data-stuck line=12 level=0 commands=1",            "X Q E0040:234",                                      5, false},
    {"flash-addr-stuck line=1 level=0 commands=1",             "E E0000:4007 AAA=F0 P AAA=F0 E0040:FFFF",            2, false},
    {"flash-addr-stuck line=20 level=0 commands=1",            "X Q E0040:1234",                                     0, false},
    {"flash-addr-stuck line=19 level=0 commands=1",            "E0000:4003",                                         1, false},
    {"flash-addr-short line=1 other=3 commands=1",             "U AAA=90 0:1 2:1 1C:0",                              2, false},
    // The reset of an aborted buffer must reach its address.
    {"flash-addr-stuck line=2 level=1 commands=1 nth=3 times=1", "U E0000=25 E0000=10 U AAA=F0 E0004:C2 U AAA=F0 E0004:FFFF", 1, false},

    {"flash-cell-stuck offset=0xE0040 bit=2 level=0",          "E E0000^44 E0000:6C AAA=F0 P E0000^40 E0000:A0 AAA=F0 E0040:1230", 1, false},
    {"flash-cell-transition offset=0xE0040 bit=2 level=0",     "X Q E0040:1234",                                     0},
    {"flash-cell-transition offset=0xE0040 bit=3 level=0",     "X P E0000^40 E0000:E0 AAA=F0 E0040:123C",            1},
    {"flash-cell-transition offset=0xE0000 bit=3 level=1",     "E E0000^44 E0000:6C AAA=F0 E0000:FFF7",              1},
    {"flash-cell-read-disturb offset=0xE0040 bit=2",           "X E0040:FFFB E0040:FFFB X E0040:FFFB",               2, false},
    {"flash-cell-read-deceptive offset=0xE0040 bit=2",         "X E0040:FFFF E0040:FFFB X E0040:FFFF",               2, false},
    {"flash-cell-read-wrong offset=0xE0040 bit=3",             "X E0040:FFF7 E0040:FFF7 Q E0040:123C",               3, false},
    {"flash-cell-write-disturb offset=0xE0040 bit=2",          "X Q E0040:1230",                                     1},
    {"flash-cell-coupled offset=0xE0040 bit=0 victim=0xE0040 vbit=5", "X Q E0040:1214",                              1},
    {"flash-cell-coupled-read offset=0xE0040 bit=0 victim=0xE0050 vbit=1", "X E0050:FFFF E0040:FFFF E0050:FFFD E0040:FFFF", 1, false},
    {"flash-cell-coupled-write offset=0xE0040 bit=2 victim=0xE0050 vbit=1", "X E0050:FFFF Q E0050:FFFD",             1},
    {"flash-cell-coupled-state offset=0xE0040 bit=0 victim=0xE0050 vbit=1", "X E0050:FFFF Q E0050:FFFD X E0050:FFFF", 1, false},
    {"flash-cell-coupled-transition offset=0xE0050 bit=1 victim=0xE0040 vbit=0", "X P E0000^40 E0000:E0 AAA=F0 E0040:1235", 1},

    // Now and then.
    {"flash-program-ignored nth=2",                            "X Q E0040:1234 X Q E0040:FFFF",                      1},
};
// clang-format on

TEST(sim_flash, shows_each_fault_as_the_chip_would_and_counts_it) {
  for (const auto &c : flash_faults) {
    SCOPED_TRACE(c.fault);
    chip flash({c.fault.c_str()});
    EXPECT_EQ(flash.model.reads_plainly(), c.plain);
    flash.run(c.script);
    EXPECT_EQ(flash.fired(), c.fired);
    auto changed = flash.changed();
    std::erase_if(changed, [&](uint64_t s) { return s == 7 || s == 263; });  // the latter by line 25
    EXPECT_EQ(changed, std::vector<uint64_t>{});
  }
  expect_all(flash_faults, {sim::fault_part::flash}, sim::fault_id::flash_power_cut);
}

TEST(sim_flash, takes_several_faults_of_a_kind) {
  chip flash({"flash-silent times=1", "flash-silent nth=2 times=1"});
  flash.run("E0000:FFFF E0000:4007 E0000:FFFF E0000:4007");
}

// Sector 7 after the power was cut in the nth cycle of a script.
std::string torn(const char *script, unsigned nth, unsigned seed) {
  const auto fault = "flash-power-cut nth=" + std::to_string(nth) + " seed=" + std::to_string(seed);
  chip flash({fault.c_str()});
  EXPECT_EXIT(flash.run(script), testing::KilledBySignal(SIGKILL), "");
  EXPECT_EQ(flash.fired(), 1U);
  auto changed = flash.changed();
  std::erase(changed, uint64_t{7});
  EXPECT_EQ(changed, std::vector<uint64_t>{});
  const auto left = flash.memory.subspan(sector(7), models::flash_sector_bytes);
  return {left.begin(), left.end()};
}

TEST(sim_flash_death, leaves_half_done_what_the_cycle_of_a_power_cut_begins) {
  const std::string before = torn("U", 1, 0);
  std::set<std::string> programs, erases;
  for (unsigned seed = 0; seed < 12; ++seed) {
    SCOPED_TRACE(seed);
    EXPECT_EQ(torn("P", 5, seed), before) << "the confirmation alone begins it";
    const auto program = torn("P", 6, seed);
    EXPECT_EQ(program, torn("P", 6, seed));
    const auto word = static_cast<uint8_t>(program[0x40]) | static_cast<uint8_t>(program[0x41]) << 8;
    EXPECT_EQ(word & 0x1234, 0x1234) << "no bit beside those to be programmed";
    programs.insert(program);
    const auto erase = torn("E", 6, seed);
    EXPECT_EQ(erase, torn("E", 6, seed));
    EXPECT_NE(erase, std::string(models::flash_sector_bytes, '\xFF'));
    erases.insert(erase);
  }
  EXPECT_GT(programs.size(), 3U);
  EXPECT_TRUE(programs.contains(before)) << "not at all";
  EXPECT_EQ(erases.size(), 12U);
  // Either the sector is not yet programmed to its end, or cells are erased already.
  EXPECT_TRUE(std::ranges::any_of(erases, [](const std::string &e) { return e.starts_with(std::string(64, '\0')); }));
  EXPECT_TRUE(std::ranges::any_of(erases, [](const std::string &e) { return e[0] != 0 && e.back() != '\xFF'; }));
}

// The times are longer than a script takes to read.
TEST(sim_flash, is_busy_for_its_own_times) {
  using namespace std::chrono_literals;
  // How long it takes until all these bits are read, 5 s at most.
  const auto busy = [](chip *flash, const char *script, uint32_t offset, uint16_t done) {
    const auto start = std::chrono::steady_clock::now();
    const auto passed = [&] { return std::chrono::steady_clock::now() - start; };
    flash->run(script);
    while ((flash->model.read(offset) & done) != done && passed() < 5s) {
    }
    return passed();
  };
  chip quick({"--busy=time"});
  EXPECT_GE(busy(&quick, "E", 0xE0000, 0xFFFF), 1750us);
  EXPECT_EQ(quick.cell(0xE0000), 0xFFFF);
  chip real({"--busy=time", "--real-times", "flash-program-hangs sector=8 dq5=1"});
  EXPECT_GE(busy(&real, "U E0000=25 E0000=0 E0002=7FFF E0000=29", 0xE0002, 0x7FFF), 110us);
  EXPECT_EQ(real.cell(0xE0002), 0x7FFF);
  // Gives up within the longest time.
  EXPECT_GE(busy(&real, "U 100000=25 100000=0 100002=0 100000=29", 0x100002, 0x20), 2ms);
  real.run("100002^40 AAA=F0 100002:FFFF");
}

}  // namespace
