// What device accesses cost on the simulated board, each beside the least that it can cost.
#include <benchmark/benchmark.h>
#include <emmintrin.h>
#include <fcntl.h>
#include <setjmp.h>
#include <signal.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "platform/mfgd/cmn_lib/diag_util/libinit.h"
#include "platform/mfgd/cmn_lib/diag_util/spin.h"
#include "platform/mfgd/cmn_lib/hw_acc/nvram/nvram_acc_velto.h"
#include "platform/mfgd/cmn_lib/hw_acc/obfl/obfl_acc.h"
#include "sim/base/files.h"
#include "sim/board/board.h"
#include "sim/bus/layout.h"

namespace {

constexpr uint32_t sector_addr = 6 * OBFL_SECTOR_SIZE;
constexpr uint32_t word_offset = 0x100;

std::string state_dir;
int lock_fd = -1;
uint16_t words[OBFL_SECTOR_WORDS];

// The same memories as the drivers', by other mappings; the flash's that of its file, whose loads never become jumps.
volatile uint16_t *nvram_word;
volatile uint16_t *trapped_word;
const volatile uint16_t *flash_sector;
volatile const char *no_access;

void lock(int cmd, short type) {
  struct flock request = {};
  request.l_type = type;
  request.l_whence = SEEK_SET;
  request.l_len = 1;
  (void)fcntl(lock_fd, cmd, &request);
}

void nvram_reads(benchmark::State &state) {
  while (state.KeepRunning())
    (void)nvram_rd(0, word_offset, &words[0]);
}

void locked_loads(benchmark::State &state) {
  while (state.KeepRunning()) {
    lock(F_SETLKW, F_RDLCK);
    words[0] = *nvram_word;
    _mm_lfence();
    lock(F_SETLK, F_UNLCK);
  }
}

void nvram_writes(benchmark::State &state) {
  while (state.KeepRunning())
    (void)nvram_wr(0, word_offset, 0x1234);
}

void locked_stores(benchmark::State &state) {
  while (state.KeepRunning()) {
    lock(F_SETLKW, F_WRLCK);
    *nvram_word = 0x1234;
    _mm_sfence();
    lock(F_SETLK, F_UNLCK);
  }
}

void sector_reads(benchmark::State &state) {
  while (state.KeepRunning())
    obfl_sector_rd(0, {.addr = sector_addr}, words);
}

void fenced_loads(benchmark::State &state) {
  const volatile uint16_t *const from = flash_sector;
  while (state.KeepRunning()) {
    for (uint32_t i = 0; i < OBFL_SECTOR_WORDS; ++i) {
      words[i] = from[i];
      _mm_lfence();
    }
  }
}

template <uint32_t usec>
void spins(benchmark::State &state) {
  while (state.KeepRunning())
    diag_spin_usec(usec);
}

void trapped_loads(benchmark::State &state) {
  while (state.KeepRunning())
    words[0] = *trapped_word;
}

// The second of two moves side by side stays as it is: it would change bytes of the first one's jump.
[[gnu::noinline]] uint16_t load_by_signal(const volatile uint16_t *from, bool other_first) {
  uint16_t word = 0;
  asm volatile("test %[other], %[other]; jz 1f; movw (%[from]), %%cx; 1: movw (%[from]), %[word]"
               : [word] "=&a"(word)
               : [from] "S"(from), [other] "d"(int{other_first})
               : "ecx", "cc", "memory");
  return word;
}

void signalled_loads(benchmark::State &state) {
  words[0] = load_by_signal(trapped_word, true);
  while (state.KeepRunning())
    words[0] = load_by_signal(trapped_word, false);
}

// One move that has met a device, and one that never does. The mark keeps them two functions.
[[gnu::noinline]] uint16_t load_by_jump(const volatile uint16_t *from) {
  asm volatile("# becomes a jump");
  return *from;
}

[[gnu::noinline]] uint16_t load_plainly(const volatile uint16_t *from) {
  return *from;
}

void direct_loads(benchmark::State &state) {
  words[0] = load_by_jump(trapped_word);
  while (state.KeepRunning())
    words[0] = load_by_jump(nvram_word);
}

void plain_loads(benchmark::State &state) {
  while (state.KeepRunning())
    words[0] = load_plainly(nvram_word);
}

sigjmp_buf behind_fault;

[[gnu::noinline]] void fault() {
  if (sigsetjmp(behind_fault, 0) == 0) (void)*no_access;
}

// The kernel's way into a handler, and no way back: what a trapped access can never do without.
void faults(benchmark::State &state) {
  struct sigaction action = {};
  struct sigaction before = {};
  action.sa_handler = [](int) { siglongjmp(behind_fault, 1); };
  action.sa_flags = SA_NODEFER;
  (void)sigaction(SIGSEGV, &action, &before);
  while (state.KeepRunning())
    fault();
  (void)sigaction(SIGSEGV, &before, nullptr);
}

struct access_case {
  const char *name;
  void (*run)(benchmark::State &state);
};

// A case, and below it what it is held against; a spin is held against the time asked for.
// clang-format off
constexpr access_case cases[] = {
    {"nvram_rd",                            nvram_reads},
    {"nvram_rd/fcntl pair, load, fence",    locked_loads},
    {"nvram_wr",                            nvram_writes},
    {"nvram_wr/fcntl pair, store, fence",   locked_stores},
    {"obfl_sector_rd",                      sector_reads},
    {"obfl_sector_rd/65536 fenced loads",   fenced_loads},
    {"trapped load",                        trapped_loads},
    {"trapped load/by signal",              signalled_loads},
    {"trapped load by signal",              signalled_loads},
    {"trapped load by signal/fault, left by a jump", faults},
    {"direct load through a jump",          direct_loads},
    {"direct load through a jump/plain load", plain_loads},
    {"diag_spin_usec(1)",                   spins<1>},
    {"diag_spin_usec(10)",                  spins<10>},
    {"diag_spin_usec(100)",                 spins<100>},
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

// A board in a temporary directory, with healthy memories except NVRAM 2, whose accesses are trapped, and the drivers.
void start() {
  char name[] = "/tmp/bench-access-XXXXXX";
  if (mkdtemp(name) == nullptr) die(name);
  state_dir = name;
  sim::options options;
  options.state = state_dir;
  std::string error;
  options.faults = {*sim::fault_parse("nvram-cell-stuck instance=2 offset=0x7fff bit=0 level=0", &error)};
  if (!sim::board_start(options, &error)) exit(1);
  libinit();
  (void)obfl_libinit();
  (void)nvram_libinit();
  lock_fd = open("/var/lock/bench.lock", O_RDWR | O_CREAT, 0600);
  if (lock_fd < 0) die("/var/lock/bench.lock");
  nvram_word = static_cast<uint16_t *>(map(sim::windows[0], word_offset));
  trapped_word = static_cast<uint16_t *>(map(sim::windows[2], word_offset));
  obfl_sector_rd(0, {.addr = sector_addr}, words);  // makes the file
  const int flash_fd = open((state_dir + "/flash").c_str(), O_RDONLY);
  void *const sector = mmap(nullptr, OBFL_SECTOR_SIZE, PROT_READ, MAP_SHARED, flash_fd, sector_addr);
  if (sector == MAP_FAILED) die("flash");
  flash_sector = static_cast<uint16_t *>(sector);
  void *const page = mmap(nullptr, 4096, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (page == MAP_FAILED) die("mmap");
  no_access = static_cast<const char *>(page);
}

}  // namespace

int main(int argc, char **argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 2;
  start();
  for (const auto &c : cases)
    benchmark::RegisterBenchmark(c.name, c.run);
  benchmark::RunSpecifiedBenchmarks();
  sim::board_stop();
  (void)sim::remove_tree(state_dir);
}
