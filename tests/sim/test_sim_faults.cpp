// What each fault does to a program, and that it counts just that. The flash's and the I2C devices' faults stand with
// the tests of their models.
#include <linux/i2c-dev.h>

#include "sim/board/lock_holder.h"
#include "tests/sim/fault_cases.h"
#include "tests/support/board.h"

namespace {

std::string result_of(bool succeeded) {
  return succeeded ? "" : strerrorname_np(errno);
}

// Opens a file and does something with it.
std::string on_file(
    const std::string &path, int flags, const std::function<bool(int)> &what = [](int) { return true; }) {
  const unique_fd fd(open(path.c_str(), flags, 0600));
  return result_of(fd && what(fd.get()));
}

// Asks for a lock as the drivers do.
std::string locked(const std::string &path, int cmd) {
  struct flock lock {};
  lock.l_type = F_WRLCK;
  lock.l_len = 1;
  return on_file(path, O_RDWR | O_CREAT, [&](int fd) { return fcntl(fd, cmd, &lock) == 0; });
}

std::string asked(const std::string &path, unsigned long request) {
  unsigned long functions = 0;
  return on_file(path, O_RDWR, [&](int fd) { return ioctl(fd, request, &functions) == 0; });
}

bool maps(int fd) {
  return mmap(nullptr, 0x1000, PROT_READ, MAP_SHARED, fd, static_cast<off_t>(sim::windows[nvram0].base)) != MAP_FAILED;
}

std::string spawned(const std::string &program) {
  std::string name = program;
  char *const words[] = {name.data(), nullptr};
  pid_t child = 0;
  const int error = posix_spawnp(&child, program.c_str(), nullptr, nullptr, words, environ);
  return error == 0 ? "" : strerrorname_np(error);
}

// Does one step of a script, "KIND ARGUMENT", and tells what it gives: "" or the name of the error.
std::string act(const std::string &step) {
  const auto blank = step.find(' ');
  const auto argument = blank < step.size() ? step.substr(blank + 1) : "";
  struct stat st {};
  const std::map<std::string, std::function<std::string()>> kinds{
      // clang-format off
      {"read",  [&] { return on_file(argument, O_RDONLY); }},
      {"write", [&] { return on_file(argument, O_RDWR | O_CREAT); }},
      {"stat",  [&] { return result_of(stat(argument.c_str(), &st) == 0); }},
      {"shell", [&] { return std::to_string(system(argument.c_str()) >> 8); }},
      {"spawn", [&] { return spawned(argument); }},
      {"lock",  [&] { return locked(argument, F_SETLK); }},
      {"lockw", [&] { return locked(argument, F_SETLKW); }},
      {"sprom", [&] { return asked("/dev/sprom", 0); }},
      {"funcs", [&] { return asked(argument, I2C_FUNCS); }},
      {"rdwr",  [&] { return asked(argument, I2C_RDWR); }},
      {"map",   [&] { return on_file("/dev/mem", O_RDWR, maps); }},
      {"iopl",  [&] { return result_of(iopl(std::stoi(argument)) == 0); }},
      {"in",    [&] { return std::to_string(inl(0x50C) >> 27 & 1); }},
      {"out",   [&] { return outl(static_cast<unsigned>(std::stoul(argument)) << 27, 0x50C), std::string(); }},
      // clang-format on
  };
  return kinds.at(step.substr(0, blank))();
}

TEST(sim_faults, count_what_the_program_meets_of_them) {
  const fault_case cases[] = {
      // clang-format off
      {"post-missing",                      "stat /post/a = ENOENT; write /post/a = ENOENT; read /post = ENOENT; shell echo > /post/b = 2", 3},
      {"pci-list-unreadable",               "stat /proc/bus/pci/devices =; read /proc/bus/pci/devices = EACCES", 1},
      {"pci-missing bus=2 dev=0 func=0",    "stat /proc/bus/pci/devices =; read /proc/bus/pci/devices =", 1},
      {"pci-wrong-id bus=2 dev=0 func=0 vendor=1", "read /proc/bus/pci/devices =; shell cat < /proc/bus/pci/devices > /post/a = 0", 2},
      {"bar-io bar=3",                      "shell grep -Eq 'f4000000(\t +)f4010001\\1f4020000\\1f8000000' /proc/bus/pci/devices = 0", 1},
      {"bar-64bit bar=4 high=0xABCD",       "shell grep -q '^2e00\t10b59030\t.*f4020004\t            abcd\t' /proc/bus/pci/devices = 0", 1},
      {"bar-missing bar=2",                 "read /proc/bus/pci/devices =; read /proc/cpuinfo =", 1},
      {"sprom-absent",                      "write /dev/sprom = ENOENT", 1},
      {"sprom-refuse after=1",              "sprom = ENOTTY; sprom = EINVAL; sprom = EINVAL", 2},
      {"cpuinfo-missing",                   "read /proc/cpuinfo = ENOENT", 1},
      {"cpuinfo-no-rate",                   "read /proc/cpuinfo =; read /proc/bus/pci/devices =", 1},
      {"cpuinfo-rate khz=5",                "read /proc/cpuinfo =", 1},
      {"lock-dir-missing",                  "write /var/lock/a = ENOENT; stat /var/lock/b = ENOENT", 1},
      {"lock-dir-read-only",                "read /var/lock =; write /var/lock/a = EROFS", 1},
      {"mem-absent",                        "write /dev/mem = ENOENT", 1},
      {"mem-mmap-refused nth=2 times=1 errno=12", "map =; map = ENOMEM; map =", 1},
      {"iopl-refused errno=38",             "iopl 0 =; iopl 3 = ENOSYS", 1},
      {"port-stuck bit=27 level=1",         "iopl -1 = EINVAL; iopl 4 = EINVAL; iopl 3 =; in = 1; out 0 =; in = 1; in = 1", 2},
      {"ethtool-missing",                   "shell echo ethtool.log = 0; shell ethtool -t eth0 2> /post/a = 127; spawn ethtool = ENOENT; spawn /sbin/ethtool = ENOENT", 3},
      {"ethtool-silent port=eth1",          "shell ethtool -t eth0 > /post/a = 0; shell ethtool -t eth1 offline | grep PASS = 1", 1},
      {"ethtool-fail port=eth0 test=loopback", "shell ethtool -t eth0 online > /post/a = 0; shell ethtool -t eth0 > /post/a = 1; shell ethtool -t eth1 > /post/a = 0", 1},
      {"i2c-bus-absent bus=1",              "write /dev/i2c-1 = ENOENT; write /dev/i2c-2 = ENOENT", 1},
      {"i2c-smbus-only bus=1",              "funcs /dev/i2c-1 =; rdwr /dev/i2c-1 = EOPNOTSUPP", 2},
      // clang-format on
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.fault);
    const test_board board({c.fault.c_str()});
    expect_steps(c.script, act);
    EXPECT_EQ(board.fired(), std::vector{c.fired});
  }
  // Where one hides another, only that one changes the file.
  const test_board board({"pci-missing bus=2 dev=0 func=0", "pci-wrong-id bus=2 dev=0 func=0 vendor=1",
                          "cpuinfo-rate khz=5", "cpuinfo-no-rate"});
  expect_steps("read /proc/bus/pci/devices =; read /proc/cpuinfo =", act);
  EXPECT_EQ(board.fired(), (std::vector<uint64_t>{1, 0, 0, 1}));
  expect_all(cases, {sim::fault_part::service, sim::fault_part::ethernet}, sim::fault_id::lock_held);
}

