// Fault spaces: what patterns stand for, and that the built-in spaces hold what they promise.
#include <gmock/gmock.h>

#include <algorithm>
#include <map>
#include <set>

#include "lab/knowledge.h"
#include "lab/patterns.h"
#include "lab/space.h"
#include "tests/support/run.h"

using testing::AnyOf;
using testing::ElementsAre;
using testing::Field;
using testing::HasSubstr;
using testing::IsEmpty;

namespace {

// ---- the list of faults

constexpr std::string_view small_list =
    "plain\n    nothing to choose\n"
    "cell offset=0..0x7F bit=0..7 level=0..1 [commands=0..1:0]\n    a cell\n"
    "short line=1..4 other=1..4 [wins=0..1:0]\n    two lines\n"
    "port port=eth0|eth1 [code=1..99:1]\n    words\n"
    "pci bus=0..0xFF dev=0..31 func=0..7\n    a function\n"
    "huge offset=0..0x3FFFFFF\n    too many\n";

lab::space_source small_source() {
  std::string error;
  lab::space_source source;
  source.faults = lab::parse_fault_list(small_list, &error).value();
  source.functions = [](const lab::board_setting &board) {
    return board.card == 7 ? std::vector<lab::pci_position>{{0x2E, 1, 3}, {0, 31, 0}}
                           : std::vector<lab::pci_position>{};
  };
  return source;
}

TEST(fault_list, is_taken_apart_row_by_row) {
  const auto source = small_source();
  ASSERT_EQ(source.faults.kinds.size(), 6U);
  const auto &cell = *source.faults.find("cell");
  EXPECT_EQ(cell.what, "a cell");
  EXPECT_EQ(cell.find("offset")->high, 0x7FU);
  EXPECT_FALSE(cell.find("level")->optional);
  EXPECT_TRUE(cell.find("commands")->optional);
  EXPECT_EQ(cell.find("commands")->otherwise, "0");
  EXPECT_THAT(source.faults.find("port")->find("port")->words, ElementsAre("eth0", "eth1"));
  EXPECT_EQ(source.faults.find("cel"), nullptr);
}

TEST(fault_list, is_refused_with_the_line_that_is_not_understood) {
  const std::pair<const char *, const char *> cases[] = {
      {"", "the list of faults is empty"}, {"    what\n", "line 1 "}, {"a\n    what\nb line\n", "line 3 "},
      {"a [line=0..1\n", "line 1 "},       {"a =0..1\n", "line 1 "},
  };
  for (const auto &[text, expected] : cases) {
    std::string error;
    EXPECT_FALSE(lab::parse_fault_list(text, &error)) << text;
    EXPECT_THAT(error, HasSubstr(expected)) << text;
  }
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
  EXPECT_THAT(keys_of(expanded("--card=0x2B35 --revision=P1 --mode=cut plain", source, defaults)),
              ElementsAre("plain --card=11061 --revision=P1 --mode=cut"));
}

TEST(patterns, are_refused_with_what_is_wrong) {
  const std::pair<const char *, const char *> cases[] = {
      {"", "no such fault: ''"},
      {"--card=1", "no such fault"},
      {"nothing line=1", "no such fault: 'nothing'"},
      {"plain line=1", "no such parameter: line=1"},
      {"cell offset", "no such parameter: offset"},
      {"cell offset=5..1", "bad value: offset=5..1"},
      {"cell offset=1..5/0", "bad value: offset=1..5/0"},
      {"cell offset=1..y", "bad value"},
      {"cell offset=**", "bad value"},
      {"cell offset=1*", "bad value"},
      {"cell offset=0..0xFFFFFFFFFFFFFFFF", "bad value"},
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
    std::string error;
    m_source.faults = lab::parse_fault_list(run_program("board-sim", {"--list-faults"}).out, &error).value();
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

std::string kind_of(const lab::run_item &run) {
  return run.fault.substr(0, run.fault.find(' '));
}

TEST_F(built_in, standard_has_every_kind_of_fault_or_says_why_not) {
  std::set<std::string> kinds;
  for (const auto &run : standard())
    kinds.insert(kind_of(run));
  for (const auto &kind : lab::left_out_kinds()) {
    EXPECT_NE(kind.reason, "");
    EXPECT_TRUE(kinds.emplace(kind.name).second) << kind.name;
  }
  for (const auto &kind : m_source.faults.kinds)
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

TEST_F(built_in, cells_are_the_same_for_the_same_seed_and_within_the_memories) {
  std::string error;
  const auto cells = [&](uint64_t seed) { return lab::cells_space(60, seed, m_source, &error)->runs; };
  EXPECT_EQ(keys_of(cells(7)), keys_of(cells(7)));
  EXPECT_NE(keys_of(cells(7)), keys_of(cells(8)));
  std::set<std::string> kinds;
  for (const auto &run : cells(7)) {
    kinds.insert(kind_of(run));
    EXPECT_THAT(kind_of(run), HasSubstr("-cell-"));
    const auto fault = lab::parse_fault_text(run.fault);
    for (const auto &parameter : m_source.faults.find(fault.name)->parameters) {
      if (parameter.optional) continue;
      ASSERT_TRUE(fault.find(parameter.key)) << run.fault;
      EXPECT_LE(fault.number(parameter.key), parameter.high) << run.fault;
    }
  }
  EXPECT_GT(kinds.size(), 15U);
}

TEST_F(built_in, healthy_takes_every_card_and_revision_in_turn) {
  const auto space = lab::healthy_space(30, lab::run_mode::brief);
  std::map<std::string, size_t> boards;
  for (const auto &run : space.runs)
    ++boards[std::to_string(run.board.card) + run.board.revision];
  EXPECT_EQ(boards.size(), 14U);
  for (const auto &[board, runs] : boards)
    EXPECT_THAT(runs, AnyOf(2U, 3U)) << board;
  EXPECT_EQ(lab::healthy_space(1, {}).runs[0].mode, lab::run_mode::full);
}

TEST(repeats, give_each_turn_of_a_fault_by_chance_a_seed_of_its_own) {
  lab::fault_space space{
      "own", "", {{"a p=10 seed=5", {}, lab::run_mode::brief}, {"b nth=3", {}, lab::run_mode::brief}}};
  lab::repeat_runs(&space, 2);
  EXPECT_THAT(faults_of(space.runs), ElementsAre("a p=10 seed=5", "a p=10 seed=6", "b nth=3", "b nth=3"));
  EXPECT_THAT(space.runs, ElementsAre(Field(&lab::run_item::repeat, 0), Field(&lab::run_item::repeat, 1),
                                      Field(&lab::run_item::repeat, 0), Field(&lab::run_item::repeat, 1)));
}

// ---- back to patterns

// The runs of several patterns.
template <class T>
std::vector<lab::run_item> all_of(const std::vector<T> &patterns, const lab::space_source &source) {
  std::vector<lab::run_item> runs;
  for (const auto &pattern : patterns)
    std::ranges::copy(expanded(pattern, source), std::back_inserter(runs));
  return runs;
}

TEST(few_words, join_what_differs_in_one_parameter) {
  const std::pair<std::vector<const char *>, std::vector<std::string>> cases[] = {
      {{"plain"}, {"plain"}},
      {{"cell offset=0..3 bit=* level=*"}, {"cell offset=0..3 bit=0..7 level=0,1"}},
      {{"short line=1..2 other=*>line"}, {"short line=1 other=2..4", "short line=2 other=3,4"}},
      {{"cell bit=1 level=0", "cell bit=3..5 level=0", "cell bit=0..2 level=1"},
       {"cell bit=1 level=0,1", "cell bit=3..5 level=0", "cell bit=0,2 level=1"}},
      {{"port port=*", "--card=7 --revision=P0 port port=eth1"},
       {"port port=eth0,eth1", "--card=7 --revision=P0 port port=eth1"}},
      {{"cell offset=0x9..0xC"}, {"cell offset=9..0xc"}},
  };
  for (const auto &[patterns, words] : cases)
    EXPECT_EQ(lab::patterns_of(all_of(patterns, small_source())), words);
}

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
  EXPECT_EQ(numbers(all_of(words, m_source)), numbers(runs));
}

// ---- what is known of faults

TEST(conditions, hold_if_every_key_has_one_of_the_values) {
  const lab::run_item run{"flash-addr-stuck line=0x10 level=1", {11079, "P0"}, lab::run_mode::full};
  const std::pair<const char *, bool> cases[] = {
      {"*", true},
      {"flash-*", true},
      {"flash-addr-stuck line=16", true},
      {"flash-addr-stuck line=1,10..20 level=1", true},
      {"flash-addr-stuck line=17..25", false},
      {"flash-addr-stuck level=0", false},
      {"flash-addr-stuck commands=0", false},
      {"flash-addr", false},
      {"*-stuck card=11062,11079 revision=P0 mode=full", true},
      {"* card=11062", false},
      {"* mode=cut", false},
  };
  for (const auto &[pattern, holds] : cases)
    EXPECT_EQ(lab::fits(run, pattern), holds) << pattern;
}

TEST_F(built_in, knowledge_speaks_of_faults_that_exist) {
  for (const auto &row : lab::reason_rows()) {
    const auto name = lab::words_of(row.pattern)[0];
    const auto meant = [&](const auto &kind) { return lab::fits({kind.name, {}, lab::run_mode::brief}, name); };
    EXPECT_TRUE(std::ranges::any_of(m_source.faults.kinds, meant)) << row.pattern;
    EXPECT_NE(row.reason, "") << row.pattern;
    EXPECT_NE(lab::text_of(row.end).name, "found") << row.pattern;
  }
  // A cell fault without a rule would have its own cell counted as damage.
  for (const auto &kind : m_source.faults.kinds)
    EXPECT_EQ(lab::traits_of(kind.name).spoils == lab::spoil::cells,
              kind.name.find("-cell-") != std::string::npos || kind.name == "flash-erase-leaves")
        << kind.name;
  EXPECT_THAT(lab::reason_of({"no-such-fault", {}, {}}, lab::outcome::missed, false), IsEmpty());
  // Damage that nobody is told of has reasons of its own.
  const lab::run_item half{"flash-addr-stuck line=16 level=0", {}, lab::run_mode::full};
  EXPECT_NE(lab::reason_of(half, lab::outcome::damaged, false), lab::reason_of(half, lab::outcome::damaged, true));
  const lab::run_item other{"flash-addr-stuck line=15 level=0", {}, lab::run_mode::full};
  EXPECT_THAT(lab::reason_of(other, lab::outcome::damaged, false), IsEmpty());
}

}  // namespace
