// From what a run leaves behind to its outcome, and from many outcomes to the matrix in all its forms.
#include <gmock/gmock.h>

#include <fstream>
#include <span>

#include "lab/coverage.h"
#include "lab/html.h"
#include "lab/judge.h"
#include "lab/junit_matrix.h"
#include "lab/knowledge.h"
#include "lab/table.h"
#include "tests/lab/lab_texts.h"
#include "tests/support/run.h"

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::SizeIs;

namespace {

// ---- outcomes

const std::string failed_log = edited(full_log, {{"Completed Successfully", "Failed"}});

// The output of a run that says this behind the first dot of a row.
std::string saying(const std::string &row, const std::string &said, const std::string &text = full_log) {
  return edited(text, {{row + " Test: \n.", row + " Test: \n." + said}});
}

std::string records(const std::vector<std::string> &failed) {
  std::string text = full_records;
  for (const std::string &device : failed)
    text = edited(text, {{device + ":1", device + ":2"}});
  return text;
}

constexpr const char *bad_nvram =
    "0x00000000: Expected 0x8 Actual 0x0\nFailed above Data Bus Walking 1 Test for NVRAM 1 address 0x0\n"
    "\n ERROR: Executing 8 on dev 0\n";
constexpr const char *bad_flash =
    "Reached the max timeout but DQ5 bit not set\n## Error : obfl_sector_erase failed \n"
    "\n ERROR: Executing 10 on dev 0\n";
constexpr const char *bad_pcie =
    "\n## Failed: PCI device - Bridge\n           (bus:2E, dev:00, func:00, vendId:10B5, devId:9030)\n"
    "## Info : Based on P0 board detection.\n";

struct judge_case {
  const char *name;
  const char *fault;
  lab::run_mode mode;
  std::string output;
  std::vector<std::string> failed;  // records
  int status;
  std::optional<uint64_t> fired;
  uint64_t beyond;  // bytes that differ beyond the fault
  bool timed_out;
  // What is expected.
  lab::outcome end;
  const char *verdict;
  std::vector<std::string> reported;
  bool right;
  const char *line;
};

TEST(judge, gives_each_run_its_one_outcome) {
  using lab::outcome;
  using lab::run_mode;
  constexpr const char *nvram1 = "nvram-data-stuck instance=1 line=3 level=0";
  constexpr const char *nvram2 = "nvram-data-stuck instance=2 line=3 level=0";
  constexpr const char *expected = "0x00000000: Expected 0x8 Actual 0x0";
  const std::string good = full_log;
  const auto bad = saying("NVRAM", bad_nvram, failed_log);
  const auto cut_bad = saying("OBFL", bad_flash, bad);
  const auto cut_good = saying("OBFL", bad_flash, failed_log);
  const auto endless = until(full_log, "  Mod 1 1 Post");
  // clang-format off
  const judge_case cases[] = {
      // name                      fault   mode            output    failed           status fired         beyond late    outcome              verdict   reported    right  line
      {"found",                    nvram1, run_mode::full, bad,      {"8:0"},         0,     7,            0,     false, outcome::found,       "failed", {"nvram.0"}, true,  expected},
      {"another instance named",   nvram2, run_mode::full, bad,      {"8:0"},         0,     7,            0,     false, outcome::blamed,      "failed", {"nvram.0"}, false, expected},
      {"another device",           "flash-silent", run_mode::full, bad, {"8:0"},      0,     7,            0,     false, outcome::blamed,      "failed", {"nvram.0"}, false, expected},
      {"others as well",           nvram1, run_mode::full, cut_bad,  {"8:0", "10:0"}, 0,     7,            0,     false, outcome::blamed,      "failed", {"nvram.0", "obfl.0"}, false, expected},
      {"the cut row tells nothing", nvram1, run_mode::cut, cut_bad,  {"8:0", "10:0"}, 0,     7,            0,     false, outcome::found,       "failed", {"nvram.0"}, true,  expected},
      {"nor by its lines",         nvram1, run_mode::cut,  cut_good, {"10:0"},        0,     7,            0,     false, outcome::missed,      "passed", {},          false, ""},
      {"missed",                   nvram1, run_mode::full, good,     {},              0,     7,            0,     false, outcome::missed,      "passed", {},          false, ""},
      {"printed alone",            "pci-missing bus=0x2E dev=0 func=0", run_mode::full, saying("PCIE", bad_pcie), {}, 0, 1, 0, false, outcome::missed, "passed", {}, false, "## Failed: PCI device - Bridge"},
      {"not fired",                nvram1, run_mode::full, good,     {},              0,     0,            0,     false, outcome::not_fired,   "passed", {},          false, ""},
      {"nobody counted",           nvram1, run_mode::full, good,     {},              0,     std::nullopt, 0,     false, outcome::not_fired,   "passed", {},          false, ""},
      {"damaged, told",            nvram1, run_mode::full, bad,      {"8:0"},         0,     7,            1,     false, outcome::damaged,     "failed", {"nvram.0"}, true,  expected},
      {"damaged, untold",          nvram1, run_mode::full, good,     {},              0,     7,            1,     false, outcome::damaged,     "passed", {},          false, ""},
      {"a signal",                 nvram1, run_mode::full, endless + "board-sim: post was ended by signal 11 (Segmentation fault)\n", {}, 139, 7, 0, false, outcome::ended, "none", {}, false, ""},
      {"an assertion at start",    nvram1, run_mode::full, "devmemfd:0x3\npost: a.cpp:1: f: Assertion `0' failed.\n", {}, 134, 1, 0, false, outcome::ended, "none", {}, false, "post: a.cpp:1: f: Assertion `0' failed."},
      {"no verdict, status 0",     nvram1, run_mode::full, endless, {}, 0,     7,            0,     false, outcome::ended,       "none",   {},          false, ""},
      {"late",                     nvram1, run_mode::full, endless, {}, 137,   std::nullopt, 9,     true,  outcome::hung,        "none",   {},          false, ""},
      {"refused",                  nvram1, run_mode::full, "board-sim: the board has no such device\n", {}, 2, std::nullopt, 0, false, outcome::refused, "none", {}, false, "board-sim: the board has no such device"},
      {"healthy",                  "",     run_mode::full, good,     {},              0,     std::nullopt, 0,     false, outcome::healthy,     "passed", {},          false, ""},
      {"false alarm",              "",     run_mode::full, bad,      {"8:0"},         0,     std::nullopt, 0,     false, outcome::false_alarm, "failed", {"nvram.0"}, false, expected},
      {"healthy, but damaged",     "",     run_mode::full, good,     {},              0,     std::nullopt, 1,     false, outcome::damaged,     "passed", {},          false, ""},
  };
  // clang-format on
  for (const auto &c : cases) {
    SCOPED_TRACE(c.name);
    lab::run_evidence evidence;
    evidence.process.output = c.output;
    evidence.process.status = c.status;
    evidence.process.timed_out = c.timed_out;
    evidence.fired = c.fired;
    evidence.records = c.status == 0 ? records(c.failed) : "";
    evidence.changes.push_back({"flash", 2, 16, 17, c.beyond, 16});
    const auto result = lab::judge({c.fault, {}, c.mode}, evidence);
    EXPECT_EQ(lab::text_of(result.end).name, lab::text_of(c.end).name);
    EXPECT_EQ(result.verdict, c.verdict);
    EXPECT_EQ(result.reported, c.reported);
    EXPECT_EQ(result.right, c.right);
    EXPECT_EQ(result.line, c.line);
  }
}

TEST(judge, keeps_no_number_that_depends_on_time) {
  lab::run_evidence evidence;
  evidence.process.output = full_log;
  const auto told = [&](const char *fault, uint64_t fired) {
    evidence.fired = fired;
    return lab::fired_text(lab::judge({fault, {}, lab::run_mode::brief}, evidence));
  };
  EXPECT_EQ(told("i2c-absent bus=1 addr=0x52", 81148), "1+");
  EXPECT_EQ(told("i2c-absent bus=1 addr=0x52", 1), "1");
  EXPECT_EQ(told("i2c-fail bus=1 addr=0x52", 81148), "81148");
}

TEST(judge, wants_a_pci_function_named_by_its_place) {
  lab::run_evidence evidence;
  evidence.fired = 1;
  evidence.records = records({"12:0"});
  for (const auto &[card, right] : {std::pair{11062U, true}, {11096U, true}, {0U, false}}) {
    const lab::run_item run{"pci-missing bus=2 dev=0 func=0", {card, "P1"}, {}};
    evidence.process.output = saying("PCIE", edited(bad_pcie, {{"bus:2E", "bus:02"}}), failed_log);
    EXPECT_EQ(lab::judge(run, evidence).right, right) << card;
    evidence.process.output = saying("PCIE", bad_pcie, failed_log);
    EXPECT_FALSE(lab::judge(run, evidence).right);
  }
}

// ---- contents

std::string changes_of(const char *fault, const char *memory, std::span<const uint8_t> before,
                       std::span<const uint8_t> after) {
  lab::spoil_map spoils({fault, {}, {}});
  std::vector<lab::memory_change> changes;
  lab::compare_memory(memory, before, after, &spoils, &changes);
  std::string texts;
  for (const auto &change : changes)
    texts += change.text();
  return texts;
}

TEST(contents, tell_what_a_fault_destroys_from_what_else_is_lost) {
  const struct {
    const char *fault, *memory;
    std::vector<std::pair<size_t, uint8_t>> flipped;  // offset and bits
    const char *text;
  } cases[] = {
      // clang-format off
      {"nvram-addr-stuck instance=0 line=3 level=0",    "nvram0", {},                           ""},
      {"nvram-addr-stuck instance=0 line=3 level=0",    "nvram0", {{5, 1}},                     "nvram0: 1 byte, 0x5 to 0x5, 1 beyond the fault from 0x5"},
      {"nvram-data-stuck instance=0 line=3 level=0",    "nvram0", {{4, 8}, {0x20000, 8}},       "nvram0: 2 bytes, 0x4 to 0x20000"},
      {"nvram-data-stuck instance=0 line=3 level=0",    "nvram0", {{4, 8}, {5, 8}, {7, 1}},     "nvram0: 3 bytes, 0x4 to 0x7, 2 beyond the fault from 0x5"},
      {"nvram-data-stuck instance=1 line=3 level=0",    "nvram0", {{4, 8}},                     "nvram0: 1 byte, 0x4 to 0x4, 1 beyond the fault from 0x4"},
      {"flash-data-short line=0 other=15",              "flash",  {{2, 1}, {3, 0x80}},          "flash: 2 bytes, 0x2 to 0x3"},
      {"flash-data-short line=0 other=15",              "flash",  {{2, 0x81}},                  "flash: 1 byte, 0x2 to 0x2, 1 beyond the fault from 0x2"},
      {"flash-cell-coupled offset=0x10 bit=0 victim=0x25 vbit=7",
                                                        "flash",  {{0x10, 1}, {0x25, 0x80}},    "flash: 2 bytes, 0x10 to 0x25"},
      {"flash-cell-stuck offset=0x10 bit=0 level=1",    "flash",  {{0x10, 2}},                  "flash: 1 byte, 0x10 to 0x10, 1 beyond the fault from 0x10"},
      {"flash-program-clears sector=1 offset=4 bit=2",  "flash",  {{0x20004, 4}},               "flash: 1 byte, 0x20004 to 0x20004"},
      {"flash-program-hangs sector=1",                  "flash",  {{0x20000, 255}, {0x3FFFF, 255}}, "flash: 2 bytes, 0x20000 to 0x3ffff"},
      {"flash-program-hangs sector=1",                  "flash",  {{0x1FFFF, 1}},               "flash: 1 byte, 0x1ffff to 0x1ffff, 1 beyond the fault from 0x1ffff"},
      // Where it names none, one sector may go.
      {"flash-program-hangs",                           "flash",  {{5, 1}, {0x1FFFF, 1}},       "flash: 2 bytes, 0x5 to 0x1ffff"},
      {"flash-program-hangs",                           "flash",  {{5, 1}, {0x20000, 1}},       "flash: 2 bytes, 0x5 to 0x20000, 1 beyond the fault from 0x20000"},
      {"sprom-corrupt image=sup block=main",            "eeprom-1-52", {{0, 1}},                "eeprom-1-52: 1 byte, 0x0 to 0x0, 1 beyond the fault from 0x0"},
      {"",                                              "flash",  {{0, 1}},                     "flash: 1 byte, 0x0 to 0x0, 1 beyond the fault from 0x0"},
      // clang-format on
  };
  const std::vector<uint8_t> before(0x40000, 0x5A);
  for (const auto &c : cases) {
    auto after = before;
    for (const auto &[offset, bits] : c.flipped)
      after[offset] ^= bits;
    EXPECT_EQ(changes_of(c.fault, c.memory, before, after), c.text) << c.fault;
  }
  // All that a memory held which is gone is lost.
  EXPECT_EQ(changes_of("", "nvram2", std::span(before).first(16), {}),
            "nvram2: 16 bytes, 0x0 to 0xf, 16 beyond the fault from 0x0");
}

// ---- numbers

TEST(wilson, gives_the_known_intervals) {
  // Count, of how many, and the ends, computed with an independent implementation.
  const std::tuple<size_t, size_t, double, double> cases[] = {
      {0, 10, 0.0, 0.2775}, {10, 10, 0.7225, 1.0},       {5, 10, 0.2366, 0.7634},
      {1, 1, 0.2065, 1.0},  {300, 1000, 0.2724, 0.3291},
  };
  for (const auto &[count, of, low, high] : cases) {
    EXPECT_NEAR(lab::wilson(count, of).low, low, 5e-5) << count;
    EXPECT_NEAR(lab::wilson(count, of).high, high, 5e-5) << count;
  }
}

// ---- the matrix

lab::run_result run_of(const std::string &fault, lab::outcome end, std::vector<std::string> reported = {},
                       const std::string &reason = "") {
  lab::run_result run;
  run.what = {fault, {}, lab::run_mode::cut};
  run.end = end;
  run.fired = 3;
  run.verdict = reported.empty() ? "passed" : "failed";
  run.right = end == lab::outcome::found;
  run.reported = std::move(reported);
  run.reason = reason;
  run.seconds = 0.25;
  return run;
}

// One of everything, with texts that need escaping.
lab::matrix example() {
  lab::matrix all{"own", "a <few> & \"some\"", {{"left-out", "nobody <has> it"}}, 1, {}, {}};
  all.runs.push_back(run_of("nvram-data-stuck instance=0 line=3 level=0", lab::outcome::found, {"nvram.0"}));
  all.runs.back().line = "Expected <0x8> & \"0x0\"";
  all.runs.push_back(run_of("nvram-data-stuck instance=0 line=3 level=1", lab::outcome::missed, {}, "because"));
  all.runs.push_back(run_of("flash-addr-stuck line=16 level=1", lab::outcome::damaged, {}, "half"));
  all.runs.back().contents = "flash: 2 bytes";
  all.runs.push_back(run_of("flash-addr-stuck line=15 level=1", lab::outcome::blamed, {"nvram.0", "gige.1"}));
  all.runs.push_back(run_of("pci-missing bus=2 dev=0 func=0", lab::outcome::hung));
  all.runs.back().fired.reset();
  all.runs.push_back(run_of("pci-missing bus=3 dev=0 func=0", lab::outcome::not_fired));
  all.runs.push_back(run_of("", lab::outcome::healthy));
  all.times = lab::campaign_times{1.5, 1.25, 0.125, 2};
  return all;
}

TEST(matrix, is_the_same_after_being_stored) {
  std::string error;
  const auto text = lab::matrix_to_json(example());
  const auto again = lab::matrix_from_json(text, &error);
  ASSERT_TRUE(again) << error;
  EXPECT_EQ(lab::matrix_to_json(*again), text);
  EXPECT_EQ(lab::matrix_to_html(*again), lab::matrix_to_html(example()));
  auto timeless = example();
  timeless.times.reset();
  EXPECT_THAT(lab::matrix_to_json(timeless), Not(HasSubstr("seconds")));
}

TEST(matrix, is_refused_when_it_is_none) {
  const auto text = lab::matrix_to_json(example());
  for (const std::string &wrong :
       {std::string(), std::string("{}"), std::string("[1]"), text.substr(0, text.size() / 2),
        edited(text, {{"post-campaign", "another"}}), edited(text, {{R"("outcome":"found")", R"("outcome":"lost")"}}),
        edited(text, {{R"("mode":"cut")", R"("mode":"long")"}}), edited(text, {{R"("fired":3)", R"("fired":"x")"}})}) {
    ASSERT_FALSE(wrong.starts_with("nothing like it")) << wrong;
    std::string error;
    EXPECT_FALSE(lab::matrix_from_json(wrong, &error)) << wrong;
    EXPECT_NE(error, "");
  }
}

TEST(matrix, tells_every_change_against_a_former_one) {
  const auto former = example();
  EXPECT_THAT(lab::changes_since(former, former), IsEmpty());
  auto now = former;
  now.runs[0] = run_of(now.runs[0].what.fault, lab::outcome::missed);
  now.runs[3].reported = {"nvram.0"};
  now.runs[5].what.fault = "pci-missing bus=4 dev=0 func=0";
  now.runs[1].fired = 99;
  const std::string board = " --card=11062 --revision=P1 --mode=cut: ";
  EXPECT_THAT(
      lab::changes_since(former, now),
      ElementsAre(
          "nvram-data-stuck instance=0 line=3 level=0" + board + "was found by the right device (nvram.0), is missed",
          "flash-addr-stuck line=15 level=1" + board +
              "was found, but blamed elsewhere (nvram.0, gige.1), is found, but blamed elsewhere (nvram.0)",
          "pci-missing bus=4 dev=0 func=0" + board + "new, not fired",
          "pci-missing bus=3 dev=0 func=0" + board + "not run, was not fired"));
  // Part of another space is compared run by run.
  now.space = "lines";
  EXPECT_THAT(lab::changes_since(former, now), SizeIs(2));
}

TEST(matrix, accounts_for_what_is_found_or_has_a_reason) {
  std::vector<bool> accounted;
  for (const auto &run : example().runs)
    accounted.push_back(lab::is_accounted_for(run, "own"));
  EXPECT_THAT(accounted, ElementsAre(true, true, true, false, false, false, true));
  EXPECT_TRUE(lab::is_accounted_for(run_of("i2c-fail p=1000", lab::outcome::not_fired), "own"));
  EXPECT_FALSE(lab::is_accounted_for(run_of("", lab::outcome::false_alarm, {"nvram.0"}, "a reason"), "healthy"));
  const auto idle = run_of("flash-cell-stuck offset=0 bit=0 level=0", lab::outcome::not_fired, {}, "a reason");
  EXPECT_TRUE(lab::is_accounted_for(idle, "cells"));
  EXPECT_FALSE(lab::is_accounted_for(idle, "standard"));
}

TEST(matrix, rates_repeated_faults_by_the_runs_in_which_they_fired) {
  lab::matrix all{"own", "", {}, 4, {}, {}};
  const lab::outcome ends[] = {lab::outcome::not_fired, lab::outcome::missed, lab::outcome::found, lab::outcome::found};
  for (const auto *const fault : {"a p=1", "b p=1"})
    for (uint32_t i = 0; i < 4; ++i) {
      all.runs.push_back(run_of(fault, *fault == 'a' ? ends[i] : lab::outcome::not_fired));
      all.runs.back().what.repeat = i;
      all.runs.back().fired = all.runs.back().end == lab::outcome::not_fired ? 0 : 1;
    }
  const auto rates = lab::rates(all);
  ASSERT_THAT(rates, SizeIs(2));
  EXPECT_EQ(rates[0].runs, 4U);
  EXPECT_EQ(rates[0].fired, 3U);
  EXPECT_EQ(rates[0].found, 2U);
  EXPECT_EQ(rates[0].first_found, 3U);
  EXPECT_DOUBLE_EQ(rates[0].seconds_to_found.value_or(0), 0.75);
  EXPECT_EQ(rates[1].fired, 0U);
  EXPECT_FALSE(rates[1].first_found);
  EXPECT_THAT(lab::matrix_summary(all), HasSubstr("found in 2 of 3 (66.7 %), 20.8 % to 93.9 %, first in run 3"));
}

// ---- its forms

// What a reader that is not ours makes of a form, and that it does not complain.
std::string read_by(const std::string &reader, const std::string &text) {
  const temp_dir dir;
  std::ofstream(dir.path() / "form") << text;
  const outcome read = run_shell(dir.path(), reader + " form");
  EXPECT_EQ(read.status, 0) << read.err;
  return read.out;
}

TEST(forms, junit_counts_its_cases) {
  EXPECT_EQ(read_by("python3 " + shell_word(LAB_TESTS_DIR "/read_junit.py"), lab::matrix_to_junit(example())),
            "nvram-data-stuck PASS\nnvram-data-stuck SKIP\nflash-addr-stuck SKIP\nflash-addr-stuck FAIL\n"
            "pci-missing ERROR\npci-missing ERROR\n--card=11062 PASS\n");
}

TEST(forms, junit_fits_its_schema_with_times_and_without) {
  auto timeless = example();
  timeless.times.reset();
  if (run_shell("/", "xmllint --version").status != 0) GTEST_SKIP() << "no xmllint here";
  for (const auto &matrix : {example(), timeless})
    (void)read_by("xmllint --noout --schema " + shell_word(LAB_TESTS_DIR "/junit.xsd"), lab::matrix_to_junit(matrix));
}

// Elements nest, nothing is fetched, and the matrix has a row for each run.
TEST(forms, the_page_needs_nothing_but_itself) {
  EXPECT_EQ(read_by("python3 " + shell_word(LAB_TESTS_DIR "/read_page.py"), lab::matrix_to_html(example())),
            "7 runs, 2 memories, 142 levels\n");
}

TEST(forms, tell_misses_apart_from_what_is_told) {
  const auto coverage = lab::matrix_to_coverage(example());
  const auto unnoticed = coverage.find("## What a PASS does not cover");
  const auto other = coverage.find("## What does not pass");
  EXPECT_THAT(
      coverage.substr(unnoticed, other - unnoticed),
      testing::AllOf(HasSubstr("1 missed**: because.\n  `nvram-data-stuck instance=0 line=3 level=1`"),
                     HasSubstr("1 other contents damaged, unnoticed**: half.\n  `flash-addr-stuck line=16 level=1`"),
                     HasSubstr("`left-out` is not run: nobody <has> it.")));
  EXPECT_THAT(coverage.substr(other), HasSubstr("1 found, but blamed elsewhere**: reason not known."));
  EXPECT_THAT(coverage, HasSubstr("| `nvram-data-stuck` | 1 of 2 (50.0 %) | | | 1 | |"));
}

}  // namespace
