// The handler of trapped accesses: what it leaves alone, whichever way it returns, and what it does not take.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mman.h>
#include <x86intrin.h>

#include <array>
#include <cerrno>
#include <cstring>

#include "tests/support/board.h"

#ifdef __x86_64__
#define STACK_POINTER "%%rsp"
#else
#define STACK_POINTER "%%esp"
#endif

namespace {

// A board with a fault that changes nothing where the tests work, but has every access to NVRAM 0 trapped.
struct sim_trap : testing::Test {
  const test_board board{{"nvram-cell-stuck instance=0 offset=0x7FFE bit=0 level=0"}};
  volatile uint16_t *const window = map_window<uint16_t>(nvram0);
};
using sim_trap_death = sim_trap;

// A copy of the window's first words to its second 64 bytes, each through another register, with all flags set.
TEST_F(sim_trap, moves_through_every_register_and_leaves_flags_alone) {
  constexpr uintptr_t all_flags = 0xD5;
  uintptr_t flags = 0;
  asm volatile(
      ".set offset, 0\n"
      ".irp reg, ax"
#ifdef __x86_64__
      ",r8w,r9w,r10w,r11w,r12w,r13w,r14w,r15w"
#endif
      ",dx,bx,si,di,bp\n"
      "  .ifc \\reg, dx; push $0xD7; popf; .endif\n"
      "  .ifc \\reg, bp; movw %%bp, %%di; .endif\n"
      "  movw offset(%[window]), %%\\reg; movw %%\\reg, offset + 64(%[window])\n"
      "  .set offset, offset + 2\n"
      ".endr\n"
      "movw %%di, %%bp; pushf; pop %[flags]"
      : [flags] "=&a"(flags)
      : [window] "c"(window)
#ifdef __x86_64__
      : "r8", "r9", "r10", "r11", "r12", "r13", "r14", "r15", "rdx", "rbx", "rsi", "rdi", "memory");
#else
      : "edx", "ebx", "esi", "edi", "memory");
#endif
  constexpr size_t copied = sizeof(void *) == 8 ? 28 : 12;
  const auto cells = board.contents("nvram0");
  EXPECT_EQ(cells.substr(64, copied), cells.substr(0, copied));
  EXPECT_EQ(flags & all_flags, all_flags);
}

// Makes an access with a vector register loaded before it and stored behind it.
#define VECTOR_ACCESS(NAME, MOVE, REGISTER)                                                   \
  void NAME(const volatile uint16_t *window, const uint8_t *given, uint8_t *taken) {          \
    asm volatile(MOVE " (%0), %%" REGISTER "; movw (%1), %%ax; " MOVE " %%" REGISTER ", (%2)" \
                 :                                                                            \
                 : "S"(given), "c"(window), "D"(taken)                                        \
                 : "eax", "xmm3", "memory");                                                  \
  }
VECTOR_ACCESS(sse_access, "movdqu", "xmm3")
VECTOR_ACCESS(avx_access, "vmovdqu", "ymm3")
VECTOR_ACCESS(avx512_access, "vmovdqu64", "zmm3")

TEST_F(sim_trap, leaves_vector_registers_alone) {
  const struct {
    size_t bytes;
    bool supported;
    void (*access)(const volatile uint16_t *window, const uint8_t *given, uint8_t *taken);
  } kinds[] = {
      {16, true, sse_access},
      {32, __builtin_cpu_supports("avx") != 0, avx_access},
      {64, __builtin_cpu_supports("avx512f") != 0, avx512_access},
  };
  std::array<uint8_t, 64> given;
  for (size_t i = 0; i < given.size(); ++i)
    given[i] = static_cast<uint8_t>(0xC1 + i);
  for (const auto &kind : kinds) {
    if (!kind.supported) continue;
    std::array<uint8_t, 64> taken{};
    kind.access(window, given.data(), taken.data());
    EXPECT_EQ(memcmp(given.data(), taken.data(), kind.bytes), 0) << kind.bytes << " bytes";
  }
}

