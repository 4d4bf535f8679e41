// What ends a run from outside costs no contents of NVRAM and flash: signals that strike both tests at many of their
// bus accesses, readers of the output who go away, and limits. The linker hands mmap_acc_init to this file.
#include <sys/syscall.h>

#include "platform/mfgd/cmn_lib/diag_util/signal_hold.h"
#include "platform/mfgd/cmn_lib/hw_acc/hw_err.h"
#include "platform/mfgd/cmn_lib/hw_acc/mmap/mmap_acc.h"
#include "platform/mfgd/cmn_lib/hw_acc/nvram/nvram_acc_velto.h"
#include "post/nvram.h"
#include "post/obfl.h"
#include "tests/support/board.h"

namespace {

// Shared with the process under test.
struct strike_t {
  uint64_t accesses;  // so far
  uint64_t at;        // the access before which the signal comes
  int signal;         // 0 for a failed assertion
  uint64_t held;      // then: the kernel's set of blocked signals, from 1 in bit 0
};
strike_t &strike = *static_cast<strike_t *>(
    mmap(nullptr, sizeof(strike_t), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));

// Runs into the soft limit of processor time, which the kernel reports by SIGXCPU.
void use_up_processor_time() {
  rlimit limit{};
  (void)getrlimit(RLIMIT_CPU, &limit);
  limit.rlim_cur = 1;
  (void)setrlimit(RLIMIT_CPU, &limit);
  for (sigset_t pending{}; sigismember(&pending, SIGXCPU) == 0;)
    (void)sigpending(&pending);
}

void count_access() {
  if (++strike.accesses != strike.at) return;
  (void)syscall(SYS_rt_sigprocmask, SIG_BLOCK, nullptr, &strike.held, sizeof(strike.held));
  if (strike.signal == 0) abort();
  if (strike.signal == SIGXCPU && strike.held != 0) return use_up_processor_time();
  (void)kill(getpid(), strike.signal);
}

}  // namespace

extern "C" {
decltype(mmap_acc_init) __real_mmap_acc_init, __wrap_mmap_acc_init;

uint32_t __wrap_mmap_acc_init(mmap_info_t *info, const char *name, uint32_t num_inst, const uint32_t *base_addr,
                              uint32_t len, uint32_t width, hw_acc_cb_t *cb) {
  const uint32_t rc = __real_mmap_acc_init(info, name, num_inst, base_addr, len, width, cb);
  cb->m_rd = [](uint32_t inst, uint32_t offset, uint32_t *data, void *parm) {
    count_access();
    return _mmap_rd16(inst, offset, data, parm);
  };
  cb->m_wr = [](uint32_t inst, uint32_t offset, uint32_t data, void *parm) {
    count_access();
    return _mmap_wr16(inst, offset, data, parm);
  };
  return rc;
}
}

