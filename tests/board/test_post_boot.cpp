// What runs POST at boot, on the simulated board: its verdict, what it keeps and what it reports.
#include "tests/support/run.h"

namespace {

namespace fs = std::filesystem;

const std::string script = shell_word(POST_SOURCE_DIR "/post/boot/post-boot");

// stand_in NAME: a command of the tests' own, its text on standard input. The journal is a file here.
const std::string set_up = R"(
mkdir -p bin metrics && export PATH="$PWD/bin:$PATH" LOGS_DIRECTORY="$PWD/logs" STATE_DIRECTORY="$PWD/state"
export METRICS="$PWD/metrics/post.prom" RUNTIME_DIRECTORY="$PWD/run"
POST=$(command -v post)
stand_in() { { echo '#!/bin/sh' && cat; } >"bin/$1" && chmod +x "bin/$1"; }
echo "[ \"\$*\" = --journald ] && cat >>'$PWD/journal' && echo >>'$PWD/journal'" | stand_in logger
)";

// A post that, once the NVRAMs are tested, sends a signal: to the whole group as systemd does, or to the script.
std::string ends_by(const std::string &who) {
  return "stand_in post <<END\n{ until grep -q NVRAM run/last/output; do sleep 0.02; done; kill -TERM " + who +
         "; } >/dev/null &\nexec '$POST'\nEND\n";
}

class post_boot : public in_directory {
 protected:
  // Runs it with options of board-sim and arguments of its own; `before` is a command that comes first.
  [[nodiscard]] outcome boot(const std::string &options, const std::string &before = "true",
                             const std::string &args = "-s") const {
    return sh(set_up + before + "\nboard-sim --state board " + options + " -- setsid -w " + script + " " + args);
  }
};

TEST_F(post_boot, ends_and_reports_as_the_board_does) {
  const std::string lost = "stand_in tee <<'END'\necho none | /usr/bin/tee \"$1\"\nEND\n";
  // clang-format off
  const struct { const char *name, *options; std::string before;
                 int status, records; std::string verdict, result; } cases[] = {
      {"a sound board",                "",                                     "true",             0, 13, "1",  "PASS"},
      {"a device fails",               "--fault 'i2c-absent bus=1 addr=0x52'", "true",             1, 13, "0",  "FAIL"},
      {"an unknown card",              "--card 1",                             "true",             0, 11, "-1", "ERROR"},
      {"POST ends before its verdict", "--fault pci-list-unreadable",          "true",             1, 0,  "-1", "ERROR"},
      {"the unit is stopped",          "",                                     ends_by("0"),       1, 6,  "-1", "ERROR"},
      {"only the script is stopped",   "",                                     ends_by("\\$PPID"), 1, 6,  "-1", "ERROR"},
      {"its output is lost",           "",                                     lost,               1, 13, "-1", "ERROR"},
  };
  // clang-format on
  const std::string journal =
      "grep -c '^MESSAGE_ID=' journal; grep -c '^OBJECT_PID=[1-9]' journal\n"
      "grep -x -B 9 'POST_RUN='$PWD/logs/$(readlink logs/last) journal | tail -n 9 | sed -n 's/^POST_RESULT=//p'";
  for (const auto &c : cases) {
    SCOPED_TRACE(c.name);
    (void)sh("rm -rf ./*");
    const auto run = boot(c.options, "mkdir -p logs/earlier && ln -s earlier logs/last\n" + c.before);
    expect_run(run, c.status, Not(""), _);
    EXPECT_EQ(run.err.find("a signal ended the test") != std::string::npos, c.before.find("kill") != std::string::npos)
        << run.err;
    EXPECT_EQ(load("run/last/output"), run.out);
    EXPECT_EQ(load("logs/last/output"), run.out);
    EXPECT_EQ(std::ranges::count(load("logs/last/result"), '\n'), c.records);
    EXPECT_EQ(sh("sed -n 's/^post_verdict{.*} //p' metrics/*").out, c.verdict + "\n");
    EXPECT_EQ(sh(journal).out, "17\n17\n" + c.result + "\n");
  }
}

