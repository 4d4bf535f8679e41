// The files and services of the operating system as a program on the board meets them: through the C library.
#include <dirent.h>

#include "sim/board/cpuinfo.h"
#include "sim/board/paths.h"
#include "tests/support/board.h"

extern "C" {
int __open_2(const char *path, int flags), __open64_2(const char *path, int flags);
int __openat_2(int dir, const char *path, int flags), __openat64_2(int dir, const char *path, int flags);
int __stat64_time64(const char *path, void *st), __lstat64_time64(const char *path, void *st);
int __fstatat64_time64(int dir, const char *path, void *st, int flags);
}

namespace {

// --- Paths ----------------------------------------------------------------------------------------------------------

TEST(sim_redirect, covers_the_boards_paths_and_no_others) {
  // The place in the state directory, "" for a path that is not the board's.
  const std::pair<const char *, const char *> cases[] = {
      // clang-format off
      {"/post", "/S/post"}, {"/post/", "/S/post"}, {"//post/./a/../result", "/S/post/result"}, {"/tmp/../post/a", "/S/post/a"},
      {"/post/../etc/passwd", "/etc/passwd"}, {"/postal", ""}, {"/tmp/post/a", ""}, {"post/a", ""}, {"", ""}, {"/", ""},
      {"/var/lock/a.lock", "/S/var/lock/a.lock"}, {"/var/lockers", ""}, {"/var/lib/post-locate/a", "/S/var/lib/post-locate/a"}, {"/var/lib/a", ""},
      {"/proc/bus/pci/devices", "/S/proc/bus/pci/devices"}, {"/proc/bus/pci/devices/x", ""}, {"/proc/cpuinfo", "/S/proc/cpuinfo"},
      {"/dev/sprom", "/S/dev/sprom"}, {"/dev/mem", "/S/dev/mem"}, {"/dev/memory", ""}, {"/dev/null", ""},
      {"/dev/i2c-1", "/S/dev/i2c-1"}, {"/dev/i2c-2", "/S/missing/dev/i2c-2"}, {"/dev/i2c-01", ""}, {"/dev/i2c-", ""}, {"/dev/i2c-1x", ""},
      // clang-format on
  };
  auto opts = board_options("/S", {});
  for (const auto &[path, place] : cases) {
    const auto to = sim::redirect(opts, path, true);
    EXPECT_EQ(to ? to->path : "", place) << path;
  }
  // clang-format off
  const struct { const char *state, *command, *rewritten; } commands[] = {
      {"/S",    "ethtool -t eth0 > /post/a.log",          "ethtool -t eth0 > /S/post/a.log"},
      {"/S",    "cat</proc/cpuinfo>/post/a;rm /post/b",   "cat</S/proc/cpuinfo>/S/post/a;rm /S/post/b"},
      {"/S",    "ls /postal /home/post a/post \\/post",   "ls /postal /home/post a/post \\/post"},
      {"/S",    "dd \"of=/post/a b\" '/post/c'",          "dd \"of=/S/post/a b\" '/S/post/c'"},
      {"/a b$", "rm /post/x \"/post/x\"",                 "rm /a\\ b\\$/post/x \"/a b\\$/post/x\""},
      {"/a'b",  "rm '/post/x' /post/y",                   "rm '/a'\\''b/post/x' /a\\'b/post/y"},
  };
  // clang-format on
  for (const auto &[state, command, rewritten] : commands) {
    opts.state = state;
    EXPECT_EQ(sim::redirect_command(opts, command), rewritten);
  }
}

TEST(sim_files, are_reached_by_every_form_of_opening) {
  const test_board board;
  const mode_t mask = umask(0077);
  constexpr int make = O_WRONLY | O_CREAT;
  const auto put = [](int fd) { return fd >= 0 && write(fd, "x", 1) == 1 && close(fd) == 0; };
  const auto put_stream = [](FILE *f) { return f != nullptr && fputc('x', f) == 'x' && fclose(f) == 0; };
  const std::function<bool(const char *)> forms[] = {
      // clang-format off
      [&](const char *p) { return put(open(p, make, 0600)); },
      [&](const char *p) { return put(open64(p, make, 0600)); },
      [&](const char *p) { return put(openat(AT_FDCWD, p, make, 0600)); },
      [&](const char *p) { return put(openat64(-1, p, make, 0600)); },
      [&](const char *p) { return put(creat(p, 0600)); },
      [&](const char *p) { return put(creat64(p, 0600)) && put(__open_2(p, O_WRONLY)); },
      [&](const char *p) { return put(creat(p, 0600)) && put(__open64_2(p, O_WRONLY)); },
      [&](const char *p) { return put(creat(p, 0600)) && put(__openat_2(-1, p, O_WRONLY)); },
      [&](const char *p) { return put(creat(p, 0600)) && put(__openat64_2(-1, p, O_WRONLY)); },
      [&](const char *p) { return put_stream(fopen(p, "w")); },
      [&](const char *p) { return put_stream(fopen64(p, "w")); },
      [&](const char *p) { return put_stream(freopen(p, "w", fopen("/dev/null", "r"))); },
      // clang-format on
  };
  for (const auto &form : forms) {
    SCOPED_TRACE(&form - forms);
    errno = 77;
    EXPECT_TRUE(form("/post/a"));
    EXPECT_EQ(errno, 77);
    EXPECT_EQ(board.contents("post/a"), "x");
    struct stat st {};
    EXPECT_EQ(stat("/post/a", &st), 0);
    EXPECT_EQ(st.st_mode & 0777U, 0600U);
    EXPECT_TRUE(form("/post/a") && rename("/post/a", "/post/b") == 0 && access("/post/a", F_OK) == -1);
#if __SIZEOF_POINTER__ == 4
    alignas(8) char wide[256];
    EXPECT_EQ(__stat64_time64("/post/b", wide) + __lstat64_time64("/post/b", wide), 0);
    EXPECT_EQ(__fstatat64_time64(AT_FDCWD, "/post/b", wide, 0), 0);
#endif
    EXPECT_EQ(unlink("/post/b"), 0);
  }
  (void)umask(mask);
  DIR *const dir = opendir("/post");
  ASSERT_NE(dir, nullptr);
  (void)closedir(dir);
}

// The file system that a path leads to. The board's text may be that of the machine at hand, line by line.
dev_t file_system_of(const std::filesystem::path &path) {
  struct stat st {};
  EXPECT_EQ(fstat(unique_fd(open(path.c_str(), O_RDONLY | O_CLOEXEC)).get(), &st), 0) << path;
  return st.st_dev;
}

TEST(sim_files, are_the_machines_own_without_a_board) {
  const auto own = file_system_of("/proc/cpuinfo");
  {
    const test_board board;
    EXPECT_EQ(read_file("/proc/cpuinfo"), board.contents("proc/cpuinfo"));
    EXPECT_EQ(file_system_of("/proc/cpuinfo"), file_system_of(board.file("proc/cpuinfo")));
    EXPECT_NE(file_system_of("/proc/cpuinfo"), own);
  }
  EXPECT_EQ(file_system_of("/proc/cpuinfo"), own);
  EXPECT_EQ(open("/dev/sprom", O_RDWR), -1);
}

TEST(sim_files, name_the_true_clock_rate) {
  (void)unsetenv("BOARD_SIM_TSC_KHZ");
  const test_board board;
  const auto text = read_file("/proc/cpuinfo");
  const double measured = static_cast<double>(sim::tsc_khz()) / 1000;
  EXPECT_NEAR(std::stod(text.substr(text.find("\ncpu MHz\t\t: ") + 12)), measured, measured / 1000);
}

// --- /dev/sprom -----------------------------------------------------------------------------------------------------

// The record of a request, with the pointer where the word size puts it.
struct request {
  uint32_t command = 3;
  uint8_t a = 0, b = 0;
  uint16_t c = 0, length = 4;
  uint8_t d = 0, e = 0;
  uint16_t *answer = nullptr;
  uint32_t flags = 0;
};

constexpr unsigned long get_card_index = 0x80044314, get_hw_changes = 0x80044317;
constexpr auto sign_extended = static_cast<unsigned long>(static_cast<int>(get_hw_changes));

TEST(sim_sprom_driver, answers_two_requests_and_refuses_all_others) {
  const test_board board({"--card=11096", "--change-bits=0x123456789", "sprom-refuse after=13 errno=5"});
  const int fd = open("/dev/sprom", O_RDWR | O_CLOEXEC);
  EXPECT_EQ(fcntl(fd, F_GETFD), FD_CLOEXEC);
  // clang-format off
  const struct { unsigned long number; void (*spoil)(request *); int error; uint16_t answer = 0x5555; } cases[] = {
      {get_card_index, [](request *) {}, 0, 11096},
      {get_hw_changes, [](request *) {}, 0, 0x6789},
      {sign_extended,  [](request *) {}, 0, 0x6789},
      {0x80044315,     [](request *) {}, ENOTTY},
      {get_card_index, [](request *r) { r->command = 4; }, EINVAL},
      {get_card_index, [](request *r) { r->a = 1; }, EINVAL},
      {get_card_index, [](request *r) { r->b = 1; }, EINVAL},
      {get_card_index, [](request *r) { r->c = 1; }, EINVAL},
      {get_card_index, [](request *r) { r->length = 2; }, EINVAL},
      {get_card_index, [](request *r) { r->d = 1; }, EINVAL},
      {get_card_index, [](request *r) { r->e = 1; }, EINVAL},
      {get_card_index, [](request *r) { r->flags = 1; }, EINVAL},
      {get_card_index, [](request *r) { r->answer = nullptr; }, EFAULT},
      {get_card_index, [](request *) {}, EIO},  // the fourteenth
  };
  // clang-format on
  uint16_t answer = 0;
  for (const auto &c : cases) {
    SCOPED_TRACE(&c - cases);
    answer = 0x5555;
    request r{.answer = &answer};
    c.spoil(&r);
    EXPECT_EQ(ioctl(fd, c.number, &r) == 0 ? 0 : errno, c.error);
    EXPECT_EQ(answer, c.answer);
  }
  // Given to another file behind the C library's back, the number is that file's.
  const int null = open("/dev/null", O_RDWR | O_CLOEXEC);
  ASSERT_EQ(dup2(null, fd), fd);
  request r{.answer = &answer};
  EXPECT_EQ(ioctl(fd, get_card_index, &r), -1);
  EXPECT_EQ(errno, ENOTTY);
  (void)close(fd);
  (void)close(null);
}

// --- The shell ------------------------------------------------------------------------------------------------------

TEST(sim_shell, finds_the_boards_commands_alone) {
  const std::string pass =
      "The test result is PASS\nThe test extra info:\nRegister test  (offline)\t 0\nEeprom test    (offline)\t 0\n"
      "Interrupt test (offline)\t 0\nLoopback test  (offline)\t 0\nLink test   (on/offline)\t 0\n\n";
  auto fail = pass;
  fail.replace(19, 4, "FAIL").replace(fail.find("Loopback") + 26, 1, "13");
  // clang-format off
  const struct { std::vector<const char *> with; std::string command; int status; std::string output; } cases[] = {
      {{}, "ethtool -t eth5 online", 0, pass},
      {{"ethtool-fail port=eth5 test=loopback code=13"}, "ethtool -t eth5", 1, fail},
      {{}, "ethtool -t eth3", 71, ""},
      {{}, "echo \"[$LD_PRELOAD]\"; exit 7", 7, "[]\n"},
      {{}, "echo a >/post/b && cp /post/b /post/c && cat /post/c", 0, "a\n"},
  };
  // clang-format on
  (void)setenv("LD_PRELOAD", "libc.so.6", 1);
  for (const auto &[with, command, status, output] : cases) {
    SCOPED_TRACE(command);
    const test_board board(with);
    EXPECT_EQ(WEXITSTATUS(system(("(" + command + ") >/post/out 2>/dev/null").c_str())), status);
    EXPECT_EQ(board.contents("post/out"), output);
  }
  (void)unsetenv("LD_PRELOAD");
}

// The board's own code may not call what it stands in for, or it would meet itself.
TEST(sim_logic, calls_no_interposed_function) {
  const auto count = [](const std::string &command) { return lines_of(run_shell("/", command).out).size(); };
  const std::string interposed = "nm -jg --defined-only '" SIM_INTERPOSE "' | sort -u";
  const std::string used = "nm -ju '" SIM_LOGIC "' | sort -u";
  EXPECT_GT(count(interposed), 30U);
  EXPECT_GT(count(used), 100U);
  EXPECT_EQ(count("{ " + interposed + "; " + used + "; } | sort | uniq -d"), 0U);
}

}  // namespace
