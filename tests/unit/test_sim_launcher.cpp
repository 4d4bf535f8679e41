// board-sim as a program: what it runs, what it says, what it leaves behind. This program stands for the one under
// test, in parts that --part chooses, so that both word sizes are the same.
#include <dirent.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <array>
#include <string>
#include <vector>

namespace {

using strings = std::vector<std::string>;

constexpr const char *board_sim = POST_BIN_DIR "/board-sim";

// Parts of the program under test.

int print_file(const char *path) {
  FILE *const f = fopen(path, "r");
  if (f == nullptr) {
    printf("%s: %s\n", path, strerror(errno));
    return 1;
  }
  for (int c = getc(f); c != EOF; c = getc(f))
    putchar(c);
  return fclose(f);
}

int append_records() {
  FILE *const f = fopen("/post/result", "a");
  return f == nullptr || fprintf(f, "0:4:0:1\n0:4:1:2\n") != 16 || fclose(f) != 0 ? 1 : 0;
}

int wait_for_signal() {
  printf("waiting\n");
  fflush(stdout);
  sleep(10);
  return 0;
}

// Whether a lock's byte is free; "taken" and after how many ms it is free if not.
int try_lock(const char *path) {
  const int fd = open(path, O_RDWR | O_CREAT | O_TRUNC, 0600);
  struct flock lock {};
  lock.l_type = F_WRLCK;
  lock.l_whence = SEEK_SET;
  lock.l_len = 1;
  timespec start{};
  timespec end{};
  (void)clock_gettime(CLOCK_MONOTONIC, &start);
  if (fcntl(fd, F_SETLK, &lock) == 0) {
    printf("free\n");
    return 0;
  }
  if (fcntl(fd, F_SETLKW, &lock) != 0) return 1;
  (void)clock_gettime(CLOCK_MONOTONIC, &end);
  const auto ms = (end.tv_sec - start.tv_sec) * 1000 + (end.tv_nsec - start.tv_nsec) / 1000000;
  printf("taken for %s\n", ms < 100 ? "a moment" : ms < 5000 ? "a while" : "long");
  return 0;
}

int part(const std::string &name, const char *argument) {
  if (name == "print") return print_file(argument);
  if (name == "exit") return atoi(argument);
  if (name == "append") return append_records();
  if (name == "wait") return wait_for_signal();
  if (name == "lock") return try_lock(argument);
  if (name == "raise") return raise(atoi(argument));
  if (name == "system") return WEXITSTATUS(system(argument));
  if (name == "environment") return puts(getenv(argument) == nullptr ? "unset" : getenv(argument)) < 0 ? 1 : 0;
  return 99;
}

// A run of board-sim: exit status (128 and the signal's number if one ended it), standard output and error.
struct run {
  int status = -1;
  std::string out;
  std::string err;
};

std::string own_path() {
  char path[4096] = "";
  const auto length = readlink("/proc/self/exe", path, sizeof(path) - 1);
  return std::string(path, length > 0 ? static_cast<size_t>(length) : 0);
}

class process {
 public:
  explicit process(strings args) {
    std::array<int, 2> out{};
    std::array<int, 2> err{};
    if (pipe2(out.data(), O_CLOEXEC) != 0 || pipe2(err.data(), O_CLOEXEC) != 0) abort();
    m_pid = fork();
    if (m_pid == 0) {
      (void)dup2(out[1], 1);
      (void)dup2(err[1], 2);
      (void)setenv("ASAN_OPTIONS", "detect_leaks=0", 1);
      std::vector<char *> argv{const_cast<char *>(board_sim)};
      for (auto &arg : args)
        argv.push_back(arg.data());
      argv.push_back(nullptr);
      (void)execv(board_sim, argv.data());
      _exit(125);
    }
    (void)close(out[1]);
    (void)close(err[1]);
    m_out = out[0];
    m_err = err[0];
  }
  process(const process &) = delete;
  process &operator=(const process &) = delete;
  ~process() {
    (void)close(m_out);
    (void)close(m_err);
  }