TEST(sim_faults, hold_a_lock_until_it_was_asked_for) {
  const std::pair<const char *, const char *> cases[] = {
      {"lock-held lock=nvram1 kind=write ms=600000",
       "lock /var/lock/RTC_NVRAM1-read.lock =; lock /var/lock/RTC_NVRAM1-write.lock = EAGAIN"},
      {"lock-held lock=flash kind=read ms=1",
       "lockw /var/lock/OBFL_Flash0-read.lock =; lockw /var/lock/OBFL_Flash0-read.lock ="},
  };
  for (const auto &[fault, script] : cases) {
    SCOPED_TRACE(fault);
    const test_board board({fault});
    std::string error;
    const auto holders = sim::lock_holders_start(*sim::board_options(), &error).value();
    expect_steps(script, act);
    EXPECT_EQ(board.fired(), std::vector<uint64_t>{1});
    (void)kill(holders[0], SIGKILL);
    (void)waitpid(holders[0], nullptr, 0);
  }
}

// --- Battery-backed RAM ---------------------------------------------------------------------------------------------

// OFFSET=DATA writes a word of instance 0, OFFSET:DATA reads one and expects; a leading 'b' stands for a byte.
void run_nvram(const std::string &script) {
  auto *const words = map_window<uint16_t>(nvram0);
  auto *const bytes = map_window<uint8_t>(nvram0);
  for (const std::string &step : lines_of(script, ' ')) {
    const bool byte = step[0] == 'b';
    const auto kind = step.find_first_of("=:");
    const auto offset = std::stoul(step.substr(byte ? 1 : 0), nullptr, 16);
    const auto data = static_cast<uint16_t>(std::stoul(step.substr(kind + 1), nullptr, 16));
    if (step[kind] == ':') {
      EXPECT_EQ(byte ? bytes[offset] : words[offset / 2], data) << step;
    } else if (byte) {
      bytes[offset] = static_cast<uint8_t>(data);
    } else {
      words[offset / 2] = data;
    }
  }
}