namespace {

constexpr uint64_t set_of(std::initializer_list<int> numbers) {
  uint64_t set = 0;
  for (const int number : numbers)
    set |= uint64_t{1} << (number - 1);
  return set;
}

// Those that an instruction raises cannot wait, and the kernel never lets the last two.
constexpr uint64_t can_wait = ~set_of({SIGSEGV, SIGBUS, SIGILL, SIGFPE, SIGTRAP, SIGSYS, SIGKILL, SIGSTOP});
constexpr uint64_t ends_nothing = set_of({SIGCHLD, SIGCONT, SIGURG, SIGWINCH, SIGTSTP, SIGTTIN, SIGTTOU});

// The signals that can wait and would end the process, in turn. The C library reserves two of the real-time signals,
// and these do as well.
int next_signal() {
  static int number = 0;
  do
    number = number % 64 + 1;
  while ((set_of({number}) & can_wait & ~ends_nothing) == 0);
  return number;
}

// Accesses of the tests. An NVRAM instance or a flash sector is read, destroyed and restored.
constexpr uint64_t nvram_read = 0x4000, nvram_all = 65834;
constexpr uint64_t flash_query = 8, sector_read = 0x10000;
constexpr uint64_t sector_all = sector_read + 23 * 0x1000 + 200;  // a few less, by the polls that it takes

// The contents that the first accesses concern: all of NVRAM, the flash's first sectors.
std::string contents(const std::filesystem::path &state) {
  std::string all;
  for (const char *memory : {"nvram0", "nvram1", "nvram2", "flash"}) {
    std::string bytes(0x100000, '\0');
    std::ifstream(state / memory).read(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    all += bytes;
  }
  return all;
}

// A bad cell of NVRAM 0 that is stuck where it stands, so that a restored NVRAM is whole.
std::string bad_nvram_cell(const std::filesystem::path &state) {
  const auto byte = static_cast<uint8_t>(read_file(state / "nvram0")[0x2000]);
  return "nvram-cell-stuck instance=0 offset=0x2000 bit=3 level=" + std::to_string(byte >> 3 & 1);
}

// A bad cell of sector 6 that the first list of its test programs, with another one, and its contents do not.
std::string bad_flash_cell(const std::filesystem::path &state) {
  const std::string flash = read_file(state / "flash");
  uint32_t offset = 6 * 0x20000 + 4;
  while ((flash[offset] & 1) == 0)
    offset += 2;
  return "flash-cell-coupled offset=" + std::to_string(offset) + " bit=0 victim=0xC0002 vbit=1";
}

// Runs a test on the board and lets the signal strike at an access.
outcome run_struck(const test_board &board, const std::string &fault, uint32_t (*test)(), uint64_t at, int signal) {
  return run_child([&] {
    (void)setvbuf(stdout, nullptr, _IOLBF, 0);
    board.start(fault.empty() ? std::vector<const char *>{} : std::vector{fault.c_str()});
    EXPECT_EQ(nvram_sw_init() + obfl_sw_init(), HW_SUCCESS);
    strike = {0, at, signal, 0};
    (void)test();
  });
}

TEST(interrupted, keeps_all_contents_at_any_moment) {
  const test_board board;
  (void)run_struck(board, "", obfl_post_test, 2, SIGKILL);  // the first access makes the contents
  const std::string before = contents(board.file("")), nvram_fault = bad_nvram_cell(board.file(""));
  const std::string flash_fault = bad_flash_cell(board.file(""));
  // Where signals strike, what ends the reading and the unit, and what is said of the failure before the end.
  // clang-format off
  const struct { const char *name; std::string fault; uint32_t (*test)();
                 uint64_t from, to, step, read, end; const char *said; } cases[] = {
      {"NVRAM 0",              "",          mem_test_nvram, 1,      65834,  4300,  nvram_read,                nvram_all,     ""},
      {"NVRAM 0, first write", "",          mem_test_nvram, 16383,  16388,  1,     nvram_read,                nvram_all,     ""},
      {"NVRAM 0, last writes", "",          mem_test_nvram, 65832,  65836,  1,     nvram_read,                nvram_all,     ""},
      {"NVRAM 1",              "",          mem_test_nvram, 65835,  131668, 19997, nvram_all + nvram_read,    2 * nvram_all, ""},
      {"a failing NVRAM",      nvram_fault, mem_test_nvram, 16385,  50000,  9973,  nvram_read,                nvram_all,     "0x00002000: Expected"},
      {"sector 6",             "",          obfl_post_test, 1,      159800, 24989, flash_query + sector_read, sector_all,    ""},
      {"sector 6, its erase",  "",          obfl_post_test, 65543,  65560,  3,     flash_query + sector_read, sector_all,    ""},
      {"a failing sector",     flash_fault, obfl_post_test, 65550,  155000, 24989, flash_query + sector_read, sector_all,    "Addr 0x000c0002"},
  };
  // clang-format on
  for (const auto &c : cases) {
    for (uint64_t at = c.from; at < c.to; at += c.step) {
      const int signal = next_signal();
      SCOPED_TRACE(testing::Message() << c.name << ", signal " << signal << " at access " << at);
      const outcome run = run_struck(board, c.fault, c.test, at, signal);
      EXPECT_EQ(run.status, 128 + signal) << run.out << run.err;
      EXPECT_TRUE(contents(board.file("")) == before);
      EXPECT_THAT(run.out, HasSubstr(c.said));
      // It takes effect at once before anything is destroyed, and else as soon as all is restored.
      EXPECT_TRUE(at <= c.read ? strike.accesses == at : strike.accesses <= std::max(at, c.end)) << strike.accesses;
      EXPECT_EQ(strike.held, at <= c.read || at > c.end ? 0 : can_wait);
    }
  }
  EXPECT_EQ(run_struck(board, "", mem_test_nvram, 20000, 0).status, 128 + SIGABRT)
      << "a failed assertion does not wait";
}

TEST(interrupted, by_what_was_blocked_before_only_when_the_owner_lets_it) {
  isolated([] {
    constexpr uint64_t own = set_of({SIGUSR1, SIGSEGV});
    uint64_t blocked = 0;
    (void)syscall(SYS_rt_sigprocmask, SIG_BLOCK, &own, nullptr, sizeof own);
    signal_hold hold;
    hold.take();
    hold.take();
    hold.release();
    (void)syscall(SYS_rt_sigprocmask, SIG_BLOCK, nullptr, &blocked, sizeof blocked);
    EXPECT_EQ(blocked, own);
  });
}

// Whole runs. Commands that follow a pipe read so many lines; a full file has room for one byte below the limit of file
// sizes.
TEST(interrupted, goes_on_whoever_reads_and_wherever_a_file_ends) {
  const temp_dir dir;
  const std::filesystem::path state = dir.path() / "state";
  (void)run_board(state, {"--fault", "flash-erase-hangs"});  // makes the contents
  const std::string before = contents(state);
  const std::string nvram_fault = bad_nvram_cell(state) + "' --fault 'flash-erase-hangs";
  const std::string limited = "ulimit -f 32; ";
  const std::string full(32 * 512 - 1, '.');
  // Where the output goes, the records of the NVRAM and OBFL tests and at the end, a command before, and former
  // records.
  // clang-format off
  const struct { std::string fault, output, records, last, command, former; } cases[] = {
      {nvram_fault,           "| head -n 0",            "0:8:0:2\n0:10:0:2\n", "0:12:6:1\n", "",      ""},
      {nvram_fault,           "| head -n 15",           "0:8:0:2\n0:10:0:2\n", "0:12:6:1\n", "",      ""},  // all but the failure line
      {bad_flash_cell(state), "| head -n 17",           "0:8:0:1\n0:10:0:2\n", "0:12:6:1\n", "",      ""},
      {bad_flash_cell(state), ">/dev/full",             "0:8:0:1\n0:10:0:2\n", "0:12:6:1\n", "",      ""},
      {nvram_fault,           ">>full",                 "0:8:0:2\n0:10:0:2\n", "0:12:6:1\n", limited, ""},
      {nvram_fault,           "| grep 'Post Failed'",   ".0",                  ".0",         limited, full},
  };
  // clang-format on
  std::ofstream(dir.path() / "full") << full;
  for (const auto &[fault, output, records, last, command, former] : cases) {
    SCOPED_TRACE(fault + output);
    std::ofstream(state / "post/result") << former;
    const std::string run = command + "board-sim --state state --fault '" + fault + "'; echo $? >status; ";
    EXPECT_EQ(run_shell(dir.path(), "{ " + run + "} " + output).status, 0);
    EXPECT_EQ(read_file(dir.path() / "status"), "0\n");
    EXPECT_TRUE(contents(state) == before);
    EXPECT_THAT(read_file(state / "post/result"), AllOf(HasSubstr(records), EndsWith(last)));
  }
}

}  // namespace
