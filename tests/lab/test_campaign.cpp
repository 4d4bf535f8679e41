// Whole campaigns, as a user starts them.
#include <gmock/gmock.h>

#include <fstream>
#include <sstream>

#include "tests/support/run.h"

using testing::AllOf;
using testing::ContainsRegex;
using testing::HasSubstr;
using testing::StartsWith;

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
    R"("missed","fired":N,"fired_more":false,"verdict":"passed","reported":[],"right_device":false,"line":"Invalid card detected","status":0,"contents":"","reason":"to whom)",
    R"("blamed","fired":N,"fired_more":false,"verdict":"failed","reported":["gige.0","gige.1","gige.2","gige.3"],"right_device":false,"line":"Error in opening /dev/sprom for reading. Default card_index to 65535","status":0,"contents":"","reason":"no device)",
    R"("ended","fired":N,"fired_more":false,"verdict":"none","reported":[],"right_device":false,"line":"mmap_map_addr(): failed)",
    R"("not-fired","fired":0,"fired_more":false,"verdict":"passed","reported":[],"right_device":false,"line":"","status":0,"contents":"","reason":"")",
    R"("refused","fired":null,"fired_more":false,"verdict":"none","reported":[],"right_device":false,"line":"board-sim: fault 'pci-missing bus=0x77 dev=0 func=0': the board has no such PCI function","status":2,"contents":"","reason":"")",
    R"("found","fired":N,"fired_more":false,"verdict":"failed","reported":["nvram.0"],"right_device":true,"line":"0x00000000: Expected 0x8 Actual 0x0","status":0,"contents":"nvram1: 8248 bytes, 0x4 to 0x7ffe","reason":"")",
    R"("missed","fired":N,"fired_more":false,"verdict":"passed","reported":[],"right_device":false,"line":"","status":0,"contents":"nvram0: 1 byte, 0x7fff to 0x7fff","reason":"the upper half)",
    R"("damaged","fired":N,"fired_more":false,"verdict":"failed","reported":["obfl.0"],"right_device":true,"line":"Reached the max timeout and DQ5 bit is set","status":0,"contents":"flash: 130557 bytes, 0xc0000 to 0xdffff, 130557 beyond the fault from 0xc0000")",
    R"("found","fired":N,"fired_more":false,"verdict":"failed","reported":["obfl.0"],"right_device":true,"line":"## Error: Addr 0x000c0000, data 0x00000001 : failed)",
};

class campaign : public testing::Test {
 protected:
  campaign() { save("small", small_space); }