  [[nodiscard]] pid_t pid() const { return m_pid; }
  // Waits until the program has printed this much.
  void wait_for_output(size_t length) {
    char c = 0;
    while (m_seen.size() < length && ::read(m_out, &c, 1) == 1)
      m_seen += c;
  }
  run finish() {
    run r;
    r.out = m_seen + drain(m_out);
    r.err = drain(m_err);
    int status = 0;
    (void)waitpid(m_pid, &status, 0);
    r.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    return r;
  }

 private:
  static std::string drain(int fd) {
    std::string text;
    char part_of_it[4096];
    for (ssize_t got = 0; (got = ::read(fd, part_of_it, sizeof(part_of_it))) > 0;)
      text.append(part_of_it, static_cast<size_t>(got));
    return text;
  }

  pid_t m_pid;
  int m_out;
  int m_err;
  std::string m_seen;
};

run board(strings args) {
  return process(std::move(args)).finish();
}

// The same with a part of this program to run.
strings with_part(strings args, const std::string &name, const std::string &argument = "") {
  args.insert(args.end(), {"--", own_path(), "--part", name, argument});
  return args;
}

strings entries(const std::string &path) {
  strings names;
  DIR *const dir = opendir(path.c_str());
  if (dir == nullptr) return {"no " + path};
  while (const auto *const entry = readdir(dir))
    if (entry->d_name[0] != '.') names.emplace_back(entry->d_name);
  (void)closedir(dir);
  return names;
}

class launcher : public testing::Test {
 protected:
  void SetUp() override {
    if (access(board_sim, X_OK) != 0) GTEST_SKIP() << "board-sim is not built";
    char path[] = "/tmp/board-launch-XXXXXX";
    m_dir = mkdtemp(path);
    (void)setenv("TMPDIR", m_dir.c_str(), 1);
  }
  void TearDown() override {
    if (m_dir.empty()) return;
    EXPECT_EQ(system(("rm -r " + m_dir).c_str()), 0);
  }
  std::string m_dir;
};

TEST_F(launcher, tells_wrong_arguments_and_ends_with_2) {
  const std::string hint = "\nTry 'board-sim --help' for more information.\n";
  const struct {
    strings args;
    std::string error;
  } cases[] = {
      {{"--frob"}, "unknown option '--frob'" + hint},
      {{"--card", "many"}, "bad value 'many' of option '--card'" + hint},
      {{"--fault", "rust"}, "unknown fault 'rust' (--list-faults lists them)" + hint},
      {{"--fault", "i2c-absent bus=1 addr=0x50"},
       "fault 'i2c-absent bus=1 addr=0x50': the board has no such I2C device\n"},
      {{"--state", "/proc/none"}, "/proc/none: No such file or directory\n"},
      {{"--state", "/proc/cpuinfo"}, "/proc/cpuinfo: Not a directory\n"},
      {{"--trace", "/proc/none/trace"}, "/proc/none/trace: No such file or directory\n"},
  };
  for (const auto &c : cases) {
    const auto r = board(c.args);
    EXPECT_EQ(r.status, 2) << c.error;
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(r.err, "board-sim: " + c.error);
  }
}

TEST_F(launcher, lists_faults_and_helps) {
  const auto faults = board({"--list-faults"});
  EXPECT_EQ(faults.status, 0);
  EXPECT_THAT(faults.out, testing::HasSubstr("\ni2c-absent bus=0..255 addr=0x03..0x77\n    nothing acknowledges"));
  EXPECT_THAT(faults.out, testing::HasSubstr("\nflash-erase-hangs [sector=0..511] [dq5=0..1:0]\n"));
  const auto help = board({"--help"});
  EXPECT_EQ(help.status, 0);
  for (const auto *const option : {"--card", "--revision", "--change-bits", "--family", "--state", "--trace", "--busy",
                                   "--real-times", "--fault", "--show-result", "--list-faults", "--version"})
    EXPECT_THAT(help.out, testing::HasSubstr(std::string("\n  ") + option)) << option;
  EXPECT_THAT(board({"--version"}).out, testing::MatchesRegex("board-sim [0-9.]+\n"));
}

TEST_F(launcher, runs_a_program_on_the_board_and_gives_its_status) {
  const auto list = board(with_part({"--card=11096"}, "print", "/proc/bus/pci/devices"));
  EXPECT_EQ(list.status, 0) << list.err;
  EXPECT_THAT(list.out, testing::HasSubstr("\n0600\t10b59030\t"));
  EXPECT_EQ(list.err, "");
  EXPECT_EQ(board(with_part({}, "exit", "0")).status, 0);
  EXPECT_EQ(board(with_part({}, "exit", "17")).status, 17);
  const auto missing = board(with_part({"--fault=post-missing"}, "append"));
  EXPECT_EQ(missing.status, 1);
}

TEST_F(launcher, reports_programs_that_cannot_run) {
  const struct {
    const char *program, *error;
    int status;
  } cases[] = {
      {"/no/such", "/no/such: No such file or directory\n", 127},
      {"no-such-command", "no-such-command: not found in PATH\n", 127},
      {"/etc/passwd", "/etc/passwd: Permission denied\n", 126},
  };
  for (const auto &c : cases) {
    const auto r = board({"--", c.program});
    EXPECT_EQ(r.status, c.status) << c.program;
    EXPECT_EQ(r.err, std::string("board-sim: ") + c.error);
  }
}

// A file that looks like a program of the other word size would run without the board.
TEST_F(launcher, refuses_programs_of_the_other_word_size) {
  const auto other = m_dir + "/other";
  const auto script = m_dir + "/script";
  const char head[] = {0x7F, 'E', 'L', 'F', sizeof(void *) == 8 ? 1 : 2, 1, 1};
  FILE *f = fopen(other.c_str(), "w");
  ASSERT_EQ(fwrite(head, 1, sizeof(head), f), sizeof(head));
  (void)fclose(f);
  f = fopen(script.c_str(), "w");
  ASSERT_GT(fprintf(f, "#! %s -x\n", other.c_str()), 0);
  (void)fclose(f);
  for (const auto &path : {other, script}) {
    ASSERT_EQ(chmod(path.c_str(), 0700), 0);
    const auto r = board({"--", path});
    EXPECT_EQ(r.status, 126);
    EXPECT_THAT(r.err, testing::MatchesRegex("board-sim: .*: this board runs (64|32)-bit programs only\n"));
  }
}

TEST_F(launcher, names_the_signal_that_ended_the_program) {
  const auto r = board(with_part({}, "raise", std::to_string(SIGKILL)));
  EXPECT_EQ(r.status, 128 + SIGKILL);
  EXPECT_EQ(r.err, "board-sim: " + own_path() + " was ended by signal 9 (Killed)\n");
}

TEST_F(launcher, hands_signals_on_and_cleans_up) {
  for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
    process p(with_part({}, "wait"));
    p.wait_for_output(8);
    EXPECT_EQ(entries(m_dir).size(), 1u) << "the temporary state directory";
    ASSERT_EQ(kill(p.pid(), signal), 0);
    const auto r = p.finish();
    EXPECT_EQ(r.status, 128 + signal);
    EXPECT_EQ(r.out, "waiting\n");
    EXPECT_THAT(entries(m_dir), testing::IsEmpty());
  }
}

