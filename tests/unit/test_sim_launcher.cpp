// board-sim as a program: what it runs, what it says, what it leaves behind. The program on the board is this one, so
// that both word sizes are the same.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/file.h>
#include <unistd.h>

#include <fstream>
#include <string>
#include <vector>

#include "tests/support/run.h"

namespace {

namespace fs = std::filesystem;
using strings = std::vector<std::string>;
using testing::HasSubstr;
using testing::MatchesRegex;

// The program on the board: a command of its shell, a signal for board-sim, or the question whether a lock is free.
int part(const std::string &name, const char *argument) {
  if (name == "system") return WEXITSTATUS(system(argument));
  const int fd = open(name == "signal" ? "/post/running" : argument, O_RDWR | O_CREAT | O_TRUNC, 0600);
  if (name == "signal") {
    (void)flock(fd, LOCK_EX);
    (void)kill(getppid(), atoi(argument));
    (void)sleep(3);
    return creat("/post/survived", 0600);
  }
  struct flock lock {};
  lock.l_type = F_WRLCK;
  lock.l_len = 1;
  return fcntl(fd, F_GETLK, &lock) != 0 ? 99 : lock.l_type == F_UNLCK ? 0 : 1;
}

// Runs board-sim, with a part of this program if one is named.
outcome run(strings args, const std::string &name = "", const std::string &argument = "") {
  if (!name.empty())
    args.insert(args.end(), {"--", fs::read_symlink("/proc/self/exe").string(), "--part", name, argument});
  return run_program("board-sim", args);
}

strings entries(const fs::path &path) {
  strings names;
  for (const auto &entry : fs::directory_iterator(path))
    names.push_back(entry.path().filename().string());
  return names;
}

class launcher : public testing::Test {
 protected:
  launcher() { (void)setenv("TMPDIR", dir.path().c_str(), 1); }
  ~launcher() override { (void)unsetenv("TMPDIR"); }
  [[nodiscard]] std::string path(const char *name) const { return (dir.path() / name).string(); }
  temp_dir dir;
};

TEST_F(launcher, tells_wrong_arguments_and_unusable_boards_and_ends_with_2) {
  ASSERT_EQ(run({"--state", path("cut")}, "system", "exit 0").status, 0);
  fs::resize_file(path("cut/eeprom-1-52"), 100);
  const std::string hint = "\nTry 'board-sim --help' for more information.\n";
  const std::pair<strings, std::string> cases[] = {
      {{"--frob"}, "unknown option '--frob'" + hint},
      {{"--fault", "rust"}, "unknown fault 'rust' (--list-faults lists them)" + hint},
      {{"--fault=i2c-absent bus=1 addr=0x50"},
       "fault 'i2c-absent bus=1 addr=0x50': the board has no such I2C device\n"},
      {{"--state", "/proc/none"}, "/proc/none: No such file or directory\n"},
      {{"--state", "/proc/cpuinfo"}, "/proc/cpuinfo: Not a directory\n"},
      {{"--trace", "/proc/none/trace"}, "/proc/none/trace: No such file or directory\n"},
      {{"--state", path("cut")}, path("cut/eeprom-1-52") + ": size is not 65536 bytes\n"},
  };
  for (const auto &[args, error] : cases) {
    const auto r = run(args, "system", "echo it runs");
    EXPECT_EQ(r.status, 2) << error;
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(r.err, "board-sim: " + error);
  }
}

TEST_F(launcher, helps) {
  EXPECT_THAT(run({"--help"}).out, HasSubstr("\n  --fault \"NAME key=value ...\"  inject a fault"));
  EXPECT_THAT(run({"--list-faults"}).out,
              HasSubstr("\nflash-erase-hangs [sector=0..511] [dq5=0..1:0] [nth=1..1000000000:1] "
                        "[times=0..1000000000:0] [p=1..1000000:1000000] [seed=0..0xFFFFFFFF:0]\n    erase n"));
  EXPECT_THAT(run({"--version"}).out, MatchesRegex("board-sim [0-9.]+\n"));
}

TEST_F(launcher, reports_programs_that_cannot_run) {
  // A file that looks like a program of the other word size would run without the board.
  const char head[] = {0x7F, 'E', 'L', 'F', sizeof(void *) == 8 ? 1 : 2, 1, 1};
  std::ofstream(path("other"), std::ios::binary).write(head, sizeof head);
  std::ofstream(path("script")) << "#! " << path("other") << " -x\n";
  std::ofstream(path("loop")) << "#!" << path("loop") << "\n";
  for (const auto *const name : {"other", "script", "loop"})
    fs::permissions(path(name), fs::perms::owner_all);
  const struct {
    std::string program;
    int status;
    const char *error;
  } cases[] = {
      {"/no/such", 127, ": No such file or directory\n"},
      {"no-such-command", 127, ": not found in PATH\n"},
      {"/etc/passwd", 126, ": Permission denied\n"},
      {path("loop"), 126, ": Too many levels of symbolic links\n"},
      {path("other"), 126, ": this board runs (64|32)-bit programs only\n"},
      {path("script"), 126, ": this board runs (64|32)-bit programs only\n"},
  };
  for (const auto &c : cases) {
    const auto r = run({"--", c.program});
    EXPECT_EQ(r.status, c.status) << c.program;
    EXPECT_THAT(r.err, MatchesRegex("board-sim: " + c.program + c.error));
  }
}

TEST_F(launcher, gives_the_status_of_the_program_and_names_its_signal) {
  EXPECT_EQ(run({}, "system", "exit 17").status, 17);
  const auto killed = run({}, "system", "kill -9 $PPID");
  EXPECT_EQ(killed.status, 128 + SIGKILL);
  EXPECT_THAT(killed.err, MatchesRegex("board-sim: .*/test_sim_launcher was ended by signal 9 \\(Killed\\)\n"));
  for (const int signal : {SIGINT, SIGTERM, SIGHUP})
    EXPECT_EQ(run({}, "signal", std::to_string(signal)).status, 128 + signal) << "handed on";
  EXPECT_THAT(entries(dir.path()), testing::IsEmpty()) << "the state directories were temporary";
}

TEST_F(launcher, takes_the_program_along_when_it_is_killed) {
  EXPECT_EQ(run({"--state", path("state")}, "signal", std::to_string(SIGKILL)).status, 128 + SIGKILL);
  const int fd = open(path("state/post/running").c_str(), O_RDWR | O_CLOEXEC);
  EXPECT_EQ(flock(fd, LOCK_EX), 0);
  EXPECT_FALSE(fs::exists(path("state/post/survived")));
  (void)close(fd);
}

TEST_F(launcher, keeps_a_state_directory_and_writes_nowhere_else) {
  const auto outside = [] { return std::pair{fs::exists("/post"), entries("/var/lock")}; };
  const auto before = outside();
  fs::current_path(dir.path());
  std::ofstream("log") << "old\n";
  const strings args{"--state", "new/state", "--show-result", "--trace", "log"};
  const std::string command = "echo 0:4:0:1 >>/post/result; echo x >/var/lock/a.lock";
  EXPECT_EQ(run(args, "system", command).out, "0:4:0:1\n");
  EXPECT_EQ(run(args, "system", command).out, "0:4:0:1\n0:4:0:1\n");
  EXPECT_EQ(run({"--show-result"}, "system", command).out, "0:4:0:1\n");
  fs::current_path("/");
  EXPECT_THAT(entries(dir.path()), testing::UnorderedElementsAre("new", "log"));
  EXPECT_EQ(read_file(path("log")), "") << "emptied, and the program met no device";
  EXPECT_EQ(read_file(path("new/state/var/lock/a.lock")), "x\n");
  EXPECT_EQ(outside(), before);
}

TEST_F(launcher, holds_locks) {
  const std::tuple<const char *, const char *, int> cases[] = {
      {"lock-held lock=nvram1 kind=write", "/var/lock/RTC_NVRAM1-write.lock", 1},
      {"lock-held lock=nvram1 kind=write", "/var/lock/RTC_NVRAM1-read.lock", 0},
      {"lock-held lock=nvram1 kind=write", "/var/lock/RTC_NVRAM0-write.lock", 0},
      {"lock-held lock=flash kind=read ms=600000", "/var/lock/OBFL_Flash0-read.lock", 1},
  };
  for (const auto &[fault, lock, status] : cases)
    EXPECT_EQ(run({"--fault", fault}, "lock", lock).status, status) << fault << " " << lock;
}

}  // namespace

int main(int argc, char **argv) {
  if (argc == 4 && std::string(argv[1]) == "--part") return part(argv[2], argv[3]);
  testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
