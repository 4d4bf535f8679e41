// Instructions that meet a device: decoded by table, and as compilers write them.
#include "sim/bus/decode.h"
#include "tests/sim/access_forms.h"
#include "tests/support/board.h"

namespace {

constexpr auto w32 = sim::word_size::bits32;
constexpr auto w64 = sim::word_size::bits64;

// Registers: ax 1021, cx 2000, dx 123456781234050C, bx 4000, sp 5000, bp 6000, si 7000, di 8000, r8 9000 ... r12 D000,
// r13 E000. The bus delivers 8091A2B3C4D5E6F7.
// The access is "r", "w", "in " or "out " and the width, "" for an instruction that is refused; the data are those onto
// the bus, or what the register of a load then holds.
// clang-format off
const struct { const char *name; sim::word_size size; const char *code;
               std::string access; uint64_t address, data; } decode_cases[] = {
    {"mov [rbx], dh",               w64, "88 33",                      "w8",   0x4000, 5},
    {"mov [rbx], sil",              w64, "40 88 33",                   "w8",   0x4000, 0},
    {"mov r9, [r8]",                w64, "4D 8B 08",                   "r64",  0x9000, 0x8091A2B3C4D5E6F7},
    {"mov eax, [rip-0x10]",         w64, "8B 05 F0 FF FF FF",          "r32",  0x3FFFF6, 0xC4D5E6F7},
    {"mov word [rip+0x10], 0x1234", w64, "66 C7 05 10 00 00 00 34 12", "w16",  0x400019, 0x1234},
    {"mov qword [rbx], -2",         w64, "48 C7 03 FE FF FF FF",       "w64",  0x4000, 0xFFFFFFFFFFFFFFFE},
    {"mov eax, [0x10]",             w32, "8B 05 10 00 00 00",          "r32",  0x10, 0xC4D5E6F7},
    {"mov eax, [rcx+rdi*2]",        w64, "8B 04 79",                   "r32",  0x12000, 0xC4D5E6F7},
    {"mov eax, [r13+r12*8-1]",      w64, "43 8B 44 E5 FF",             "r32",  0x75FFF, 0xC4D5E6F7},
    {"mov eax, [rdi*4+0x20]",       w64, "8B 04 BD 20 00 00 00",       "r32",  0x20020, 0xC4D5E6F7},
    {"mov eax, [rsp]",              w64, "8B 04 24",                   "r32",  0x5000, 0xC4D5E6F7},
    {"mov eax, [ebx-0x5000]",       w32, "8B 83 00 B0 FF FF",          "r32",  0xFFFFF000, 0xC4D5E6F7},
    {"mov eax, [rbx-0x5000]",       w64, "8B 83 00 B0 FF FF",          "r32",  0xFFFFFFFFFFFFF000, 0xC4D5E6F7},
    {"mov eax, [ebx-0x5000], 67",   w64, "67 8B 83 00 B0 FF FF",       "r32",  0xFFFFF000, 0xC4D5E6F7},
    {"mov eax, ds:[rbx]",           w64, "3E 8B 03",                   "r32",  0x4000, 0xC4D5E6F7},
    {"mov al, moffs64",             w64, "A0 8 7 6 5 4 3 2 1",         "r8",   0x0102030405060708, 0x10F7},
    {"mov moffs32, al",             w32, "A2 4 3 2 F1",                "w8",   0xF1020304, 0x21},
    {"mov moffs64, ax",             w64, "66 A3 8 7 6 5 4 3 2 1",      "w16",  0x0102030405060708, 0x1021},
    {"mov eax, moffs32",            w32, "A1 4 3 2 F1",                "r32",  0xF1020304, 0xC4D5E6F7},
    {"mov dx, [rbx]",               w64, "66 8B 13",                   "r16",  0x4000, 0x123456781234E6F7},
    {"mov dh, [rbx]",               w64, "8A 33",                      "r8",   0x4000, 0x123456781234F70C},
    {"mov sil, [rbx]",              w64, "40 8A 33",                   "r8",   0x4000, 0x70F7},
    {"movsx dx, byte [rbx]",        w64, "66 0F BE 13",                "r8",   0x4000, 0x123456781234FFF7},
    {"movsxd rdx, [rbx]",           w64, "48 63 13",                   "r32",  0x4000, 0xFFFFFFFFC4D5E6F7},
    {"in al, 0x80",                 w64, "E4 80",                      "in 8",  0x80, 0x10F7},
    {"out 0x80, eax",               w64, "E7 80",                      "out 32", 0x80, 0x1021},
    {"in ax, dx",                   w64, "66 ED",                      "in 16", 0x50C, 0xE6F7},
    {"out dx, al",                  w64, "EE",                         "out 8",  0x50C, 0x21},
    {"in al, dx",                   w64, "EC",                         "in 8",  0x50C, 0x10F7},
    {"out dx, eax with REX.W",      w64, "48 EF",                      "out 32", 0x50C, 0x1021},
    {"in eax, 0x80",                w32, "E5 80",                      "in 32", 0x80, 0xC4D5E6F7},
    {"out 0x80, al",                w32, "E6 80",                      "out 8",  0x80, 0x21},
    {"15 bytes",                    w64, "66 66 66 66 66 66 66 66 66 66 66 8B 44 24 08", "r16", 0x5008, 0xE6F7},
    {"16 bytes",                    w64, "66 66 66 66 66 66 66 66 66 66 66 66 8B 44 24 08", "", 0, 0},
    {"nothing but prefixes",        w64, "66 66 66 66 66 66 66 66 66 66 66 66 66 66 66 66", "", 0, 0},
    {"register form",               w64, "89 C8",                      "", 0, 0},
    {"mov with another field",      w64, "C7 0B 00 00 00 00",          "", 0, 0},
    {"cmp",                         w64, "39 03",                      "", 0, 0},
    {"lock mov",                    w64, "F0 89 03",                   "", 0, 0},
    {"xrelease mov",                w64, "F3 89 03",                   "", 0, 0},
    {"fs segment",                  w64, "64 8B 03",                   "", 0, 0},
    {"16-bit addressing",           w32, "67 8B 07",                   "", 0, 0},
    {"arpl in 32 bits",             w32, "63 07",                      "", 0, 0},
    {"movsxd of 16 bits",           w64, "66 63 03",                   "", 0, 0},
};
// clang-format on

TEST(sim_decode, tells_address_width_direction_and_data_or_refuses) {
  sim::cpu_regs regs;
  for (size_t i = 0; i < regs.gpr.size(); ++i)
    regs.gpr[i] = 0x1000 * (i + 1);
  regs.gpr[0] = 0x1021;
  regs.gpr[2] = 0x123456781234050C;
  regs.ip = 0x400000;
  for (const auto &[name, size, bytes, access, address, data] : decode_cases) {
    SCOPED_TRACE(name);
    std::vector<uint8_t> code;
    for (const std::string &byte : lines_of(bytes, ' '))
      code.push_back(static_cast<uint8_t>(std::stoul(byte, nullptr, 16)));
    const size_t length = code.size();
    code.resize(16, 0xCC);
    sim::insn i;
    const bool known = sim::decode(code.data(), size, regs, &i);
    ASSERT_EQ(known, !access.empty());
    if (!known) continue;
    EXPECT_EQ(i.length, length);
    EXPECT_EQ(i.address, address);
    const char *const kind = i.io ? (i.store ? "out " : "in ") : (i.store ? "w" : "r");
    EXPECT_EQ(kind + std::to_string(i.width), access);
    auto after = regs;
    sim::fill_register(i, 0x8091A2B3C4D5E6F7, &after);
    EXPECT_EQ(i.store ? i.data : after.gpr[i.reg], data);
  }
}

// Every form of access, by signal and by jump, does to a device what it does to plain memory.
void expect_forms_as_in_memory(const std::vector<const char *> &options, bool has_log) {
  test_board board(options);
  const auto window = reinterpret_cast<uintptr_t>(map_window<uint8_t>(nvram0));
  constexpr size_t area = 128;
  const unique_fd fd(open(board.file("nvram0").c_str(), O_RDWR | O_CLOEXEC));
  auto *const cells = static_cast<uint8_t *>(mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_SHARED, fd.get(), 0));
  uint8_t plain[area];
  constexpr std::array levels{access_forms_o0, access_forms_o1, access_forms_o2, access_forms_o3};
  for (size_t level = 0; level < levels.size(); ++level) {
    for (const auto &form : levels[level]()) {
      for (const uint64_t seed : {uint64_t{0x8000000000000001}, uint64_t{0x5A5AA5F35A5A7C06}}) {
        SCOPED_TRACE(testing::Message() << "-O" << level << " " << form.width << " bits: " << form.name);
        for (size_t i = 0; i < area; ++i)
          cells[i] = plain[i] = static_cast<uint8_t>(seed >> (i % 8 * 8) ^ i * 29);
        (void)board.log();
        const uint64_t expected = form.run(reinterpret_cast<uintptr_t>(&plain[area / 2]), seed);
        ASSERT_EQ(form.run(window + area / 2, seed), expected);
        std::string cycles;
        for (const auto &line : board.log())
          cycles += line.substr(7, line.find(' ', 9) - 6);
        ASSERT_EQ(cycles, has_log ? form.cycles : "");
        ASSERT_EQ(memcmp(cells, plain, area), 0);
      }
    }
  }
}

TEST(sim_decode, knows_every_form_that_the_compiler_makes) {
  for (const auto *const way : {"--waits=true", "--no-patch"}) {
    SCOPED_TRACE(way);
    isolated([&] { expect_forms_as_in_memory({way, "--trace"}, true); });
    isolated([&] { expect_forms_as_in_memory({way, trapping}, false); });
  }
}

}  // namespace
