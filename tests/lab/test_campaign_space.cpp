// Fault spaces: what patterns mean, and that the built-in spaces hold what they promise.
#include "lab/campaign/fault_facts.h"
#include "lab/campaign/space.h"
#include "lab/report/patterns.h"
#include "tests/support/run.h"

namespace {

// ---- the list of faults

constexpr sim::fault_row small_row(const char *name, std::array<sim::parm_row, 7> parms) {
  return {{}, {}, sim::fault_when::always, name, {}, parms, ""};
}

constexpr sim::parm_row to(sim::parm key, uint64_t high) {
  return {.key = key, .high = high};
}

constexpr sim::fault_row small_list[] = {
    small_row("plain", {}),
    small_row("cell", {to(sim::parm::offset, 0x7F),
                       to(sim::parm::bit, 7),
                       to(sim::parm::level, 1),
                       {.key = sim::parm::commands, .high = 1, .given = sim::parm_row::given::or_default}}),
    small_row("short", {{{.key = sim::parm::line, .low = 1, .high = 4},
                         {.key = sim::parm::other, .low = 1, .high = 4},
                         {.key = sim::parm::wins, .high = 1, .given = sim::parm_row::given::or_default}}}),
    small_row("port", {{{.key = sim::parm::port, .words = "eth0|eth1"},
                        {.key = sim::parm::code, .low = 1, .high = 99, .given = sim::parm_row::given::may}}}),
    small_row("pci", {to(sim::parm::bus, 0xFF), to(sim::parm::dev, 31), to(sim::parm::func, 7)}),
    small_row("huge", {to(sim::parm::offset, 0x3FFFFFF)}),
};

lab::space_source small_source() {
  lab::space_source source;
  source.faults = small_list;
  source.functions = [](const lab::board_setting &board) {
    return board.card == 7 ? std::vector<lab::pci_position>{{0x2E, 1, 3}, {0, 31, 0}}
                           : std::vector<lab::pci_position>{};
  };
  return source;
}

// ---- patterns

std::vector<lab::run_item> expanded(std::string_view pattern, const lab::space_source &source,
                                    const lab::space_defaults &defaults = {}) {
  std::string error;
  const auto runs = lab::expand(pattern, defaults, source, &error);
  EXPECT_TRUE(runs) << pattern << ": " << error;
  return runs.value_or(std::vector<lab::run_item>{});
}

std::vector<std::string> keys_of(const std::vector<lab::run_item> &runs) {
  std::vector<std::string> keys;
  std::ranges::transform(runs, std::back_inserter(keys), &lab::run_item::key);
  return keys;
}

std::vector<std::string> faults_of(const std::vector<lab::run_item> &runs) {
  std::vector<std::string> faults;
  std::ranges::transform(runs, std::back_inserter(faults), &lab::run_item::fault);
  return faults;
}

TEST(patterns, stand_for_every_combination_of_their_values) {
  const std::pair<const char *, std::vector<std::string>> cases[] = {
      {"plain", {"plain"}},
      {"cell offset=3 bit=0..1 level=*",
       {"cell offset=3 bit=0 level=0", "cell offset=3 bit=0 level=1", "cell offset=3 bit=1 level=0",
        "cell offset=3 bit=1 level=1"}},
      {"cell offset=1,0x8..0x18/8,0x7F",
       {"cell offset=1", "cell offset=8", "cell offset=0x10", "cell offset=0x18", "cell offset=0x7F"}},
      {"short line=2..4 other=*>line", {"short line=2 other=3", "short line=2 other=4", "short line=3 other=4"}},
      {"port port=* code=010", {"port port=eth0 code=010", "port port=eth1 code=010"}},
      // What a single value is worth the board itself decides.
      {"cell offset=0x1000 bit=x", {"cell offset=0x1000 bit=x"}},
      {"--card=7 pci function=*", {"pci bus=0x2E dev=1 func=3", "pci bus=0x00 dev=31 func=0"}},
      {"--card=8 pci function=*", {}},
  };
  for (const auto &[pattern, expected] : cases)
    EXPECT_EQ(faults_of(expanded(pattern, small_source())), expected) << pattern;
}

TEST(patterns, take_board_and_mode_from_themselves_then_from_the_defaults_then_from_the_fault) {
  const lab::space_defaults defaults{{11096, "P0"}, lab::run_mode::full};
  const auto source = small_source();
  EXPECT_THAT(keys_of(expanded("plain", source)), ElementsAre("plain --card=11062 --revision=P1 --mode=short"));
  EXPECT_THAT(keys_of(expanded("plain", source, defaults)),
              ElementsAre("plain --card=11096 --revision=P0 --mode=full"));
  EXPECT_THAT(keys_of(expanded("--card=0x2B35 --revision=P1 --mode=no-flash plain", source, defaults)),
              ElementsAre("plain --card=11061 --revision=P1 --mode=no-flash"));
}

TEST(patterns, are_refused_with_what_is_wrong) {
  const std::pair<const char *, const char *> cases[] = {
      {"", "no such fault: ''"},
      {"plan line=1", "no such fault: 'plan' (did you mean 'plain'?) (board-sim --list-faults)"},
      {"plain line=1", "no such parameter: line=1"},
      {"cell offset", "no such parameter: offset"},
      {"cell offset=5..1", "bad value: offset=5..1"},
      {"cell offset=1..5/0", "bad value: offset=1..5/0"},
      {"cell offset=1..y", "bad value"},
      {"cell offset=**", "bad value"},
      {"cell offset=1*", "bad value"},
      {"cell offset=0..0xFFFFFFFFFFFFFFFF", "bad value"},
      {"huge offset=0..999999,0..9", "more than 1000000 runs"},
      {"short other=*>line", "bad value: other=*>line"},
      {"huge offset=*", "bad value"},
      {"--card=70000 plain", "bad option --card=70000"},
      {"--revision=P2 plain", "bad option --revision=P2"},
      {"--mode=long plain", "bad option --mode=long"},
      {"--cards=1 plain", "bad option --cards=1"},
  };
  for (const auto &[pattern, expected] : cases) {
    std::string error;
    EXPECT_FALSE(lab::expand(pattern, {}, small_source(), &error)) << pattern;
    EXPECT_THAT(error, HasSubstr(expected));
  }
}

// ---- the built-in spaces, over the board's own list

class built_in : public testing::Test {
 protected:
  built_in() {
    m_source.functions = [](const lab::board_setting &) { return std::vector<lab::pci_position>{{2, 0, 0}}; };
  }
  [[nodiscard]] std::vector<lab::run_item> standard() const {
    std::string error;
    const auto space = lab::standard_space(m_source, &error);
    EXPECT_TRUE(space) << error;
    return space.value_or(lab::fault_space{}).runs;
  }