TEST_F(launcher, takes_the_program_along_when_it_is_killed) {
  const auto state = m_dir + "/state";
  process p(with_part({"--state", state}, "wait"));
  p.wait_for_output(8);
  ASSERT_EQ(kill(p.pid(), SIGKILL), 0);
  // The output ends when the last writer has gone.
  EXPECT_EQ(p.finish().status, 128 + SIGKILL);
  EXPECT_THAT(entries(state), testing::Contains("eeprom-1-52"));
}

TEST_F(launcher, keeps_a_state_directory_and_removes_a_temporary_one) {
  const auto state = m_dir + "/new/state";
  const auto kept = board(with_part({"--state", state, "--show-result"}, "append"));
  EXPECT_EQ(kept.status, 0) << kept.err;
  EXPECT_EQ(kept.out, "0:4:0:1\n0:4:1:2\n");
  EXPECT_THAT(entries(state + "/post"), testing::ElementsAre("result"));
  EXPECT_EQ(board(with_part({"--state", state, "--show-result"}, "append")).out, kept.out + kept.out);
  EXPECT_EQ(board(with_part({"--state", state}, "print", "/post/result")).out, kept.out + kept.out);
  const auto temporary = board(with_part({"--show-result"}, "append"));
  EXPECT_EQ(temporary.out, kept.out);
  EXPECT_EQ(temporary.err, "");
  EXPECT_THAT(entries(m_dir), testing::ElementsAre("new"));
}