// What it ran is "-s", or nothing for the full test; a request for one is gone before it begins.
TEST_F(post_boot, runs_the_test_that_the_administrator_chose) {
  const std::string echo =
      "stand_in post <<'END'\necho \"test $*\"; grep '^post_verdict' metrics/post.prom; ls state\n"
      "echo '  Mod 1 1 Post Completed Successfully'; echo 'POST is completed'\nEND\n";
  const std::string ask = script + " --full-next\n";
  // clang-format off
  const struct { std::string before, first; const char *said; } cases[] = {
      {"",                                        "test -s\n", ""},
      {"export TEST=short",                       "test -s\n", ""},
      {"export TEST=full",                        "test \n",   ""},
      {"export TEST=ful",                         "test -s\n", "TEST=ful is neither short nor full"},
      {ask,                                       "test \n",   ""},
      {"mkdir -p state/full-next/x",              "test -s\n", "cannot remove the request for a full test"},
  };
  // clang-format on
  const std::string unknown = R"(post_verdict{card="",part="",serial="",change_bits=""} -1)";
  for (const auto &[before, first, said] : cases) {
    SCOPED_TRACE(before);
    (void)sh("rm -rf ./*");
    const auto run = boot("", "mkdir -p state\n" + echo + before, "");
    expect_run(run, 0, StartsWith(first + unknown + "\n"), HasSubstr(said));
    if (before == ask) {
      EXPECT_EQ(run.out.find("full-next"), std::string::npos) << run.out;
      EXPECT_TRUE(boot("", "true", "").out.starts_with("test -s\n"));
    }
  }
}

TEST_F(post_boot, runs_no_test_that_nobody_asked_for) {
  // clang-format off
  const std::pair<std::string, int> cases[] = {
      {"-x", 2}, {"-sS", 2}, {"-s -s", 2}, {"--full-next -s", 2}, {"s", 2}, {"''", 2}, {"--help >/dev/full", 1}, {"--full-next", 1}};
  // clang-format on
  for (const auto &[args, status] : cases) {
    SCOPED_TRACE(args);
    (void)sh("rm -rf ./*");
    const auto run = boot("", "mkdir -p state/full-next", args);
    expect_run(run, status, "", StartsWith(status == 2 ? "post-boot: wrong arguments: " : "/"));
    EXPECT_FALSE(fs::exists(path("logs")));
  }
}

// A reader of the pipe that goes away, and another user who reads the metrics.
TEST_F(post_boot, gives_its_verdict_whoever_reads) {
  EXPECT_THAT(boot("", "METRICS=$PWD/none/post.prom").err, HasSubstr("post-boot: cannot write "));
  const auto run = boot("", "umask 077; mkfifo out; head -n 1 <out >/dev/null & exec >out");
  EXPECT_EQ(run.status, 0) << run.err;
  EXPECT_THAT(load("run/last/output"), EndsWith("POST is completed\n"));
  EXPECT_EQ(sh("stat -c %a metrics/post.prom").out, "644\n");
}

// A pass of an earlier run is no answer, and a journal that took nothing has none.
TEST_F(post_boot, says_what_it_could_not_deliver) {
  const auto run =
      boot("",
           "stand_in logger <<'END'\nexit 1\nEND\n"
           "stand_in post-results <<'END'\n[ $1 != --prometheus ] && exec board-results \"$@\"; exit 2\nEND\n"
           "ln -s \"${POST%/*}/post-results\" bin/board-results; echo 'post_verdict 1' >metrics/post.prom");
  EXPECT_EQ(run.status, 0);
  EXPECT_FALSE(fs::exists(path("metrics/post.prom")));
  const std::string none = "post-boot: cannot write " + path("metrics/post.prom").string() + "\n";
  EXPECT_EQ(run.err, none + none + "post-boot: 17 entries could not be sent to the journal\n");
}

