// From what a run leaves behind to its outcome, and from many outcomes to the matrix in all its forms.
#include "lab/campaign/fault_facts.h"
#include "lab/campaign/judge.h"
#include "lab/campaign/matrix_file.h"
#include "lab/campaign/score.h"
#include "lab/campaign/shards.h"
#include "lab/report/html.h"
#include "lab/report/junit_matrix.h"
#include "lab/report/table.h"
#include "tests/lab/lab_texts.h"
#include "tests/support/run.h"

namespace {

// ---- outcomes

const std::string failed_log = edited(full_log, {{"Completed Successfully", "Failed"}});

// The output of a run that says this behind the first dot of a row.
std::string saying(const std::string &row, const std::string &said, const std::string &text = full_log) {
  return edited(text, {{row + " Test: \n.", row + " Test: \n." + said}});
}

using strings = std::vector<std::string>;

std::string records(const strings &failed) {
  std::string text = full_records;
  for (const std::string &device : failed)
    text = edited(text, {{device + ":1", device + ":2"}});
  return text;
}

// What a run left in which the fault fired once.
lab::run_evidence evidence_of(std::string output, std::string records = "", int status = 0) {
  lab::run_evidence evidence;
  evidence.process.output = std::move(output);
  evidence.process.status = status;
  evidence.records = std::move(records);
  evidence.fired = 1;
  return evidence;
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
  const struct {
    const char *name, *fault;
    run_mode mode;
    std::string output;
    strings failed;  // records
    int status;
    std::optional<uint64_t> fired;
    uint64_t beyond;  // bytes that differ beyond the fault
    bool late;
    outcome end;
    const char *verdict;
    strings reported;
    bool right;
    const char *line;
  } cases[] = {
      // name                      fault   mode            output    failed           status fired         beyond late    outcome              verdict   reported    right  line
      {"found",                    nvram1, run_mode::full, bad,      {"8:0"},         0,     7,            0,     false, outcome::found,       "failed", {"nvram.0"}, true,  expected},
      {"another instance named",   nvram2, run_mode::full, bad,      {"8:0"},         0,     7,            0,     false, outcome::blamed,      "failed", {"nvram.0"}, false, expected},
      {"another device",           "flash-silent", run_mode::full, bad, {"8:0"},      0,     7,            0,     false, outcome::blamed,      "failed", {"nvram.0"}, false, expected},
      {"others as well",           nvram1, run_mode::full, cut_bad,  {"8:0", "10:0"}, 0,     7,            0,     false, outcome::blamed,      "failed", {"nvram.0", "obfl.0"}, false, expected},
      {"the cut row tells nothing", nvram1, run_mode::no_flash, cut_bad,  {"8:0", "10:0"}, 0,     7,            0,     false, outcome::found,       "failed", {"nvram.0"}, true,  expected},
      {"nor by its lines",         nvram1, run_mode::no_flash,  cut_good, {"10:0"},        0,     7,            0,     false, outcome::missed,      "passed", {},          false, ""},
      {"missed",                   nvram1, run_mode::full, good,     {},              0,     7,            0,     false, outcome::missed,      "passed", {},          false, ""},
      {"printed alone",            "pci-missing bus=0x2E dev=0 func=0", run_mode::full, saying("PCIE", bad_pcie), {}, 0, 1, 0, false, outcome::missed, "passed", {}, false, "## Failed: PCI device - Bridge"},
      {"not fired",                nvram1, run_mode::full, good,     {},              0,     0,            0,     false, outcome::not_fired,   "passed", {},          false, ""},
      {"nobody counted",           nvram1, run_mode::full, good,     {},              0,     std::nullopt, 0,     false, outcome::not_fired,   "passed", {},          false, ""},
      {"damaged, told",            nvram1, run_mode::full, bad,      {"8:0"},         0,     7,            1,     false, outcome::damaged,     "failed", {"nvram.0"}, true,  expected},
      {"damaged, untold",          nvram1, run_mode::full, good,     {},              0,     7,            1,     false, outcome::damaged,     "passed", {},          false, ""},
      {"a signal",                 nvram1, run_mode::full, endless + "board-sim: post was ended by signal 11 (Segmentation fault)\n", {}, 139, 7, 0, false, outcome::ended, "none", {}, false, ""},
      {"an assertion at start",    nvram1, run_mode::full, "devmemfd:0x3\npost: /a: b/c.cpp:1: f: Assertion `0' failed.\n", {}, 134, 1, 0, false, outcome::ended, "none", {}, false, "f: Assertion `0' failed."},
      {"no verdict, status 0",     nvram1, run_mode::full, endless, {}, 0,     7,            0,     false, outcome::ended,       "none",   {},          false, ""},
      {"late",                     nvram1, run_mode::full, endless, {}, 137,   std::nullopt, 9,     true,  outcome::hung,        "none",   {},          false, ""},
      {"refused",                  nvram1, run_mode::full, "board-sim: the board has no such device\n", {}, 2, std::nullopt, 0, false, outcome::refused, "none", {}, false, "board-sim: the board has no such device"},
      {"nothing was broken",       "i2c-smbus-only", run_mode::full, good, {},        0,     1,            0,     false, outcome::harmless,    "passed", {},          false, ""},
      {"yet something failed",     "lock-held lock=flash kind=read", run_mode::full, bad, {"8:0"}, 0, 1,  0,     false, outcome::false_alarm, "failed", {"nvram.0"}, false, expected},
      {"healthy",                  "",     run_mode::full, good,     {},              0,     std::nullopt, 0,     false, outcome::healthy,     "passed", {},          false, ""},
      {"false alarm",              "",     run_mode::full, bad,      {"8:0"},         0,     std::nullopt, 0,     false, outcome::false_alarm, "failed", {"nvram.0"}, false, expected},
      {"healthy, but damaged",     "",     run_mode::full, good,     {},              0,     std::nullopt, 1,     false, outcome::damaged,     "passed", {},          false, ""},
  };
  // clang-format on
  for (const auto &[name, fault, mode, output, failed, status, fired, beyond, late, end, verdict, reported, right,
                    line] : cases) {
    SCOPED_TRACE(name);
    auto evidence = evidence_of(output, status == 0 ? records(failed) : "", status);
    evidence.process.timed_out = late;
    evidence.fired = fired;
    evidence.changes.push_back({"flash", 2, 16, 17, beyond, 16});
    const auto result = lab::judge({fault, {}, mode}, evidence);
    EXPECT_EQ(lab::text_of(result.end).name, lab::text_of(end).name);
    EXPECT_EQ(result.verdict, verdict);
    EXPECT_EQ(result.reported, reported);
    EXPECT_EQ(result.right, right);
    EXPECT_EQ(result.line, line);
  }
}

TEST(judge, keeps_no_number_that_depends_on_time) {
  auto evidence = evidence_of(full_log);
  const auto told = [&](const char *fault, uint64_t fired) {
    evidence.fired = fired;
    return lab::fired_text(lab::judge({fault, {}, lab::run_mode::short_test}, evidence));
  };
  EXPECT_EQ(told("i2c-absent bus=1 addr=0x52", 81148), "1+");
  EXPECT_EQ(told("i2c-absent bus=1 addr=0x52", 1), "1");
  EXPECT_EQ(told("i2c-fail bus=1 addr=0x52", 81148), "81148");
}

TEST(judge, wants_a_pci_function_named_by_its_place) {
  auto evidence = evidence_of("", records({"12:0"}));
  for (const auto &[card, right] : {std::pair{11062U, true}, {11096U, true}, {0U, false}}) {
    const lab::run_item run{"pci-missing bus=2 dev=0 func=0", {card, "P1"}, {}};
    evidence.process.output = saying("PCIE", edited(bad_pcie, {{"bus:2E", "bus:02"}}), failed_log);
    EXPECT_EQ(lab::judge(run, evidence).right, right) << card;
    evidence.process.output = saying("PCIE", bad_pcie, failed_log);
    EXPECT_FALSE(lab::judge(run, evidence).right);
  }
}

// The first of each pair has the evidence of the reason, the second lacks it and stays unexplained.
TEST(reasons, need_what_the_run_left) {
  const auto missing = saying("PCIE", edited(bad_pcie, {{"bus:2E", "bus:17"}}));
  const auto gave_up = saying("OBFL", edited(bad_flash, {{"but DQ5 bit not", "and DQ5 bit is"}}), failed_log);
  const auto no_lock =
      until(full_log, "  Executing Mod 1 1 OBFL") +
      "ERROR lock_create(): error creating lock: /var/lock/a\npost: a.cpp:1: f: Assertion `(0)' failed.\n";
  const auto no_flash = edited(full_log, {{"  Executing Mod 1 1 OBFL Test: \n.done (61 seconds)\n", ""}});
  const std::string at_start = "## Error : Failed nvram_sw_init()\npost: a.cpp:1: f: Assertion `0' failed.\n";
  const lab::memory_change sector{"flash", 9, 0xC0000, 0xDFFFF, 9, 0xC0000};
  const lab::memory_change two_sectors{"flash", 9, 0xBFFFF, 0xDFFFF, 9, 0xBFFFF};
  const lab::memory_change bytes{"nvram1", 2, 16, 17, 0, 0};
  // clang-format off
  const struct { std::string fault; unsigned card; std::string output; std::vector<lab::memory_change> changes;
                 int status; std::string reason; } cases[] = {
      {"pci-missing bus=0x17 dev=0 func=0",               11062, missing,   {},          0,   "POST prints that the function"},
      {"pci-missing bus=0x17 dev=0 func=0",               11062, full_log,  {},          0,   ""},
      {"pci-missing bus=1 dev=0 func=0",                  11061, full_log,  {},          0,   "the function is not in the list"},
      {"bar-io bar=3",                                    11061, full_log,  {},          0,   "the test of this card leaves out the NVRAM"},
      {"bar-io bar=3",                                    11062, full_log,  {},          0,   ""},
      {"lock-dir-missing",                                11062, no_lock,   {},          134, "the driver of a memory could not create its lock"},
      {"mem-absent",                                      11062, at_start,  {},          134, "a driver could not reach"},
      {"mem-absent",                                      11062, no_lock,   {},          134, ""},
      {"sprom-refuse",                                    11062, saying("PCIE", "Invalid card detected\n"), {}, 0, "the driver refused"},
      {"sprom-refuse",                                    11062, full_log,  {},          0,   ""},
      {"ethtool-fail port=eth0 test=eeprom code=30",      11062, full_log,  {},          0,   "a sub-test passes if"},
      {"ethtool-fail port=eth0 test=eeprom",              11062, full_log,  {},          0,   ""},
      {"nvram-addr-short instance=1 line=3 other=14 wins=1", 11062, full_log, {},        0,   "POST saves the upper half"},
      {"nvram-addr-short instance=1 line=3 other=14 wins=0", 11062, full_log, {},        0,   ""},
      {"nvram-data-stuck instance=1 line=3 level=1 nth=7 times=1", 11062, full_log, {bytes}, 0, "it acted while the contents were saved"},
      {"nvram-data-stuck instance=0 line=3 level=1 nth=7 times=1", 11062, full_log, {bytes}, 0, ""},
      {"nvram-data-stuck instance=1 line=3 level=1",      11062, full_log,  {bytes},     0,   ""},
      {"nvram-cell-write-disturb instance=1 offset=16 bit=0", 11062, full_log, {bytes}, 0, "it acted while"},
      {"nvram-cell-transition instance=1 offset=16 bit=0 level=0", 11062, full_log, {bytes}, 0, "it acted while"},
      {"nvram-cell-read-deceptive instance=1 offset=0x12 bit=0", 11062, full_log, {},    0,   "POST never reads this cell twice"},
      {"nvram-cell-read-deceptive instance=1 offset=0x10 bit=0", 11062, full_log, {},    0,   ""},
      {"flash-addr-short line=17 other=20",               11062, full_log,  {},          0,   "the test of a sector accesses"},
      {"flash-addr-short line=15 other=20",               11062, full_log,  {},          0,   ""},
      // A walking one at 0xC0000, a walking zero at 0xC0020, 16 + 3 at 0x1FFF6, the line's number at 0x10.
      {"flash-cell-stuck offset=0xC0041 bit=0 level=0",   11062, full_log,  {},          0,   "POST compares a few words"},
      {"flash-cell-stuck offset=0xC0001 bit=7 level=0",   11062, full_log,  {},          0,   ""},
      {"flash-cell-read-disturb offset=0xC0020 bit=0",    11062, full_log,  {},          0,   "POST compares a few words"},
      {"flash-cell-read-disturb offset=0xC0020 bit=1",    11062, full_log,  {},          0,   ""},
      {"flash-cell-read-disturb offset=0x1FFF6 bit=3",    11062, full_log,  {},          0,   "POST compares a few words"},
      {"flash-cell-read-disturb offset=0x1FFF6 bit=4",    11062, full_log,  {},          0,   ""},
      {"flash-cell-read-disturb offset=0x10 bit=0",       11062, full_log,  {},          0,   ""},
      {"flash-slow",                                      11062, full_log,  {},          0,   "the chip was slow"},
      {"flash-slow",                                      11062, no_flash,  {},          0,   ""},
      {"flash-cfi word=0x20 value=1",                     11062, no_flash,  {},          0,   ""},
      {"flash-erase-hangs",                               11062, gave_up,   {sector},    0,   "once the chip has given up"},
      {"flash-erase-hangs",                               11062, gave_up,   {two_sectors}, 0, ""},
      {"flash-erase-hangs",                               11062, full_log,  {sector},    0,   ""},
      {"flash-addr-stuck line=3 level=0",                 11062, gave_up,   {two_sectors}, 0, "what is written goes to other addresses"},
      {"flash-addr-stuck line=16 level=0",                11062, full_log,  {two_sectors}, 0, "no two words"},
      {"flash-addr-stuck line=15 level=0",                11062, full_log,  {two_sectors}, 0, ""},
  };
  // clang-format on
  for (const auto &[fault, card, output, changes, status, expected] : cases) {
    auto evidence = evidence_of(output, output == gave_up ? records({"10:0"}) : full_records, status);
    evidence.changes = changes;
    const auto reason = lab::judge({fault, {card, "P1"}, lab::run_mode::full}, evidence).reason;
    EXPECT_TRUE(reason.starts_with(expected) && reason.empty() == expected.empty()) << fault << ": " << reason;
  }
}

// A cell that always fails there; a line that would have failed earlier if it were always bad.
TEST(score, counts_all_places_where_the_fault_prints_its_lines_only_at_times) {
  const auto log = lab::parse_run_log(
      "Executing Mod 1 1 NVRAM Test: .\n0x00000012: Expected 0xa Actual 0x2\n"
      "Failed above increment data pattern test for NVRAM 0\nERROR: Executing 8 on dev 0\n");
  const auto places = [&](const char *fault) { return lab::explain_result({fault, {}}, &log.runs.back(), {}).places; };
  EXPECT_EQ(places("nvram-cell-stuck instance=0 offset=0x12 bit=3 level=0"), 1U);
  EXPECT_GT(places("nvram-data-stuck instance=0 line=3 level=0 p=100"), 20U);
}

// ---- what post-locate names

TEST(campaign_location, compares_the_places_of_a_report_with_the_fault) {
  const auto report = [](const std::string &candidates) {
    return R"({"parts":[{"findings":[{"sentence":"Held by process 12 (x).","candidates":[)" + candidates + "]}]}]}";
  };
  const std::string nothing = R"({"parts":[{"findings":[]}]})";
  // clang-format off
  const std::array<std::string, 3> cases[] = {
      // fault                                             report or candidates                               answer
      {"nvram-addr-stuck instance=0 line=9 level=0",       R"("nvram-addr-stuck instance=0 line=9 level=0",
                                                              "nvram-addr-stuck instance=0 line=9 level=1")",   "named uniquely"},
      {"nvram-addr-short instance=0 line=10 other=9",      R"("nvram-addr-short instance=0 line=9 other=10")",  "named uniquely"},
      {"nvram-cell-coupled instance=0 offset=16 bit=0 victim=18 vbit=1",
                                                           R"("nvram-cell-stuck instance=0 offset=0x12 bit=1")", "named uniquely"},
      {"nvram-cell-stuck instance=0 offset=0x12 bit=1",    R"("nvram-cell-stuck instance=0 offset=0x10 bit=1")", "wrong place named"},
      {"nvram-data-stuck instance=0 line=3 level=0",       R"("nvram-data-stuck instance=0 line=3 level=0",
                                                              "nvram-data-short instance=0 line=3 other=4")",   "among 2 places"},
      {"nvram-data-stuck instance=0 line=3 level=0",       R"("nvram-data-stuck instance=1 line=3 level=0")",   "wrong place named"},
      {"bar-io bar=2",                                     R"("bar-missing bar=2")",                            "wrong place named"},
      {"flash-erase-hangs",                                R"("flash-erase-hangs sector=0")",                   "named uniquely"},
      {"flash-silent",                                     "",                                                  "found, not named"},
      {"flash-silent",                                     nothing,                                             "missed"},
      {"flash-silent",                                     "{}",                                                "no result"},
      {"",                                                 nothing,                                             "healthy, nothing found"},
      {"",                                                 R"("flash-silent")",                                 "wrong place named"},
  };
  // clang-format on
  for (const auto &[fault, told, title] : cases) {
    const lab::run_item run{fault, {}, lab::run_mode::full, 0};
    EXPECT_EQ(lab::judge_location(run, told.starts_with('{') ? told : report(told)).title(), title) << fault << told;
  }
  const lab::run_item silent{"flash-silent", {}, lab::run_mode::full, 0};
  EXPECT_EQ(lab::judge_location(silent, report("")).text, "Held by process (x).") << "the same in every run";
}

// ---- contents

std::string changes_of(const char *fault, const char *memory, std::span<const uint8_t> before,
                       std::span<const uint8_t> after) {
  const auto parsed = lab::fault_of({fault, {}, {}});
  lab::damage_map own(parsed ? &*parsed : nullptr);
  std::vector<lab::memory_change> changes;
  lab::compare_memory(memory, before, after, &own, &changes);
  std::string texts;
  for (const auto &change : changes)
    texts += change.text();
  return texts;
}

TEST(contents, tell_what_a_fault_destroys_from_what_else_is_lost) {
  using flips = std::vector<std::pair<size_t, uint8_t>>;  // offsets, and bits
  // clang-format off
  const struct { const char *fault, *memory; flips flipped; const char *text; } cases[] = {
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
  };
  // clang-format on
  const std::vector<uint8_t> before(0x40000, 0x5A);
  for (const auto &[fault, memory, flipped, text] : cases) {
    auto after = before;
    for (const auto &[offset, bits] : flipped)
      after[offset] ^= bits;
    EXPECT_EQ(changes_of(fault, memory, before, after), text) << fault;
  }
  // All that a memory held which is gone is lost.
  EXPECT_EQ(changes_of("", "nvram2", std::span(before).first(16), {}),
            "nvram2: 16 bytes, 0x0 to 0xf, 16 beyond the fault from 0x0");
}

// ---- the matrix

lab::run_result run_of(const std::string &fault, lab::outcome end, strings reported = {},
                       const std::string &reason = "") {
  lab::run_result run;
  run.what = {fault, {}, lab::run_mode::no_flash};
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
  lab::matrix all{{}, "own", "a <few> & \"some\"", {{"left-out", "nobody <has> it"}}, 1, {}, {}, {}};
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
  all.origin = {"post-campaign 1",         "post", 32, "abc", "bench x86_64", "2026-01-02T03:04:05Z",
                "post-campaign --from <a>"};
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
  timeless.forget_times();
  EXPECT_THAT(lab::matrix_to_json(timeless), Not(ContainsRegex("seconds|bench|2026|abc|--from")));
}

TEST(matrix, is_refused_when_it_is_none) {
  const auto text = lab::matrix_to_json(example());
  for (const std::string &wrong :
       {std::string(), std::string("{}"), std::string("[1]"), text.substr(0, text.size() / 2),
        edited(text, {{"post-campaign", "another"}}), edited(text, {{R"("outcome":"found")", R"("outcome":"lost")"}}),
        edited(text, {{R"("mode":"no-flash")", R"("mode":"long")"}}),
        edited(text, {{R"("fired":3)", R"("fired":"x")"}}),
        edited(text, {{R"("verdict":"failed")", R"("verdict":"<script>")"}}),
        edited(text, {{R"("nvram.0")", R"("nvram.7")"}}), edited(text, {{"because", "be\\u001bcause"}}),
        edited(text, {{R"("card":11062)", R"("card":70000)"}}),
        edited(text, {{R"("seconds":0.25)", R"("seconds":-1)"}}), edited(text, {{R"(,"seconds":0.25)", ""}}),
        edited(text, {{R"("seconds":0.25,"cpu_seconds":)", R"("x":)"}}),
        edited(text, {{R"("reason":"because")", R"("reason":"because","places":1)"}}),
        edited(text, {{R"("fired":3)", R"("fired":3,"fired":4)"}}),
        edited(text, {{R"("revision":"P1")", R"("revision":"<b>")"}}), edited(text, {{"bench", "be\\u009bnch"}})}) {
    ASSERT_FALSE(wrong.starts_with("nothing like it")) << wrong;
    std::string error;
    EXPECT_FALSE(lab::matrix_from_json(wrong, &error)) << wrong;
    EXPECT_NE(error, "");
  }
}

TEST(matrix, tells_every_change_against_a_former_one) {
  auto former = example();
  former.runs.push_back(former.runs[6]);  // asked for twice
  EXPECT_THAT(lab::changes_since(former, former), IsEmpty());
  auto now = former;
  now.runs[0] = run_of(now.runs[0].what.fault, lab::outcome::missed);
  now.runs[0].line = former.runs[0].line;
  now.runs[3].reported = {"nvram.0"};
  now.runs[5].what.fault = "pci-missing bus=4 dev=0 func=0";
  now.runs[1].fired = 99;
  now.runs[2].contents = "flash: 3 bytes";
  now.runs[4].line = "a line";
  const std::string board = " --card=11062 --revision=P1 --mode=no-flash: ";
  EXPECT_THAT(
      lab::changes_since(former, now),
      ElementsAre(
          "nvram-data-stuck instance=0 line=3 level=0" + board + "was found by the right device (nvram.0), is missed",
          "flash-addr-stuck line=16 level=1" + board +
              "changed contents: was \"flash: 2 bytes\", is \"flash: 3 bytes\"",
          "flash-addr-stuck line=15 level=1" + board +
              "was found, but blamed elsewhere (nvram.0, gige.1), is found, but blamed elsewhere (nvram.0)",
          "pci-missing bus=2 dev=0 func=0" + board + "first line: was nothing, is \"a line\"",
          "pci-missing bus=4 dev=0 func=0" + board + "new, not fired",
          "pci-missing bus=3 dev=0 func=0" + board + "not run, was not fired"));
  // Part of another space is compared run by run.
  now.space = "lines";
  EXPECT_THAT(lab::changes_since(former, now), SizeIs(4));
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
  EXPECT_FALSE(lab::is_accounted_for(run_of("a", lab::outcome::not_fired), "standard"));
}

TEST(matrix, has_intervals_as_the_tables_give_them) {
  const struct {
    size_t count, of;
    double low, high;
  } cases[] = {
      {0, 10, 0, 0.3085},      {10, 10, 0.6915, 1},       {0, 100, 0, 0.0362},          {0, 9604, 0, 0.00038},
      {2, 3, 0.2077, 0.93850}, {10, 100, 0.0552, 0.1744}, {4802, 9604, 0.4900, 0.5100},
  };
  for (const auto &[count, of, low, high] : cases) {
    EXPECT_NEAR(lab::interval_of(count, of).low, low, 5e-5) << count << " of " << of;
    EXPECT_NEAR(lab::interval_of(count, of).high, high, 5e-5) << count << " of " << of;
  }
}

TEST(matrix, gives_each_stratum_a_class_for_each_outcome) {
  lab::matrix all{{}, "transients", "", {}, 1, {}, {}, {}};
  for (const auto *const stratum : {"flash", "flash", "EEPROM"}) {
    all.runs.push_back(run_of("a nth=3", *stratum == 'E' ? lab::outcome::found : lab::outcome::missed));
    all.runs.back().what.stratum = stratum;
  }
  const auto again = lab::matrix_from_json(lab::matrix_to_json(all), nullptr).value();
  EXPECT_THAT(
      lab::matrix_summary(again, false),
      AllOf(HasSubstr("EEPROM\n  found by the right device: 1 of 1 (100.0 %), 2.5 % to 100.0 %\n  missed: 0 of 1"),
            HasSubstr("flash\n  found by the right device: 0 of 2 (0.0 %), 0.0 % to 84.2 %\n  missed: 2 of 2")));
}

TEST(matrix, rates_repeated_faults_by_the_runs_in_which_they_fired) {
  lab::matrix all{{}, "own", "", {}, 4, {}, {}, {}};
  const lab::outcome ends[] = {lab::outcome::not_fired, lab::outcome::missed, lab::outcome::found, lab::outcome::found};
  for (const auto *const fault : {"a p=1", "b p=1"})
    for (uint32_t i = 0; i < 4; ++i) {
      all.runs.push_back(run_of(fault, *fault == 'a' ? ends[i] : lab::outcome::not_fired));
      all.runs.back().what.repeat = i;
      all.runs.back().fired = all.runs.back().end == lab::outcome::not_fired ? 0 : 1;
    }
  const auto rates = lab::rates(all);
  ASSERT_THAT(rates, SizeIs(2));
  EXPECT_DOUBLE_EQ(rates[0].seconds_to_found.value_or(0), 0.75);
  EXPECT_THAT(lab::matrix_summary(all, false),
              AllOf(HasSubstr("a p=1: fired in 3 of 4 "), HasSubstr("b p=1: fired in 0 of 4 (0.0 %)\n"),
                    HasSubstr("found in 2 of 3 (66.7 %), 20.8 % to 93.9 %, first in run 3")));
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

const std::string read_junit = "python3 " + shell_word(LAB_TESTS_DIR "/read_junit.py");
const std::string read_page = "python3 " + shell_word(LAB_TESTS_DIR "/read_page.py");

// Elements of the page nest, nothing is fetched, and the matrix has a row for each run.
TEST(forms, have_a_case_or_a_row_for_each_run) {
  EXPECT_EQ(read_by(read_junit, lab::matrix_to_junit(example())),
            "nvram-data-stuck PASS\nnvram-data-stuck SKIP\nflash-addr-stuck SKIP\nflash-addr-stuck FAIL\n"
            "pci-missing ERROR\npci-missing ERROR\n--card=11062 PASS\n");
  EXPECT_EQ(read_by(read_page, lab::matrix_to_html(example())), "7 runs, 2 memories, 142 levels\n");
}

TEST(forms, junit_fits_its_schema_with_times_and_without) {
  auto timeless = example();
  timeless.forget_times();
  if (run_shell("/", "xmllint --version").status != 0) GTEST_SKIP() << "no xmllint here";
  for (const auto &matrix : {example(), timeless})
    (void)read_by("xmllint --noout --schema " + shell_word(LAB_TESTS_DIR "/junit.xsd"), lab::matrix_to_junit(matrix));
}

// What a text holds stays a text in every form.
TEST(forms, escape_every_text) {
  auto all = example();
  all.runs[0].line = "\x1b<script>\xEF\xBF\xBF\n&";
  all.runs[1].verdict = all.runs[1].reason = all.description = all.origin.command = "</td><script>";
  const auto junit = lab::matrix_to_junit(all);
  (void)read_by(read_junit, junit);
  const auto page = lab::matrix_to_html(all, {"<script>"});
  (void)read_by(read_page, page);
  for (const auto &form : {junit, page}) {
    EXPECT_THAT(form, HasSubstr("\\x1b&lt;script&gt;\\xef\\xbf\\xbf\n&amp;"));
    EXPECT_THAT(form, Not(AnyOf(HasSubstr("\x1b"), HasSubstr("&lt;/td><"))));
  }
  EXPECT_EQ(page.find("<script>"), page.rfind("<script>"));
}

TEST(forms, show_where_they_come_from_and_how_to_repeat_each_run) {
  const auto page = lab::matrix_to_html(example());
  EXPECT_THAT(page, AllOf(HasSubstr("commit: abc"), HasSubstr("word size: 32 bits"),
                          HasSubstr("board-sim --card 11062 --revision P1 --waits short --fault "
                                    "'nvram-data-stuck instance=0 line=3 level=0' --fault "
                                    "'flash-erase-hangs sector=6'</code>"),
                          HasSubstr("<td>NVRAM lines</td><td>1 of 2 (50.0 %)</td>")));
  EXPECT_THAT(lab::matrix_to_junit(example()),
              AllOf(HasSubstr("timestamp=\"2026-01-02T03:04:05Z\" hostname=\"bench\""),
                    HasSubstr("<property name=\"command\" value=\"post-campaign --from &lt;a&gt;\">")));
  auto right = run_of("flash-silent", lab::outcome::damaged, {"obfl.0"});
  right.right = true;
  EXPECT_EQ(lab::mark_of(right), "\u2713!");
}

TEST(forms, fit_a_terminal_of_80_columns) {
  const auto table = lab::matrix_table(example(), 40, false);
  EXPECT_THAT(table, HasSubstr("\n\u2713  nvram-data-stuck instance=0 line=3 le\n"));
  EXPECT_THAT(lab::matrix_table(example(), 0, true), HasSubstr("no-flash  3 "));
  EXPECT_THAT(lab::matrix_summary(example(), false),
              AllOf(HasSubstr("1 missed: because\n1 other"), HasSubstr("1 hung: unexplained\n  pci-missing bus=2")));
}

// ---- shards

lab::matrix whole_of(size_t runs) {
  constexpr lab::run_mode modes[] = {lab::run_mode::short_test, lab::run_mode::no_flash, lab::run_mode::full};
  auto all = example();
  all.forget_times();
  all.runs.clear();
  for (size_t i = 0; i < runs; ++i) {
    all.runs.push_back(run_of("flash-data-stuck line=" + std::to_string(i), lab::outcome::missed));
    all.runs.back().what.mode = modes[(i * i) % 3];
  }
  return all;
}

std::vector<lab::run_item> items_of(const lab::matrix &all) {
  std::vector<lab::run_item> items;
  std::ranges::transform(all.runs, std::back_inserter(items), &lab::run_result::what);
  return items;
}

using named_parts = std::vector<std::pair<std::string, lab::matrix>>;

// As they are read from files.
named_parts parts_of(const lab::matrix &all, size_t shards) {
  named_parts parts;
  const auto positions = lab::split(items_of(all), shards);
  for (size_t i = 0; i < shards; ++i) {
    auto part = all;
    part.part = {i + 1, shards, lab::plan_identity(items_of(all), {"a", "b"}), all.runs.size(), positions[i]};
    part.runs.clear();
    for (const auto at : positions[i])
      part.runs.push_back(all.runs[at]);
    std::string error;
    parts.emplace_back(std::to_string(i + 1), lab::matrix_from_json(lab::matrix_to_json(part), &error).value());
  }
  return parts;
}

TEST(shards, cost_the_same_and_make_the_whole_again) {
  const auto all = whole_of(805);
  for (const size_t count : std::initializer_list<size_t>{1, 2, 7, 64, 10'000}) {
    const auto parts = parts_of(all, count);
    double sum = 0;
    double most = 0;
    for (const auto &[name, part] : parts) {
      double cost = 0;
      for (const auto &run : part.runs)
        cost += lab::expected_seconds(run.what.mode);
      sum += cost;
      most = std::max(most, cost);
    }
    EXPECT_TRUE(count > 805 || most <= 1.1 * sum / static_cast<double>(count)) << count;
    std::string error;
    const auto merged = lab::merge(parts, &error);
    ASSERT_TRUE(merged) << error;
    EXPECT_EQ(lab::matrix_to_json(*merged), lab::matrix_to_json(all)) << count;
  }
}

TEST(shards, that_do_not_belong_together_are_refused) {
  const auto parts = parts_of(whole_of(5), 6);  // the last one is empty
  const struct {
    void (*change)(named_parts *);
    const char *error;
  } cases[] = {
      // clang-format off
      {[](auto *p) { p->erase(p->begin() + 1); },                    "missing of 5 runs, by their line in --list: .*; no matrix was given of shard 2 of 6"},
      {[](auto *p) { p->at(2).second.part.reset(); },                "3: no shard, but a whole matrix"},
      {[](auto *p) { p->emplace_back("again", p->at(1).second); },   ".* is in 2 and in again"},
      {[](auto *p) { p->emplace_back("again", p->at(5).second); },   "shard 6 is in 6 and in again"},
      {[](auto *p) { p->at(1).second.part->plan = "x"; },            "2: made with other programs, or of other runs"},
      {[](auto *p) { p->at(1).second.origin.word_bits = 64; },       "2: made by or of another program"},
      {[](auto *p) { p->at(1).second.space = "lines"; },             "2: another fault space"},
      {[](auto *p) { p->at(1).second.left_out.clear(); },            "2: another fault space"},
      {[](auto *p) { p->at(1).second.part->of = 4; },                "2: a shard of another number of shards"},
      {[](auto *p) { p->at(1).second.runs[0] = p->at(2).second.runs[0]; }, "the runs are not .* was changed; twice: flash-.*, as run . and run ."},
      {[](auto *p) { p->at(1).second.runs[0].what.stratum = "other"; }, "the runs are not those of the plan: .* was changed"},
      {[](auto *p) { std::swap(p->at(1).second.part->positions, p->at(2).second.part->positions); }, "the runs are not .* was changed"},
      {[](auto *p) {
         std::string error;
         p->at(1).second = *lab::matrix_from_json(edited(lab::matrix_to_json(p->at(1).second), {{"missed\",\"fired", "hung\",\"fired"}}), &error);
       }, "2: its runs are not those that were written"},
      // clang-format on
  };
  for (const auto &[change, expected] : cases) {
    auto changed = parts;
    change(&changed);
    std::string error;
    EXPECT_FALSE(lab::merge(std::move(changed), &error)) << expected;
    EXPECT_THAT(error, MatchesRegex(expected));
  }
}

TEST(shards, are_numbered_by_the_user_or_the_environment) {
  using variables = std::vector<std::pair<const char *, const char *>>;
  const struct {
    const char *option;
    variables environment;
    const char *shard;
  } cases[] = {
      {"2/7", {}, "2/7"},
      {"0/7", {}, ""},
      {"", {}, ""},
      {"08/10", {}, "8/10"},
      {"auto", {}, ""},
      {"auto", {{"TEST_SHARD_INDEX", "0"}, {"TEST_TOTAL_SHARDS", "4"}}, "1/4"},
      {"auto", {{"GTEST_SHARD_INDEX", "3"}, {"GTEST_TOTAL_SHARDS", "4"}}, "4/4"},
      {"auto", {{"GTEST_SHARD_INDEX", "4"}, {"GTEST_TOTAL_SHARDS", "4"}}, ""},
      {"auto", {{"SLURM_ARRAY_TASK_ID", "5"}, {"SLURM_ARRAY_TASK_COUNT", "7"}, {"SLURM_ARRAY_TASK_MIN", "1"}}, "5/7"},
      {"auto", {{"SLURM_ARRAY_TASK_ID", "5"}, {"SLURM_ARRAY_TASK_COUNT", "7"}, {"SLURM_ARRAY_TASK_MIN", "x"}}, ""},
      {"auto",
       {{"SLURM_ARRAY_TASK_ID", "4"},
        {"SLURM_ARRAY_TASK_COUNT", "3"},
        {"SLURM_ARRAY_TASK_MIN", "0"},
        {"SLURM_ARRAY_TASK_STEP", "2"}},
       "3/3"},
      {"auto", {{"CI_NODE_INDEX", "2"}, {"CI_NODE_TOTAL", "3"}}, "2/3"},
      {"auto", {{"CI_NODE_INDEX", "x"}, {"CI_NODE_TOTAL", "3"}}, ""},
  };
  for (const auto &[text, environment, expected] : cases) {
    for (const auto &[name, value] : environment)
      setenv(name, value, 1);
    std::string error;
    const auto shard = lab::parse_shard(text, &error);
    EXPECT_EQ(shard ? std::to_string(shard->number) + "/" + std::to_string(shard->of) : "", expected) << text;
    EXPECT_EQ(error.empty(), shard.has_value());
    for (const auto &[name, value] : environment)
      unsetenv(name);
  }
}

// A log gets a line once the time between two is over, never the terminal's control characters.
TEST(campaign_table, says_in_a_log_how_far_it_is) {
  const std::vector<lab::run_item> left(2, {"sprom-absent", {}, lab::run_mode::full, 0});
  for (const auto &[between, expected] : {std::pair{0,
                                                    "1 of 2 done, 1 found, 0 missed, 0:04 left\n"
                                                    "2 of 2 done, 1 found, 1 missed, 0:00 left\n"},
                                          std::pair{3600, ""}}) {
    testing::internal::CaptureStderr();
    lab::live_line live(left, 1, std::chrono::seconds(between));
    for (const auto end : {lab::outcome::found, lab::outcome::missed}) {
      auto run = run_of("sprom-absent", end, end == lab::outcome::found ? strings{"seeprom.0"} : strings{});
      run.what.mode = lab::run_mode::full;
      run.seconds = 4;
      live.add(run);
    }
    live.end();
    EXPECT_EQ(testing::internal::GetCapturedStderr(), expected);
  }
}

}  // namespace