TEST_F(sim_trap, leaves_float_registers_alone) {
  long double x87 = 0;
  const uint32_t mxcsr = 0x7F80;  // rounds towards zero
  uint32_t mxcsr_before = 0, mxcsr_after = 0;
  asm volatile(
      "stmxcsr %[before]; ldmxcsr %[mxcsr]; fldpi; movw (%[window]), %%ax;"
      "fstpt %[x87]; stmxcsr %[after]; ldmxcsr %[before]"
      : [x87] "=m"(x87), [after] "=m"(mxcsr_after), [before] "+m"(mxcsr_before)
      : [mxcsr] "m"(mxcsr), [window] "r"(window)
      : "eax", "st");
  EXPECT_EQ(x87, 3.14159265358979323846264338327950288L);
  EXPECT_EQ(mxcsr_after, mxcsr);
}

TEST_F(sim_trap, leaves_signal_mask_and_errno_alone) {
  sigset_t mask, after;
  sigemptyset(&mask);
  sigaddset(&mask, SIGUSR1);
  sigprocmask(SIG_SETMASK, &mask, nullptr);
  errno = 77;
  (void)window[0];
  EXPECT_EQ(errno, 77);
  sigprocmask(SIG_SETMASK, nullptr, &after);
  for (int number = 1; number < 32; ++number)
    EXPECT_EQ(sigismember(&after, number), number == SIGUSR1 ? 1 : 0) << "signal " << number;
}

// The kernel loads some segment registers for a handler of 32 bits.
TEST_F(sim_trap, leaves_segment_registers_alone) {
  unsigned own = 0, after = 0;
  asm volatile("movl %%es, %[own]; movl %[null], %%es; movw (%[window]), %%ax; movl %%es, %[after]; movl %[own], %%es"
               : [own] "=&r"(own), [after] "=&r"(after)
               : [null] "r"(0), [window] "r"(window)
               : "eax");
  EXPECT_EQ(after, 0U);
}

volatile sig_atomic_t steps = 0;

TEST_F(sim_trap, goes_on_single_stepped) {
  const uint16_t expected = window[0];
  constexpr auto trap_flag = 0x100U;
  (void)signal(SIGTRAP, [](int) { steps = steps + 1; });
  __writeeflags(__readeflags() | trap_flag);
  const uint16_t seen = window[0];
  const auto flags = __readeflags();
  __writeeflags(flags & ~trap_flag);
  EXPECT_EQ(seen, expected);
  EXPECT_NE(flags & trap_flag, 0U);
  EXPECT_GT(steps, 2);
}

// --- Stacks ---------------------------------------------------------------------------------------------------------

constexpr size_t stack_bytes = 0x10000;

