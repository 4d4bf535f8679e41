#include "bench/access_cases.h"

#include <emmintrin.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>
#include <ucontext.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "platform/mfgd/cmn_lib/diag_util/libinit.h"
#include "platform/mfgd/cmn_lib/diag_util/spin.h"
#include "platform/mfgd/cmn_lib/hw_acc/nvram/nvram_acc_velto.h"
#include "platform/mfgd/cmn_lib/hw_acc/obfl/obfl_acc.h"
#include "sim/board/board.h"
#include "sim/bus/layout.h"
#include "sim/host/files.h"

namespace {

constexpr uint32_t sector_addr = 6 * OBFL_SECTOR_SIZE;
constexpr uint32_t word_offset = 0x100;

std::string state;
int lock_fd = -1;
uint16_t words[OBFL_SECTOR_WORDS];

// The same memories as the drivers', by other mappings.
volatile uint16_t *nvram_word;
volatile uint16_t *trapped_word;
const volatile uint16_t *flash_sector;
void *no_access;

void lock(int cmd, short type) {
  struct flock request = {};
  request.l_type = type;
  request.l_whence = SEEK_SET;
  request.l_len = 1;
  (void)fcntl(lock_fd, cmd, &request);
}

void nvram_reads(uint64_t n) {
  for (; n != 0; --n)
    (void)nvram_rd(0, word_offset, &words[0]);
}

void locked_loads(uint64_t n) {
  for (; n != 0; --n) {
    lock(F_SETLKW, F_RDLCK);
    words[0] = *nvram_word;
    _mm_lfence();
    lock(F_SETLK, F_UNLCK);
  }
}

void nvram_writes(uint64_t n) {
  for (; n != 0; --n)
    (void)nvram_wr(0, word_offset, 0x1234);
}

void locked_stores(uint64_t n) {
  for (; n != 0; --n) {
    lock(F_SETLKW, F_WRLCK);
    *nvram_word = 0x1234;
    _mm_sfence();
    lock(F_SETLK, F_UNLCK);
  }
}

void sector_reads(uint64_t n) {
  for (; n != 0; --n)
    obfl_sector_rd(0, {.addr = sector_addr}, words);
}

void fenced_loads(uint64_t n) {
  const volatile uint16_t *const from = flash_sector;
  for (; n != 0; --n) {
    for (uint32_t i = 0; i < OBFL_SECTOR_WORDS; ++i) {
      words[i] = from[i];
      _mm_lfence();
    }
  }
}

template <uint32_t usec>
void spins(uint64_t n) {
  for (; n != 0; --n)
    diag_spin_usec(usec);
}

void trapped_loads(uint64_t n) {
  for (; n != 0; --n)
    words[0] = *trapped_word;
}

// Goes on behind the load of `faults`, which is two bytes long.
void step_over(int /*number*/, siginfo_t * /*info*/, void *context) {
#ifdef __x86_64__
  constexpr int ip = REG_RIP;
#else
  constexpr int ip = REG_EIP;
#endif
  static_cast<ucontext_t *>(context)->uc_mcontext.gregs[ip] += 2;
}

void faults(uint64_t n) {
  struct sigaction action = {};
  struct sigaction before = {};
  action.sa_sigaction = step_over;
  action.sa_flags = SA_SIGINFO;
  (void)sigaction(SIGSEGV, &action, &before);
  for (; n != 0; --n)
    asm volatile("movb (%0), %%al" : : "d"(no_access) : "al", "memory");
  (void)sigaction(SIGSEGV, &before, nullptr);
}

// clang-format off
constexpr access_case cases[] = {
    {"`nvram_rd`",               nvram_reads,   "`fcntl` pair, load, fence",  locked_loads,  0},
    {"`nvram_wr`",               nvram_writes,  "`fcntl` pair, store, fence", locked_stores, 0},
    {"`obfl_sector_rd`",         sector_reads,  "65536 loads with fences",    fenced_loads,  0},
    {"`diag_spin_usec(1)`",      spins<1>,      "asked time",                 nullptr,       1e3},
    {"`diag_spin_usec(10)`",     spins<10>,     "asked time",                 nullptr,       1e4},
    {"`diag_spin_usec(100)`",    spins<100>,    "asked time",                 nullptr,       1e5},
    {"trapped load",             trapped_loads, "fault with a bare handler",  faults,        0},
};
// clang-format on

[[noreturn]] void die(const char *what) {
  perror(what);
  exit(1);
}

void *map(const sim::window &window, uint32_t offset) {
  const int fd = open("/dev/mem", O_RDWR | O_DSYNC);
  void *const address = mmap(nullptr, window.length, PROT_READ | PROT_WRITE, MAP_SHARED, fd, window.base);
  if (address == MAP_FAILED) die("/dev/mem");
  return static_cast<char *>(address) + offset;
}

}  // namespace

std::span<const access_case> access_cases() {
  return cases;
}

void access_start() {
  char name[] = "/tmp/bench-access-XXXXXX";
  if (mkdtemp(name) == nullptr) die(name);
  state = name;
  sim::options options;
  options.state = state;
  std::string error;
  options.faults = {*sim::fault_parse("nvram-cell-stuck instance=2 offset=0x7fff bit=0 level=0", &error)};
  if (!sim::board_start(options)) exit(1);
  libinit();
  (void)obfl_libinit();
  (void)nvram_libinit();
  lock_fd = open("/var/lock/bench.lock", O_RDWR | O_CREAT, 0600);
  if (lock_fd < 0) die("/var/lock/bench.lock");
  nvram_word = static_cast<uint16_t *>(map(sim::windows[0], word_offset));
  trapped_word = static_cast<uint16_t *>(map(sim::windows[2], word_offset));
  flash_sector = static_cast<uint16_t *>(map(sim::windows[3], sector_addr));
  no_access = mmap(nullptr, 4096, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (no_access == MAP_FAILED) die("mmap");
}

void access_stop() {
  sim::board_stop();
  (void)sim::remove_tree(state);
}

void access_report(std::span<const access_times> times) {
  for (size_t i = 0; i < times.size(); ++i) {
    const double run = std::ranges::min(times[i].run);
    const double floor = cases[i].floor != nullptr ? std::ranges::min(times[i].floor) : cases[i].asked_ns;
    printf("| %s | %.0f | %s | %.0f | %.3f |\n", cases[i].name, run, cases[i].floor_name, floor, run / floor);
  }
}
