// Whole campaigns, as a user starts them.
#include "tests/support/run.h"
#include "tests/support/text.h"

namespace {

// One fault for each outcome, in the fewest rows that show it.
constexpr const char *small_space =
    "# faults of every outcome\n"
    "pci-missing bus=2 dev=0 func=0\n"
    "--card=11061 --revision=P0 pci-missing bus=1 dev=0 func=3\n"
    "  \n"
    "sprom-refuse\n"
    "sprom-absent\n"
    "mem-absent\n"
    "iopl-refused\n"
    "pci-missing bus=0x77 dev=0 func=0\n"
    "nvram-data-stuck instance=1 line=3 level=0\n"
    "nvram-cell-stuck instance=0 offset=0x7FFF bit=7 level=1\n"
    "flash-erase-leaves offset=0xC0000 bit=0\n"
    // It begins with the flash that the one before has damaged, and is found to damage nothing.
    "flash-data-stuck line=0 level=0\n";

// What the matrix says of each: fired (how often is the board's affair) or not, verdict, reported, line, status,
// contents and reason.
constexpr const char *small_runs[] = {
    R"("found","fired":N,"fired_more":false,"verdict":"failed","reported":["pcie.0"],"right_device":true,"line":"## Failed: PCI device - Intel 82576EB Gigabit Ethernet Controller","status":0,"contents":"","reason":"")",
    R"("found","fired":N,"fired_more":false,"verdict":"failed","reported":["pcie.5"],"right_device":true,"line":"## Failed: PCI device - Intel Gigabit Ethernet Controller","status":0,"contents":"","reason":"")",
    R"("missed","fired":N,"fired_more":false,"verdict":"passed","reported":[],"right_device":false,"line":"Invalid card detected","status":0,"contents":"","reason":"the driver refused)",
    R"("blamed","fired":N,"fired_more":false,"verdict":"failed","reported":["gige.0","gige.1","gige.2","gige.3"],"right_device":false,"line":"Error in opening /dev/sprom for reading. Default card_index to 65535","status":0,"contents":"","reason":"POST has no test of the identification driver)",
    R"("ended","fired":N,"fired_more":false,"verdict":"none","reported":[],"right_device":false,"line":"mmap_map_addr(): failed)",
    R"("not-fired","fired":0,"fired_more":false,"verdict":"passed","reported":[],"right_device":false,"line":"","status":0,"contents":"","reason":"")",
    R"("refused","fired":null,"fired_more":false,"verdict":"none","reported":[],"right_device":false,"line":"board-sim: fault 'pci-missing bus=0x77 dev=0 func=0': the board has no such PCI function","status":2,"contents":"","reason":"")",
    R"("found","fired":N,"fired_more":false,"verdict":"failed","reported":["nvram.0"],"right_device":true,"line":"0x00000000: Expected 0x8 Actual 0x0","status":0,"contents":"nvram1: 8248 bytes, 0x4 to 0x7ffe","reason":"")",
    R"("missed","fired":N,"fired_more":false,"verdict":"passed","reported":[],"right_device":false,"line":"","status":0,"contents":"nvram0: 1 byte, 0x7fff to 0x7fff","reason":"POST saves)",
    R"("damaged","fired":N,"fired_more":false,"verdict":"failed","reported":["obfl.0"],"right_device":true,"line":"Reached the max timeout and DQ5 bit is set","status":0,"contents":"flash: 130557 bytes, 0xc0000 to 0xdffff, 130557 beyond the fault from 0xc0000")",
    R"("found","fired":N,"fired_more":false,"verdict":"failed","reported":["obfl.0"],"right_device":true,"line":"## Error: Addr 0x000c0000, data 0x00000001 : failed)",
};

class campaign : public in_directory {
 protected:
  // There is an empty place for temporary files.
  campaign() : in_directory("mkdir -p tmp; export TMPDIR=$PWD/tmp; ") { save("small", small_space); }

