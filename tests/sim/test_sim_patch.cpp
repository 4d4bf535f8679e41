// Device accesses by jump: which stay with signals, and what a program sees of the others.
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <setjmp.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/time.h>

#include "sim/bus/patch.h"
#include "sim/bus/vector_state.h"
#include "tests/support/board.h"
#include "tests/support/signals.h"

namespace {

constexpr const char *by_jump = "--waits=true";
constexpr const char *by_signal = "--no-patch";

// --- Signals that are left ------------------------------------------------------------------------------------------

// Functions that take an address in eax or rax and return the word there. What brings it there comes first.
using code = std::vector<uint8_t>;
#ifdef __x86_64__
const code prologue{0x48, 0x89, 0xF8};  // mov %rdi, %rax
using reader = unsigned (*)(const volatile uint16_t *address);
#else
const code prologue{};
using reader = unsigned(__attribute__((regparm(1))) *)(const volatile uint16_t *address);
#endif

// movzwl (%eax), %eax; lfence; ret: the jump borrows a part of the fence.
const code plain{0x0F, 0xB7, 0x00, 0x0F, 0xAE, 0xE8, 0xC3};
const code byte_only{0x0F, 0xB6, 0x00, 0x0F, 0xAE, 0xE8, 0xC3};
const code seven_bytes{0x0F, 0xB7, 0x80, 0x00, 0x00, 0x00, 0x00, 0xC3};
// mov (%eax), %ecx, and the plain one.
const code near_another{0x8B, 0x08, 0x0F, 0xB7, 0x00, 0x0F, 0xAE, 0xE8, 0xC3};
// mov (%eax), %eax; ret
const code shortest{0x8B, 0x00, 0xC3};
// mov %esp, %ecx; movzwl (%eax), %esp; mov %esp, %eax; mov %ecx, %esp; ret
#ifdef __x86_64__
const code to_stack_pointer{0x48, 0x89, 0xE1, 0x0F, 0xB7, 0x20, 0x89, 0xE0, 0x48, 0x89, 0xCC, 0xC3};
#else
const code to_stack_pointer{0x89, 0xE1, 0x0F, 0xB7, 0x20, 0x89, 0xE0, 0x89, 0xCC, 0xC3};
#endif

constexpr size_t page = 0x1000;
constexpr int code_prot = PROT_READ | PROT_EXEC;

// Puts a function onto a page of its own, with nothing after it: a new one, or `at` one of before. Returns its place,
// which may be that page's end.
uint8_t *place_code(const code &bytes, int prot = code_prot, uint8_t *at = nullptr, bool ends = false) {
  const int flags = MAP_PRIVATE | MAP_ANONYMOUS | (at != nullptr ? MAP_FIXED : 0);
  auto *const pages = static_cast<uint8_t *>(mmap(at, 2 * page, PROT_READ | PROT_WRITE, flags, -1, 0));
  auto *const begin = pages + (ends ? page - prologue.size() - bytes.size() : 0);
  std::ranges::copy(bytes, std::ranges::copy(prologue, begin).out);
  EXPECT_EQ(mprotect(pages, page, prot), 0);
  EXPECT_EQ(mprotect(pages + page, page, PROT_NONE), 0);
  return begin;
}

unsigned call(const uint8_t *at, const volatile uint16_t *address) {
  return reinterpret_cast<reader>(reinterpret_cast<uintptr_t>(at))(address) & 0xFFFF;
}

// Does `body` by jumps, in a process of its own, in which no page becomes writable and executable.
template <class Body>
void on_board(Body body) {
  isolated([&] {
    const test_board board{{trapping}};
    body(map_window<uint16_t>(nvram0));
    EXPECT_EQ(read_file("/proc/self/maps").find(" rwx"), std::string::npos);
  });
}

void limit_descriptors(bool none) {
  rlimit limit{};
  (void)getrlimit(RLIMIT_NOFILE, &limit);
  limit.rlim_cur = none ? 0 : limit.rlim_max;
  (void)setrlimit(RLIMIT_NOFILE, &limit);
}

// As kernels do that protect /proc/PID/mem.
void refuse_writing() {
  sock_filter program[] = {
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_pwrite64, 0, 1),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | EIO),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
  };
  const sock_fprog filter{std::size(program), program};
  ASSERT_EQ(prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0), 0);
  ASSERT_EQ(prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &filter), 0);
}