const std::string cell = " instance=0 offset=0x20 bit=0 ";
const std::string pair = cell + "victim=0x31 vbit=0 ";
// clang-format off
const fault_case nvram_faults[] = {
    // With 0020=0 0030=0 before.
    {"nvram-data-stuck instance=0 line=3 level=1",      "20:8 20=8 20=0 20:8", 2},
    {"nvram-data-stuck instance=0 line=3 level=0",      "20=8 20:0 20=F0", 1},
    {"nvram-data-short instance=0 line=3 other=9",      "20=8 20:0 20=208 20:208", 1},
    {"nvram-data-short instance=0 line=3 other=9 wins=1", "20=8 20:208", 1},
    {"nvram-data-floating instance=0 line=3",           "20=8 20:8 30:8 20=0 20:0 30:0", 3},
    {"nvram-addr-stuck instance=0 line=4 level=1",      "20:0 20=5 30:5 20:5", 2},
    {"nvram-addr-stuck instance=0 line=5 level=1",      "20:0 20=5", 0},
    {"nvram-addr-stuck instance=0 line=14 level=1",     "20=5 20:5 4020:5", 2},
    {"nvram-addr-short instance=0 line=4 other=5",      "20=5 0:5 20:5", 2},
    {"nvram-addr-short instance=0 line=5 other=1 wins=1", "20=5 22:5 20:5", 2},
    {"nvram-cell-stuck" + cell + "level=1",             "20:1 20=FFFF 20=2 20:3", 2},
    {"nvram-cell-transition" + cell + "level=1",        "20=3 20:2 20=FFFF 20:FFFE", 2},
    {"nvram-cell-transition" + cell + "level=0",        "20=3 20:3 20=0 20:1 b21=7 20:701", 1},
    {"nvram-cell-read-disturb" + cell,                  "20:1 20:0 20:1 20=0", 3},
    {"nvram-cell-read-disturb" + cell + "level=0",      "20:1 20:1 20=0 20:1", 2},
    {"nvram-cell-read-deceptive" + cell,                "20:0 20:1 20:0", 3},
    {"nvram-cell-read-deceptive" + cell + "level=1",    "20:0 20=1 20:1 20:0 20:0", 1},
    {"nvram-cell-read-wrong" + cell,                    "20:1 20:1 20=1 20:0", 3},
    {"nvram-cell-read-wrong" + cell,                    "b21:0 b20:1", 1},
    {"nvram-data-stuck instance=0 line=3 level=1",      "b21:0 b21=0 b20:8", 1},
    {"nvram-cell-read-wrong" + cell + "level=1",        "20:0 20=1 20:0 20:0", 2},
    {"nvram-cell-write-disturb" + cell,                 "20=0 20:1 20=1 20:0 20=1 20:1 b21=0 20:1", 2},
    {"nvram-cell-write-disturb" + cell + "level=1",     "20=0 20:0 20=1 20:1 20=1 20:0", 1},
    {"nvram-cell-coupled" + pair,                       "20=1 30:100 20=1 30:100 20=2 30:0", 2},
    {"nvram-cell-coupled" + pair + "level=1",           "20=1 30:100 20=0 30:100 20=1 30:0", 2},
    {"nvram-cell-coupled" + pair + "level=0 vlevel=1",  "20=1 30:0 20=0 30:100 20=1 20=0 30:100", 1},
    {"nvram-cell-coupled-read" + pair,                  "30:0 20:0 30:100 20:0 30:0", 2},
    {"nvram-cell-coupled-read" + pair + "vlevel=1",     "20:0 20:0 30:100", 1},
    {"nvram-cell-coupled-write" + pair,                 "20=0 30:100 b21=0 30:100 20=0 30:0", 2},
    {"nvram-cell-coupled-write" + pair + "vlevel=0",    "20=0 30=100 20=0 30:0", 1},
    {"nvram-cell-coupled-state" + pair + "level=1 vlevel=1", "30:0 20=1 30:100 30=0 30:100 20=0 30:100 30=0 30:0", 2},
    {"nvram-cell-coupled-state" + pair + "level=0 vlevel=1", "30:100", 1},
    {"nvram-cell-coupled-transition" + pair + "level=1 vlevel=1", "30=100 30:100 30=0 20=1 30=101 30:1 20=0 30=100 30:100", 1},
    // Now and then.
    {"nvram-cell-read-wrong" + cell + "nth=2 times=2",  "20:0 20:1 20:1 20:0", 2},
};
// clang-format on

