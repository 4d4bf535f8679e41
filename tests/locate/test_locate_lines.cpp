// The lines of the NVRAM, on the models: every single fault is named, in 60 accesses, and the contents are kept.
#include "locate/nvram_lines.h"

#include <cmath>

#include "models/single_faults.h"
#include "tests/locate/model_ram.h"
#include "tests/support/run.h"

namespace {

using locate::part_state;

locate::part_result measure(model_ram *ram, unsigned instance, unsigned rounds = 1,
                            std::optional<locate::seen_cell> *cell = nullptr) {
  locate::journal none("", "");
  locate::part_result result;
  const bool good = locate::locate_lines(ram, instance, rounds, &none, &result, cell);
  EXPECT_EQ(good, result.state == part_state::good);
  return result;
}

TEST(locate_lines, names_each_fault_of_lines) {
  unsigned seed = 0;
  for (unsigned instance = 0; instance < 3; ++instance) {
    for (const auto &one : models::line_faults(models::memory_kind::nvram, 1, 14)) {
      const auto text = models::notation(one.fault, instance);
      SCOPED_TRACE(text);
      model_ram ram(text, ++seed);
      const auto found = measure(&ram, instance);
      ASSERT_EQ(found.findings.size(), 1U);
      const auto &what = found.findings[0];
      EXPECT_THAT(what.candidates, Contains(text));
      EXPECT_FALSE(what.intermittent);
      const bool stuck_address = one.address && one.bad.kind == models::line_kind::stuck;
      EXPECT_EQ(what.candidates.size(), stuck_address ? 2U : 1U);
      // One or two more where words happen to hold another's tag.
      EXPECT_LE(ram.accesses(), ram.holds_tags() ? 62U : one.address ? 60U : 61U);
      const bool keeps = one.address || one.bad.kind == models::line_kind::floating;
      EXPECT_EQ(keeps, testing::Value(what.evidence, Not(Contains(StartsWith("these words may have changed")))));
      for (const auto &[at, bits] : ram.changed()) {
        EXPECT_FALSE(keeps) << at;
        EXPECT_TRUE((at & (at - 1)) == 0 && (bits & ~one.bad.lines) == 0) << at << " " << bits;
      }
    }
  }
  EXPECT_EQ(seed, 3 * (482 + 16));
}

TEST(locate_lines, finds_nothing_on_good_lines_with_any_contents) {
  for (unsigned seed = 0; seed < 1000; ++seed) {
    model_ram ram("", seed);
    const auto found = measure(&ram, 0);
    EXPECT_TRUE(found.findings.empty()) << seed;
    EXPECT_EQ(ram.accesses(), ram.holds_tags() ? 62U : 60U) << seed;
    EXPECT_TRUE(ram.changed().empty()) << seed;
  }
}

// Where places are named, the true one is among them, however often the fault acts. LOCATE_SEED draws others.
TEST(locate_lines, names_faults_that_come_and_go_with_their_rate) {
  std::mt19937 random(static_cast<unsigned>(number_from("LOCATE_SEED", 1)));
  size_t runs = 0;
  for (const auto &[rate, rounds, least_found] :
       {std::tuple{700'000, 8, 71}, {300'000, 8, 70}, {30'000, 16, 35}, {3'000, 100, 20}}) {
    int found_by = 0;
    for (const auto &one : models::line_faults(models::memory_kind::nvram, 1, 14)) {
      if (++runs % 7 != 0) continue;
      const auto text = models::notation(one.fault, 0);
      const auto seed = static_cast<unsigned>(random());
      SCOPED_TRACE(text + " p=" + std::to_string(rate) + " seed=" + std::to_string(seed));
      model_ram ram(text + " p=" + std::to_string(rate) + " seed=" + std::to_string(seed), seed);
      const auto found = measure(&ram, 0, static_cast<unsigned>(rounds));
      if (found.findings.empty()) continue;
      const auto &what = found.findings[0];
      if (what.sentence == "Words of NVRAM 0 change that are not written.") continue;  // and names none
      ++found_by;
      EXPECT_THAT(what.candidates, Contains(StartsWith(text))) << what.sentence;
      EXPECT_EQ(what.intermittent, testing::Value(what.evidence, Contains(HasSubstr(" rounds"))));
    }
    EXPECT_GE(found_by, least_found) << rate;
  }
}

// So that no march is written through them: a line that acts in 0.05 to 5 % of the accesses is never left to the test
// of the cells, a steady cell always is. LOCATE_DRAWS=N draws N lines, LOCATE_SEED others.
TEST(locate_lines, leaves_only_cells_to_the_test_of_cells) {
  const auto lines = models::line_faults(models::memory_kind::nvram, 1, 14);
  std::mt19937 random(static_cast<unsigned>(number_from("LOCATE_SEED", 1)));
  size_t found = 0;
  const size_t draws = number_from("LOCATE_DRAWS", 150);
  for (unsigned i = 0; i < draws; ++i) {
    const auto rate = static_cast<unsigned>(500 * std::pow(100, static_cast<double>(random()) / 0x1p32));
    const auto text = models::notation(lines[random() % lines.size()].fault) + " p=" + std::to_string(rate) +
                      " seed=" + std::to_string(i);
    model_ram ram(text, 3 + i % 5);
    std::optional<locate::seen_cell> cell;
    found += measure(&ram, 0, 64, &cell).findings.size();
    EXPECT_FALSE(cell) << text << ": " << cell->what.sentence;
  }
  EXPECT_GE(found, draws * 80 / 100);
  for (const char *const fault :
       {"cell-stuck instance=0 offset=5 bit=0 level=0", "cell-read-wrong instance=0 offset=5 bit=0",
        "cell-coupled-write instance=0 offset=0x10 bit=0 victim=0x4000 vbit=1"}) {
    model_ram ram("nvram-" + std::string(fault), 1);
    std::optional<locate::seen_cell> cell;
    EXPECT_TRUE(measure(&ram, 0, 64, &cell).findings.empty()) << fault;
    EXPECT_TRUE(cell) << fault;
  }
}

// Of two faults of lines, what is named has a line of one of them. LOCATE_PAIRS=N draws N pairs.
TEST(locate_lines, names_no_third_line_where_two_are_bad) {
  const auto lines = models::line_faults(models::memory_kind::nvram, 1, 14);
  std::mt19937 random(static_cast<unsigned>(number_from("LOCATE_SEED", 1)));
  const auto draw = [&] { return models::notation(lines[random() % lines.size()].fault); };
  // "nvram-addr-", and a line of the fault
  const auto has_line_of = [](const std::string &fault) {
    const auto parsed = sim::parse_fault_text(fault);
    return AllOf(StartsWith(fault.substr(0, 11)),
                 ContainsRegex(" (line|other)=(" + std::to_string(parsed.number("line")) + "|" +
                               std::to_string(parsed.number("other", parsed.number("line"))) + ")( |$)"));
  };
  for (unsigned i = 0; i < number_from("LOCATE_PAIRS", 150); ++i) {
    const auto lasts = draw();
    const auto acts = draw();
    const auto when = " nth=" + std::to_string(1 + random() % 20) + " times=" + std::to_string(1 + random() % 10);
    model_ram ram(lasts + ";" + acts + when, i);
    for (const auto &what : measure(&ram, 0, i % 2 == 0 ? 1 : 16).findings)
      EXPECT_THAT(what.candidates, AnyOf(IsEmpty(), Contains(AnyOf(has_line_of(lasts), has_line_of(acts)))))
          << what.sentence << lasts << ";" << acts << when;
  }
}

TEST(locate_lines, names_what_no_line_does) {
  struct unknown_case {
    const char *fault;
    const char *sentence;
    bool intermittent;
  };
  for (const auto &c : {
           unknown_case{"nvram-cell-stuck instance=0 offset=5 bit=0 level=0",
                        "A cell of NVRAM 0 is bad: bit 8 of the word at 0x4.", false},
           unknown_case{"nvram-cell-read-wrong instance=0 offset=5 bit=0 p=300000 seed=2",
                        "A cell of NVRAM 0 is bad at times: bit 8 of the word at 0x4.", true},
           // Too few answers to distinguish a cell from a line.
           unknown_case{
               "nvram-cell-read-wrong instance=0 offset=0x1000 bit=2 p=3000 seed=4",
               "Either one of 3 places of NVRAM 0 is bad: data line D2; data lines D2 and D14; data lines D2 and "
               "D15, or the cell of bit 2 of the word at 0x1000 is bad, but only at times: in less than 1 % "
               "of the accesses.",
               true},
       }) {
    model_ram ram(c.fault, 3);
    const auto found = measure(&ram, 0, 16);
    ASSERT_EQ(found.findings.size(), 1U);
    EXPECT_EQ(found.findings[0].sentence, c.sentence);
    EXPECT_EQ(found.findings[0].intermittent, c.intermittent);
  }
}

}  // namespace
