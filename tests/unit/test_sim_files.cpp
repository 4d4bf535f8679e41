// The files and services of the operating system as a program on the board meets them: through the C library.
#include <dirent.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdio.h>
#include <sys/io.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cinttypes>
#include <cstring>
#include <functional>
#include <sstream>
#include <string>
#include <vector>

#include "sim/cpuinfo.h"
#include "sim/layout.h"
#include "sim/paths.h"
#include "sim/pci_list.h"
#include "tests/sim_fixture.h"

extern "C" {
int __open_2(const char *path, int flags);
int __open64_2(const char *path, int flags);
int __openat_2(int dir, const char *path, int flags);
int __openat64_2(int dir, const char *path, int flags);
}

namespace {

using strings = std::vector<std::string>;

std::string slurp(const char *path) {
  FILE *const f = fopen(path, "r");
  if (f == nullptr) return std::string("errno ") + std::to_string(errno);
  std::string text;
  for (int c = getc(f); c != EOF; c = getc(f))
    text += static_cast<char>(c);
  (void)fclose(f);
  return text;
}

sim::options options_of(const strings &args) {
  std::string error;
  const auto opts = sim::options_parse(args, &error);
  EXPECT_TRUE(opts) << error;
  return opts.value_or(sim::options{});
}

// The PCI list's fields, one vector a line.
std::vector<strings> pci_fields(const strings &args) {
  std::istringstream lines(sim::pci_list(options_of(args)));
  std::vector<strings> all;
  for (std::string line; std::getline(lines, line);) {
    std::istringstream fields(line);
    all.emplace_back();
    for (std::string field; std::getline(fields, field, '\t');)
      all.back().push_back(field);
    if (line.ends_with('\t')) all.back().emplace_back();
  }
  return all;
}

// Position and ids of a function as the list has them, "" if it lacks the function.
std::string pci_ids(const strings &args, const std::string &position) {
  for (const auto &fields : pci_fields(args))
    if (fields.at(0) == position) return fields.at(1);
  return "";
}

TEST(sim_pci_list, has_the_kernels_form_and_order_for_every_card) {
  for (const auto *const card : {"11061", "11062", "11079", "11080", "11096", "11099", "11111", "5"}) {
    SCOPED_TRACE(card);
    std::string before;
    size_t bridges = 0;
    for (const auto &fields : pci_fields({"--card", card})) {
      ASSERT_EQ(fields.size(), 18u);
      EXPECT_THAT(fields[0], testing::MatchesRegex("[0-9a-f][0-9a-f][0-9a-f][0-9a-f]"));
      EXPECT_LT(before, fields[0]);
      before = fields[0];
      EXPECT_EQ(fields[1].size(), 8u);
      for (size_t i = 3; i < 17; i++)
        EXPECT_EQ(fields[i].size(), 16u);
      bridges += fields[1] == "10b59030" ? 1u : 0u;
    }
    EXPECT_EQ(bridges, 1u);
  }
}

TEST(sim_pci_list, holds_the_functions_of_card_and_revision) {
  const struct {
    strings args;
    const char *position, *ids;
  } cases[] = {
      {{"--card=11061"}, "0201", "80861521"}, {{"--card=11061"}, "0104", "80860436"},
      {{"--card=11099"}, "2100", "11ab8000"}, {{"--card=11099"}, "1b00", "1e4d0078"},
      {{"--card=11062"}, "0200", "80861521"}, {{"--card=11062", "--revision=P0"}, "0200", "808610a7"},
      {{"--card=11111"}, "2c00", "80861523"}, {{"--card=11111", "--change-bits=0"}, "2c00", "808610a9"},
      {{"--card=11062"}, "5208", "10b58618"}, {{"--card=11062"}, "2b00", "1e4d0077"},
      {{"--card=11079"}, "0808", "10b58608"}, {{"--card=11080"}, "0e00", "1e4d0077"},
      {{"--card=11096"}, "0500", "10b58112"}, {{"--card=11096"}, "0f00", "1e4d00be"},
      {{"--card=1"}, "2e00", "10b59030"},     {{"--card=11062", "--change-bits=0x100000000"}, "2c00", "80861523"},
  };
  for (const auto &c : cases)
    EXPECT_EQ(pci_ids(c.args, c.position), c.ids) << c.args[0] << " " << c.position;
}

TEST(sim_pci_list, gives_the_bridge_the_windows_of_the_local_bus) {
  for (const auto &fields : pci_fields({"--card=11096"})) {
    if (fields[1] != "10b59030") continue;
    for (const auto &w : sim::windows) {
      char base[32], size[32];
      (void)snprintf(base, sizeof(base), "%16x", w.base);
      (void)snprintf(size, sizeof(size), "%16x", w.length);
      EXPECT_EQ(fields[3 + (w.bar - 0x10) / 4], base) << w.name;
      EXPECT_EQ(fields[10 + (w.bar - 0x10) / 4], size) << w.name;
    }
  }
}

TEST(sim_pci_list, shows_its_faults) {
  const auto bridge = [](const std::string &fault, size_t field) {
    for (const auto &fields : pci_fields({"--fault", fault}))
      if (fields[1] == "10b59030") return fields.at(field).substr(fields.at(field).find_first_not_of(' '));
    return std::string("no bridge");
  };
  EXPECT_EQ(pci_ids({"--fault=pci-missing bus=0x2c dev=0 func=0"}, "2c00"), "");
  EXPECT_NE(pci_ids({"--fault=pci-missing bus=0x2c dev=0 func=0"}, "2b00"), "");
  EXPECT_EQ(pci_ids({"--fault=pci-wrong-id bus=4 dev=1 func=0 device=0x1234"}, "0408"), "10b51234");
  EXPECT_EQ(pci_ids({"--fault=pci-wrong-id bus=4 dev=1 func=0 vendor=1"}, "0408"), "00018608");
  EXPECT_EQ(bridge("bar-missing bar=5", 8), "0");
  EXPECT_EQ(bridge("bar-missing bar=5", 15), "0");
  EXPECT_EQ(bridge("bar-io bar=3", 6), "f4010001");
  EXPECT_EQ(bridge("bar-64bit bar=2", 5), "f4000004");
  EXPECT_EQ(bridge("bar-64bit bar=2", 6), "1");
  EXPECT_EQ(bridge("bar-64bit bar=4 high=0xABCD", 8), "abcd");
  EXPECT_EQ(sim::pci_check(options_of({"--fault=pci-missing bus=0x2d dev=0 func=0"})),
            "fault 'pci-missing bus=0x2d dev=0 func=0': the board has no such PCI function");
  EXPECT_EQ(sim::pci_check(options_of({"--fault=pci-missing bus=0x2e dev=0 func=0"})), "");
}

TEST(sim_redirect, covers_the_boards_paths_and_no_others) {
  const auto opts = options_of({"--state=/S"});
  const struct {
    const char *path, *place;  // place "" for a path that is not the board's
  } cases[] = {
      {"/post", "/S/post"},
      {"/post/", "/S/post"},
      {"/post/result", "/S/post/result"},
      {"//post/./a/../result", "/S/post/result"},
      {"/tmp/../post/result", "/S/post/result"},
      {"/post/../etc/passwd", ""},
      {"/postal", ""},
      {"/tmp/post/result", ""},
      {"post/result", ""},
      {"", ""},
      {"/", ""},
      {"/var/lock/a.lock", "/S/var/lock/a.lock"},
      {"/var/lockers", ""},
      {"/proc/bus/pci/devices", "/S/proc/bus/pci/devices"},
      {"/proc/bus/pci/devices/x", ""},
      {"/proc/cpuinfo", "/S/proc/cpuinfo"},
      {"/dev/sprom", "/S/dev/sprom"},
      {"/dev/mem", "/S/dev/mem"},
      {"/dev/memory", ""},
      {"/dev/i2c-1", "/S/dev/i2c-1"},
      {"/dev/i2c-2", "/S/missing/dev/i2c-2"},
      {"/dev/i2c-01", ""},
      {"/dev/i2c-", ""},
      {"/dev/i2c-1x", ""},
      {"/dev/null", ""},
  };
  for (const auto &c : cases) {
    const auto to = sim::redirect(opts, c.path, true);
    EXPECT_EQ(to ? to->path : "", c.place) << c.path;
  }
}

TEST(sim_redirect, rewrites_shell_commands_where_a_path_stands) {
  const struct {
    const char *state, *command, *rewritten;
  } cases[] = {
      {"/S", "ethtool -t eth0 > /post/ethtool.log", "ethtool -t eth0 > /S/post/ethtool.log"},
      {"/S", "rm /post/ethtool.log", "rm /S/post/ethtool.log"},
      {"/S", "cat</proc/cpuinfo>/post/a;rm /post/b", "cat</S/proc/cpuinfo>/S/post/a;rm /S/post/b"},
      {"/S", "ls /postal /home/post a/post", "ls /postal /home/post a/post"},
      {"/S", "ls \"/post/a b\" '/post/c'", "ls \"/S/post/a b\" '/S/post/c'"},
      {"/S", "echo \\/post", "echo \\/post"},
      {"/S", "dd of=/post/x", "dd of=/S/post/x"},
      {"/a b$", "rm /post/x", "rm /a\\ b\\$/post/x"},
      {"/a b$", "rm \"/post/x\"", "rm \"/a b\\$/post/x\""},
      {"/a'b", "rm '/post/x' /post/y", "rm '/a'\\''b/post/x' /a\\'b/post/y"},
      {"/S", "", ""},
  };
  for (const auto &c : cases)
    EXPECT_EQ(sim::redirect_command(options_of({std::string("--state=") + c.state}), c.command), c.rewritten);
}

TEST(sim_files, are_reached_by_every_form_of_opening) {
  const sim_board board;
  const auto put = [](int fd) {
    if (fd < 0) return false;
    const bool written = write(fd, "x", 1) == 1;
    return close(fd) == 0 && written;
  };
  const auto put_stream = [](FILE *f) { return f != nullptr && fputc('x', f) == 'x' && fclose(f) == 0; };
  const struct {
    const char *name;
    std::function<bool(const char *)> make;
  } forms[] = {
      {"open", [&](const char *p) { return put(open(p, O_WRONLY | O_CREAT, 0600)); }},
      {"open64", [&](const char *p) { return put(open64(p, O_WRONLY | O_CREAT, 0600)); }},
      {"openat", [&](const char *p) { return put(openat(AT_FDCWD, p, O_WRONLY | O_CREAT, 0600)); }},
      {"openat64", [&](const char *p) { return put(openat64(-1, p, O_WRONLY | O_CREAT, 0600)); }},
      {"creat", [&](const char *p) { return put(creat(p, 0600)); }},
      {"creat64", [&](const char *p) { return put(creat64(p, 0600)); }},
      {"__open_2", [&](const char *p) { return put(creat(p, 0600)) && put(__open_2(p, O_WRONLY | O_TRUNC)); }},
      {"__open64_2", [&](const char *p) { return put(creat(p, 0600)) && put(__open64_2(p, O_WRONLY | O_TRUNC)); }},
      {"__openat_2", [&](const char *p) { return put(creat(p, 0600)) && put(__openat_2(-1, p, O_WRONLY | O_TRUNC)); }},
      {"__openat64_2",
       [&](const char *p) { return put(creat(p, 0600)) && put(__openat64_2(-1, p, O_WRONLY | O_TRUNC)); }},
      {"fopen", [&](const char *p) { return put_stream(fopen(p, "w")); }},
      {"fopen64", [&](const char *p) { return put_stream(fopen64(p, "w")); }},
      {"freopen", [&](const char *p) { return put_stream(freopen(p, "w", fopen("/dev/null", "r"))); }},
  };
  for (const auto &form : forms) {
    SCOPED_TRACE(form.name);
    const auto path = std::string("/post/") + form.name;
    EXPECT_TRUE(form.make(path.c_str()));
    EXPECT_EQ(board.read("post/" + std::string(form.name)), "x");
    struct stat st {};
    EXPECT_EQ(stat(path.c_str(), &st), 0);
    EXPECT_EQ(st.st_size, 1);
    EXPECT_EQ(st.st_mode & 0077u, form.name[0] == 'f' ? 0044u : 0u);
    EXPECT_EQ(access(path.c_str(), R_OK), 0);
    EXPECT_EQ(form.name[0] == 'f' ? remove(path.c_str()) : unlink(path.c_str()), 0);
    EXPECT_EQ(access(path.c_str(), F_OK), -1);
  }
  DIR *const dir = opendir("/post");
  ASSERT_NE(dir, nullptr);
  (void)closedir(dir);
}

TEST(sim_files, leave_errno_and_other_files_alone) {
  const sim_board board;
  errno = 77;
  const int fd = open("/post/result", O_WRONLY | O_CREAT, 0600);
  EXPECT_EQ(errno, 77);
  EXPECT_EQ(close(fd), 0);
  FILE *const f = fopen("/proc/cpuinfo", "r");
  EXPECT_EQ(errno, 77);
  (void)fclose(f);
  const int device = open("/dev/i2c-1", O_RDWR);
  EXPECT_EQ(errno, 77);
  EXPECT_EQ(close(device), 0);
  EXPECT_EQ(errno, 77);

  char own[] = "/tmp/board-other-XXXXXX";
  const int other = mkstemp(own);
  ASSERT_GE(other, 0);
  EXPECT_EQ(write(other, "abcd", 4), 4);
  void *const at = mmap(nullptr, 4, PROT_READ, MAP_PRIVATE, other, 0);
  ASSERT_NE(at, MAP_FAILED);
  EXPECT_EQ(memcmp(at, "abcd", 4), 0);
  EXPECT_EQ(munmap(at, 4), 0);
  EXPECT_EQ(ioctl(other, TIOCGPGRP, nullptr), -1);
  EXPECT_EQ(errno, ENOTTY);
  EXPECT_EQ(close(other), 0);
  EXPECT_EQ(unlink(own), 0);
}

TEST(sim_files, are_the_machines_own_without_a_board) {
  sim::board_stop();
  const auto own = slurp("/proc/cpuinfo");
  {
    const sim_board board;
    EXPECT_EQ(slurp("/proc/cpuinfo"), board.read("proc/cpuinfo"));
    EXPECT_NE(slurp("/proc/cpuinfo"), own);
  }
  EXPECT_NE(slurp("/proc/cpuinfo").find("processor"), std::string::npos);
  EXPECT_EQ(slurp("/proc/cpuinfo").substr(0, 40), own.substr(0, 40));
  EXPECT_EQ(open("/dev/sprom", O_RDWR), -1);
  EXPECT_EQ(sim::board_options(), nullptr);
}

// What opening a path gives: 0 or the errno value.
int opening(const char *path, int flags) {
  const int fd = open(path, flags, 0600);
  if (fd < 0) return errno;
  (void)close(fd);
  return 0;
}

TEST(sim_files, fail_as_their_faults_say) {
  const struct {
    const char *fault, *path;
    int flags, error;
  } cases[] = {
      {"post-missing", "/post/result", O_WRONLY | O_CREAT | O_APPEND, ENOENT},
      {"post-missing", "/var/lock/a.lock", O_RDWR | O_CREAT, 0},
      {"pci-list-unreadable", "/proc/bus/pci/devices", O_RDONLY, EACCES},
      {"pci-list-unreadable errno=24", "/proc/bus/pci/devices", O_RDONLY, EMFILE},
      {"pci-list-unreadable", "/proc/cpuinfo", O_RDONLY, 0},
      {"cpuinfo-missing", "/proc/cpuinfo", O_RDONLY, ENOENT},
      {"lock-dir-missing", "/var/lock/a.lock", O_RDWR | O_CREAT | O_TRUNC, ENOENT},
      {"lock-dir-read-only", "/var/lock/a.lock", O_RDWR | O_CREAT | O_TRUNC, EROFS},
      {"lock-dir-read-only", "/var/lock", O_RDONLY | O_DIRECTORY, 0},
      {"sprom-absent", "/dev/sprom", O_RDWR, ENOENT},
      {"sprom-refuse", "/dev/sprom", O_RDWR, 0},
      {"mem-absent", "/dev/mem", O_RDWR, ENOENT},
      {"mem-absent errno=13", "/dev/mem", O_RDWR, EACCES},
      {"i2c-bus-absent bus=1", "/dev/i2c-1", O_RDWR, ENOENT},
      {"i2c-absent bus=1 addr=0x52", "/dev/i2c-1", O_RDWR, 0},
  };
  for (const auto &c : cases) {
    const sim_board board({"--fault", c.fault});
    EXPECT_EQ(opening(c.path, c.flags), c.error) << c.fault << " " << c.path;
  }
}

TEST(sim_cpuinfo, names_the_true_rate_unless_a_fault_says_otherwise) {
  const auto rate_line = [](const strings &args) {
    const sim_board board(args);
    const auto text = slurp("/proc/cpuinfo");
    const auto at = text.find("\ncpu MHz");
    return at == std::string::npos ? "none" : text.substr(at + 1, text.find('\n', at + 1) - at - 1);
  };
  const auto line = rate_line({});
  ASSERT_TRUE(line.starts_with("cpu MHz\t\t: ")) << line;
  const double named = std::stod(line.substr(line.find(':') + 1));
  const double measured = static_cast<double>(sim::tsc_khz()) / 1000;
  EXPECT_NEAR(named, measured, measured / 1000);
  EXPECT_EQ(rate_line({"--fault=cpuinfo-no-rate"}), "none");
  EXPECT_EQ(rate_line({"--fault=cpuinfo-rate khz=0"}), "cpu MHz\t\t: 0.000");
  EXPECT_EQ(rate_line({"--fault=cpuinfo-rate khz=4294967297"}), "cpu MHz\t\t: 4294967.297");
}

// The record of a request, with the pointer where the word size puts it.
struct request {
  uint32_t command = 3;
  uint8_t a = 0, b = 0;
  uint16_t c = 0, length = 4;
  uint8_t d = 0, e = 0;
  uint16_t *answer = nullptr;
  uint32_t flags = 0;
};

constexpr unsigned long get_card_index = 0x80044314;
constexpr unsigned long get_hw_changes = 0x80044317;

TEST(sim_sprom_driver, answers_card_index_and_change_bits) {
  const sim_board board({"--card=11096", "--change-bits=0x123456789"});
  const int fd = open("/dev/sprom", O_RDWR);
  ASSERT_GE(fd, 0);
  uint16_t answer = 0;
  request r{.answer = &answer};
  EXPECT_EQ(ioctl(fd, get_card_index, &r), 0);
  EXPECT_EQ(answer, 11096);
  EXPECT_EQ(ioctl(fd, get_hw_changes, &r), 0);
  EXPECT_EQ(answer, 0x6789);
  EXPECT_EQ(close(fd), 0);
  EXPECT_EQ(ioctl(fd, get_card_index, &r), -1);
  EXPECT_EQ(errno, EBADF);
}

TEST(sim_sprom_driver, refuses_every_other_request_and_touches_nothing) {
  const sim_board board;
  const int fd = open("/dev/sprom", O_RDWR);
  uint16_t answer = 0x5555;
  const struct {
    const char *name;
    unsigned long number;
    void (*spoil)(request *);
    int error;
  } cases[] = {
      {"number", 0x80044315, [](request *) {}, ENOTTY},
      {"command", get_card_index, [](request *r) { r->command = 4; }, EINVAL},
      {"offset 4", get_card_index, [](request *r) { r->a = 1; }, EINVAL},
      {"offset 5", get_card_index, [](request *r) { r->b = 1; }, EINVAL},
      {"offset 6", get_card_index, [](request *r) { r->c = 1; }, EINVAL},
      {"length", get_card_index, [](request *r) { r->length = 2; }, EINVAL},
      {"offset 10", get_card_index, [](request *r) { r->d = 1; }, EINVAL},
      {"offset 11", get_card_index, [](request *r) { r->e = 1; }, EINVAL},
      {"flags", get_card_index, [](request *r) { r->flags = 1; }, EINVAL},
      {"no answer", get_card_index, [](request *r) { r->answer = nullptr; }, EFAULT},
  };
  for (const auto &c : cases) {
    request r{.answer = &answer};
    c.spoil(&r);
    EXPECT_EQ(ioctl(fd, c.number, &r), -1) << c.name;
    EXPECT_EQ(errno, c.error) << c.name;
    EXPECT_EQ(answer, 0x5555) << c.name;
  }
  EXPECT_EQ(ioctl(fd, get_card_index, nullptr), -1);
  EXPECT_EQ(errno, EFAULT);
  (void)close(fd);
}

TEST(sim_sprom_driver, refuses_after_as_many_requests_as_the_fault_says) {
  const sim_board board({"--fault=sprom-refuse after=2 errno=5"});
  const int fd = open("/dev/sprom", O_RDWR);
  uint16_t answer = 0;
  request r{.answer = &answer};
  EXPECT_EQ(ioctl(fd, get_card_index, &r), 0);
  EXPECT_EQ(ioctl(fd, get_card_index, &r), 0);
  answer = 0x5555;
  EXPECT_EQ(ioctl(fd, get_card_index, &r), -1);
  EXPECT_EQ(errno, EIO);
  EXPECT_EQ(answer, 0x5555);
  (void)close(fd);
}

TEST(sim_devices, keep_to_their_own_descriptors) {
  const sim_board board;
  const int fd = open("/dev/sprom", O_RDWR | O_CLOEXEC);
  EXPECT_EQ(fcntl(fd, F_GETFD), FD_CLOEXEC);
  char byte = 0;
  EXPECT_EQ(read(fd, &byte, 1), -1);
  // Given to another file behind the C library's back, the number is that file's.
  const int null = open("/dev/null", O_RDWR);
  ASSERT_EQ(dup2(null, fd), fd);
  uint16_t answer = 0x5555;
  request r{.answer = &answer};
  EXPECT_EQ(ioctl(fd, get_card_index, &r), -1);
  EXPECT_EQ(errno, ENOTTY);
  EXPECT_EQ(answer, 0x5555);
  (void)close(fd);
  (void)close(null);
}

std::string report(const char *verdict, const char *registers, const char *loopback, const char *link) {
  return std::string("The test result is ") + verdict + "\nThe test extra info:\nRegister test  (offline)\t " +
         registers + "\nEeprom test    (offline)\t 0\nInterrupt test (offline)\t 0\nLoopback test  (offline)\t " +
         loopback + "\nLink test   (on/offline)\t " + link + "\n\n";
}

TEST(sim_ethtool, reports_self_tests) {
  if (access(POST_BIN_DIR "/board-sim", X_OK) != 0) GTEST_SKIP() << "board-sim is not built";
  const auto healthy = report("PASS", "0", "0", "0");
  const struct {
    const char *fault, *arguments;
    std::string output;
  } cases[] = {
      {"", "-t eth0", healthy},
      {"", "-t eth5 online", healthy},
      {"ethtool-fail port=eth0 test=register", "-t eth0", report("FAIL", "1", "0", "0")},
      {"ethtool-fail port=eth0 test=register", "-t eth0 offline", report("FAIL", "1", "0", "0")},
      {"ethtool-fail port=eth0 test=register", "-t eth0 online", healthy},
      {"ethtool-fail port=eth0 test=register", "-t eth1", healthy},
      {"ethtool-fail port=eth5 test=loopback code=13", "-t eth5", report("FAIL", "0", "13", "0")},
      {"ethtool-fail port=eth2 test=link", "-t eth2 online", report("FAIL", "0", "0", "1")},
      {"ethtool-silent", "-t eth0", ""},
      {"ethtool-silent port=eth1", "-t eth1", ""},
      {"ethtool-silent port=eth1", "-t eth2", healthy},
      {"ethtool-missing", "-t eth0", ""},
      {"", "-t eth3", ""},
      {"", "-s eth0", ""},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.fault);
    const sim_board board(*c.fault == '\0' ? strings{} : strings{"--fault", c.fault});
    const auto command = std::string("ethtool ") + c.arguments + " > /post/ethtool.log 2>/dev/null";
    EXPECT_NE(system(command.c_str()), -1);
    EXPECT_EQ(slurp("/post/ethtool.log"), c.output);
    EXPECT_EQ(system("rm /post/ethtool.log"), 0);
    EXPECT_EQ(access("/post/ethtool.log", F_OK), -1);
  }
}