// The first byte of a stack with nothing at either end.
uint8_t *lone_stack() {
  void *const all = mmap(nullptr, stack_bytes + 0x2000, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  auto *const first = static_cast<uint8_t *>(all) + 0x1000;
  EXPECT_EQ(mprotect(first, stack_bytes, PROT_READ | PROT_WRITE), 0);
  return first;
}

// Reads with the stack pointer at `stack`, or where it is if null.
uint16_t read_on(const void *stack, const volatile uint16_t *window) {
  uintptr_t own = 0;
  uint16_t data = 0;
  asm volatile("mov " STACK_POINTER
               ", %[own]; test %[stack], %[stack]; cmovz %[own], %[stack];"
               "mov %[stack], " STACK_POINTER "; movw (%[window]), %[data]; mov %[own], " STACK_POINTER
               : [own] "=&S"(own), [data] "=&a"(data), [stack] "+&d"(stack)
               : [window] "c"(window)
               : "memory", "cc");
  return data;
}

TEST_F(sim_trap, works_on_every_stack) {
  constexpr int autodisarm = static_cast<int>(1U << 31);
  const uint16_t expected = window[0];
  uint8_t *const alternate = lone_stack();
  const uint8_t *const interrupted = lone_stack();
  const struct {
    const char *name;
    int flags;         // of the handler's stack
    const void *from;  // the stack pointer of the access, null for the ordinary one
  } cases[] = {
      {"frame at the end of its stack", 0, nullptr},
      {"stack that the kernel disarms", autodisarm, nullptr},
      {"stack pointer in the last words", 0, interrupted + 8},
      {"stack pointer in the last words but four", 0, interrupted + 16},
      {"stack pointer at the end", 0, interrupted},
  };
  stack_t before{};
  (void)sigaltstack(nullptr, &before);
  for (const auto &c : cases) {
    SCOPED_TRACE(c.name);
    const stack_t stack{alternate, c.flags, stack_bytes};
    ASSERT_EQ(sigaltstack(&stack, nullptr), 0);
    memset(alternate, 0, stack_bytes);
    EXPECT_EQ(read_on(c.from, window), expected);
    stack_t after{};
    (void)sigaltstack(nullptr, &after);
    EXPECT_EQ(after.ss_sp, stack.ss_sp);
    EXPECT_EQ(after.ss_flags, stack.ss_flags);
    // The handler ran there.
    EXPECT_NE(memcmp(alternate + stack_bytes - 256, alternate, 256), 0);
  }
  (void)sigaltstack(&before, nullptr);
}

// --- Other handlers -------------------------------------------------------------------------------------------------

struct sigaction board_action {};
volatile sig_atomic_t forwarded = 0;

// A handler that a program sets between its mappings gets what meets no device; one that it sets behind them and that
// hands on what is not its own may block what it likes.
TEST_F(sim_trap, shares_its_signal) {
  const uint16_t expected = window[0];
  (void)sigaction(SIGSEGV, nullptr, &board_action);
  struct sigaction own {};
  own.sa_flags = SA_SIGINFO;
  own.sa_sigaction = [](int number, siginfo_t *info, void *context) {
    forwarded = forwarded + 1;
    board_action.sa_sigaction(number, info, context);
  };
  sigfillset(&own.sa_mask);
  ASSERT_EQ(sigaction(SIGSEGV, &own, nullptr), 0);
  EXPECT_EQ(window[0], expected);
  EXPECT_EQ(window[0], expected) << "with the signal mask as before";
  EXPECT_EQ(forwarded, 2);
  (void)map_window<uint16_t>(nvram1);
  EXPECT_EQ(window[0], expected);
  EXPECT_EQ(forwarded, 2);
}

TEST(sim_trap_first_mapping, lets_its_thread_take_the_signal) {
  const test_board board({"nvram-data-stuck instance=0 line=0 level=0"});
  sigset_t all, before;
  sigfillset(&all);
  (void)pthread_sigmask(SIG_BLOCK, &all, &before);
  (void)map_window<uint16_t>(nvram0)[0];
  (void)pthread_sigmask(SIG_SETMASK, nullptr, &all);
  EXPECT_EQ(sigismember(&all, SIGSEGV), 0);
  EXPECT_EQ(sigismember(&all, SIGTERM), 1);
  (void)pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

TEST_F(sim_trap_death, ends_the_run_on_an_instruction_that_it_does_not_know) {
  EXPECT_EXIT(asm volatile("movdqu (%0), %%xmm0"
                           :
                           : "c"(window)
                           : "xmm0"),
              testing::KilledBySignal(SIGABRT), "no plain move met a device: instruction at .*, bytes f3 0f 6f 01");
}

TEST(sim_trap_others_death, get_their_faults) {
  const test_board board;
  volatile uintptr_t nowhere = 16;
  // The handler that was there before is chosen in a process of its own, ahead of the first mapping.
  const auto with = [](void (*handler)(int)) {
    (void)signal(SIGSEGV, handler);
    (void)map_window<uint8_t>(nvram0);
  };
  const auto touch_nothing = [&] { *reinterpret_cast<volatile uint8_t *>(nowhere) = 1; };
  EXPECT_EXIT((with(SIG_DFL), touch_nothing()), testing::KilledBySignal(SIGSEGV), "");
  EXPECT_EXIT((with([](int) { _exit(41); }), touch_nothing()), testing::ExitedWithCode(41), "");
  EXPECT_EXIT((with(SIG_DFL), (void)raise(SIGSEGV)), testing::KilledBySignal(SIGSEGV), "");
  // Nothing is fetched from a device.
  const auto call = [](volatile void *at) { reinterpret_cast<void (*)()>(reinterpret_cast<uintptr_t>(at))(); };
  EXPECT_EXIT((with(SIG_DFL), call(map_window<uint8_t>(flash))), testing::KilledBySignal(SIGSEGV), "");
}

}  // namespace