TEST(sim_faults, show_in_the_nvram_as_the_literature_has_them_and_count_what_they_change) {
  const test_board board;
  for (const auto &c : nvram_faults) {
    SCOPED_TRACE(c.fault);
    board.start();
    run_nvram("20=0 30=0 0=0");
    const auto others = [&] {
      return board.contents("nvram0").substr(0x40, 0x3FE0) + board.contents("nvram1") + board.contents("nvram2");
    };
    const auto before = others();
    board.start({c.fault.c_str()});
    run_nvram(c.script);
    EXPECT_EQ(board.fired(), std::vector{c.fired});
    EXPECT_EQ(others(), before);
  }
  expect_all(nvram_faults, {sim::fault_part::nvram}, sim::fault_id::nvram_power_cut);
}

// --- The report -----------------------------------------------------------------------------------------------------

TEST(sim_faults, are_reported_in_the_order_asked_for_however_the_programs_end) {
  const temp_dir dir;
  const auto report = (dir.path() / "report").string();
  const std::pair<std::string, const char *> cases[] = {
      // clang-format off
      {"-- -s",                                                              ""},
      {"--fault 'iopl-refused' --fault 'ethtool-fail  port=eth0 test=link' --fault cpuinfo-rate\\ khz=1000000 -- -s",
                                                                             "0\tiopl-refused\n1\tethtool-fail port=eth0 test=link\n1\tcpuinfo-rate khz=1000000\n"},
      {"--fault 'flash-power-cut nth=1' --fault iopl-refused",               "1\tflash-power-cut nth=1\n0\tiopl-refused\n"},
      // clang-format on
  };
  for (const auto &[args, lines] : cases) {
    SCOPED_TRACE(args);
    (void)run_shell(dir.path(), "board-sim --state s --fault-report '" + report + "' " + args);
    EXPECT_EQ(read_file(report), lines);
  }
  EXPECT_EQ(run_shell(dir.path(), "board-sim --fault-report report -- no-such-program").status, 127);
  EXPECT_EQ(read_file(report), "") << "nothing of the run before";
  // 335 transactions read the image before the first row.
  const std::string never = "i2c-fail bus=1 addr=0x52 nth=1000000000";
  // The error that names its row's test by number begins no row.
  const std::string missing = " --fault 'pci-missing bus=2 dev=0 func=0' -- -s";
  EXPECT_EQ(run_shell(dir.path(), "board-sim --occasions o --fault '" + never + "'" + missing).status, 0);
  const auto after = [&](const char *row, const char *count) { return row + ("\t" + (count + ("\t" + never + "\n"))); };
  EXPECT_EQ(read_file(dir.path() / "o"), after("", "335") + after("Mod 1 1 SEEPROM Test", "807") +
                                             after("Mod 1 1 GigE Port Test", "807") +
                                             after("Mod 1 1 PCIE Test", "807"));
  EXPECT_EQ(run_shell(dir.path(), "board-sim --fault-report no/such -- -s").status, 2);
}

}  // namespace