  // What a stored matrix says of each run from its outcome on, "N" for a count of firings.
  [[nodiscard]] std::vector<std::string> runs_of(const std::string &json) const {
    return lines_of(
        sh(R"(sed -n '/^    {"fault/ { s/.*"outcome"://; s/"fired":[1-9][0-9]*/"fired":N/; p }' )" + json).out);
  }
  [[nodiscard]] bool exists(const std::string &name) const { return std::filesystem::exists(path(name)); }
  [[nodiscard]] bool left_nothing() const { return std::filesystem::is_empty(path("tmp")); }
};

TEST_F(campaign, gives_every_fault_its_outcome_and_is_the_same_every_time) {
  const outcome once =
      sh("post-campaign --from small -j 1 --no-times --json 1.json --junit 1.xml --html 1.html "
         "--coverage 1.md --explain 1.explain");
  EXPECT_EQ(once.status, 1);
  EXPECT_THAT(once.err, MatchesRegex("([0-9]+ of [0-9]+ done, [^\n]*\n)*")) << "how far it is, if it is slow";
  EXPECT_TRUE(left_nothing());
  const auto runs = runs_of("1.json");
  ASSERT_EQ(runs.size(), std::size(small_runs));
  for (size_t i = 0; i < runs.size(); ++i)
    EXPECT_THAT(runs[i], StartsWith(small_runs[i]));
  EXPECT_THAT(once.out,
              AllOf(HasSubstr("\n\u2713   pci-missing bus=2 dev=0 func=0 "), HasSubstr("Fault space \"own\": "),
                    HasSubstr("  missed                        2 of 11")));

  const outcome twice =
      sh("post-campaign --from small -j 3 --no-times --json 2.json --junit 2.xml --html 2.html "
         "--coverage 2.md --explain 2.explain");
  EXPECT_EQ(twice.out, once.out);
  for (const std::string form : {"json", "xml", "html", "md", "explain"})
    EXPECT_EQ(load("2." + form), load("1." + form));
  // What is told of a fault stands in each form, and every fault is among the candidates.
  for (const std::string form : {"json", "xml", "html"})
    EXPECT_THAT(load("1." + form), HasSubstr("PCI function 02:00.0: missing, or not ")) << form;
  EXPECT_THAT(
      load("1.explain"),
      AllOf(HasSubstr("7 of 7 (100.0 %) are among the candidates. The headlines name 6 of 7 (85.7 %), leave out 0"),
            HasSubstr("\n| `flash-erase-leaves` | 1 | 1 | 0 | 1 | 0 | 0 | 9 |\n")));
}

TEST_F(campaign, goes_on_where_it_was_interrupted_and_keeps_what_each_run_left) {
  save("few", "pci-missing bus=2..3 dev=0 func=0\nsprom-refuse\n");
  ASSERT_EQ(sh("post-campaign --from few --work whole --keep --no-times --json whole.json").status, 0);
  const outcome results = sh("post-results --log whole/run-1/output whole/run-1/state/post/result");
  EXPECT_THAT(results.out, ContainsRegex("pcie.0 +.*FAIL"));
  // As an interruption leaves it: some runs done, the next one written in part.
  ASSERT_EQ(sh("cp -r whole part && sed '/^1 /d' whole/runs >part/runs && printf '\\n1 {\"fau' >>part/runs").status, 0);
  const outcome resumed = sh("post-campaign --resume part --keep --no-times --json part.json");
  EXPECT_EQ(resumed.status, 0) << resumed.err;
  EXPECT_EQ(load("part.json"), load("whole.json"));
  // What is done is not run again.
  EXPECT_EQ(sh("rm -r part/run-* && post-campaign --resume part --keep --no-times --json part.json").status, 0);
  EXPECT_EQ(load("part.json"), load("whole.json"));
  EXPECT_FALSE(exists("part/run-1"));
  // Against a former one, only what has changed is an error.
  EXPECT_EQ(sh("post-campaign --read whole.json --expect part.json").status, 0);
  EXPECT_EQ(sh("sed s/pcie.1/pcie.2/ whole.json >other; post-campaign --read whole.json --expect other").status, 1);
  // The same of a shard that was killed; the parts are the whole again, byte for byte.
  ASSERT_EQ(sh("post-campaign --from few --shard 1/2 --no-times --json 1.json").status, 0);
  ASSERT_EQ(sh("post-campaign --from few --shard 2/2 --work second --keep").status, 0);
  ASSERT_EQ(sh("rm second/runs && post-campaign --resume second --no-times --json 2.json").status, 0);
  EXPECT_FALSE(exists("second"));
  EXPECT_EQ(sh("post-campaign --merge 2.json 1.json --no-times --json merged.json").status, 0);
  EXPECT_EQ(load("merged.json"), load("whole.json"));
  expect_run(sh("post-campaign --merge 2.json"), 2, "", HasSubstr("no matrix was given of shard 1 of 2"));
  // What a file claims takes no memory.
  const outcome big = sh(R"(sed 's/"all_runs": [0-9]*/"all_runs": 10000000/' 2.json >big.json; )" +
                         memory_limit(500000) + "post-campaign --merge big.json");
  EXPECT_THAT(big.err, HasSubstr("missing of 10000000 runs"));
  // Another board has other faults.
  ASSERT_EQ(sh("sed -i 's/post-missing/post-gone/' part/plan.json").status, 0);
  expect_run(sh("post-campaign --resume part"), 2, "", HasSubstr("no longer"));
}

TEST_F(campaign, ends_its_runs_with_itself_and_says_how_to_go_on) {
  // The second run would take ten minutes.
  save("long", "pci-missing bus=2 dev=0 func=0\n--mode=no-flash lock-held lock=nvram0 kind=read ms=600000\n");
  const outcome ran =
      sh("post-campaign --from long -j 1 --work here --shard 1/1 --limit 900 >out 2>err & pid=$!\n"
         "until grep -q pci-missing here/runs && [ -e here/run-2/state/faults ]; do :; done 2>/dev/null\n"
         "kill -TERM $pid; wait $pid; echo $?");
  EXPECT_EQ(ran.out, "143\n");
  EXPECT_THAT(load("err"),
              ContainsRegex("interrupted; go on with: post-campaign --resume .*here.? --from long -j 1 --limit 900\n"));
  EXPECT_TRUE(exists("here/plan.json"));
  EXPECT_EQ(sh("grep -l 'here/run-[2]' /proc/[0-9]*/cmdline").out, "") << "a run outlives its campaign";
  // The signal comes while the accesses of a healthy run are counted, or its functions: there is no plan yet.
  for (const std::string planning : {"--set transients --work w & until [ -e w/occasions ]",
                                     "--fault 'pci-missing function=*' --work w & until [ -e w/boards/11062-P1 ]"})
    expect_run(sh("post-campaign " + planning + "; do :; done; kill -TERM $!; wait $!; echo $?; ls w"), 2, "143\n",
               Not(HasSubstr("interrupted")));
  EXPECT_EQ(sh("trap '' HUP; post-campaign --fault sprom-refuse --work w & "
               "until [ -e w/plan.json ] || ! kill -0 $!; do :; done; kill -HUP $!; wait $!")
                .status,
            0);
  EXPECT_EQ(sh("sleep 4 | timeout -s TERM -k 1 1 post-campaign --read /dev/stdin").status, 124) << "it waits on";
}

TEST_F(campaign, ends_a_run_that_takes_longer_than_its_limit) {
  const auto hung = HasSubstr(R"("outcome":"hung")");
  expect_run(sh("post-campaign --fault 'lock-held lock=nvram1 kind=write ms=600000' --wall-limit 2 --json -"), 0, hung,
             testing::_);
  save("busy", "#!/bin/sh\nwhile :; do :; done\n");
  expect_run(sh("chmod +x busy; post-campaign --healthy 1 --program busy --limit 1 --json -"), 1, hung, testing::_);
}

TEST_F(campaign, adds_the_places_that_post_locate_names) {
  save("some",
       "--mode=short flash-addr-stuck line=20 level=1\n--mode=short flash-silent\n"
       "--mode=short flash-cell-read-disturb offset=0xC0002 bit=0\n");
  const std::string locate = "post-campaign --from some --locate --no-times ";
  // As a whole, and in two parts; one part was interrupted.
  const outcome whole = sh(locate + "--json whole.json >/dev/null; post-campaign --read whole.json --coverage page");
  EXPECT_THAT(whole.out, AllOf(HasSubstr("  POST-LOCATE "), ContainsRegex("line=20 level=1 +named uniquely"),
                               HasSubstr("boards: 1 named uniquely, 1 among several places, 1 missed.")));
  EXPECT_THAT(load("page"), HasSubstr("| `flash-addr-stuck` | 0 of 1 (0.0 %) | | | | | 1 named uniquely |\n"));
  (void)sh(locate + "--shard 1/2 --json 1.json; " + locate + "--shard 2/2 --work 2 --keep; rm 2/runs");
  (void)sh("post-campaign --resume 2 --no-times --json 2.json; post-campaign --merge 1.json 2.json --json merged.json");
  EXPECT_EQ(load("merged.json"), load("whole.json"));
  // Another answer is a change; a matrix without answers has nothing to compare.
  EXPECT_EQ(
      sh("sed 's/\"named\",\"located_places\"/\"missed\",\"located_places\"/' whole.json >other.json;"
         "post-campaign --read whole.json --expect other.json")
          .err,
      "changed: flash-addr-stuck line=20 level=1 --card=11062 --revision=P1 --mode=short: post-locate: was missed, "
      "is named uniquely\n");
  EXPECT_EQ(sh("sed 's/,\"located\".*}/}/' whole.json >without.json;"
               "post-campaign --read without.json --expect whole.json")
                .err,
            "");
}

TEST_F(campaign, repeats_what_happens_by_chance_with_other_seeds) {
  const std::string command =
      "post-campaign --fault 'eeprom-corrupt bus=1 addr=0x52 offset=0x1010 p=500000' --repeat 8 --no-times --json ";
  const outcome once = sh(command + "1.json");
  EXPECT_EQ(once.status, 0) << once.out;
  EXPECT_EQ(sh(command + "2.json").out, once.out);
  EXPECT_EQ(load("1.json"), load("2.json"));
  // Not every seed does the same, and each time that the fault fires it is found.
  save("told", once.out);
  EXPECT_EQ(sh(R"(grep -qE 'fired in ([1-7]) of 8 .*found in \1 of \1 ' told)").status, 0) << once.out;
}

TEST_F(campaign, ends_with_its_status_and_says_why) {
  ASSERT_EQ(sh("post-campaign --fault sprom-refuse --json good.json && mkdir full && touch full/x").status, 0);
  save("bad.json", "[]");
  save("big.json", "{\"format\":1e999}");
  save("bad", "nothing at=all\n");
  // Status, and a part of the errors.
  // clang-format off
  expect_endings("post-campaign", {
      {"--read good.json",                      0, ""},
      {"--read good.json --json - ",            0, ""},
      {"--fault sprom-refuse --list",           0, ""},
      {"--set transients --samples 1 --list",   0, ""},
      {"--read no-such-file",                   2, "no-such-file: No such file or directory"},
      {"--read bad.json",                       2, "bad.json: it has another form: a value of another type\n"},
      {"--read good.json --expect big.json",    2, "big.json: it has another form: a value that does not fit\n"},
      {"--read good.json --html no/such/file",  2, "no/such/file: No such file or directory"},
      {"--list >/dev/full",                     2, "standard output: No space left on device"},
      {"--read good.json <&- >&-",              2, "standard output: Bad file descriptor"},
      {"--read good.json --json - >/dev/full",  2, "standard output: No space left on device"},
      {"--from no-such-file",                   2, "no-such-file: No such file or directory"},
      {"--from bad",                            2, "no such fault: 'nothing'"},
      {"--from /dev/null",                      2, "/dev/null: no faults"},
      {"--fault 'flash-silent p=0.01'",         2, "bad value in 'p=0.01', allowed is 1..1000000"},
      {"--fault 'nvram-data-stuck instance=0xFFFFFFFFFFFFFFFE..0xFFFFFFFFFFFFFFFF line=0 level=0'", 2, "allowed is 0..2"},
      {"--resume no-such-directory",            2, "no-such-directory: No such file or directory"},
      {"--resume full",                         2, "full/plan.json: No such file or directory"},
      {"--work full --fault sprom-refuse",      2, "full: the directory is not empty"},
      {"--board-sim no-such-file --list",       2, "no-such-file: No such file or directory"},
      {"--board-sim /bin/true --list",          2, "cannot count how often a fault fired"},
      {"--mode shrt",                           2, "'shrt' of option '--mode', allowed is short|no-flash|full (did you mean 'short'?)"},
      {"--set lines --healthy 3",               2, "--healthy"},
      {"--resume a --read b",                   2, "--re"},
      {"--jobs 0",                              2, "bad value '0' of option '--jobs', allowed is 1 to 1024"},
      {"--limit none",                          2, "--limit"},
      {"--shard 8/7 --list",                    2, "'8/7' is neither K/N"},
      {"--shard '' --list",                     2, "empty value of option '--shard'"},
      {"--fault sprom-refuse --work w --json - >/dev/full", 2, "the runs are done; go on with: post-campaign --resume "},
      {"--resume w",                            0, ""},
      {"--merge good.json",                     2, "good.json: no shard"},
      {"--version",                             0, ""},
  });
  // clang-format on
  EXPECT_TRUE(left_nothing());
  EXPECT_TRUE(exists("full/x"));
}

TEST_F(campaign, clears_the_line_of_its_progress_only_where_the_terminal_can) {
  const std::string command = " script -qec 'post-campaign --fault sprom-refuse --summary' /dev/null";
  EXPECT_THAT(sh("TERM=xterm" + command).out, HasSubstr("1 of 1 done"));
  EXPECT_THAT(sh("TERM=dumb" + command).out, Not(HasSubstr("\x1b")));
  EXPECT_THAT(sh("unset TERM;" + command).out, Not(HasSubstr("\x1b")));
}

TEST_F(campaign, has_the_stored_pages_of_the_stored_matrices) {
  const std::string docs = LAB_TESTS_DIR "/../../docs/";
  const struct {
    std::string command, what, page;
    int status;
  } rows[]{{"cat", "campaign-standard.json --coverage", "coverage.md", 0},
           {"cat", "campaign-standard.json --explain", "explain.md", 0},
           {"zcat", "campaign-lines.json.gz --coverage", "coverage-lines.md", 0},
           {"zcat", "campaign-drawn.json.gz --explain", "explain-drawn.md", 1},
           {"zcat", "campaign-transients.json.gz --coverage", "coverage-transients.md", 0}};
  for (const auto &[command, what, page, status] : rows) {
    const auto blank = what.find(' ');
    const outcome made = sh(command + " " + shell_word(docs + what.substr(0, blank)) +
                            " | post-campaign --read /dev/stdin" + what.substr(blank) + " -");
    EXPECT_EQ(made.status, status) << made.err;
    EXPECT_EQ(made.out, read_file(docs + page));
    for (const std::string &line : lines_of(made.out))
      EXPECT_LE(line.size(), 200) << line;
  }
}

}  // namespace
