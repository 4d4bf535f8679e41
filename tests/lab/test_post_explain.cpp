// The program post-explain on runs of the simulated board and on damaged logs.
#include "tests/lab/lab_texts.h"
#include "tests/support/run.h"

namespace {

class post_explain : public in_directory {
 protected:
  // The headlines of a stored log, a line each, with their state before them. Only a run that passed is no finding.
  [[nodiscard]] std::string headlines(const std::string &name) const {
    const outcome told = sh("post-explain --json " + name + R"( >json; status=$?; <json python3 -c '
import json, sys
for run in json.load(sys.stdin)["files"][0]["runs"]:
    print(run["state"], *[found["headline"] for found in run["findings"]], sep="\n")
    if run["unknown_lines"]:
        print("unknown:", run["unknown_lines"])'; exit $status)");
    EXPECT_EQ(told.err, "");
    EXPECT_EQ(told.status, told.out == "passed\n" ? 0 : 1);
    return told.out;
  }
};

const std::string cell =
    "NVRAM 0: count: wrote 0x091c at 0x1236, read 0x0918: cell 0x1236 bit 2; if it comes and goes, also data line D2, "
    "or "
    "data lines D2 and one of D0, D1, or data lines D2 and one of D5..D7, D9, D10, D12..D15, or address lines A3 and "
    "A4\n";

// Ends the flash row in its first sector, so that a run is short.
const std::string cut = "flash-erase-hangs sector=6";

TEST_F(post_explain, names_the_part_of_a_run_on_the_board) {
  // Arguments of board-sim, and what is explained.
  // clang-format off
  const std::pair<std::string, std::string> cases[] = {
      {"-- -s", "passed\n"},
      {"--card 11061 --revision P0 --fault 'pci-missing bus=1 dev=0 func=3' -- -s",
       "failed\nPCI function 01:00.3: missing, or not 8086:0436 (Intel Gigabit Ethernet Controller)\n"},
      {"--fault 'sprom-corrupt image=sup block=main' -- -s",
       "failed\nsupervisor SPROM: main block damaged: checksum 0x0130 where 0x022f is right: a byte of this block, or of its checksum\n"},
      {"--fault mem-absent -- -s", "ended early, by an assertion\n/dev/mem: cannot be opened (errno 2)\n"},
      {"--card 11079 --fault 'ethtool-fail port=eth2 test=loopback' --fault 'nvram-cell-stuck instance=0 offset=0x1236 bit=2 level=0' --fault flash-silent",
       "failed\neth2: loopback sub-test failed (1)\n" + cell +
       "flash: sector 6: wrote 0x0001 at 0xc0000; read 0xffff: another part (the log does not show which; post-locate measures it)\n"},
      {"--fault 'flash-power-cut nth=100'",
       "did not come to its end\nthe run: ended within the flash test without a line: the log was cut, or power, reset or a kill; what the "
       "sector under test held may be lost\n"},
      {"-- /bin/sh -c 'kill -9 $$'", ""},
  };
  // clang-format on
  for (const auto &[args, text] : cases) {
    (void)sh("rm -rf state; board-sim --state state " + args + " >log 2>&1");
    EXPECT_EQ(headlines("log"), text) << load("log");
  }
}

TEST_F(post_explain, prints_evidence_candidates_and_what_next) {
  const temp_dir state;
  save("log", run_board(state.path(), {"--fault", "nvram-addr-short instance=0 line=7 other=8", "--fault", cut}).out);
  const outcome told = sh("post-explain log");
  expect_run(told, 1, StartsWith(R"(log: run 1, lines 1 to 30: failed

NVRAM 0: walking one over the address lines: wrote 0xaaaa at 0x80, read 0x5555: address line A7, or address lines A7 and one of A8..A14; if it comes and goes, also address lines A7 and one of A1..A6
  line 16: 0x00000080: Expected 0xaaaa Actual 0x5555
  line 17: Failed above Addr Bus Walking 1 Test for NVRAM 0, address 0x80
  Can come from:
    address line A7: stuck at 0; stuck at 1
      nvram-addr-stuck instance=0 line=7 level=0
    address lines A7 and one of A8..A14: shorted, 0 wins
      nvram-addr-short instance=0 line=7 other=8..14 wins=0
  or, if it comes and goes, from:
    address lines A7 and one of A1..A6: shorted, 0 wins; shorted, 1 wins
      nvram-addr-short instance=0 line=1..6 other=7 wins=0
)"));
  EXPECT_THAT(told.out, HasSubstr("  To decide: Run post-locate nvram0 on the board: it measures which place it is.\n"
                                  "             Measure the line against its neighbour"));
  EXPECT_THAT(told.out, Not(HasSubstr("Not known")));
}

TEST_F(post_explain, guesses_nothing_from_damaged_and_foreign_logs) {
  const std::string mismatch = "0x00001236: Expected 0x91c Actual 0x918\n";
  const std::string failure = "Failed above increment data pattern test for NVRAM 0\n";
  const auto with = [](const std::string &text, const std::string &error = " ERROR: Executing 8 on dev 0\n") {
    return edited(full_log,
                  {{"NVRAM Test: \n.", "NVRAM Test: \n." + text + "\n" + error}, {"Completed Successfully", "Failed"}});
  };
  // clang-format off
  const std::array<std::string, 3> cases[] = {
      {"as it is",           with(mismatch + failure), "failed\n" + cell},
      {"kernel's lines in it", with(mismatch + "[ 12.3] eth0: link up\n" + failure), "failed\n" + cell + "unknown: 1\n"},
      {"kernel's lines in ethtool's", edited(full_log,
        {{"GigE Port Test: \n.", "GigE Port Test: \n.ethtool -t eth0\nThe test result is FAIL\n[ 1.2] eth0: link up\n"
          "Loopback test  (offline)\t 1\n\n ERROR: Executing 5 on dev 0\n"}, {"Completed Successfully", "Failed"}}),
       "failed\neth0: loopback sub-test failed (1)\nunknown: 1\n"},
      {"two runs",           with(mismatch + failure) + "login:\n" + full_log, "failed\n" + cell + "passed\n"},
      {"cut after the mismatch", through(with(mismatch + failure), mismatch),
       "did not come to its end\nNVRAM: wrote 0x091c at 0x1236, read 0x0918: cell 0x1236 bit 2; if it comes and goes, also data "
       "line D2, or shorted data lines, or one of the address lines A1..A14, or shorted address lines\n"
       "the run: it did not come to its end, in nvram.0\n"},
      {"cut in a number",    until(with(mismatch + failure), "8\nFailed"),
       "did not come to its end\nthe run: ended within the NVRAM test without a line: the log was cut, or power, reset or "
       "a kill; what the instance under test held may be lost\n"},
      {"killed at the start", "devmemfd:0x3\n",
       "did not come to its end\nthe run: it did not come to its end, before the first test\n"},
      {"an unknown assertion", "devmemfd:0x3\npost: a.cpp:1: f: Assertion `g' failed.\n",
       "ended early, by an assertion\nthe run: an assertion ended it, before the first test\nunknown: 1\n"},
      {"an unknown assertion after a failure", until(with(mismatch + failure), "\n ERROR") + "\npost: a.cpp:1: f: Assertion `g' failed.\n",
       "ended early, by an assertion\n" + cell + "the run: an assertion ended it, in nvram.0\nunknown: 1\n"},
      {"a signal",           until(full_log, "done (1 ") + "board-sim: post was ended by signal 11 (Segmentation fault)\n",
       "did not come to its end\nthe run: a signal ended it, in nvram.0\nunknown: 1\n"},
      {"of no fault that lasts", with("0x00003c1c: Expected 0x1e0f Actual 0xe1f4\n" + failure),
       "failed\nNVRAM 0: count: wrote 0x1e0f at 0x3c1c, read 0xe1f4: if it comes and goes, address line A3, or shorted "
       "address lines\n"},
      {"no such check",      with("0x00001236: Expected 0x1 Actual 0x0\n" + failure),
       "failed\nNVRAM 0: not known: count: wrote 0x0001 at 0x1236, read 0x0000: no check of the test prints this\n"},
      {"without its mismatch", with(failure),
       "failed\nNVRAM 0: count: a word reads wrong: the line with the words is missing\n"},
      {"an unknown text",    with("the lamp is broken\n"),
       "failed\nNVRAM: not known: failed, and none of its lines is known\nunknown: 1\n"},
      {"without its error",  edited(full_log, {{"Completed Successfully", "Failed"}}),
       "failed\nthe run: not known: its verdict is failed, and no device shows it: lines are missing\n"},
      {"no text",            with(""),
       "failed\nNVRAM: not known: failed, and none of its lines is known\n"},
      {"of no run",          "login\n\xff\x01 0x0000: Expected\n", ""},
      {"empty",              "", ""},
  };
  // clang-format on
  for (const auto &[name, log, text] : cases) {
    SCOPED_TRACE(name);
    save("log", log);
    EXPECT_EQ(headlines("log"), text);
  }
  save("log", "one\ntwo");
  EXPECT_THAT(sh("post-explain log").out, EndsWith("\nNote: line 2: the log stops within this line\n"
                                                   "Note: lines 1 to 2: of no run\n"));
}

TEST_F(post_explain, reads_records_beside_the_log_or_alone) {
  save("log", full_log);
  save("result", full_records);
  save("failed", edited(full_records, {{"0:8:0:1", "0:8:0:2"}}));
  EXPECT_EQ(sh("post-explain --records result log").status, 0);
  expect_run(sh("post-explain --records failed"), 1,
             HasSubstr("NVRAM: not known: its record says that it failed; what it printed is missing"));
}

TEST_F(post_explain, needs_bounded_memory) {
  // 100 MB of lines, and one of 50 MB, in 64 MB of address space beyond the program's own.
  save("log", full_log);
  expect_run(sh(memory_limit(150000) + "{ yes 'a line of noise' | head -c 100000000;"
                                       " head -c 50000000 /dev/zero; echo; cat log; } | post-explain"),
             0, HasSubstr("standard input: run 1, lines 6250002 to 6250017: passed\n"));
}

TEST_F(post_explain, ends_with_its_status_and_says_why) {
  save("good", full_log);
  save("my log", edited(full_log, {{"OBFL Test: \n.", "OBFL Test: \n.\n ERROR: Executing 10 on dev 0\n"}}));
  // Status, and a part of the errors.
  // clang-format off
  expect_endings("post-explain", {
      {"good",                         0, ""},
      {"- <good",                      0, ""},
      {"<'my log'",                    1, ""},
      {"good 'my log'",                1, ""},
      {"--all -- 'my log'",            1, ""},
      {"--run=1 good",                 0, ""},
      {"--run 2 good",                 2, "good: there is no run 2"},
      {"--run 0 good",                 2, "--run"},
      {"--json --all good",            2, "--all"},
      {"no-such-file",                 2, "no-such-file: No such file or directory"},
      {".",                            2, ".: Is a directory"},
      {"--records . good",             2, ".: Is a directory"},
      {"--records good good 'my log'", 2, "records belong to one file of runs"},
      {"good >/dev/full",              2, "standard output: No space left on device"},
      {"--version",                    0, ""},
  });
  // clang-format on
}

}  // namespace