TEST(sim_patch, leaves_to_signals_what_cannot_be_a_jump) {
  constexpr int calls = 200;
  // How many signals 200 calls take, -1 for one each.
  // clang-format off
  const struct { const char *name; const code *what; int expected; int prot = code_prot; bool ends = false;
                 const char *way = by_jump; void (*prepare)() = [] {}; } cases[] = {
      {"a short move",             &plain,            1},
      {"a long move",              &seven_bytes,      1},
      {"with --no-patch",          &plain,            -1, code_prot, false, by_signal},
      {"to the stack pointer",     &to_stack_pointer, -1},
      {"code that may be written", &plain,            -1, code_prot | PROT_WRITE},
      {"at the end of the code",   &shortest,         -1, code_prot, true},
      {"no descriptor left",       &plain,            -1, code_prot, false, by_jump, [] { limit_descriptors(true); }},
      {"writing is refused",       &plain,            -1, code_prot, false, by_jump, refuse_writing},
      {"another thread",           &plain,            -1, code_prot, false, by_jump, [] { std::thread(pause).detach(); }},
      {"within another's jump",    &near_another,     -1},  // only the first move becomes one
  };
  // clang-format on
  for (const auto &c : cases) {
    SCOPED_TRACE(c.name);
    isolated([&] {
      const test_board board{{trapping, c.way}};
      auto *const window = map_window<uint16_t>(nvram0);
      const auto expected = call(place_code(plain), window);
      const uint8_t *const at = place_code(*c.what, c.prot, nullptr, c.ends);
      c.prepare();
      count_signals();
      for (int i = 0; i < calls; ++i)
        ASSERT_EQ(call(at, window), expected);
      limit_descriptors(false);
      EXPECT_GE(signals, c.expected < 0 ? calls : c.expected);
      EXPECT_LE(signals, c.expected < 0 ? calls + 2 : c.expected);
    });
  }
}

TEST(sim_patch, patches_again_once_its_thread_is_the_only_one) {
  on_board([](auto *window) {
    const uint8_t *const at = place_code(plain);
    {
      const std::jthread other([](const std::stop_token &stop) {
        while (!stop.stop_requested())
          std::this_thread::yield();
      });
      count_signals();
      (void)call(at, window);
      EXPECT_EQ(signals, 1);
    }
    for (int i = 0; i < 500; ++i)
      (void)call(at, window);
    EXPECT_LT(signals, 100);
    // A thread that comes later uses the jump.
    const auto before = signals;
    std::jthread([&] { (void)call(at, window); }).join();
    EXPECT_EQ(signals, before);
  });
}

#ifdef __x86_64__
TEST(sim_patch, leaves_addresses_relative_to_the_move_to_signals) {
  on_board([](auto *window) {
    uint8_t *const at = place_code(plain);
    const unsigned expected = call(at, window);
    code relative{0x0F, 0xB7, 0x05, 0, 0, 0, 0, 0xC3};
    const auto distance =
        static_cast<int32_t>(reinterpret_cast<intptr_t>(window) - reinterpret_cast<intptr_t>(at + prologue.size() + 7));
    memcpy(&relative[3], &distance, sizeof distance);
    (void)place_code(relative, code_prot, at);
    count_signals();
    for (int i = 0; i < 10; ++i)
      EXPECT_EQ(call(at, nullptr), expected);
    EXPECT_EQ(signals, 10);
  });
}
#endif

TEST(sim_patch, finds_other_code_where_a_patched_move_was) {
  on_board([](auto *window) {
    uint8_t *const at = place_code(plain);
    const unsigned first = call(at, window);
    for (int i = 0; i < 3; ++i) {
      (void)place_code(byte_only, code_prot, at);
      EXPECT_EQ(call(at, window), first & 0xFF);
      EXPECT_EQ(call(at, window), first & 0xFF);
      (void)place_code(plain, code_prot, at);
      EXPECT_EQ(call(at, window), first);
    }
  });
}