  void save(const std::string &name, const std::string &text) const {
    std::ofstream(m_dir.path() / name, std::ios::binary) << text;
  }
  [[nodiscard]] std::string load(const std::string &name) const { return read_file(m_dir.path() / name); }
  // A command in a directory with an empty place for temporary files.
  [[nodiscard]] outcome sh(const std::string &command) const {
    std::filesystem::create_directory(m_dir.path() / "tmp");
    return run_shell(m_dir.path(), "export TMPDIR=$PWD/tmp; " + command);
  }
  // What a stored matrix says of each run from its outcome on, "N" for a count of firings.
  [[nodiscard]] std::vector<std::string> runs_of(const std::string &json) const {
    std::istringstream text(
        sh(R"(sed -n '/^    {"fault/ { s/.*"outcome"://; s/"fired":[1-9][0-9]*/"fired":N/; p }' )" + json).out);
    std::vector<std::string> runs;
    for (std::string line; std::getline(text, line);)
      runs.push_back(line);
    return runs;
  }
  [[nodiscard]] bool exists(const std::string &name) const { return std::filesystem::exists(m_dir.path() / name); }
  [[nodiscard]] bool left_nothing() const { return std::filesystem::is_empty(m_dir.path() / "tmp"); }

 private:
  temp_dir m_dir;
};

TEST_F(campaign, gives_every_fault_its_outcome_and_is_the_same_every_time) {
  const outcome once =
      sh("post-campaign --from small -j 1 --no-times --json 1.json --junit 1.xml --html 1.html "
         "--coverage 1.md --explain 1.explain");
  EXPECT_EQ(once.status, 1);
  EXPECT_EQ(once.err, "");
  EXPECT_TRUE(left_nothing());
  const auto runs = runs_of("1.json");
  ASSERT_EQ(runs.size(), std::size(small_runs));
  for (size_t i = 0; i < runs.size(); ++i)
    EXPECT_THAT(runs[i], StartsWith(small_runs[i]));
  EXPECT_THAT(once.out,
              AllOf(HasSubstr("\nfound by the right device    pci-missing bus=2 dev=0 func=0 "),
                    HasSubstr("Fault space \"own\": "), HasSubstr("  missed                        2 of 11")));

  const outcome twice =
      sh("post-campaign --from small -j 3 --no-times --json 2.json --junit 2.xml --html 2.html "
         "--coverage 2.md --explain 2.explain");
  EXPECT_EQ(twice.out, once.out);
  for (const std::string form : {"json", "xml", "html", "md", "explain"})
    EXPECT_EQ(load("2." + form), load("1." + form));
  // What is told of a fault stands in each form, and every fault is among the candidates.
  for (const std::string form : {"json", "xml", "html"})
    EXPECT_THAT(load("1." + form), HasSubstr("PCI function 02:00.0: missing, or with another identity")) << form;
  EXPECT_THAT(load("1.explain"), HasSubstr("7 of 7 (100.0 %) are in the list"));
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
  // Another board has other faults.
  ASSERT_EQ(sh("sed -i 's/post-missing/post-gone/' part/plan.json").status, 0);
  const outcome other = sh("post-campaign --resume part");
  EXPECT_EQ(other.status, 2);
  EXPECT_THAT(other.err, HasSubstr("no longer"));
}

TEST_F(campaign, ends_its_runs_with_itself_and_says_how_to_go_on) {
  // The second run would take ten minutes.
  save("long", "pci-missing bus=2 dev=0 func=0\n--mode=cut lock-held lock=nvram0 kind=read ms=600000\n");
  const outcome ran =
      sh("post-campaign --from long -j 1 --work here --limit 900 >out 2>err & pid=$!\n"
         "until grep -q pci-missing here/runs && [ -e here/run-2/state/faults ]; do :; done 2>/dev/null\n"
         "kill -TERM $pid; wait $pid; echo $?");
  EXPECT_EQ(ran.out, "143\n");
  EXPECT_THAT(load("err"), HasSubstr("interrupted; go on with: post-campaign --resume "));
  EXPECT_TRUE(exists("here/plan.json"));
  EXPECT_EQ(sh("grep -l 'here/run-[2]' /proc/[0-9]*/cmdline").out, "") << "a run outlives its campaign";
}

TEST_F(campaign, ends_a_run_that_takes_longer_than_its_limit) {
  const outcome ran = sh("post-campaign --fault 'lock-held lock=nvram1 kind=write ms=600000' --limit 2 --json - ");
  EXPECT_EQ(ran.status, 1);
  EXPECT_THAT(ran.out, HasSubstr(R"("outcome":"hung")"));
}

TEST_F(campaign, compares_with_a_former_one) {
  ASSERT_EQ(sh("post-campaign --fault 'pci-missing bus=2..3 dev=0 func=0' --json former.json").status, 0);
  const std::string again = "post-campaign --fault 'pci-missing bus=2..3 dev=0 func=0' --summary --expect ";
  EXPECT_EQ(sh(again + "former.json").status, 0);
  ASSERT_EQ(sh("sed 's/\"pcie.1\"/\"pcie.2\"/' former.json >edited.json").status, 0);
  const outcome changed = sh(again + "edited.json");
  EXPECT_EQ(changed.status, 1);
  EXPECT_EQ(changed.err,
            "changed: pci-missing bus=3 dev=0 func=0 --card=11062 --revision=P1 --mode=short: was found by "
            "the right device (pcie.2), is found by the right device (pcie.1)\n");
}

TEST_F(campaign, finds_nothing_on_healthy_boards) {
  const outcome ran = sh("post-campaign --healthy 15 --mode short --json healthy.json");
  EXPECT_EQ(ran.status, 0) << ran.out;
  EXPECT_THAT(load("healthy.json"), HasSubstr("\"healthy\": 15,"));
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
  save("bad.json", "{}");
  save("bad", "nothing at=all\n");
  // Status, and a part of the errors.
  // clang-format off
  const std::tuple<std::string, int, std::string> cases[] = {
      {"--read good.json",                      0, ""},
      {"--read good.json --json - ",            0, ""},
      {"--fault sprom-refuse --list",           0, ""},
      {"--set lines --list",                    0, ""},
      {"--read no-such-file",                   2, "no-such-file: No such file or directory"},
      {"--read bad.json",                       2, "bad.json: "},
      {"--read good.json --expect bad.json",    2, "bad.json: "},
      {"--read good.json --html no/such/file",  2, "no/such/file: No such file or directory"},
      {"--read good.json >/dev/full",           2, "standard output: No space left on device"},
      {"--read good.json --json - >/dev/full",  2, "standard output: No space left on device"},
      {"--from no-such-file",                   2, "no-such-file: No such file or directory"},
      {"--from bad",                            2, "no such fault: 'nothing'"},
      {"--fault 'bar-io bar=0..9x'",            2, "bad value: bar=0..9x"},
      {"--resume no-such-directory",            2, "no-such-directory: No such file or directory"},
      {"--resume full",                         2, "full/plan.json: No such file or directory"},
      {"--work full --fault sprom-refuse",      2, "full: the directory is not empty"},
      {"--board-sim no-such-file --list",       2, "no-such-file: No such file or directory"},
      {"--board-sim /bin/true --list",          2, "cannot tell whether a fault has fired"},
      {"--set most",                            2, "--set"},
      {"--set lines --healthy 3",               2, "--healthy"},
      {"--resume a --read b",                   2, "--re"},
      {"--jobs 0",                              2, "--jobs"},
      {"--limit none",                          2, "--limit"},
      {"--no-such-option",                      2, "--no-such-option"},
      {"argument",                              2, "argument"},
      {"--version",                             0, ""},
      {"--help",                                0, ""},
  };
  // clang-format on
  for (const auto &[args, status, err] : cases) {
    const outcome ran = sh("post-campaign " + args);
    EXPECT_EQ(ran.status, status) << args << "\n" << ran.out << ran.err;
    EXPECT_THAT(ran.err, HasSubstr(err)) << args;
    EXPECT_EQ(ran.err.empty(), status != 2) << args << "\n" << ran.err;
  }
  EXPECT_TRUE(left_nothing());
  EXPECT_TRUE(exists("full/x"));
}

TEST_F(campaign, has_the_stored_pages_of_the_stored_matrices) {
  const std::string docs = LAB_TESTS_DIR "/../../docs/";
  const std::array<std::string, 2> spaces[]{{"cat " + shell_word(docs + "campaign-standard.json"), ".md"},
                                            {"zcat " + shell_word(docs + "campaign-lines.json.gz"), "-lines.md"}};
  for (const auto &[matrix, end] : spaces) {
    for (const std::string page : {"coverage", "explain"}) {
      const outcome made = sh(matrix + " | post-campaign --read /dev/stdin --" + page + " -");
      EXPECT_EQ(made.status, 0) << made.err;
      EXPECT_EQ(made.out, read_file(docs + page + end));
    }
  }
}

}  // namespace
