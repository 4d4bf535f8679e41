// The program post-locate on the simulated board: its report, its exit status, and what a power cut leaves.
#include "tests/support/run.h"

namespace {

class post_locate : public in_directory {
 protected:
  // Runs the program on the board of this test with a fault, if there is one.
  [[nodiscard]] outcome run(const std::string &fault, const std::string &args) const {
    return sh("board-sim --state . " + (fault.empty() ? "" : "--fault '" + fault + "' ") + "-- post-locate " + args);
  }
  [[nodiscard]] std::filesystem::path journals() const { return path("var/lib/post-locate"); }
};

TEST_F(post_locate, reports_each_kind_of_result) {
  const std::string untested = ": not tested\n  ", bar = untested + "The bridge's base address register ";
  const std::string coupled = "nvram-cell-coupled-write instance=0 offset=0x10 bit=0 victim=0x4000 vbit=1";
  const struct {
    std::string fault, arguments;
    int status;
    std::string begins;
  } cases[] = {
      {"", "nvram2", 0, "nvram2: good, 60 accesses\n  looked at: every address and data line\n"},
      {"", "--names /dev/null nvram2", 0, "nvram2: good, 60 accesses\n"},
      {"", "--cells nvram2", 0, "nvram2: good, 2881551 accesses\n"},
      {"nvram-addr-short instance=1 line=9 other=10", "nvram1", 1,
       "nvram1: faulty, 60 accesses\n  Address lines A9 and A10 of NVRAM 1 are shorted; 0 wins.\n    seen: "},
      {"bar-missing bar=3", "nvram1", 1, "nvram1" + bar + "3 has no address or no size.\n"},
      {"bar-io bar=2", "nvram0", 1, "nvram0" + bar + "2 maps I/O space"},
      {"bar-64bit bar=4", "nvram2", 1, "nvram2" + bar + "4 is above 4 GiB.\n"},
      {"pci-missing bus=0x2E dev=0 func=0", "nvram0", 1, "nvram0" + untested + "The local-bus bridge is not in the"},
      {"pci-list-unreadable", "nvram0", 1, "nvram0" + untested + "The list of PCI functions cannot be read: Perm"},
      {"mem-absent", "nvram0", 1, "nvram0" + untested + "/dev/mem cannot be opened: No such file or directory.\n"},
      {"mem-mmap-refused", "nvram0", 1, "nvram0" + untested + "The memory cannot be mapped: MMAP_ERR_MMAP.\n"},
      {"lock-dir-missing", "nvram0", 1, "nvram0" + untested + "The lock RTC_NVRAM0-read cannot be made: No such"},
      {"lock-held lock=nvram1 kind=write ms=60000", "--wait 0 nvram1", 1,
       "nvram1" + untested + "The lock RTC_NVRAM1-write is held by process "},
      {"", "--cells --state /dev/null/x nvram1", 2,
       "nvram1: not tested, 63503 accesses\n  The cells were not tested: their contents cannot be written down first, "
       "/dev/null/x: Not a directory.\n"},
      // Every line answers rightly; a word changes all the same.
      {coupled, "--repeat 5 nvram0", 1,
       "nvram0: faulty, 1225 accesses\n  Words of NVRAM 0 change that are not written.\n    seen: the word at 0x4000 "
       "was "},
      {coupled, "--cells nvram0", 1,
       "nvram0: faulty, 3046959 accesses\n  Cell 0x4000 bit 1 of NVRAM 0 is bad: changed by a write to another cell, "
       "in "},
      // The lines' test meets the cell already.
      {"nvram-cell-stuck instance=1 offset=8 bit=5 level=1", "--cells nvram1", 1,
       "nvram1: faulty, 3111416 accesses\n  Cell 0x0008 bit 5 of NVRAM 1 is bad: stuck.\n"},
      {"nvram-cell-coupled instance=1 offset=0x4000 bit=1 victim=0x801 vbit=0 p=20000 seed=1", "--cells nvram1", 1,
       "nvram1: faulty, 2881551 accesses\n  A cell of NVRAM 1 is bad at times: bit 8 of the word at 0x800.\n"},
      // A line that is bad so rarely that 512 rounds do not show it.
      {"nvram-data-stuck instance=2 line=3 level=1 p=30 seed=1", "--cells nvram2", 1,
       "nvram2: faulty, 2881551 accesses\n  32 cells of NVRAM 2 fail, all in bit 3 of their words: a line is bad at "
       "times, or the chip is.\n"},
      {"", "--names /missing", 2, ""},
      {"", "--help >/dev/full", 2, ""},
      {"", "nvram3", 2, ""},
  };
  for (const auto &[fault, arguments, status, out] : cases) {
    SCOPED_TRACE(fault + " " + arguments);
    const auto ran = run(fault, arguments);
    EXPECT_EQ(ran.status, status) << ran.err;
    EXPECT_THAT(ran.out, StartsWith(out));
    EXPECT_EQ(ran.err.empty(), !ran.out.empty()) << ran.err;
  }
}

// What a journal of nvram1 makes of a start that looks at another part.
TEST_F(post_locate, keeps_a_journal_until_its_words_read_back) {
  const struct {
    std::string journal, fault;
    int status;
    std::string err;
  } cases[] = {
      {"0002 0008\n", "", 0, "nvram1: words restored after a run that ended early: 1\n"},
      {"0002 0008\n0004 00", "", 0, "nvram1: words restored after a run that ended early: 1\n"},  // the second is torn
      {"0002 0008\n", "nvram-data-stuck instance=1 line=3 level=0", 2, " that do not read back: 1 of 1; "},
      {"0002 0008\n8000 0001\n", "", 2, "/nvram1.journal that do not read back: 1 of 2; "},
      {"0002 0008\nx\n0004 0001\n", "", 2, "nvram1: the journal cannot be read: /var/lib/post"},
      {std::string("0002 0008\n\0\0\0\0\0\0\0\0\0\n", 20), "", 2, "nvram1: the journal cannot be read: "},
      {"0002 0008\n", "lock-held lock=nvram1 kind=write ms=60000", 2,
       "nvram1: words in its journal may not be restored yet: The lock RTC_NVRAM1-write is held by p"},
  };
  for (const auto &[journal, fault, status, err] : cases) {
    SCOPED_TRACE(journal + fault);
    std::filesystem::create_directories(journals());
    save("var/lib/post-locate/nvram1.journal", journal);
    const auto ran = run(fault, "--wait 0 sproms");
    EXPECT_EQ(ran.status, status) << ran.out;
    EXPECT_THAT(ran.err, HasSubstr(err));
    EXPECT_EQ(std::filesystem::exists(journals() / "nvram1.journal"), status != 0);
    EXPECT_TRUE(status != 0 || load("nvram1").substr(2, 2) == std::string("\x08\0", 2));
  }
}

// A line breaks during the march: what the words held is not lost, and no earlier loss is overwritten.
TEST_F(post_locate, sets_aside_what_does_not_read_back) {
  (void)run("", "nvram1");
  const auto before = load("nvram1");
  for (const std::string lost : {"nvram1.lost", "nvram1.lost.2"}) {
    save("nvram1", before);
    EXPECT_THAT(run("nvram-data-stuck instance=1 line=3 level=1 nth=400000", "--cells nvram1").out,
                HasSubstr("what the words held is in /var/lib/post-locate/" + lost + "\n"));
    EXPECT_NE(load("nvram1"), before);
    EXPECT_EQ(run("", "nvram0").err, "");
    std::filesystem::rename(journals() / lost, journals() / "nvram1.journal");
    EXPECT_THAT(run("", "nvram0").err, HasSubstr("words restored"));
    EXPECT_EQ(load("nvram1"), before);
    save("var/lib/post-locate/nvram1.lost", "");
  }
}

// Signals come at any time and end the program, but leave neither a journal nor other contents.
TEST_F(post_locate, restores_before_a_signal_ends_it) {
  (void)run("", "nvram1");
  const auto before = load("nvram1");
  int ended = 0;
  for (const char *const wait : {"0.01", "0.03", "0.06", "0.1"}) {
    SCOPED_TRACE(wait);
    // The simulated board hands the signal on.
    const auto ran =
        run("", std::string("--repeat 1000 --cells nvram1 nvram2 & sleep ") + wait + "; kill $!; wait $!; echo $?");
    EXPECT_TRUE(ran.out.ends_with("143\n") || ran.out.ends_with("\n0\n")) << ran.out;
    ended += ran.out.ends_with("143\n") ? 1 : 0;
    EXPECT_TRUE(!std::filesystem::exists(journals()) || std::filesystem::is_empty(journals()));
    EXPECT_EQ(load("nvram1"), before);
  }
  EXPECT_GT(ended, 0) << "every run was too fast";
}

// Writes at which the power fails: in the star, in the march, in the tours and in the last restoring. LOCATE_CUTS=N
// takes N all over the run.
std::vector<uint64_t> cuts() {
  std::vector<uint64_t> list(number_from("LOCATE_CUTS", 0));
  if (list.empty()) return {3, 15, 16, 30, 31, 20'000, 143'000, 413'000, 913'000, 953'000};
  for (size_t i = 0; i < list.size(); ++i)
    list[i] = 1 + i * 953'000 / list.size();
  return list;
}

TEST_F(post_locate, loses_no_word_in_a_power_cut) {
  (void)run("", "nvram1");
  const auto before = load("nvram1");
  ASSERT_EQ(before.size(), 0x8000U);
  for (const auto nth : cuts()) {
    const auto fault = "nvram-power-cut instance=1 seed=" + std::to_string(nth) + " nth=" + std::to_string(nth);
    SCOPED_TRACE(fault);
    const auto cut = run(fault, "--cells nvram1");
    EXPECT_EQ(cut.status, 128 + 9);
    EXPECT_FALSE(std::filesystem::is_empty(journals()));
    // The next start restores, for any part.
    const auto next = run("", "nvram0");
    EXPECT_THAT(next.err, HasSubstr("restored after a run that ended early"));
    EXPECT_EQ(next.status, 0);
    EXPECT_EQ(load("nvram1"), before);
    EXPECT_TRUE(std::filesystem::is_empty(journals()));
  }
}

}  // namespace