// --- Memory that is no device's any more ----------------------------------------------------------------------------

TEST(sim_patch, leaves_other_memory_to_a_patched_move) {
  on_board([](auto *first) {
    const uint8_t *const at = place_code(plain);
    const unsigned device = call(at, first);
    const uint16_t own = 0x5A17;
    EXPECT_EQ(call(at, &own), own);
    // Over a window's second half, and where one was that is unmapped in two pieces.
    auto *const begin = const_cast<uint16_t *>(first);
    constexpr int flags = MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED;
    ASSERT_EQ(mmap(begin + 0x2000, 0x4000, PROT_READ, flags, -1, 0), begin + 0x2000);
    EXPECT_EQ(call(at, first + 0x2000), 0U);
    EXPECT_EQ(call(at, first), device);
    auto *const second = const_cast<uint16_t *>(map_window<uint16_t>(nvram0));
    EXPECT_EQ(call(at, second), device);
    ASSERT_EQ(munmap(second + 0x1000, 0x1000), 0);
    ASSERT_EQ(munmap(second, 0x8000), 0);
    ASSERT_EQ(mmap(second, 0x8000, PROT_READ, flags, -1, 0), second);
    EXPECT_EQ(call(at, second), 0U);
    sim::board_stop();
    EXPECT_EQ(call(at, &own), own);
  });
}

// --- Faults, signals, processes -------------------------------------------------------------------------------------

sigjmp_buf after_fault;
uintptr_t fault_ip = 0;
void *fault_address = nullptr;

void note_fault(int, siginfo_t *info, void *context) {
  const auto &gregs = static_cast<ucontext_t *>(context)->uc_mcontext.gregs;
#ifdef __x86_64__
  fault_ip = static_cast<uintptr_t>(gregs[REG_RIP]);
#else
  fault_ip = static_cast<uintptr_t>(gregs[REG_EIP]);
#endif
  fault_address = info->si_addr;
  siglongjmp(after_fault, 1);
}

TEST(sim_patch, reports_a_real_fault_where_the_move_is) {
  for (const auto *const way : {by_signal, by_jump}) {
    SCOPED_TRACE(way);
    isolated([&] {
      const test_board board{{trapping, way}};
      struct sigaction own {};
      own.sa_flags = SA_SIGINFO | SA_NODEFER;
      own.sa_sigaction = note_fault;
      (void)sigaction(SIGSEGV, &own, nullptr);
      auto *const window = map_window<uint16_t>(nvram0);
      const uint8_t *const at = place_code(plain);
      (void)call(at, window);
      const auto *const nowhere = reinterpret_cast<const volatile uint16_t *>(0x10);
      if (sigsetjmp(after_fault, 1) == 0) (void)call(at, nowhere);
      EXPECT_EQ(fault_ip, reinterpret_cast<uintptr_t>(at) + prologue.size());
      EXPECT_EQ(fault_address, const_cast<const uint16_t *>(nowhere));
    });
  }
}

const volatile uint16_t *in_handler = nullptr;
const uint8_t *code_in_handler = nullptr;
volatile sig_atomic_t ticks = 0, wrong = 0;

// Signals come anywhere in an access, and their handlers make one, by the same move.
TEST(sim_patch, takes_signals_in_the_middle) {
  on_board([](auto *window) {
    in_handler = window + 1;
    code_in_handler = place_code(plain);
    const unsigned expected = call(code_in_handler, window);
    static unsigned expected_in_handler;
    expected_in_handler = call(code_in_handler, in_handler);
    (void)signal(SIGALRM, [](int) {
      ticks = ticks + 1;
      if (call(code_in_handler, in_handler) != expected_in_handler) wrong = wrong + 1;
    });
    const itimerval every{{0, 100}, {0, 100}};
    ASSERT_EQ(setitimer(ITIMER_REAL, &every, nullptr), 0);
    while (ticks < 2000)
      ASSERT_EQ(call(code_in_handler, window), expected);
    const itimerval never{};
    (void)setitimer(ITIMER_REAL, &never, nullptr);
    EXPECT_EQ(wrong, 0);
  });
}

