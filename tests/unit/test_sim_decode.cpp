// test_sim_decode.cpp: instructions that meet a device: decoded by table, against the processor itself, and as
// compilers write them.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mman.h>
#include <unistd.h>

#include <array>
#include <cstring>
#include <vector>

#include "sim/decode.h"
#include "tests/unit/sim_access_forms.h"
#include "tests/unit/sim_memory_board.h"

namespace {

using sim::word_size;

// A fault that changes nothing where the tests work, but has every access trapped.
constexpr const char *trap_nvram0 = "nvram-cell-stuck instance=0 offset=0x7FFE bit=0 level=0";

// Registers with values that tell them apart.
sim::cpu_regs known_registers() {
  sim::cpu_regs regs;
  for (size_t i = 0; i < regs.gpr.size(); i++)
    regs.gpr[i] = 0x1000 * (i + 1);
  regs.gpr[2] = 0x1234050C;
  regs.ip = 0x400000;
  return regs;
}

struct decode_case {
  const char *name;
  word_size size;
  std::vector<uint8_t> code;
  bool reads, writes;
  unsigned width;
  uint64_t address;
};

constexpr word_size w32 = word_size::bits32;
constexpr word_size w64 = word_size::bits64;

// Registers: ax 1000, cx 2000, bx 4000, sp 5000, bp 6000, si 7000, di 8000, r8 9000, r9 A000, r12 D000, r13 E000.
// clang-format off
const decode_case decode_cases[] = {
    {"mov [rax], cl",               w64, {0x88, 0x08}, false, true, 8, 0x1000},
    {"mov [rbx-2], cx",             w64, {0x66, 0x89, 0x4B, 0xFE}, false, true, 16, 0x3FFE},
    {"mov eax, [rbp+0x100]",        w64, {0x8B, 0x85, 0x00, 0x01, 0x00, 0x00}, true, false, 32, 0x6100},
    {"mov r9, [r8]",                w64, {0x4D, 0x8B, 0x08}, true, false, 64, 0x9000},
    {"mov eax, [rip-0x10]",         w64, {0x8B, 0x05, 0xF0, 0xFF, 0xFF, 0xFF}, true, false, 32, 0x3FFFF6},
    {"mov word [rip+0x10], 0x1234", w64, {0x66, 0xC7, 0x05, 0x10, 0x00, 0x00, 0x00, 0x34, 0x12}, false, true, 16, 0x400019},
    {"mov eax, [0x10]",             w32, {0x8B, 0x05, 0x10, 0x00, 0x00, 0x00}, true, false, 32, 0x10},
    {"mov eax, [rsp]",              w64, {0x8B, 0x04, 0x24}, true, false, 32, 0x5000},
    {"mov eax, [rcx+rdi*2]",        w64, {0x8B, 0x04, 0x79}, true, false, 32, 0x12000},
    {"mov eax, [r13+r12*8-1]",      w64, {0x43, 0x8B, 0x44, 0xE5, 0xFF}, true, false, 32, 0x75FFF},
    {"mov eax, [rdi*4+0x20]",       w64, {0x8B, 0x04, 0xBD, 0x20, 0x00, 0x00, 0x00}, true, false, 32, 0x20020},
    {"mov eax, [0x12345678]",       w64, {0x8B, 0x04, 0x25, 0x78, 0x56, 0x34, 0x12}, true, false, 32, 0x12345678},
    {"mov eax, [r12]",              w64, {0x41, 0x8B, 0x04, 0x24}, true, false, 32, 0xD000},
    {"mov eax, [r13]",              w64, {0x41, 0x8B, 0x45, 0x00}, true, false, 32, 0xE000},
    {"mov eax, [ebx-0x5000]",       w32, {0x8B, 0x83, 0x00, 0xB0, 0xFF, 0xFF}, true, false, 32, 0xFFFFF000},
    {"mov eax, [rbx-0x5000]",       w64, {0x8B, 0x83, 0x00, 0xB0, 0xFF, 0xFF}, true, false, 32, 0xFFFFFFFFFFFFF000},
    {"mov eax, [ebx-0x5000], 67",   w64, {0x67, 0x8B, 0x83, 0x00, 0xB0, 0xFF, 0xFF}, true, false, 32, 0xFFFFF000},
    {"mov al, moffs64",             w64, {0xA0, 8, 7, 6, 5, 4, 3, 2, 1}, true, false, 8, 0x0102030405060708},
    {"mov moffs64, ax",             w64, {0x66, 0xA3, 8, 7, 6, 5, 4, 3, 2, 1}, false, true, 16, 0x0102030405060708},
    {"mov eax, moffs32",            w32, {0xA1, 4, 3, 2, 0xF1}, true, false, 32, 0xF1020304},
    {"mov moffs32, al",             w32, {0xA2, 4, 3, 2, 0xF1}, false, true, 8, 0xF1020304},
    {"movzx eax, word [rdi]",       w64, {0x0F, 0xB7, 0x07}, true, false, 16, 0x8000},
    {"movsx rax, byte [rdi]",       w64, {0x48, 0x0F, 0xBE, 0x07}, true, false, 8, 0x8000},
    {"movsxd rax, [rdi]",           w64, {0x48, 0x63, 0x07}, true, false, 32, 0x8000},
    {"movnti [rdi], eax",           w64, {0x0F, 0xC3, 0x07}, false, true, 32, 0x8000},
    {"sete [rdi]",                  w64, {0x0F, 0x94, 0x07}, false, true, 8, 0x8000},
    {"cmp byte [rdi+1], 7",         w64, {0x80, 0x7F, 0x01, 0x07}, true, false, 8, 0x8001},
    {"test word [edi], 0x4000",     w32, {0x66, 0xF7, 0x07, 0x00, 0x40}, true, false, 16, 0x8000},
    {"or dword [rdi], 1",           w64, {0x83, 0x0F, 0x01}, true, true, 32, 0x8000},
    {"xchg [rdi], eax",             w64, {0x87, 0x07}, true, true, 32, 0x8000},
    {"mov [ds:edi], ax",            w32, {0x3E, 0x66, 0x89, 0x07}, false, true, 16, 0x8000},
    {"push [rsp+8]",                w64, {0xFF, 0x74, 0x24, 0x08}, true, false, 64, 0x5008},
    {"push [eax]",                  w32, {0xFF, 0x30}, true, false, 32, 0x1000},
    {"in al, dx",                   w64, {0xEC}, true, false, 8, 0x50C},
    {"in ax, dx",                   w64, {0x66, 0xED}, true, false, 16, 0x50C},
    {"in eax, dx",                  w32, {0xED}, true, false, 32, 0x50C},
    {"out dx, eax",                 w64, {0xEF}, false, true, 32, 0x50C},
    {"out dx, al",                  w32, {0xEE}, false, true, 8, 0x50C},
    {"in eax, 0x80",                w32, {0xE5, 0x80}, true, false, 32, 0x80},
    {"out 0x80, al",                w64, {0xE6, 0x80}, false, true, 8, 0x80},
};

struct reject_case {
  const char *name;
  word_size size;
  std::vector<uint8_t> code;
};

const reject_case reject_cases[] = {
    {"register form",        w64, {0x89, 0xC8}},
    {"movzx from register",  w64, {0x0F, 0xB7, 0xC0}},
    {"lock or",              w64, {0xF0, 0x83, 0x0F, 0x01}},
    {"rep movsb",            w64, {0xF3, 0xA4}},
    {"movsd",                w32, {0xA5}},
    {"movdqu",               w64, {0xF3, 0x0F, 0x6F, 0x07}},
    {"movaps",               w64, {0x0F, 0x28, 0x07}},
    {"vmovdqu",              w64, {0xC5, 0xFE, 0x6F, 0x07}},
    {"fs segment",           w64, {0x64, 0x8B, 0x07}},
    {"16-bit addressing",    w32, {0x67, 0x8B, 0x07}},
    {"push of 16 bits",      w32, {0x66, 0xFF, 0x37}},
    {"call",                 w64, {0xFF, 0x17}},
    {"div",                  w64, {0xF7, 0x37}},
    {"64-bit mul",           w64, {0x48, 0xF7, 0x27}},
    {"rcl",                  w64, {0xD1, 0x17}},
    {"C7 /1",                w64, {0xC7, 0x0F, 0, 0, 0, 0}},
    {"82 in 32 bits",        w32, {0x82, 0x07, 0x01}},
    {"arpl in 32 bits",      w32, {0x63, 0x07}},
    {"cmpxchg",              w64, {0x0F, 0xB1, 0x07}},
    {"ins",                  w64, {0x6D}},
};
// clang-format on

TEST(sim_decode, tells_address_width_and_direction) {
  for (const auto &c : decode_cases) {
    SCOPED_TRACE(c.name);
    sim::insn i;
    auto code = c.code;
    code.resize(16, 0xCC);
    ASSERT_TRUE(sim::decode(code.data(), c.size, known_registers(), &i));
    EXPECT_EQ(i.length, c.code.size());
    EXPECT_EQ(i.address, c.address);
    EXPECT_EQ(i.width, c.width);
    EXPECT_EQ(i.reads, c.reads);
    EXPECT_EQ(i.writes, c.writes);
  }
}

TEST(sim_decode, knows_what_it_does_not_know) {
  for (const auto &c : reject_cases) {
    sim::insn i;
    auto code = c.code;
    code.resize(16, 0xCC);
    EXPECT_FALSE(sim::decode(code.data(), c.size, known_registers(), &i)) << c.name;
  }
}

// The processor as judge: one instruction between loading and storing all registers, run on ordinary memory and on a
// trapped window.
struct machine_state {
  std::array<uint64_t, 16> gpr;
  uint64_t flags;
  bool operator==(const machine_state &) const = default;
};

constexpr uint64_t arithmetic_flags = 0x8D5;
constexpr uint64_t carry_flag = 0x001;
constexpr uint64_t adjust_flag = 0x010;
constexpr uint64_t overflow_flag = 0x800;

extern "C" const uint8_t judge_begin[], judge_hole[], judge_end[];
#ifdef __x86_64__
constexpr unsigned state_register = 15;
asm(R"(
    .pushsection .rodata
judge_begin:
    pushq %rbx
    pushq %rbp
    pushq %r12
    pushq %r13
    pushq %r14
    pushq %r15
    movq  %rdi, %r15
    pushq 128(%r15)
    popfq
    movq  0(%r15), %rax
    movq  8(%r15), %rcx
    movq  16(%r15), %rdx
    movq  24(%r15), %rbx
    movq  40(%r15), %rbp
    movq  48(%r15), %rsi
    movq  56(%r15), %rdi
    movq  64(%r15), %r8
    movq  72(%r15), %r9
    movq  80(%r15), %r10
    movq  88(%r15), %r11
    movq  96(%r15), %r12
    movq  104(%r15), %r13
    movq  112(%r15), %r14
judge_hole:
    .fill 15, 1, 0x90
    movq  %rax, 0(%r15)
    movq  %rcx, 8(%r15)
    movq  %rdx, 16(%r15)
    movq  %rbx, 24(%r15)
    movq  %rbp, 40(%r15)
    movq  %rsi, 48(%r15)
    movq  %rdi, 56(%r15)
    movq  %r8, 64(%r15)
    movq  %r9, 72(%r15)
    movq  %r10, 80(%r15)
    movq  %r11, 88(%r15)
    movq  %r12, 96(%r15)
    movq  %r13, 104(%r15)
    movq  %r14, 112(%r15)
    pushfq
    popq  128(%r15)
    popq  %r15
    popq  %r14
    popq  %r13
    popq  %r12
    popq  %rbp
    popq  %rbx
    ret
judge_end:
    .popsection
)");
#else
constexpr unsigned state_register = 5;
asm(R"(
    .pushsection .rodata
judge_begin:
    pushl %ebx
    pushl %ebp
    pushl %esi
    pushl %edi
    movl  20(%esp), %ebp
    pushl 128(%ebp)
    popfl
    movl  0(%ebp), %eax
    movl  8(%ebp), %ecx
    movl  16(%ebp), %edx
    movl  24(%ebp), %ebx
    movl  48(%ebp), %esi
    movl  56(%ebp), %edi
judge_hole:
    .fill 15, 1, 0x90
    movl  %eax, 0(%ebp)
    movl  %ecx, 8(%ebp)
    movl  %edx, 16(%ebp)
    movl  %ebx, 24(%ebp)
    movl  %esi, 48(%ebp)
    movl  %edi, 56(%ebp)
    pushfl
    popl  128(%ebp)
    popl  %edi
    popl  %esi
    popl  %ebp
    popl  %ebx
    ret
judge_end:
    .popsection
)");
#endif

class judge {
 public:
  judge() {
    const auto size = static_cast<size_t>(judge_end - judge_begin);
    code = static_cast<uint8_t *>(
        mmap(nullptr, size, PROT_READ | PROT_WRITE | PROT_EXEC, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    memcpy(code, judge_begin, size);
  }

  void load(const std::vector<uint8_t> &insn) {
    auto *const hole = code + (judge_hole - judge_begin);
    memset(hole, 0x90, 15);
    memcpy(hole, insn.data(), insn.size());
  }

  [[nodiscard]] machine_state run(machine_state state) const {
    reinterpret_cast<void (*)(machine_state *)>(code)(&state);
    state.flags &= arithmetic_flags;
    return state;
  }

 private:
  uint8_t *code;
};

constexpr unsigned reg_bx = 3;

std::vector<std::vector<uint8_t>> prefix_sets() {
#ifdef __x86_64__
  return {{}, {0x66}, {0x48}, {0x40}, {0x44}, {0x66, 0x4C}};
#else
  return {{}, {0x66}};
#endif
}

struct judged_opcode {
  std::vector<uint8_t> code;
  unsigned regs_first, regs_last;  // register field
  int immediate;                   // bytes; -1 as the operand size has them, 4 at most
  bool logic;                      // leaves the adjust flag undefined
  bool byte_register;
  bool any_overflow = false;  // leaves the overflow flag undefined
  bool product = false;       // leaves all but carry and overflow undefined; not with 64 bits
};

std::vector<judged_opcode> judged_opcodes() {
  std::vector<judged_opcode> list;
  for (unsigned op = 0; op < 8; op++) {
    const bool logic = op == 1 || op == 4 || op == 6;
    for (unsigned form = 0; form < 4; form++)
      list.push_back({{static_cast<uint8_t>(op * 8 + form)}, 0, 7, 0, logic, form % 2 == 0});
    list.push_back({{0x80}, op, op, 1, logic, true});
    list.push_back({{0x81}, op, op, -1, logic, false});
    list.push_back({{0x83}, op, op, 1, logic, false});
  }
  for (uint8_t code = 0x84; code <= 0x8B; code++)
    list.push_back({{code}, 0, 7, 0, code <= 0x85, (code & 1) == 0});
  list.push_back({{0xC6}, 0, 0, 1, false, true});
  list.push_back({{0xC7}, 0, 0, -1, false, false});
  list.push_back({{0xF6}, 0, 1, 1, true, true});
  list.push_back({{0xF7}, 0, 1, -1, true, false});
  for (uint8_t code = 0xF6; code <= 0xF7; code++)
    list.push_back({{code}, 2, 3, 0, false, code == 0xF6});
  for (uint8_t code : std::initializer_list<uint8_t>{0xFE, 0xFF})
    list.push_back({{code}, 0, 1, 0, false, code == 0xFE});
  for (uint8_t code : std::initializer_list<uint8_t>{0xC0, 0xC1, 0xD0, 0xD1, 0xD2, 0xD3}) {
    const bool one = code == 0xD0 || code == 0xD1;
    const int immediate = code < 0xD0 ? 1 : 0;
    list.push_back({{code}, 0, 1, immediate, true, code % 2 == 0, !one});
    list.push_back({{code}, 4, 5, immediate, true, code % 2 == 0, !one});
    list.push_back({{code}, 7, 7, immediate, true, code % 2 == 0, !one});
  }
  for (uint8_t code : std::initializer_list<uint8_t>{0xB6, 0xB7, 0xBE, 0xBF})
    list.push_back({{0x0F, code}, 0, 7, 0, false, false});
  for (uint8_t code = 0x90; code <= 0x9F; code++)
    list.push_back({{0x0F, code}, 0, 0, 0, false, true});
  for (uint8_t code : {uint8_t{0xF6}, uint8_t{0xF7}})
    list.push_back({{code}, 4, 5, 0, false, code == 0xF6, false, true});
  list.push_back({{0x0F, 0xAF}, 0, 7, 0, false, false, false, true});
  list.push_back({{0x69}, 0, 7, -1, false, false, false, true});
  list.push_back({{0x6B}, 0, 7, 1, false, false, false, true});
#ifdef __x86_64__
  list.push_back({{0x63}, 0, 7, 0, false, false});
#endif
  return list;
}

TEST(sim_decode, agrees_with_the_processor) {
  memory_board board{trap_nvram0};
  ASSERT_NO_FATAL_FAILURE(board.start());
  // The window, what is behind it, and ordinary memory.
  auto *const window = board.map<uint8_t>(nvram0);
  auto *const cells = reinterpret_cast<uint64_t *>(board.contents(nvram0).data());
  uint64_t plain[2];
  judge j;
  size_t count = 0;

  constexpr uint64_t values[] = {0, 0x7FFFFFFF7FFF7F7F, 0x80000000800080F0, 0xFFFFFFFFFFFFFFFF, 0x123456789ABCDE0F};
  for (const auto &prefix : prefix_sets()) {
    const bool wide = !prefix.empty() && (prefix.back() & 0xF8) == 0x48;
    const bool half = !wide && !prefix.empty() && prefix.front() == 0x66;
    for (const auto &op : judged_opcodes()) {
      if (op.product && wide) continue;
      for (unsigned reg = op.regs_first; reg <= op.regs_last; reg++) {
        const bool extended = !prefix.empty() && (prefix.back() & 0xF4) == 0x44;
        const bool names_register = op.regs_last - op.regs_first == 7;
        const bool high_byte = op.byte_register && (prefix.empty() || (prefix.back() & 0xF0) != 0x40);
        const unsigned number = high_byte ? reg & 3 : reg | (extended ? 8 : 0);
        if (names_register && (number == 4 || number == state_register)) continue;

        auto code = prefix;
        code.insert(code.end(), op.code.begin(), op.code.end());
        code.push_back(static_cast<uint8_t>(0x43 + reg * 8));  // [bx + 8]
        code.push_back(8);
        const int bytes = op.immediate >= 0 ? op.immediate : half ? 2 : 4;
        for (int i = 0; i < bytes; i++)
          code.push_back(static_cast<uint8_t>(0x81 + 0x37 * i));
        j.load(code);

        for (const uint64_t value : values) {
          for (const uint64_t memory : values) {
            machine_state start{};
            start.gpr.fill(value);
            start.flags = (value ^ memory) & 1;  // carry
            const auto run_on = [&](volatile void *at, uint64_t *behind) {
              behind[0] = 0x1111111111111111;
              behind[1] = memory;
              machine_state state = start;
              state.gpr[reg_bx] = reinterpret_cast<uintptr_t>(at);
              state = j.run(state);
              if (state.gpr[reg_bx] == reinterpret_cast<uintptr_t>(at)) state.gpr[reg_bx] = 0;
              if (op.logic) state.flags &= ~adjust_flag;
              if (op.product) state.flags &= carry_flag | overflow_flag;
              if (op.any_overflow) state.flags &= ~overflow_flag;
              return state;
            };
            auto expected = run_on(plain, plain);
            auto actual = run_on(window, cells);
            // What depends on the address itself cannot be compared.
            if (names_register && number == reg_bx) {
              expected.gpr[reg_bx] = actual.gpr[reg_bx] = 0;
              expected.flags = actual.flags = 0;
            }
            const bool stores_bx = names_register && number == reg_bx;
            ASSERT_EQ(actual.gpr, expected.gpr) << testing::PrintToString(code);
            ASSERT_EQ(actual.flags, expected.flags) << testing::PrintToString(code);
            ASSERT_EQ(cells[0], plain[0]) << testing::PrintToString(code);
            ASSERT_TRUE(stores_bx || cells[1] == plain[1]) << testing::PrintToString(code);
            count++;
          }
        }
      }
    }
  }
  EXPECT_GT(count, 10000U);
}

TEST(sim_trap, pushes_what_it_reads) {
  memory_board board{trap_nvram0};
  ASSERT_NO_FATAL_FAILURE(board.start());
  auto *const window = board.map<uint8_t>(nvram0);
  uintptr_t word = 0;
  memcpy(&word, &board.contents(nvram0)[8], sizeof word);
  judge j;
  j.load({0xFF, 0x73, 0x08, 0x58});  // push [bx + 8]; pop ax
  machine_state state{};
  state.gpr[reg_bx] = reinterpret_cast<uintptr_t>(window);
  EXPECT_EQ(j.run(state).gpr[0], word);
}

// The registers that the handler does not touch come back as well, whichever way it returns.
TEST(sim_trap, leaves_vector_and_float_registers_alone) {
  memory_board board{trap_nvram0};
  ASSERT_NO_FATAL_FAILURE(board.start());
  const auto *const window = board.map<uint16_t>(nvram0);
  alignas(16) uint8_t given[16];
  alignas(16) uint8_t taken[16] = {};
  for (unsigned i = 0; i < 16; i++)
    given[i] = static_cast<uint8_t>(0xC0 + i);
  long double x87 = 0;
  uint32_t mxcsr = 0x7F80;  // rounds towards zero
  uint32_t mxcsr_after = 0;
  uint32_t mxcsr_before = 0;
  asm volatile(
      "stmxcsr %[before]\n\t"
      "ldmxcsr %[mxcsr]\n\t"
      "movaps %[given], %%xmm3\n\t"
      "fldpi\n\t"
      "movw (%[window]), %%ax\n\t"
      "fstpt %[x87]\n\t"
      "movaps %%xmm3, %[taken]\n\t"
      "stmxcsr %[after]\n\t"
      "ldmxcsr %[before]\n\t"
      : [taken] "=m"(taken), [x87] "=m"(x87), [after] "=m"(mxcsr_after), [before] "+m"(mxcsr_before)
      : [given] "m"(given), [mxcsr] "m"(mxcsr), [window] "r"(window)
      : "eax", "xmm3", "st", "memory");
  EXPECT_EQ(memcmp(given, taken, sizeof given), 0);
  EXPECT_EQ(x87, 3.14159265358979323846264338327950288L);
  EXPECT_EQ(mxcsr_after, mxcsr);
}

TEST(sim_trap, leaves_signal_mask_errno_and_alternate_stack_alone) {
  memory_board board{trap_nvram0};
  ASSERT_NO_FATAL_FAILURE(board.start());
  const auto *const window = board.map<uint16_t>(nvram0);
  std::vector<uint8_t> stack(0x10000);
  const stack_t alternate{.ss_sp = stack.data(), .ss_flags = 0, .ss_size = stack.size()};
  stack_t previous{};
  ASSERT_EQ(sigaltstack(&alternate, &previous), 0);
  sigset_t before;
  sigset_t after;
  sigemptyset(&before);
  sigemptyset(&after);
  sigaddset(&before, SIGUSR1);
  sigprocmask(SIG_SETMASK, &before, nullptr);
  errno = 77;
  const uint16_t first = window[0];
  EXPECT_EQ(errno, 77);
  EXPECT_EQ(window[0], first);
  sigprocmask(SIG_SETMASK, nullptr, &after);
  for (int number = 1; number < 32; number++)
    EXPECT_EQ(sigismember(&after, number), number == SIGUSR1 ? 1 : 0) << "signal " << number;
  stack_t now{};
  ASSERT_EQ(sigaltstack(previous.ss_sp == nullptr ? nullptr : &previous, &now), 0);
  EXPECT_EQ(now.ss_flags, 0) << "still on the alternate stack";
  if (previous.ss_sp == nullptr) {
    const stack_t none{.ss_sp = nullptr, .ss_flags = SS_DISABLE, .ss_size = 0};
    ASSERT_EQ(sigaltstack(&none, nullptr), 0);
  }
}

struct level {
  const char *name;
  std::span<const access_form> (*forms)();
};
constexpr level levels[] = {
    {"-O0", access_forms_o0}, {"-O1", access_forms_o1}, {"-O2", access_forms_o2}, {"-O3", access_forms_o3}};

TEST(sim_trap, carries_out_every_form_that_the_compiler_makes) {
  memory_board board{{}, true};
  ASSERT_NO_FATAL_FAILURE(board.start());
  auto *const window = board.map<uint8_t>(nvram0);
  constexpr size_t area = 128;
  const auto cells = board.contents(nvram0);
  uint8_t plain[area];
  for (const auto &level : levels) {
    for (const auto &form : level.forms()) {
      for (const uint64_t seed : {uint64_t{0x8000000000000001}, uint64_t{0x5A5AA5F35A5A7C06}}) {
        SCOPED_TRACE(testing::Message() << level.name << " " << form.width << " bits: " << form.name);
        for (size_t i = 0; i < area; i++)
          cells[i] = plain[i] = static_cast<uint8_t>(seed >> (i % 8 * 8) ^ i * 29);
        (void)board.log();
        const uint64_t expected = form.run(reinterpret_cast<uintptr_t>(&plain[area / 2]), seed);
        const uint64_t actual = form.run(reinterpret_cast<uintptr_t>(&window[area / 2]), seed);
        ASSERT_EQ(actual, expected);
        std::string cycles;
        for (const auto &line : board.log()) {
          cycles += line[7];
          ASSERT_EQ(line.substr(9, line.find(' ', 9) - 9), std::to_string(form.width)) << line;
        }
        ASSERT_EQ(cycles, form.cycles);
        for (size_t i = 0; i < area; i++)
          ASSERT_EQ(cells[i], plain[i]) << "byte " << i;
      }
    }
  }
}

TEST(sim_trap_death, ends_the_run_on_an_instruction_that_it_does_not_know) {
  memory_board board{trap_nvram0};
  ASSERT_NO_FATAL_FAILURE(board.start());
  const auto *const window = board.map<uint8_t>(nvram0);
  EXPECT_EXIT(asm volatile("movdqu (%0), %%xmm0"
                           :
                           : "c"(window)
                           : "xmm0"),
              testing::KilledBySignal(SIGABRT), "bytes f3 0f 6f 01");
}

volatile sig_atomic_t passed_on = 0;
void count_fault(int) {
  passed_on = passed_on + 1;
  _exit(40 + passed_on);
}

TEST(sim_trap_death, passes_faults_of_others_on) {
  memory_board board{trap_nvram0};
  ASSERT_NO_FATAL_FAILURE(board.start());
  volatile uintptr_t nowhere = 16;
  const auto touch_nothing = [&] { *reinterpret_cast<volatile uint8_t *>(nowhere) = 1; };
  // In a process of its own, so that the handler that was there before can be chosen.
  EXPECT_EXIT(
      {
        signal(SIGSEGV, SIG_DFL);
        (void)board.map<uint8_t>(nvram0);
        touch_nothing();
      },
      testing::KilledBySignal(SIGSEGV), "");
  EXPECT_EXIT(
      {
        signal(SIGSEGV, count_fault);
        (void)board.map<uint8_t>(nvram0);
        touch_nothing();
      },
      testing::ExitedWithCode(41), "");
  EXPECT_EXIT(
      {
        signal(SIGSEGV, SIG_DFL);
        (void)board.map<uint8_t>(nvram0);
        raise(SIGSEGV);
      },
      testing::KilledBySignal(SIGSEGV), "");
}

}  // namespace
