// Accesses that trap, by signal and by jump: what they leave alone, whichever way they return, and what is not taken.
#include "sim/bus/patch.h"
#include "tests/support/board.h"
#include "tests/support/signals.h"

#ifdef __x86_64__
#define STACK_POINTER "%%rsp"
#else
#define STACK_POINTER "%%esp"
#endif

namespace {

// How accesses reach the device: with a signal each time, or by a jump that saves the vector state in one of the ways.
// clang-format off
constexpr struct way { const char *name, *option; std::optional<sim::save_way> saves; } ways[] = {
    {"by signal",       "--no-patch",   {}},
    {"by jump, FXSAVE", "--waits=true", sim::save_way::fxsave},
    {"by jump, XSAVE",  "--waits=true", sim::save_way::xsave},
    {"by jump, XSAVEC", "--waits=true", sim::save_way::xsavec},
};
// clang-format on

// Does `body` in each way that the processor has, each time in a process in which no move is patched yet. A first
// access by jump runs again as one.
template <class Body>
void in_each_way(Body body) {
  for (const auto &w : ways) {
    SCOPED_TRACE(w.name);
    isolated([&] {
      const test_board board{{trapping, w.option}};
      auto *const window = map_window<uint16_t>(nvram0);
      if (!w.saves || sim::patch_saves(*w.saves)) body(w, board, window);
    });
  }
}

// A copy of the window's first words to its second 64 bytes, each through another register, with all flags set.
TEST(sim_trap, moves_through_every_register_and_leaves_flags_alone) {
  in_each_way([](const way &, const test_board &board, volatile uint16_t *window) {
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
        "  movw offset(%[window]), %%\\reg; nop; nop; movw %%\\reg, offset + 64(%[window]); nop; nop\n"
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
  });
}

// The units' state is loaded before an access and stored after it, as XSAVE lays it out.
TEST(sim_trap, leaves_float_and_vector_registers_alone) {
  if (__builtin_cpu_supports("avx") == 0) GTEST_SKIP() << "XSAVE comes with AVX";
  in_each_way([](const way &w, const test_board &, volatile uint16_t *window) {
    constexpr size_t x87 = 32, sse = 160, header = 512, avx = 576, of_registers = 16 * 2 * sizeof(void *);
    const uint32_t units = w.saves == sim::save_way::fxsave ? 3 : 7;
    alignas(64) std::array<uint8_t, 832> given{}, taken{}, own{};
    for (size_t i = x87; i < given.size(); ++i)
      given[i] = i < header || i >= avx ? static_cast<uint8_t>(0xC1 + i) : 0;
    given[1] = 0x03;  // exceptions of the x87 are masked
    given[0] = 0x7F;
    given[4] = 0xFF;   // all of its registers are in use
    given[25] = 0x7F;  // MXCSR rounds towards zero
    given[24] = 0x80;
    given[header] = static_cast<uint8_t>(units);
    asm volatile("xsave (%[own]); xrstor (%[given]); movw (%[window]), %%cx; xsave (%[taken]); xrstor (%[own])"
                 : [window] "+c"(window)
                 : "a"(units), "d"(0), [own] "r"(own.data()), [given] "r"(given.data()), [taken] "r"(taken.data())
                 : "memory");
    EXPECT_TRUE(given[4] == taken[4] && memcmp(&given[24], &taken[24], 2) == 0) << "x87 registers in use, MXCSR";
    for (size_t i = 0; i < 8 * 16; ++i)
      EXPECT_TRUE(i % 16 >= 10 || given[x87 + i] == taken[x87 + i]) << "x87 " << i;
    EXPECT_EQ(memcmp(&given[sse], &taken[sse], of_registers), 0);
    EXPECT_TRUE(units == 3 || memcmp(&given[avx], &taken[avx], of_registers) == 0);
  });
}

// The kernel loads some segment registers for a handler of 32 bits.
TEST(sim_trap, leaves_segment_registers_signal_mask_and_errno_alone) {
  in_each_way([](const way &, const test_board &, volatile uint16_t *window) {
    unsigned own = 0, segment = 0;
    asm volatile(
        "movl %%es, %[own]; movl %[null], %%es; movw (%[window]), %%ax; movl %%es, %[segment]; movl %[own], %%es"
        : [own] "=&r"(own), [segment] "=&r"(segment)
        : [null] "r"(0), [window] "r"(window)
        : "eax");
    EXPECT_EQ(segment, 0U);
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
  });
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

// A jump needs the stack that the access interrupts.
TEST(sim_trap, works_by_signal_on_every_stack) {
  constexpr int autodisarm = static_cast<int>(1U << 31);
  const test_board board{{trapping, "--no-patch"}};
  auto *const window = map_window<uint16_t>(nvram0);
  const uint16_t expected = window[0];
  uint8_t *const alternate = lone_stack();
  // Flags of the handler's stack, and the stack pointer of the access, null for the ordinary one.
  // clang-format off
  const struct { const char *name; int flags; const void *from; } cases[] = {
      {"frame at the end of its stack", 0,          nullptr},
      {"stack that the kernel disarms", autodisarm, nullptr},
      {"stack pointer at the end",      0,          lone_stack()},
  };
  // clang-format on
  for (const auto &[name, flags, from] : cases) {
    SCOPED_TRACE(name);
    const stack_t stack{alternate, flags, stack_bytes};
    ASSERT_EQ(sigaltstack(&stack, nullptr), 0);
    memset(alternate, 0, stack_bytes);
    EXPECT_EQ(read_on(from, window), expected);
    stack_t after{};
    (void)sigaltstack(nullptr, &after);
    EXPECT_EQ(after.ss_sp, stack.ss_sp);
    EXPECT_EQ(after.ss_flags, stack.ss_flags);
    // The handler ran there.
    EXPECT_NE(memcmp(alternate + stack_bytes - 256, alternate, 256), 0);
  }
  const stack_t none{nullptr, SS_DISABLE, 0};
  (void)sigaltstack(&none, nullptr);
}

#ifdef __x86_64__
// Programs of 64 bits may keep 128 bytes below the stack pointer.
TEST(sim_trap, leaves_the_red_zone_alone) {
  in_each_way([](const way &, const test_board &, volatile uint16_t *window) {
    constexpr size_t bytes = 128;
    uint8_t *const stack = lone_stack();
    memset(stack, 0xA5, stack_bytes);
    (void)read_on(stack + stack_bytes / 2, window);
    for (size_t i = 1; i <= bytes; ++i)
      ASSERT_EQ(stack[stack_bytes / 2 - i], 0xA5) << i << " below";
    // The sanitizers give the thread a stack for signals.
    stack_t own{};
    ASSERT_EQ(sigaltstack(nullptr, &own), 0);
    if ((own.ss_flags & SS_DISABLE) == 0) return;
    EXPECT_NE(std::count(stack, stack + stack_bytes / 2, 0xA5), stack_bytes / 2) << "what is further below is used";
  });
}
#endif

// --- Other handlers -------------------------------------------------------------------------------------------------

// A handler that a program sets between its mappings gets what meets no device; one that it sets behind them and that
// hands on what is not its own may block what it likes. It sees every access by signal, and the first of each move that
// becomes a jump.
TEST(sim_trap, shares_its_signal) {
  in_each_way([](const way &w, const test_board &, volatile uint16_t *window) {
    const uint16_t expected = window[0];
    sigset_t all;
    sigfillset(&all);
    count_signals(all);
    for (int i = 0; i < 5; ++i)
      EXPECT_EQ(window[0], expected);
    EXPECT_EQ(signals, w.saves ? 1 : 5);
    (void)map_window<uint16_t>(nvram1);
    EXPECT_EQ(window[0], expected);
    EXPECT_EQ(signals, w.saves ? 1 : 5);
  });
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

TEST(sim_trap_death, ends_the_run_on_an_instruction_that_it_does_not_know) {
  const test_board board{{trapping}};
  auto *const window = map_window<uint16_t>(nvram0);
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