TEST(sim_shell, finds_the_boards_commands_alone_and_gives_the_status) {
  const sim_board board;
  ASSERT_EQ(setenv("LD_PRELOAD", "", 1), 0);
  EXPECT_EQ(WEXITSTATUS(system("exit 7")), 7);
  EXPECT_EQ(system(("test \"$PATH\" = " + board.state() + "/bin").c_str()), 0);
  EXPECT_EQ(system("test -z \"${LD_PRELOAD+set}\""), 0);
  EXPECT_EQ(WEXITSTATUS(system("no-such-command 2>/dev/null")), 127);
  EXPECT_EQ(WEXITSTATUS(system("ip 2>/dev/null")), 127);
  EXPECT_EQ(system("echo text > /post/a && cp /post/a /post/b && cat /post/b > /post/c"), 0);
  EXPECT_EQ(board.read("post/c"), "text\n");
  EXPECT_NE(system(nullptr), 0);
  ASSERT_EQ(unsetenv("LD_PRELOAD"), 0);
}

// The board's own code may not call what it stands in for, or it would meet itself.
TEST(sim_logic, calls_no_interposed_function) {
  std::istringstream objects(SIM_OBJECTS);
  size_t checked = 0;
  const auto names_of = [](const std::string &object, const char *option) {
    FILE *const out = popen(("nm " + std::string(option) + " '" + object + "'").c_str(), "r");
    strings names;
    char line[4096];
    while (out != nullptr && fgets(line, sizeof(line), out) != nullptr) {
      std::string name = line;
      name.erase(name.find_last_not_of(" \n") + 1);
      names.push_back(name.substr(name.rfind(' ') + 1));
    }
    if (out != nullptr) (void)pclose(out);
    return names;
  };
  strings all;
  strings interposed;
  for (std::string object; std::getline(objects, object, ':');) {
    if (object.find("/interpose.cpp") == std::string::npos) {
      all.push_back(object);
      continue;
    }
    for (const auto &name : names_of(object, "--defined-only --extern-only"))
      if (name.find("_Z") != 0) interposed.push_back(name);
  }
  EXPECT_THAT(interposed, testing::IsSupersetOf({"open", "open64", "fopen", "ioctl", "mmap64", "system", "close"}));
  for (const auto &object : all) {
    for (const auto &name : names_of(object, "--undefined-only")) {
      EXPECT_THAT(interposed, testing::Not(testing::Contains(name))) << object;
      checked++;
    }
  }
  EXPECT_GT(checked, 100u);
}

}  // namespace
