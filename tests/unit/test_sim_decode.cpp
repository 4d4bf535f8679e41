// Instructions that meet a device: decoded by table, against the processor itself, and as compilers write them.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mman.h>
#include <unistd.h>

#include <array>
#include <cstring>
#include <sstream>
#include <vector>

#include "sim/bus/decode.h"
#include "tests/support/board.h"
#include "tests/unit/sim_access_forms.h"

namespace {

using bytes = std::vector<uint8_t>;

constexpr auto w32 = sim::word_size::bits32;
constexpr auto w64 = sim::word_size::bits64;

struct decode_case {
  const char *name;
  sim::word_size size;
  const char *code;
  const char *access;  // "r", "w" or "rw" and the width; "" for an instruction that is refused
  uint64_t address;
};

// Registers: ax 1000, cx 2000, dx 1234050C, bx 4000, sp 5000, bp 6000, si 7000, di 8000, r8 9000 ... r12 D000, r13
// E000.
// clang-format off
const decode_case decode_cases[] = {
    {"mov [rbx-2], cx",             w64, "66 89 4B FE",                "w16",  0x3FFE},
    {"mov eax, [rbp+0x100]",        w64, "8B 85 00 01 00 00",          "r32",  0x6100},
    {"mov r9, [r8]",                w64, "4D 8B 08",                   "r64",  0x9000},
    {"mov eax, [rip-0x10]",         w64, "8B 05 F0 FF FF FF",          "r32",  0x3FFFF6},
    {"mov word [rip+0x10], 0x1234", w64, "66 C7 05 10 00 00 00 34 12", "w16",  0x400019},
    {"mov eax, [0x10]",             w32, "8B 05 10 00 00 00",          "r32",  0x10},
    {"mov eax, [rcx+rdi*2]",        w64, "8B 04 79",                   "r32",  0x12000},
    {"mov eax, [r13+r12*8-1]",      w64, "43 8B 44 E5 FF",             "r32",  0x75FFF},
    {"mov eax, [rdi*4+0x20]",       w64, "8B 04 BD 20 00 00 00",       "r32",  0x20020},
    {"mov eax, [r13]",              w64, "41 8B 45 00",                "r32",  0xE000},
    {"mov eax, [ebx-0x5000]",       w32, "8B 83 00 B0 FF FF",          "r32",  0xFFFFF000},
    {"mov eax, [rbx-0x5000]",       w64, "8B 83 00 B0 FF FF",          "r32",  0xFFFFFFFFFFFFF000},
    {"mov eax, [ebx-0x5000], 67",   w64, "67 8B 83 00 B0 FF FF",       "r32",  0xFFFFF000},
    {"mov al, moffs64",             w64, "A0 8 7 6 5 4 3 2 1",         "r8",   0x0102030405060708},
    {"mov moffs64, ax",             w64, "66 A3 8 7 6 5 4 3 2 1",      "w16",  0x0102030405060708},
    {"mov eax, moffs32",            w32, "A1 4 3 2 F1",                "r32",  0xF1020304},
    {"movnti [rdi], eax",           w64, "0F C3 07",                   "w32",  0x8000},
    {"push [rsp+8]",                w64, "FF 74 24 08",                "r64",  0x5008},
    {"push [eax]",                  w32, "FF 30",                      "r32",  0x1000},
    {"in al, dx",                   w64, "EC",                         "r8",   0x50C},
    {"out dx, eax",                 w64, "EF",                         "w32",  0x50C},
    {"in eax, 0x80",                w32, "E5 80",                      "r32",  0x80},
    {"register form",               w64, "89 C8",                      "", 0},
    {"lock or",                     w64, "F0 83 0F 01",                "", 0},
    {"vmovdqu",                     w64, "C5 FE 6F 07",                "", 0},
    {"fs segment",                  w64, "64 8B 07",                   "", 0},
    {"16-bit addressing",           w32, "67 8B 07",                   "", 0},
    {"push of 16 bits",             w32, "66 FF 37",                   "", 0},
    {"div",                         w64, "F7 37",                      "", 0},
    {"64-bit mul",                  w64, "48 F7 27",                   "", 0},
    {"rcl",                         w64, "D1 17",                      "", 0},
    {"82 in 32 bits",               w32, "82 07 01",                   "", 0},
    {"arpl in 32 bits",             w32, "63 07",                      "", 0},
};
// clang-format on

TEST(sim_decode, tells_address_width_and_direction_or_refuses) {
  sim::cpu_regs regs;
  for (size_t i = 0; i < regs.gpr.size(); i++)
    regs.gpr[i] = 0x1000 * (i + 1);
  regs.gpr[2] = 0x1234050C;
  regs.ip = 0x400000;
  for (const auto &c : decode_cases) {
    SCOPED_TRACE(c.name);
    bytes code;
    std::istringstream words(c.code);
    for (unsigned byte; words >> std::hex >> byte;)
      code.push_back(static_cast<uint8_t>(byte));
    const size_t length = code.size();
    code.resize(16, 0xCC);
    sim::insn i;
    const bool known = sim::decode(code.data(), c.size, regs, &i);
    ASSERT_EQ(known, *c.access != '\0');
    if (!known) continue;
    EXPECT_EQ(i.length, length);
    EXPECT_EQ(i.address, c.address);
    EXPECT_EQ(std::string(i.reads ? "r" : "") + (i.writes ? "w" : "") + std::to_string(i.width), c.access);
  }
}

// --- The processor as judge: one instruction on ordinary memory and on a trapped window -----------------------------

struct machine_state {
  uint64_t flags;
  std::array<uint64_t, 16> gpr;
};

constexpr uint64_t carry = 0x001, adjust = 0x010, overflow = 0x800, arithmetic_flags = 0x8D5;
constexpr unsigned reg_bx = 3, reg_sp = 4;

#ifdef __x86_64__
constexpr bool is_64 = true;
constexpr unsigned state_register = 15;
#else
constexpr bool is_64 = false;
constexpr unsigned state_register = 5;
#endif

// Code that loads flags and registers from a state, runs an instruction, and stores them again. There is one at a time.
class judge {
 public:
  explicit judge(const bytes &insn) {
    // Push what is the caller's; the state's address into the state register; its flags.
    emit(is_64 ? bytes{0x53, 0x55, 0x41, 0x54, 0x41, 0x55, 0x41, 0x56, 0x41, 0x57, 0x49, 0x89, 0xFF, 0x41, 0xFF, 0x37}
               : bytes{0x53, 0x55, 0x56, 0x57, 0x8B, 0x6C, 0x24, 0x14, 0xFF, 0x75, 0x00});
    emit({0x9D});
    move_registers(0x8B);
    emit(insn);
    move_registers(0x89);
    emit(is_64 ? bytes{0x9C, 0x41, 0x8F, 0x07, 0x41, 0x5F, 0x41, 0x5E, 0x41, 0x5D, 0x41, 0x5C, 0x5D, 0x5B, 0xC3}
               : bytes{0x9C, 0x8F, 0x45, 0x00, 0x5F, 0x5E, 0x5D, 0x5B, 0xC3});
    memcpy(page, code.data(), code.size());
  }