// A mkdir that puts a full disk in the place of what a run is to keep.
TEST_F(post_boot, tells_the_verdict_though_the_disk_is_full) {
  const std::string full_disk =
      "stand_in mkdir <<'END'\n/bin/mkdir \"$@\" || exit\n"
      "case $1 in */logs/*) ln -s /dev/full \"$1/output\" && ln -s /dev/full \"$1/result\" ;; esac\nEND\n";
  for (const std::string fault : {"", "i2c-absent bus=1 addr=0x52"}) {
    (void)sh("rm -rf ./*");
    expect_run(boot(fault.empty() ? "" : "--fault '" + fault + "'", full_disk), fault.empty() ? 0 : 1,
               EndsWith("POST is completed\n"), HasSubstr("No space left on device"));
  }
}

// Others had put links where the test writes, and could go on doing so.
TEST_F(post_boot, makes_the_folders_of_the_test_its_own) {
  const bool is_root = geteuid() == 0;
  const std::string others =
      "mkdir -p board/post board/var/lock logs; echo kept >victim; chmod 1777 board/post board/var/lock logs\n"
      "ln -s \"$PWD/victim\" board/var/lock/RTC_NVRAM0-read.lock; ln -s \"$PWD/victim\" board/post/result\n"
      "mkfifo board/var/lock/OBFL_Flash0-write.lock; ln -s \"$PWD/none\" board/post/ethtool.log\n"
      "echo other >board/var/lock/other.lock\n";
  const std::string foreign =
      "chown 12345 board/post board/var/lock logs; echo x >board/var/lock/RTC_NVRAM1-read.lock; "
      "chown 12345 board/var/lock/RTC_NVRAM1-read.lock\n";
  const auto run = boot("", others + (is_root ? foreign : "") + "stat -c %a,%u /var/lock/. >before");
  expect_run(run, 0, _);
  const std::string own = "755," + std::to_string(geteuid()) + "\n", old = "1" + own;
  const auto now =
      sh("cat victim board/var/lock/other.lock; ls none 2>&1 | wc -l\n"
         "stat -c %a,%u board/post board/var/lock logs logs/last/\n"
         "find board/var/lock board/post -type f -user $(id -u) | wc -l\n"
         "find board/var/lock board/post ! -type f ! -type d | wc -l\n"
         "stat -c %a,%u /var/lock/. | cmp - before && echo the same");
  // What is left is the records, the lock of the EEPROM, and what the test has no name for.
  EXPECT_EQ(now.out, "kept\nother\n1\n" + old + old + old + own + "3\n0\nthe same\n");
}

TEST_F(post_boot, keeps_each_run_apart) {
  ASSERT_EQ(boot("", "mkdir -p board/post && echo earlier >board/post/result").status, 0);
  EXPECT_EQ(load("logs/last/result-before"), "earlier\n");
  const auto first = fs::read_symlink(path("logs/last")).string();
  EXPECT_EQ(first + "\n", read_file("/proc/sys/kernel/random/boot_id"));
  ASSERT_EQ(boot("--fault sprom-absent").status, 1);
  EXPECT_EQ(fs::read_symlink(path("logs/last")).string(), first + ".2");
  EXPECT_EQ(read_file(path("logs") / first / "result"), load("logs/last/result-before"));
}

TEST_F(post_boot, forgets_the_oldest_of_more_than_a_hundred_runs_and_nothing_else) {
  const auto run = boot("",
                        "mkdir -p logs/other\n"
                        "for n in $(seq 100 200); do mkdir -p logs/01234567-89ab-cdef-0123-000000000$n; done\n"
                        "touch -d 2120-01-01 logs/*; touch -d 2110-01-01 logs/*-*150\ntouch -d 2111-01-01 logs/*-*160");
  ASSERT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(std::distance(fs::directory_iterator(path("logs")), {}), 100 + 2);
  EXPECT_EQ(load("logs/last/output"), run.out);
  EXPECT_FALSE(fs::exists(path("logs/01234567-89ab-cdef-0123-000000000150")));
  EXPECT_FALSE(fs::exists(path("logs/01234567-89ab-cdef-0123-000000000160")));
}

}  // namespace