TEST_F(launcher, takes_relative_paths_from_where_it_was_started) {
  ASSERT_EQ(chdir(m_dir.c_str()), 0);
  const auto r = board(with_part({"--state", "here", "--trace", "log"}, "append"));
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_THAT(entries(m_dir), testing::UnorderedElementsAre("here", "log"));
  ASSERT_EQ(chdir("/"), 0);
}

TEST_F(launcher, starts_a_log_anew_for_each_run) {
  const auto log = m_dir + "/log";
  FILE *const f = fopen(log.c_str(), "w");
  ASSERT_GT(fputs("old\n", f), 0);
  (void)fclose(f);
  EXPECT_EQ(board(with_part({"--trace", log}, "exit", "0")).status, 0);
  struct stat st {};
  EXPECT_EQ(stat(log.c_str(), &st), 0);
  EXPECT_EQ(st.st_size, 0);
}

TEST_F(launcher, holds_locks_for_a_while) {
  const std::string lock = "/var/lock/RTC_NVRAM1-write.lock";
  const struct {
    const char *fault, *path, *output;
  } cases[] = {
      {"lock-held lock=nvram1 kind=write ms=600", "/var/lock/RTC_NVRAM1-write.lock", "taken for a while\n"},
      {"lock-held lock=nvram1 kind=write ms=600", "/var/lock/RTC_NVRAM1-read.lock", "free\n"},
      {"lock-held lock=nvram1 kind=write ms=600", "/var/lock/RTC_NVRAM0-write.lock", "free\n"},
      {"lock-held lock=flash kind=read ms=600", "/var/lock/OBFL_Flash0-read.lock", "taken for a while\n"},
      {"lock-held lock=nvram0 kind=read ms=600000", "/var/lock/RTC_NVRAM2-read.lock", "free\n"},
  };
  for (const auto &c : cases) {
    const auto r = board(with_part({"--fault", c.fault}, "lock", c.path));
    EXPECT_EQ(r.out, c.output) << c.fault << " " << c.path;
    EXPECT_EQ(r.err, "");
  }
  EXPECT_THAT(entries(m_dir), testing::IsEmpty());
}

TEST_F(launcher, lets_the_programs_shell_meet_the_board_without_the_preload_library) {
  EXPECT_THAT(board(with_part({}, "environment", "LD_PRELOAD")).out, testing::HasSubstr("/lib/libboard_sim.so"));
  const auto r = board(with_part({"--fault=ethtool-fail port=eth5 test=eeprom code=2"}, "system",
                                 "echo \"[$LD_PRELOAD]\"; ethtool -t eth5 >/post/log; echo $?; cat /post/log"));
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out,
            "[]\n1\nThe test result is FAIL\nThe test extra info:\nRegister test  (offline)\t 0\n"
            "Eeprom test    (offline)\t 2\nInterrupt test (offline)\t 0\nLoopback test  (offline)\t 0\n"
            "Link test   (on/offline)\t 0\n\n");
}

// Fails before the program starts, so that the program never meets the real machine instead.
TEST_F(launcher, runs_nothing_when_the_board_cannot_be_built) {
  const auto state = m_dir + "/state";
  ASSERT_EQ(board(with_part({"--state", state}, "exit", "0")).status, 0);
  const auto eeprom = state + "/eeprom-1-52";
  ASSERT_EQ(truncate(eeprom.c_str(), 100), 0);
  const auto r = board(with_part({"--state", state}, "print", "/proc/cpuinfo"));
  EXPECT_EQ(r.status, 2);
  EXPECT_EQ(r.out, "");
  EXPECT_EQ(r.err, "board-sim: " + eeprom + ": File too large\n");
}

}  // namespace

int main(int argc, char **argv) {
  if (argc == 4 && std::string(argv[1]) == "--part") return part(argv[2], argv[3]);
  testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