  [[nodiscard]] machine_state run(machine_state state) const {
    reinterpret_cast<void (*)(machine_state *)>(page)(&state);
    state.flags &= arithmetic_flags;
    return state;
  }

 private:
  void emit(const bytes &more) { code.insert(code.end(), more.begin(), more.end()); }
  void move_registers(uint8_t opcode) {
    for (unsigned reg = 0; reg < (is_64 ? 15 : 8); reg++) {
      if (reg == reg_sp || reg == state_register) continue;
      if (is_64) emit({static_cast<uint8_t>(reg < 8 ? 0x49 : 0x4D)});
      const unsigned modrm = (is_64 ? 0x47 : 0x45) | (reg & 7) << 3;
      emit({opcode, static_cast<uint8_t>(modrm), static_cast<uint8_t>(offsetof(machine_state, gpr) + 8 * reg)});
    }
  }
  static inline void *const page =
      mmap(nullptr, 4096, PROT_READ | PROT_WRITE | PROT_EXEC, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  bytes code;
};

struct judged_opcode {
  bool two_bytes;
  unsigned first, last;    // opcodes
  unsigned fields;         // values of the register field, as bits
  int immediate = 0;       // bytes; -1 as the operand size has them, 4 at most
  uint64_t undefined = 0;  // flags
  bool narrow = false;     // not with 64 bits
};

std::vector<judged_opcode> judged_opcodes() {
  constexpr uint64_t not_a_product = arithmetic_flags & ~(carry | overflow);
  // clang-format off
  std::vector<judged_opcode> list{
      {false, 0x84, 0x85, 0xFF, 0, adjust},              // test
      {false, 0x86, 0x8B, 0xFF},                         // xchg, mov
      {false, 0xC6, 0xC6, 0x01, 1},
      {false, 0xC7, 0xC7, 0x01, -1},
      {false, 0xF6, 0xF6, 0x03, 1, adjust},              // test
      {false, 0xF7, 0xF7, 0x03, -1, adjust},
      {false, 0xF6, 0xF7, 0x0C},                         // not, neg
      {false, 0xF6, 0xF7, 0x30, 0, not_a_product, true},
      {false, 0xFE, 0xFF, 0x03},                         // inc, dec
      {false, 0xC0, 0xC1, 0xB3, 1, adjust | overflow},   // shifts and rotations
      {false, 0xD0, 0xD1, 0xB3, 0, adjust},
      {false, 0xD2, 0xD3, 0xB3, 0, adjust | overflow},
      {false, 0x69, 0x69, 0xFF, -1, not_a_product, true},
      {false, 0x6B, 0x6B, 0xFF, 1, not_a_product, true},
      {true,  0xAF, 0xAF, 0xFF, 0, not_a_product, true},
      {true,  0xB6, 0xB7, 0xFF},                         // movzx
      {true,  0xBE, 0xBF, 0xFF},                         // movsx
      {true,  0x90, 0x9F, 0x01},                         // set
  };
  // clang-format on
  for (unsigned op = 0; op < 8; op++) {
    const uint64_t undefined = op == 1 || op == 4 || op == 6 ? adjust : 0;
    list.push_back({false, op * 8, op * 8 + 3, 0xFF, 0, undefined});
    for (const auto &[code, immediate] : {std::pair{0x80U, 1}, {0x81U, -1}, {0x83U, 1}})
      list.push_back({false, code, code, 1U << op, immediate, undefined});
  }
  if (is_64) list.push_back({false, 0x63, 0x63, 0xFF});
  return list;
}

// A fault that changes nothing where the tests work, but has every access trapped.
constexpr const char *trap_nvram0 = "nvram-cell-stuck instance=0 offset=0x7FFE bit=0 level=0";

// The cells behind the first NVRAM window.
uint8_t *map_cells(const test_board &board) {
  const int fd = open(board.file("nvram0").c_str(), O_RDWR | O_CLOEXEC);
  void *const at = mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  (void)close(fd);
  return static_cast<uint8_t *>(at);
}

// The instruction with its operand in memory at [bx + 8].
bytes assemble(bytes code, const judged_opcode &op, unsigned opcode, unsigned field) {
  const bool half = !code.empty() && code.front() == 0x66 && (code.back() & 0xF8) != 0x48;
  if (op.two_bytes) code.push_back(0x0F);
  code.insert(code.end(), {static_cast<uint8_t>(opcode), static_cast<uint8_t>(0x43 + field * 8), 8});
  for (int i = 0; i < (op.immediate >= 0 ? op.immediate : half ? 2 : 4); i++)
    code.push_back(static_cast<uint8_t>(0x81 + 0x37 * i));
  return code;
}

// Runs the instruction on ordinary memory and on the window, whose contents are `cells`, with all pairs of values.
void compare(const judged_opcode &op, const bytes &code, volatile uint8_t *window, uint64_t *cells) {
  constexpr uint64_t values[] = {0, 0x7FFFFFFF7FFF7F7F, 0x80000000800080F0, 0xFFFFFFFFFFFFFFFF, 0x123456789ABCDE0F};
  uint64_t plain[2];
  const judge judged(code);
  for (size_t n = 0; n < std::size(values) * std::size(values); n++) {
    const uint64_t value = values[n % std::size(values)], memory = values[n / std::size(values)];
    const auto run = [&](volatile void *operand, uint64_t *behind) {
      behind[0] = 0x1111111111111111;
      behind[1] = memory;
      machine_state state{(value ^ memory) & carry, {}};
      state.gpr.fill(value);
      state.gpr[reg_bx] = reinterpret_cast<uintptr_t>(operand);
      state = judged.run(state);
      state.gpr[reg_bx] -= reinterpret_cast<uintptr_t>(operand);
      state.flags &= ~op.undefined;
      return state;
    };
    const auto expected = run(plain, plain);
    const auto actual = run(window, cells);
    ASSERT_EQ(actual.gpr, expected.gpr) << testing::PrintToString(code);
    ASSERT_EQ(actual.flags, expected.flags) << testing::PrintToString(code);
    ASSERT_EQ(memcmp(cells, plain, sizeof plain), 0) << testing::PrintToString(code);
  }
}

TEST(sim_decode, agrees_with_the_processor) {
  const test_board board({trap_nvram0});
  auto *const window = map_window<uint8_t>(nvram0);
  auto *const cells = reinterpret_cast<uint64_t *>(map_cells(board));
  std::vector<bytes> prefixes{{}, {0x66}};
  if (is_64) prefixes.insert(prefixes.end(), {{0x48}, {0x40}, {0x44}, {0x66, 0x4C}});
  size_t count = 0;
  for (const auto &prefix : prefixes) {
    for (const auto &op : judged_opcodes()) {
      if (op.narrow && !prefix.empty() && (prefix.back() & 0xF8) == 0x48) continue;
      for (unsigned n = 0; n < (op.last - op.first + 1) * 8; n++) {
        const unsigned field = n % 8;
        // Neither the registers that the judge needs nor the one that holds the address, whose upper byte is field 7.
        const bool unfit =
            op.fields == 0xFF && (field == reg_bx || field == reg_sp || field == 7 || field == (state_register & 7));
        if (unfit || (op.fields >> field & 1) == 0) continue;
        ASSERT_NO_FATAL_FAILURE(compare(op, assemble(prefix, op, op.first + n / 8, field), window, cells));
        count++;
      }
    }
  }
  EXPECT_GT(count, 400U);
}

TEST(sim_trap, pushes_what_it_reads) {
  const test_board board({trap_nvram0});
  uintptr_t word = 0;
  memcpy(&word, map_cells(board) + 8, sizeof word);
  machine_state state{};
  state.gpr[reg_bx] = reinterpret_cast<uintptr_t>(map_window<uint8_t>(nvram0));
  EXPECT_EQ(judge({0xFF, 0x73, 0x08, 0x58}).run(state).gpr[0], word);  // push [bx + 8]; pop ax
}

TEST(sim_trap, carries_out_every_form_that_the_compiler_makes) {
  test_board board({"--trace"});
  const auto window = reinterpret_cast<uintptr_t>(map_window<uint8_t>(nvram0));
  constexpr size_t area = 128;
  auto *const cells = map_cells(board);
  uint8_t plain[area];
  constexpr std::array levels{access_forms_o0, access_forms_o1, access_forms_o2, access_forms_o3};
  for (size_t level = 0; level < levels.size(); level++) {
    for (const auto &form : levels[level]()) {
      for (const uint64_t seed : {uint64_t{0x8000000000000001}, uint64_t{0x5A5AA5F35A5A7C06}}) {
        SCOPED_TRACE(testing::Message() << "-O" << level << " " << form.width << " bits: " << form.name);
        for (size_t i = 0; i < area; i++)
          cells[i] = plain[i] = static_cast<uint8_t>(seed >> (i % 8 * 8) ^ i * 29);
        (void)board.log();
        const uint64_t expected = form.run(reinterpret_cast<uintptr_t>(&plain[area / 2]), seed);
        ASSERT_EQ(form.run(window + area / 2, seed), expected);
        std::string cycles;
        for (const auto &line : board.log()) {
          cycles += line[7];
          ASSERT_EQ(line.substr(9, line.find(' ', 9) - 9), std::to_string(form.width)) << line;
        }
        ASSERT_EQ(cycles, form.cycles);
        ASSERT_EQ(memcmp(cells, plain, area), 0);
      }
    }
  }
}

}  // namespace