TEST(sim_patch, is_inherited_by_a_forked_process) {
  on_board([](auto *window) {
    const uint8_t *const at = place_code(plain);
    const unsigned expected = call(at, window);
    const uint8_t *const fresh = place_code(plain);
    const pid_t pid = fork();
    if (pid == 0) {
      count_signals();
      const bool same = call(at, window) == expected && signals == 0 && call(fresh, window) == expected &&
                        call(fresh, window) == expected && signals == 1;
      _exit(same ? 0 : 1);
    }
    int status = -1;
    (void)waitpid(pid, &status, 0);
    EXPECT_EQ(status, 0);
    count_signals();
    EXPECT_EQ(call(fresh, window), expected);
    EXPECT_EQ(signals, 1) << "the child's jump is its own";
  });
}

// --- The processor's state ------------------------------------------------------------------------------------------

sim::cpuid_words fake[3 + 32];  // leaf 1; leaf 0Dh 1; its components
uint64_t fake_xcr0 = 0;

constexpr sim::processor fake_processor{
    [](uint32_t leaf, uint32_t subleaf) {
      if (leaf == 1) return fake[0];
      return leaf == 0xD && subleaf == 1   ? fake[1]
             : leaf == 0xD && subleaf < 32 ? fake[2 + subleaf]
                                           : sim::cpuid_words{};
    },
    [] { return fake_xcr0; },
};

TEST(sim_patch, saves_what_the_processor_has) {
  constexpr uint32_t fxsr = 1U << 24, osxsave = 1U << 27, xsavec = 2;
  // The features of the processor and of its state, and the way that is found, if there is one.
  using found_t = std::optional<sim::vector_state>;
  // clang-format off
  const struct { const char *name; uint32_t features, state_features; uint64_t xcr0;
                 found_t expected; uint32_t avx_bytes = 256; } cases[] = {
      {"SSE only",                   0,       0,      0,       {{sim::save_way::fxsave, 3, 512}}},
      {"XSAVE is hidden, AVX there", 0,       xsavec, 7,       {{sim::save_way::fxsave, 3, 512}}},
      {"AVX, no XSAVEC",             osxsave, 0,      7,       {{sim::save_way::xsave,  7, 832}}},
      {"AVX",                        osxsave, xsavec, 7,       {{sim::save_way::xsavec, 7, 832}}},
      {"AVX-512, keys and tiles",    osxsave, xsavec, 0x602E7, {{sim::save_way::xsavec, 0xE7, 2432}}},
      {"AVX-512, no XSAVEC",         osxsave, 0,      0x602E7, {{sim::save_way::xsave,  0xE7, 2688}}},
      {"APX",                        osxsave, xsavec, 0x80007, {{sim::save_way::xsavec, 0x80007, 960}}},
      {"bounds registers are left",  osxsave, xsavec, 0x1F,    {{sim::save_way::xsavec, 7, 832}}},
      {"nothing enabled",            osxsave, xsavec, 0,       {}},
      {"AVX of no size",             osxsave, 0,      7,       {}, 0},
  };
  // clang-format on
  fake[2 + 5] = {64, 1088, 0, 0};
  fake[2 + 6] = {512, 1152, 2, 0};
  fake[2 + 7] = {1024, 1664, 0, 0};
  fake[2 + 19] = {128, 960, 0, 0};
  for (const auto &[name, features, state_features, xcr0, expected, avx_bytes] : cases) {
    SCOPED_TRACE(name);
    fake[2 + 2] = {avx_bytes, 576, 0, 0};
    fake[0] = {0, 0, features, fxsr};
    fake[1] = {state_features, 0, 0, 0};
    fake_xcr0 = xcr0;
    sim::vector_state state{};
    ASSERT_EQ(find_vector_state(fake_processor, &state), expected.has_value());
    if (!expected) continue;
    EXPECT_EQ(state.way, expected->way);
    EXPECT_EQ(state.mask, expected->mask);
    EXPECT_EQ(state.bytes, expected->bytes);
  }
}

}  // namespace