  lab::space_source m_source;
};

TEST_F(built_in, standard_has_every_kind_of_fault_or_says_why_not) {
  std::set<std::string> kinds;
  for (const auto &run : standard())
    kinds.insert(kind_of(run));
  for (const auto &kind : lab::left_out_kinds()) {
    EXPECT_NE(kind.reason, "");
    EXPECT_TRUE(kinds.emplace(kind.name).second) << kind.name;
  }
  for (const auto &kind : m_source.faults)
    EXPECT_EQ(kinds.erase(kind.name), 1U) << kind.name;
  EXPECT_THAT(kinds, IsEmpty());
}

TEST_F(built_in, lines_are_all_single_line_faults) {
  std::string error;
  const auto space = lab::lines_space(m_source, &error);
  ASSERT_TRUE(space) << error;
  const auto keys = keys_of(space->runs);
  EXPECT_EQ(keys.size(), 2368U);
  EXPECT_EQ(std::set(keys.begin(), keys.end()).size(), 2368U);
}

TEST_F(built_in, drawn_faults_are_the_same_for_the_same_seed_and_good_ones) {
  std::string error;
  for (const auto what : {lab::drawn::cells, lab::drawn::any}) {
    const auto draw = [&](uint64_t seed) { return lab::drawn_space(what, 200, seed, m_source, &error)->runs; };
    const auto runs = draw(7);
    EXPECT_EQ(keys_of(runs), keys_of(draw(7)));
    EXPECT_NE(keys_of(runs), keys_of(draw(8)));
    // This register maps I/O space anyway.
    EXPECT_THAT(keys_of(draw(23)), Each(Not(StartsWith("bar-io bar=1"))));
    std::set<std::string> kinds;
    for (const auto &run : runs) {
      kinds.insert(kind_of(run));
      EXPECT_TRUE(sim::fault_parse(run.fault, &error)) << error;
      EXPECT_TRUE(what == lab::drawn::any || kind_of(run).find("-cell-") != std::string::npos);
    }
    EXPECT_EQ(kinds.size(), what == lab::drawn::cells ? 22U : 60U);
  }
}

// One fault has occasions in two rows.
TEST_F(built_in, transients_take_every_stratum_and_only_occasions_that_there_are) {
  const std::vector<lab::occasion_range> ranges{{"", "i2c-fail bus=1 addr=0x52", 1, 5},
                                                {"Mod 1 1 SEEPROM Test", "i2c-fail bus=1 addr=0x52", 6, 900},
                                                {"Mod 1 1 OBFL Test", "flash-data-stuck line=0 level=0", 1, 30},
                                                {"Mod 1 1 OBFL Test", "flash-data-stuck line=0 level=1", 1, 1}};
  m_source.occasions = [&](const std::vector<std::string> &faults) {
    EXPECT_EQ(faults.size(), 1U + 2 * (3 * (16 + 14) + 16 + 25));
    return ranges;
  };
  std::string error;
  const auto draw = [&](uint64_t samples, uint64_t seed) {
    return lab::transients_space(samples, seed, m_source, &error).value().runs;
  };
  EXPECT_EQ(keys_of(draw(20, 7)), keys_of(draw(20, 7)));
  EXPECT_NE(keys_of(draw(20, 7)), keys_of(draw(20, 8)));
  std::map<std::string, std::set<std::string>> strata;
  for (const auto &run : draw(31, 7))
    strata[run.stratum].insert(run.fault);
  ASSERT_EQ(strata.size(), 3U);
  EXPECT_THAT(strata["EEPROM, start-up, 5 occasions"], SizeIs(5));
  EXPECT_THAT(strata["EEPROM, row seeprom, 895 occasions"], SizeIs(31));
  EXPECT_EQ(strata["EEPROM, start-up, 5 occasions"].count("i2c-fail bus=1 addr=0x52 nth=5 times=1"), 1U);
  const auto &flash = strata["flash, row obfl, 31 occasions"];
  EXPECT_THAT(flash, SizeIs(31));
  EXPECT_EQ(flash.count("flash-data-stuck line=0 level=0 nth=30 times=1"), 1U);
  EXPECT_EQ(flash.count("flash-data-stuck line=0 level=1 nth=1 times=1"), 1U);
}

TEST_F(built_in, healthy_takes_every_card_and_revision_in_turn) {
  const auto space = lab::healthy_space(30, lab::run_mode::short_test);
  std::map<std::string, size_t> boards;
  for (const auto &run : space.runs)
    ++boards[std::to_string(run.board.card) + run.board.revision];
  EXPECT_EQ(boards.size(), 14U);
  for (const auto &[board, runs] : boards)
    EXPECT_THAT(runs, AnyOf(2U, 3U)) << board;
  EXPECT_EQ(lab::healthy_space(1, {}).runs[0].mode, lab::run_mode::full);
}

// ---- back to patterns

TEST_F(built_in, standard_in_few_words_stands_for_the_same_runs) {
  const auto numbers = [](const std::vector<lab::run_item> &runs) {
    std::multiset<std::string> keys;
    for (const auto &run : runs) {
      const auto fault = lab::parse_fault_text(run.fault);
      auto key = fault.name + std::to_string(run.board.card) + run.board.revision;
      for (const auto &[name, value] : fault.values)
        key += " " + name + "=" + (lab::parse_c_number(value) ? std::to_string(fault.number(name)) : value);
      keys.insert(key);
    }
    return keys;
  };
  const auto runs = standard();
  const auto words = lab::patterns_of(runs);
  EXPECT_LT(words.size(), runs.size() / 4);
  std::vector<lab::run_item> again;
  for (const auto &pattern : words)
    std::ranges::copy(expanded(pattern, m_source), std::back_inserter(again));
  EXPECT_EQ(numbers(again), numbers(runs));
}

// ---- what is known of faults

// A cell fault without a rule would have its own cell counted as damage.
TEST(facts, let_a_cell_fault_destroy_its_cells) {
  for (const auto &kind : sim::fault_table())
    EXPECT_EQ(
        lab::facts_of(kind.id).destroys == lab::own_damage::cells,
        std::string(kind.name).find("-cell-") != std::string::npos || kind.id == sim::fault_id::flash_erase_leaves)
        << kind.name;
}

}  // namespace
