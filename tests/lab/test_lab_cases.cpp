// What records and output together say of each device, and what they do not say.
#include "tests/lab/lab_texts.h"

namespace {

constexpr char all_pass[] = "PPS PPPP P P PPPPPPP";
constexpr char all_error[] = "EEE EEEE E E EEEEEEE";
constexpr char no_card[] = "without a known card the rows seeprom and pcie compare nothing";
const std::string full = full_records;
const std::string log = full_log;
const std::string no_sprom = edited(full, {{"0:4:0:1\n0:4:1:1\n", ""}});

struct merge_case {
  const char *name;
  std::string records;
  std::string log;  // "-" for none
  std::string expected;
  std::string warning = {};
  // The reason of one case's result.
  size_t index = 0;
  const char *reason = nullptr;
};

lab::report merged(const merge_case &one) {
  if (one.log != "-") return last_run(one.records, one.log);
  const auto list = lab::parse_records(one.records);
  const auto pairs = lab::pair_runs(list.records, {});
  return lab::make_report(pairs.empty() ? std::vector<lab::record>{} : pairs.back().records, nullptr);
}

void check(std::span<const merge_case> cases) {
  for (const merge_case &one : cases) {
    SCOPED_TRACE(one.name);
    const lab::report report = merged(one);
    EXPECT_EQ(letters(report), one.expected);
    EXPECT_EQ(joined(report.warnings), one.warning);
    EXPECT_EQ(report.clean(), one.expected.find_first_of("FE") == std::string::npos && one.warning.empty());
    if (one.reason != nullptr) {
      EXPECT_STREQ(report.cases[one.index].reason.c_str(), one.reason);
    }
    for (const lab::test_case &device : report.cases) {
      const bool needs_reason = device.result == lab::verdict::skip || device.result == lab::verdict::error;
      EXPECT_FALSE(needs_reason && device.reason.empty()) << device.name();
    }
  }
}

TEST(records_alone, pass_only_what_they_hold) {
  // clang-format off
  const merge_case cases[] = {
      {"a full run",          full,  "-", all_pass},
      {"a short run",         short_records, "-", "PPS PPPP S S PPPPPPP"},
      {"nothing",             "",    "-", all_error},
      {"failures",            edited(full, {{"0:5:2:1", "0:5:2:2"}, {"0:12:6:1", "0:12:6:2"}}), "-", "PPS PPFP P P PPPPPPF"},
      {"one is missing",      edited(full, {{"0:12:2:1\n", ""}}), "-", "PPS PPPP P P PPEPPPP"},
      {"one SPROM is missing", edited(full, {{"0:4:1:1\n", ""}}), "-", "PES PPPP P P PPPPPPP"},
      {"no SPROM at all",     no_sprom, "-", "SSS PPPP P P PPPPPPP", no_card},
      {"it ends in the SEEPROM row", "0:4:0:1\n",            "-", "PEE EEEE E E EEEEEEE"},
      {"it ends in front of NVRAM",  until(full, "0:8"),     "-", "PPS PPPP E E EEEEEEE"},
      {"it ends after others", full + until(short_records, "0:5:2"), "-", "PPS PPEE E E EEEEEEE"},
  };
  // clang-format on
  check(cases);
}

TEST(records_and_log, pass_only_what_neither_contradicts) {
  const std::string failed =
      edited(log, {{"..done (2", "\n ERROR: Executing 5 on dev 1\n..done (2"}, {"Completed Successfully", "Failed"}});
  const std::string short_log = until(log, "  Executing Mod 1 1 NVRAM") + from(log, "  Executing Mod 1 1 PCIE");
  const std::string no_driver = "Error in opening /dev/sprom for reading. Default card_index to 65535\n";
  const std::string driverless = edited(log, {{"...done", "." + no_driver + "." + no_driver + ".done"}});
  const std::string unknown = edited(log, {{".......", ".Invalid card detected\n......"}});
  // clang-format off
  const merge_case cases[] = {
      {"a full run",                  full,          log,       all_pass, "", 2, "there is nothing to test"},
      {"a short run",                 short_records, short_log, "PPS PPPP S S PPPPPPP"},
      {"failure in both",             edited(full, {{"0:5:1:1", "0:5:1:2"}}), failed, "PPS PFPP P P PPPPPPP", "", 4, ""},
      {"failure in the log alone",    full, failed, "PPS PFPP P P PPPPPPP", "", 4, "its record says pass"},
      {"failure without a record",    edited(full, {{"0:5:1:1\n", ""}}), failed, "PPS PFPP P P PPPPPPP", "", 4, "its record is missing"},
      {"failure in the records alone", edited(full, {{"0:5:1:1", "0:5:1:2"}}), log, "PPS PFPP P P PPPPPPP",
       "the run printed Completed Successfully, but devices failed", 4, "the log has no ERROR line of it"},
      {"failure of no device",        full, edited(log, {{"Completed Successfully", "Failed"}}), all_pass,
       "the run printed Failed, but no device did"},
      {"no verdict",                  full, edited(log, {{"Mod 1 1 Post ", ""}}), all_pass, "the log does not show the run's verdict"},
      {"a record is missing",         edited(full, {{"0:10:0:1\n", ""}}), log, "PPS PPPP P E PPPPPPP", "", 8, "its record is missing"},
      {"no records",                  "", log, "EES EEEE E E EEEEEEE"},
      {"a record could not be written", edited(full, {{"0:12:0:1\n", ""}}),
       edited(log, {{".......", ".Could not open file post_results.txt\nERROR: Failed to open /post/result (0)\n......"}}),
       "PPS PPPP P P EPPPPPP", "", 9, "its record could not be written"},
      {"no record could be written, after a dead run", "0:12:0:1\n",
       edited(log, {{".......", ".Could not open file post_results.txt\n......"}}), "EES EEEE E E EEEEEEE"},
      {"no record could be written, time stamps, records of others", full, "10:00 " + edited(log, {{".......", "10:00 .Could not open file post_results.txt\n......"}}),
       "EES EEEE E E EEEEEEE"},
      {"no SPROM driver",             no_sprom, driverless, "SSS PPPP P P PPPPPPP", no_card},
      {"no SPROM driver, after a dead run", "0:4:0:1\n" + no_sprom, driverless, "SSS PPPP P P PPPPPPP", no_card},
      {"an unknown card",             no_sprom, unknown, "SSS PPPP P P PPPPPPP", no_card},
      {"a title of the log is missing", full, edited(log, {{"  Executing Mod 1 1 OBFL Test: \n.done (61 seconds)\n", ""}}), all_pass, "", 8, "the log does not show it"},
      {"a short log, a full run's records", full, short_log, "EES EEEE S S PPPPPPP"},
      {"only the log's end, a failure before", edited(full, {{"0:8:0:1", "0:8:0:2"}}), edited(from(log, "  Executing Mod 1 1 PCIE"), {{"Completed Successfully", "Failed"}}),
       "PPS PPPP F P PPPPPPP", "", 7, "the log has no ERROR line of it"},
      {"lines of two rows are missing", until(full, "0:5:2") + from(full, "0:12"), until(log, "done (2") + from(log, "  Executing Mod 1 1 PCIE"), "PPS PPEE E E PPPPPPP"},
      {"the log's end is missing",    full, until(log, "POST is"), all_pass, "the log of the run ends after the row pcie"},
      {"the log is of no run",        full, "login:\n", all_pass},
  };
  // clang-format on
  check(cases);
}

// Wherever the run stopped: its own records go that far, and those of the runs before it are never taken for its own.
TEST(records_and_log, of_a_dead_run_pass_nothing_behind_its_end) {
  const std::string in_nvram = through(log, "NVRAM Test: \n.");
  const std::string in_first = through(log, "SEEPROM Test: \n.");
  const std::string dead_in_first = "PEE EEEE E E EEEEEEE";
  constexpr char nvram[] = "PPS PPPP E E EEEEEEE";
  // clang-format off
  const merge_case cases[] = {
      {"before it has started",       full,                       "devmemfd:0x3\nx: Assertion `len' failed.\n", all_error,
       "the run ended before it had started; an assertion ended the run"},
      {"before the first row",        full,                       through(log, "board"), all_error, "the run ended before the first row"},
      {"in its first device",         full,                       in_first, all_error, "the run ended in seeprom.0"},
      {"in its second device",        full + "0:4:0:1\n",         in_first + ".", dead_in_first, "the run ended in seeprom.1"},
      {"in NVRAM",                    until(full, "0:8"),         in_nvram, nvram, "the run ended in nvram.0", 15, "the run ended in nvram.0"},
      {"in NVRAM after a full run",   full + until(full, "0:8"),  in_nvram, nvram, "the run ended in nvram.0"},
      {"in NVRAM, with its record",   through(full, "0:8:0:1\n"), in_nvram, nvram, "the run ended in nvram.0"},
      {"in NVRAM, records of others", full,                       in_nvram, "EES EEEE E E EEEEEEE", "the run ended in nvram.0"},
      {"behind a failure",            edited(through(full, "0:8:0:1\n"), {{"0:8:0:1", "0:8:0:2"}}),
       in_nvram + "\n ERROR: Executing 8 on dev 0\n", "PPS PPPP F E EEEEEEE", "the log of the run ends after the row nvram"},
      {"after one that ended",        full + until(full, "0:8"),  log + in_nvram, nvram, "the run ended in nvram.0"},
      {"before one that ended",       until(full, "0:8") + full,  in_nvram + log, all_pass},
  };
  // clang-format on
  check(cases);
}

TEST(records_and_log, of_a_log_cut_anywhere_pass_no_device_that_it_does_not_show) {
  for (size_t size = 0; size < log.find("completed\n"); ++size) {
    const std::string cut = log.substr(0, size);
    const lab::log_file read = lab::parse_run_log(cut);
    if (read.runs.empty()) continue;
    // Of a run that went on, of one that ended here, and of one before it.
    for (size_t end = 0; end <= full.size(); end += 8) {
      const lab::report report = last_run(full.substr(0, end), cut);
      EXPECT_FALSE(report.clean()) << cut;
      const auto shown = [&](const lab::test_case &one) {
        return one.result != lab::verdict::pass ||
               read.runs[0].devices[*lab::case_index(lab::rows[one.row].test_id, one.device)].ended;
      };
      EXPECT_TRUE(std::ranges::all_of(report.cases, shown)) << letters(report) << "\n" << cut;
    }
  }
}

TEST(runs, are_paired_from_the_last_one_back) {
  const auto list = lab::parse_records(full + until(full, "0:5:1") + short_records + full);
  const lab::log_file logs = lab::parse_run_log(through(full_log, "GigE Port Test: \n..") + "\n" +
                                                through(full_log, "POST.....") + "\n" + full_log);
  const auto without = lab::pair_runs(list.records, {});
  ASSERT_EQ(without.size(), 4U);
  EXPECT_EQ(without[1].records.size(), 3U);

  // The first log cannot own records of the PCIe row, which the run before it has written.
  const auto pairs = lab::pair_runs(list.records, logs.runs);
  std::vector<std::pair<size_t, bool>> sizes;
  for (const lab::run_pair &pair : pairs)
    sizes.emplace_back(pair.records.size(), pair.log != nullptr);
  EXPECT_THAT(sizes, ElementsAre(std::pair(15, false), std::pair(3, false), std::pair(13, false), std::pair(0, true),
                                 std::pair(0, true), std::pair(15, true)));
}

// Records that a caller takes for those of a run, against its log.
TEST(cases, of_rows_that_the_log_leaves_out_are_not_known) {
  const lab::log_file brief = lab::parse_run_log(edited(full_log, {{"NVRAM", ""}, {"OBFL", ""}}));
  const auto list = lab::parse_records(full_records);
  const std::vector<lab::record> records(list.records.begin(), list.records.end());
  const lab::report report = lab::make_report(records, &brief.runs.at(0));
  EXPECT_EQ(letters(report), "PPS PPPP E E PPPPPPP");
  EXPECT_EQ(report.cases[7].reason, "a record, although the log shows a short test");
}

TEST(cases, carry_the_messages_of_the_log) {
  const auto report =
      last_run(full_records, edited(full_log, {{"....done", "..Fail\n..done"}, {"board\n", "board\nodd\n"}}));
  ASSERT_EQ(report.cases[4].messages.kept.size(), 1U);
  EXPECT_EQ(report.cases[4].messages.kept[0].text, "Fail");
  EXPECT_THAT(report.cases[5].messages.kept, IsEmpty());
  ASSERT_EQ(report.messages.kept.size(), 1U) << "the usual lines of a start are none";
  EXPECT_EQ(report.messages.kept[0].text, "odd");
}

}  // namespace
