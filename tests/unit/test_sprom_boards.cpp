// The expander drivers, the board families and the queries, by exact transaction lists.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/io.h>
#include <ucontext.h>

#include <cstdio>
#include <cstdlib>
#include <optional>

#include "platform/mfgd/uspace/utils/sprom/at24c512.h"
#include "platform/mfgd/uspace/utils/sprom/pca8575.h"
#include "platform/mfgd/uspace/utils/sprom/pca9539.h"
#include "platform/mfgd/uspace/utils/sprom/sprom_api.h"
#include "platform/mfgd/uspace/utils/sprom/sprom_dev.h"
#include "platform/mfgd/uspace/utils/sprom/sprom_pellin.h"
#include "platform/mfgd/uspace/utils/sprom/sprom_tosk.h"
#include "tests/unit/sprom_image.h"
#include "tests/unit/sse_double.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using lines = std::vector<std::string>;

// The I/O port: privileged instructions fault in a test and are carried out here.
struct {
  bool granted = true;
  int level = 0;
  uint32_t value = 0;
} port;

void log_port(const char *what, uint32_t value) {
  char text[16];
  std::snprintf(text, sizeof text, "%s %08x", what, value);
  sse.log.emplace_back(text);
}

void on_privileged(int, siginfo_t *, void *context) {
  auto &regs = static_cast<ucontext_t *>(context)->uc_mcontext.gregs;
#ifdef __x86_64__
  auto &ip = regs[REG_RIP], &ax = regs[REG_RAX], &dx = regs[REG_RDX];
#else
  auto &ip = regs[REG_EIP], &ax = regs[REG_EAX], &dx = regs[REG_EDX];
#endif
  constexpr uint8_t in_eax_dx = 0xED;
  constexpr uint8_t out_dx_eax = 0xEF;
  const uint8_t opcode = *reinterpret_cast<const uint8_t *>(ip);
  if ((opcode != in_eax_dx && opcode != out_dx_eax) || port.level != 3 || (dx & 0xFFFF) != 0x50C) abort();
  if (opcode == in_eax_dx) {
    ax = static_cast<greg_t>(port.value);
    log_port("in", port.value);
  } else {
    port.value = static_cast<uint32_t>(ax);
    log_port("out", port.value);
  }
  ++ip;
}

}  // namespace

int iopl(int level) noexcept {
  sse.log.push_back("iopl " + std::to_string(level));
  if (!port.granted && level != 0) return -1;
  port.level = level;
  return 0;
}

namespace {

struct sprom_boards : testing::Test {
  sprom_boards() {
    sse = {};
    port = {};
    for (sprom_t *sprom : {&pellin_sprom_sup, &pellin_sprom_bp, &tosk_sprom_sup, &tosk_sprom_bp})
      sprom->valid = 0;
    unsetenv("DIAG_HW_CHANGE_BITS");
  }
  void fail_at(size_t n) {
    sse.calls = 0;
    sse.fail_at = n;
    sse.log.clear();
  }
};

using expanders = sprom_boards;

TEST_F(expanders, are_known_by_address_and_whole_path) {
  struct row {
    uint32_t addr;
    const char *path;
    const char *id;  // null: not served
  };
  // clang-format off
  constexpr row pca9539_rows[]{
      {0x74, "/dev/i2c-4", "15:0.0"}, {0x74, "/dev/i2c-8",  "15:0.4"}, {0x74, "/dev/i2c-24", "15:0.4"},
      {0x75, "/dev/i2c-4", "15:0.1"}, {0x75, "/dev/i2c-8",  "15:0.3"}, {0x75, "/dev/i2c-24", "15:0.7"},
      {0x75, "/dev/i2c-7", "15:0.5"}, {0x75, "/dev/i2c-23", "15:0.5"}, {0x75, "/dev/i2c-2",  "15:0.5"},
      {0x76, "/dev/i2c-4", "15:0.2"}, {0x76, "/dev/i2c-8",  "15:0.8"}, {0x76, "/dev/i2c-24", "15:0.9"},
      {0x76, "/dev/i2c-40", "15:0.6"}, {0x73, "/dev/i2c-4", nullptr},  {0x77, "/dev/i2c-4",  nullptr},
      {0x174, "/dev/i2c-4", nullptr},  {0x26, "/dev/i2c-4", nullptr}};
  constexpr row pca8575_rows[]{
      {0x26, "/dev/i2c-4", "16:0.0"}, {0x26, "/dev/i2c-8",  "16:0.1"}, {0x26, "/dev/i2c-24", "16:0.4"},
      {0x26, "/dev/i2c-7", "16:0.3"}, {0x27, "/dev/i2c-8",  "16:0.2"}, {0x27, "/dev/i2c-4",  "16:0.5"},
      {0x27, "/dev/i2c-80", "16:0.5"}, {0x25, "/dev/i2c-8", nullptr},  {0x28, "/dev/i2c-8",  nullptr},
      {0x76, "/dev/i2c-8", nullptr}};
  // clang-format on
  const uint16_t pair = 0xBEEF;
  uint16_t received = 0;
  const auto check = [](const row &row, int32_t result, const std::string &transaction) {
    SCOPED_TRACE(std::string{row.path} + " " + std::to_string(row.addr) + " " + transaction);
    EXPECT_EQ(result, row.id == nullptr ? -1 : -6);
    EXPECT_EQ(sse.log, row.id == nullptr ? lines{} : lines{transaction.substr(0, 2) + row.id + transaction.substr(1)});
    sse.log.clear();
  };
  for (const row &row : pca9539_rows) {
    smb_dev_t dev{"", row.addr, 0, 1, 2, 0};
    std::copy_n(row.path, std::string_view{row.path}.size(), dev.path);
    check(row, pca9539_wr(&dev, 2, 0, &pair), "w 02 ef be !");
    check(row, pca9539_write_reg(&dev, 3, 0x12345678), "w 03 78 56 !");
    check(row, pca9539_reg_rd(&dev, 0), "r 00 !");
    check(row, pca9539_init(&dev, 0, 0, 0), "r 02 !");
    check(row, pca9539_rd(&dev, 7, 2, &received), "r 07 !");
  }
  for (const row &row : pca8575_rows) {
    smb_dev_t dev{"", row.addr, 0, 1, 2, 0};
    std::copy_n(row.path, std::string_view{row.path}.size(), dev.path);
    check(row, pca8575_wr(&dev, 9, 0, &pair), "w ef be !");
    check(row, pca8575_rd(&dev, 9, 0, &received), "r 00 !");
  }
}

constexpr smb_dev_t gem{"/dev/i2c-7", 0x75, 0, 1, 2, 0};

TEST_F(expanders, move_register_pairs_port_0_first) {
  auto &regs = sse.pca9539s[{15, 0, 5}] = {0x10, 0x11, 0x12, 0x13, 0x14, 0x15, 0x16, 0x17};
  auto &ports = sse.pca8575s[{16, 0, 1}] = {0xAB, 0xCD};
  const smb_dev_t port_dev{"/dev/i2c-8", 0x26, 0, 1, 2, 0};
  sse.ok_result = 4;
  uint16_t pair = 0;
  EXPECT_EQ(pca9539_rd(&gem, 6, 0, &pair), 4);
  EXPECT_EQ(pair, 0x1716);
  EXPECT_EQ(pca9539_rd(&gem, 3, 99, &pair), 4);
  EXPECT_EQ(pair, 0x1213);
  pair = 0x2221;
  EXPECT_EQ(pca9539_wr(&gem, 4, 1, &pair), 4);
  EXPECT_EQ(pca9539_write_reg(&gem, 2, 0xFFFF0108), 4);
  EXPECT_EQ(pca9539_reg_rd(&gem, 5), 0x22);
  EXPECT_EQ(pca8575_rd(&port_dev, 5, 1, &pair), 4);
  EXPECT_EQ(pair, 0xCDAB);
  pair = 0x7FFF;
  EXPECT_EQ(pca8575_wr(&port_dev, 5, 1, &pair), 4);
  EXPECT_THAT(sse.log, ElementsAre("r 15:0.5 06 16 17", "r 15:0.5 03 13 12", "w 15:0.5 04 21 22", "w 15:0.5 02 08 01",
                                   "r 15:0.5 05 22 21", "r 16:0.1 00 ab cd", "w 16:0.1 ff 7f"));
  EXPECT_EQ(regs, (std::array<uint8_t, 8>{0x10, 0x11, 0x08, 0x01, 0x21, 0x22, 0x16, 0x17}));
  EXPECT_EQ(ports, (std::array<uint8_t, 2>{0xFF, 0x7F}));
}

TEST_F(expanders, are_set_up_pin_by_pin_level_before_direction) {
  auto &regs = sse.pca9539s[{15, 0, 5}];
  const std::array<uint8_t, 8> before{0, 0, 0x0F, 0xF0, 0x00, 0xFF, 0xFF, 0xFF};
  const lines transfers{"r 15:0.5 02 0f f0", "w 15:0.5 02 0a f1", "r 15:0.5 06 ff ff",
                        "w 15:0.5 06 fb fe", "r 15:0.5 04 00 ff", "w 15:0.5 04 01 fe"};
  sse.ok_result = 4;
  for (size_t n = 0; n <= transfers.size(); ++n) {
    SCOPED_TRACE(n);
    regs = before;
    fail_at(n);
    EXPECT_EQ(pca9539_init(&gem, 0x0105, 0xFF5A, 0x0001), n < transfers.size() ? -6 : 0);
    EXPECT_EQ(sse.log.size(), std::min(n + 1, transfers.size()));
    for (size_t i = 0; i < n; ++i)
      EXPECT_EQ(sse.log[i], transfers[i]);
    EXPECT_EQ(regs[2], n > 1 ? 0x0A : before[2]);
    EXPECT_EQ(regs[6], n > 3 ? 0xFB : before[6]);
    EXPECT_EQ(regs[4], n > 5 ? 0x01 : before[4]);
  }
  fail_at(SIZE_MAX);
  regs = before;
  EXPECT_EQ(pca9539_init(&gem, 0, 0xFFFF, 0xFFFF), 0);
  EXPECT_EQ(sse.log.size(), 6U);
  EXPECT_EQ(regs, before);
}

using families = sprom_boards;

TEST_F(families, have_their_sproms_where_the_records_say) {
  struct row {
    const sprom_t *sprom;
    const char *name;
    uint32_t type;
    smb_dev_t dev;
    sprom_hook_t we, wd;
    bool cached;
  };
  // clang-format off
  const row rows[]{
      {&pellin_sprom_bp,      "BACKPLANE",  2, {"/dev/i2c-1",  0x52, 0x1000, 2, 1, 0}, velto_or_sprom_we, velto_or_sprom_wd, true},
      {&pellin_sprom_sup,     "SUPERVISOR", 1, {"/dev/i2c-1",  0x52, 0,      2, 1, 0}, velto_or_sprom_we, velto_or_sprom_wd, true},
      {&pellin_sprom_lc[0],   "DC 1",       3, {"/dev/i2c-17", 0x52, 0,      2, 1, 0}, velto_mt_varnholm_sprom_we, velto_mt_varnholm_sprom_wd, false},
      {&pellin_sprom_lc[1],   "LC 2",       3, {"/dev/i2c-23", 0x52, 0,      2, 1, 0}, velto_mt_varnholm_gem_sprom_we, velto_mt_varnholm_gem_sprom_wd, false},
      {&pellin_sprom_lc[2],   "LC 3",       3, {"/dev/i2c-7",  0x52, 0,      2, 1, 0}, velto_mt_mirn_gem_sprom_we, velto_mt_mirn_gem_sprom_wd, false},
      {&pellin_sprom_ps[0],   "PS1",        4, {"/dev/i2c-6",  0x52, 0,      1, 1, 0}, nullptr, nullptr, true},
      {&pellin_sprom_ps[1],   "PS2",        4, {"/dev/i2c-6",  0x53, 0,      1, 1, 0}, nullptr, nullptr, true},
      {&pellin_sprom_dimm[0], "DIMM0",      5, {"/dev/i2c-0",  0x5E, 0,      1, 1, 0}, nullptr, nullptr, true},
      {&pellin_sprom_dimm[1], "DIMM1",      5, {"/dev/i2c-0",  0x55, 0,      1, 1, 0}, nullptr, nullptr, true},
      {&tosk_sprom_bp,        "BACKPLANE",  2, {"/dev/i2c-1",  0x52, 0x1000, 2, 1, 0}, sprom_we_tosk, sprom_wd_tosk, true},
      {&tosk_sprom_sup,       "SUPERVISOR", 1, {"/dev/i2c-1",  0x52, 0,      2, 1, 0}, sprom_we_tosk, sprom_wd_tosk, true},
      {&tosk_sprom_lc[0],     "LC 2",       3, {"/dev/i2c-7",  0x52, 0,      2, 1, 0}, velto_quellrim_gem_sprom_we, velto_quellrim_gem_sprom_wd, false},
      {&tosk_sprom_ps[0],     "PS1",        4, {"/dev/i2c-6",  0x52, 0,      1, 1, 0}, nullptr, nullptr, true},
      {&tosk_sprom_ps[1],     "PS2",        4, {"/dev/i2c-6",  0x53, 0,      1, 1, 0}, nullptr, nullptr, true},
      {&tosk_sprom_dimm[0],   "DIMM0",      5, {"/dev/i2c-0",  0x5E, 0,      1, 1, 0}, nullptr, nullptr, true},
      {&tosk_sprom_dimm[1],   "DIMM1",      5, {"/dev/i2c-0",  0x55, 0,      1, 1, 0}, nullptr, nullptr, true}};
  // clang-format on
  std::map<const uint8_t *, int> owners;
  for (const row &row : rows) {
    SCOPED_TRACE(row.name);
    EXPECT_STREQ(row.sprom->name, row.name);
    EXPECT_EQ(row.sprom->type, row.type);
    EXPECT_EQ(memcmp(row.sprom->smb_acc->dev, &row.dev, sizeof row.dev), 0);
    EXPECT_EQ(row.sprom->smb_acc->smb_rd, at24c512_rd);
    EXPECT_EQ(row.sprom->smb_acc->smb_wr, at24c512_wr);
    EXPECT_EQ(row.sprom->we, row.we);
    EXPECT_EQ(row.sprom->wd, row.wd);
    EXPECT_EQ(row.sprom->valid, 0U);
    EXPECT_EQ(row.sprom->buf != nullptr, row.cached);
    if (row.cached) ++owners[row.sprom->buf];
  }
  // Each cache has one owner but for the DIMMs'.
  EXPECT_EQ(owners.size(), 10U);
  EXPECT_EQ(owners[pellin_sprom_dimm[0].buf] + owners[tosk_sprom_dimm[0].buf], 4);
  EXPECT_EQ(pellin_sprom_bp.smb_acc->dev, &pellin_bp_dev);
  EXPECT_EQ(tosk_sprom_bp.smb_acc->dev, &tosk_bp_dev);
}

TEST_F(families, answer_to_sprom_addresses) {
  struct row {
    uint32_t slot, index;
    sprom_t *pellin, *tosk;
  };
  const row rows[]{{0, 0, &pellin_sprom_bp, &tosk_sprom_bp},
                   {0, 1, &pellin_sprom_ps[0], &tosk_sprom_ps[0]},
                   {0, 2, &pellin_sprom_ps[1], &tosk_sprom_ps[1]},
                   {0, 3, nullptr, nullptr},
                   {0, UINT32_MAX, nullptr, nullptr},
                   {1, 0, nullptr, nullptr},
                   {1, 1, &pellin_sprom_sup, &tosk_sprom_sup},
                   {1, 2, &pellin_sprom_lc[0], nullptr},
                   {1, 3, nullptr, nullptr},
                   {2, 0, &pellin_sprom_lc[1], &tosk_sprom_lc[0]},
                   {2, 7, &pellin_sprom_lc[1], &tosk_sprom_lc[0]},
                   {3, 0, &pellin_sprom_lc[2], nullptr},
                   {3, UINT32_MAX, &pellin_sprom_lc[2], nullptr},
                   {4, 0, nullptr, nullptr},
                   {UINT32_MAX, 1, nullptr, nullptr}};
  for (const auto &[slot, index, pellin, tosk] : rows) {
    EXPECT_EQ(sprom_init(0, slot, index), pellin);
    EXPECT_EQ(sprom_init(2, slot, index), tosk);
    for (const uint32_t other : {1U, 3U, 0xFFFFFFFFU})
      EXPECT_EQ(sprom_init(other, slot, index), nullptr);
  }
  using get_slot = int32_t (*)(uint32_t, uint32_t *, uint32_t *);
  const std::pair<get_slot, uint32_t> slots[]{
      {sprom_get_slot_sup, 1}, {sprom_get_slot_bp, 0}, {sprom_get_slot_chassis, 0}};
  for (const auto &[get, expected] : slots) {
    for (const uint32_t platform : {0U, 1U, 2U, 3U}) {
      uint32_t slot = 77, index = 78;
      const bool known = platform == 0 || platform == 2;
      EXPECT_EQ(get(platform, &slot, &index), known ? 0 : -22);
      EXPECT_EQ(slot, known ? expected : 77);
      EXPECT_EQ(index, known ? expected : 78);
    }
  }
}

// A board of either family as its probes see it.
struct board {
  const char *name;
  std::optional<uint16_t> pca9539;  // input pair; absent if none
  std::optional<uint16_t> pca8575;
  int card_index;  // -1 without EEPROM, -2 with a bad image
  int32_t pellin, tosk, platform;
  size_t straps_transfers, sprom_reads;  // of sprom_get_platform
};

constexpr int bad_image = -2;
// clang-format off
const board boards[]{
    // name                     9539    8575    card       pellin tosk platform transfers and reads
    {"straps 0",                0xFF3F, 0xFFFF, -1,             0,  -6,   0,    1, 0},
    {"straps 0, bits around",   0xFF3F, 0,      0x2AFC,         0,   2,   0,    1, 0},
    {"straps 2",                0x00BF, 0,      -1,            -6,   2,   2,    2, 1},
    {"straps 2, tosk card",     0x0080, 0,      0x2AFC,       -22,   2,   2,    2, 335},
    {"straps 2, pellin card",   0x0080, 0,      0x2AFB,         0,   2,   0,    1, 335},
    {"straps 1, pellin card",   0xFF7F, 0,      0x2AFD,         0, -22,   0,    1, 335},
    {"straps 3, pellin card",   0xFFFF, 0,      0x2AFE,         0, -22,   0,    1, 335},
    {"straps 3, pellin card 4", 0xFFFF, 0,      0x2AFF,         0, -22,   0,    1, 335},
    {"straps 3, pellin card 5", 0xFFFF, 0,      0x2B00,         0, -22,   0,    1, 335},
    {"straps 1, tosk card",     0x0040, 0,      0x2AFC,       -22,   2,   2,    2, 670},
    {"straps 3, card before",   0xFFFF, 0,      0x2AFA,       -22, -22, -22,    2, 670},
    {"straps 3, card after",    0xFFFF, 0,      0x2B01,       -22, -22, -22,    2, 670},
    {"straps 3, bad image",     0xFFFF, 0,      bad_image,    -22, -22, -22,    2, 670},
    {"straps 3, no EEPROM",     0xFFFF, 0,      -1,            -6,  -6, -22,    2, 2},
    {"other expander, 0",       {},     0x3FFF, -1,             0,  -6,   0,    2, 0},
    {"other expander, 2",       {},     0x8000, -1,            -6,   2,   2,    4, 1},
    {"other expander, 1",       {},     0x40FF, 0x2AFC,       -22,   2,   2,    4, 670},
    {"no expander",             {},     {},     0x2AFC,        -6,  -6, -22,    4, 0},
};
// clang-format on

void build(const board &board) {
  sse = {};
  pellin_sprom_sup.valid = tosk_sprom_sup.valid = 0;
  if (board.pca9539) {
    sse.pca9539s[{15, 0, 8}] = {static_cast<uint8_t>(*board.pca9539), static_cast<uint8_t>(*board.pca9539 >> 8)};
  }
  if (board.pca8575) {
    sse.pca8575s[{16, 0, 1}] = {static_cast<uint8_t>(*board.pca8575), static_cast<uint8_t>(*board.pca8575 >> 8)};
  }
  if (board.card_index == -1) return;
  auto image = device_image(SPROM_TYPE_SUP, static_cast<uint16_t>(board.card_index));
  if (board.card_index == bad_image) image[333] ^= 1;
  std::copy(image.begin(), image.end(), sse.eeproms[{7, 0, 0}].bytes.begin());
}

template <typename F>
std::string output_of(F f) {
  testing::internal::CaptureStdout();
  f();
  return testing::internal::GetCapturedStdout();
}

TEST_F(families, are_recognised_by_straps_and_card_index) {
  for (const board &board : boards) {
    SCOPED_TRACE(board.name);
    // A bad image is kept like a good one, so that each probe reports it.
    const std::string report =
        board.card_index == bad_image
            ? "Supervisor Extra Sensor block checksum mismatch.  Found 0x23af, expected 0x23b0.\n"
            : "";
    const std::string verdict = board.platform < 0 ? " platform undefined" : "";
    for (const int32_t positive : {0, 5}) {
      build(board);
      sse.ok_result = positive;
      EXPECT_EQ(output_of([&] { EXPECT_EQ(sprom_get_platform(), board.platform); }), report + report + verdict);
      EXPECT_EQ(sse.calls, board.straps_transfers + board.sprom_reads);
    }
    build(board);
    EXPECT_EQ(output_of([&] { EXPECT_EQ(sprom_platform_probe_tosk(), board.tosk); }), report);
    EXPECT_EQ(output_of([&] { EXPECT_EQ(sprom_platform_probe_pellin(), board.pellin); }), report);
    const size_t calls = sse.calls;
    EXPECT_EQ(output_of([&] { EXPECT_EQ(sprom_platform_probe_pellin(), board.pellin); }), report);
    // Once read, the family's image is served from its cache.
    const bool cached = pellin_sprom_sup.valid == 1;
    EXPECT_EQ(cached, board.card_index != -1 && board.sprom_reads > 0);
    EXPECT_LE(sse.calls - calls, cached ? 2U : 3U);
  }
}

TEST_F(families, look_at_the_straps_first) {
  build({"", std::nullopt, 0xFFFF, 0x2AFB, 0, 0, 0, 0, 0});
  EXPECT_EQ(sprom_platform_probe_pellin(), 0);
  ASSERT_EQ(sse.log.size(), 2U + 335U);
  sse.log.resize(4);
  EXPECT_THAT(sse.log, ElementsAre("r 15:0.8 00 !", "r 16:0.1 00 ff ff", "w 7:0.0 00 00", "r 7:0.0 -- ab"));

  // The second expander's result is the one that is told.
  build({"", std::nullopt, std::nullopt, 0x2AFB, 0, 0, 0, 0, 0});
  sse.fail_result = -110;
  EXPECT_EQ(sprom_platform_probe_tosk(), -110);
  EXPECT_THAT(sse.log, ElementsAre("r 15:0.8 00 !", "r 16:0.1 00 !"));
}

TEST_F(families, hand_on_a_failing_image_read_at_any_transaction) {
  for (size_t n = 1; n <= 335; ++n) {
    build({"", 0xFFFF, 0, 0x2AFC, 0, 0, 0, 0, 0});
    sse.fail_at = n;
    sse.fail_result = -121;
    ASSERT_EQ(sprom_platform_probe_tosk(), -121);
    ASSERT_EQ(sse.calls, n + 1);
  }
}

using hooks = sprom_boards;

TEST_F(hooks, flip_one_bit_of_the_port) {
  struct sigaction action {};
  action.sa_sigaction = on_privileged;
  action.sa_flags = SA_SIGINFO;
  struct sigaction before {};
  ASSERT_EQ(sigaction(SIGSEGV, &action, &before), 0);
  const std::pair<sprom_hook_t, sprom_hook_t> pairs[]{{velto_or_sprom_we, velto_or_sprom_wd},
                                                      {sprom_we_tosk, sprom_wd_tosk}};
  for (const auto &[we, wd] : pairs) {
    for (const uint32_t value : {0xDEADBEEFU, 0xFFFFFFFFU, 0U}) {
      char off[16], on[16], found[16];
      std::snprintf(found, sizeof found, "in %08x", value);
      std::snprintf(off, sizeof off, "out %08x", value & 0xF7FFFFFF);
      std::snprintf(on, sizeof on, "out %08x", value | 0x08000000);
      fail_at(SIZE_MAX);
      port.value = value;
      EXPECT_EQ(we(), 0);
      EXPECT_THAT(sse.log, ElementsAre("iopl 3", found, off, "iopl 0"));
      fail_at(SIZE_MAX);
      port.value = value;
      EXPECT_EQ(wd(), 0);
      EXPECT_THAT(sse.log, ElementsAre("iopl 3", found, on, "iopl 0"));
    }
    port.granted = false;
    fail_at(SIZE_MAX);
    EXPECT_EQ(we(), 0);
    EXPECT_EQ(wd(), 0);
    EXPECT_THAT(sse.log, ElementsAre("iopl 3", "iopl 3"));
    port.granted = true;
  }
  EXPECT_EQ(sigaction(SIGSEGV, &before, nullptr), 0);
}

// A hook pair on a board whose expander has the protect pin as an input, then as an output.
struct pin_hooks {
  const char *environment;  // DIAG_HW_CHANGE_BITS
  sprom_hook_t we, wd;
  uint8_t instance;
  uint16_t pin;
};
// clang-format off
constexpr pin_hooks pin_hook_rows[]{
    {nullptr,                velto_mt_varnholm_gem_sprom_we, velto_mt_varnholm_gem_sprom_wd, 5, 0x0008},
    {"0",                    velto_mt_mirn_gem_sprom_we,     velto_mt_mirn_gem_sprom_wd,     5, 0x0008},
    {nullptr,                velto_quellrim_gem_sprom_we,    velto_quellrim_gem_sprom_wd,    5, 0x0008},
    {nullptr,                velto_mt_varnholm_sprom_we,     velto_mt_varnholm_sprom_wd,     6, 0x0200},
    {"5",                    velto_mt_varnholm_sprom_we,     velto_mt_varnholm_sprom_wd,     6, 0x0200},
    {"0x100000000",          velto_mt_varnholm_sprom_we,     velto_mt_varnholm_sprom_wd,     6, 0x0200},
    {"99999999999999999999", velto_mt_varnholm_sprom_we,     velto_mt_varnholm_sprom_wd,     6, 0x0200},
    {"0",                    velto_mt_varnholm_sprom_we,     velto_mt_varnholm_sprom_wd,     6, 0x0080},
    {"0x0",                  velto_mt_varnholm_sprom_we,     velto_mt_varnholm_sprom_wd,     6, 0x0080},
    {"",                     velto_mt_varnholm_sprom_we,     velto_mt_varnholm_sprom_wd,     6, 0x0080},
    {"P1",                   velto_mt_varnholm_sprom_we,     velto_mt_varnholm_sprom_wd,     6, 0x0080},
};
// clang-format on

std::string pair_line(const char *op, const pin_hooks &row, unsigned reg, unsigned pair) {
  char text[40];
  std::snprintf(text, sizeof text, "%s 15:0.%u %02x %02x %02x", op, unsigned{row.instance}, reg, pair & 0xFF,
                pair >> 8);
  return text;
}

// Runs the hook with each of its transactions failing, then with none, and compares with the list.
void check_hook(sprom_hook_t hook, const pin_hooks &row, unsigned config, unsigned output, const lines &expected) {
  for (size_t n = 0; n <= expected.size(); ++n) {
    SCOPED_TRACE(n);
    sse = {};
    sse.pca9539s[{15, 0, row.instance}] = {0, 0, static_cast<uint8_t>(output), static_cast<uint8_t>(output >> 8),
                                           0, 0, static_cast<uint8_t>(config), static_cast<uint8_t>(config >> 8)};
    sse.fail_at = n;
    sse.ok_result = 9;
    EXPECT_EQ(hook(), n < expected.size() ? -6 : 9);
    ASSERT_EQ(sse.log.size(), std::min(n + 1, expected.size()));
    for (size_t i = 0; i < n; ++i)
      EXPECT_EQ(sse.log[i], expected[i]);
    if (n == expected.size()) continue;
    EXPECT_EQ(sse.log[n].substr(0, 11), expected[n].substr(0, 11));
  }
}

TEST_F(hooks, drive_the_protect_pin_low_and_high) {
  for (const pin_hooks &row : pin_hook_rows) {
    SCOPED_TRACE(row.environment != nullptr ? row.environment : "unset");
    if (row.environment != nullptr) setenv("DIAG_HW_CHANGE_BITS", row.environment, 1);
    const unsigned off = 0xA5F0 & ~unsigned{row.pin};
    const unsigned on = 0xA5F0 | row.pin;
    const unsigned is_output = 0xFFFF & ~unsigned{row.pin};
    for (const unsigned output : {on, off}) {
      check_hook(row.we, row, 0xFFFF, output,
                 {pair_line("r", row, 6, 0xFFFF), pair_line("w", row, 6, is_output), pair_line("r", row, 2, output),
                  pair_line("w", row, 2, off)});
      check_hook(row.we, row, is_output, output,
                 {pair_line("r", row, 6, is_output), pair_line("r", row, 2, output), pair_line("w", row, 2, off)});
      check_hook(row.wd, row, 0xFFFF, output, {pair_line("r", row, 2, output), pair_line("w", row, 2, on)});
    }
    unsetenv("DIAG_HW_CHANGE_BITS");
  }
}

using queries = sprom_boards;

TEST_F(queries, read_fields_from_the_device_past_base_and_cache) {
  auto &eeprom = sse.eeproms[{7, 0, 0}];
  for (size_t i = 0; i < 0x2000; ++i)
    eeprom.bytes[i] = static_cast<uint8_t>(i * 5 + (i >> 8));
  pellin_sprom_bp.valid = pellin_sprom_sup.valid = 1;
  sse.ok_result = 3;

  std::array<char, 22> text;
  const auto at = [&](size_t offset) {
    return std::string(eeprom.bytes.begin() + static_cast<ptrdiff_t>(offset),
                       eeprom.bytes.begin() + static_cast<ptrdiff_t>(offset) + 20) +
           "##";
  };
  text.fill('#');
  EXPECT_EQ(sprom_get_sn(&pellin_sprom_bp, text.data()), 3);
  EXPECT_EQ(std::string(text.data(), 22), at(0x1036));
  EXPECT_EQ(sse.log.front(), "w 7:0.0 10 36");
  EXPECT_EQ(sse.calls, 21U);
  text.fill('#');
  EXPECT_EQ(sprom_get_pid(&pellin_sprom_sup, text.data()), 3);
  EXPECT_EQ(std::string(text.data(), 22), at(34));
  EXPECT_EQ(sse.calls, 42U);

  fail_at(SIZE_MAX);
  uint64_t hw_change = 0;
  const uint8_t field[]{0x01, 0x02, 0x03, 0x04, 0x05, 0x06, 0x07, 0x08, 0x2A, 0xFB};
  std::copy(std::begin(field), std::end(field), &eeprom.bytes[174]);
  EXPECT_EQ(sprom_get_hw_change(&tosk_sprom_sup, &hw_change), 3);
  EXPECT_EQ(hw_change, 0x0102030405060708U);
  EXPECT_EQ(sse.calls, 9U);
  fail_at(SIZE_MAX);
  uint16_t card_index = 0;
  EXPECT_EQ(sprom_get_card_index(&tosk_sprom_sup, &card_index), 3);
  EXPECT_EQ(card_index, 0x2AFB);
  EXPECT_THAT(sse.log, ElementsAre("w 7:0.0 00 b6", "r 7:0.0 -- 2a", "r 7:0.0 -- fb"));
}

TEST_F(queries, refuse_kinds_before_anything_else) {
  for (const uint32_t type : {0U, 1U, 2U, 3U, 4U, 5U, 6U, 7U, 0xFFFFFFFFU}) {
    SCOPED_TRACE(type);
    sprom_t sprom = pellin_sprom_sup;
    sprom.type = type;
    const bool identity = type >= 1 && type <= 3;
    const bool card = type == 1 || type == 3;
    if (!identity || !card) sprom.smb_acc = nullptr;
    const auto none = [](auto get, const sprom_t *from) { EXPECT_EQ(get(from, nullptr), -22); };
    if (!identity) none(sprom_get_pid, &sprom);
    if (!identity) none(sprom_get_sn, &sprom);
    if (!identity) none(sprom_get_hw_change, &sprom);
    if (!card) none(sprom_get_card_index, &sprom);
    EXPECT_THAT(sse.log, IsEmpty());
    if (!identity) continue;
    sprom.smb_acc = pellin_sprom_sup.smb_acc;
    std::array<char, 20> text;
    uint64_t hw_change;
    EXPECT_EQ(sprom_get_pid(&sprom, text.data()), -6);
    EXPECT_EQ(sprom_get_sn(&sprom, text.data()), -6);
    EXPECT_EQ(sprom_get_hw_change(&sprom, &hw_change), -6);
    EXPECT_THAT(sse.log, ElementsAre("w 7:0.0 00 22 !", "w 7:0.0 00 36 !", "w 7:0.0 00 ae !"));
    sse.log.clear();
  }
}

TEST_F(queries, hand_on_a_failure_at_any_transaction) {
  sse.eeproms[{7, 0, 0}] = {};
  std::array<char, 20> text;
  uint64_t hw_change;
  uint16_t card_index;
  for (size_t n = 0; n <= 20; ++n) {
    fail_at(n);
    EXPECT_EQ(sprom_get_pid(&pellin_sprom_lc[0], text.data()), -6);
    fail_at(n);
    EXPECT_EQ(sprom_get_sn(&pellin_sprom_sup, text.data()), -6);
    fail_at(n);
    EXPECT_EQ(sprom_get_hw_change(&pellin_sprom_bp, &hw_change), n <= 8 ? -6 : 0);
    fail_at(n);
    EXPECT_EQ(sprom_get_card_index(&pellin_sprom_sup, &card_index), n <= 2 ? -6 : 0);
  }
}

using queries_DeathTest = sprom_boards;

TEST_F(queries_DeathTest, assert_their_arguments) {
  static constexpr smb_acc_t no_read{&pellin_bp_dev, nullptr, at24c512_wr};
  sprom_t no_acc{nullptr, nullptr, nullptr, "", SPROM_TYPE_SUP, 0, nullptr};
  sprom_t no_rd = no_acc;
  no_rd.smb_acc = &no_read;
  const auto check = [&](auto get, const std::string &function, const char *output) {
    const auto dies = [&](const sprom_t *sprom, const std::string &text) {
      EXPECT_DEATH((void)get(sprom, nullptr), HasSubstr(function + ": Assertion `" + text + "' failed"));
    };
    dies(nullptr, "sprom");
    dies(&no_acc, "smb_acc");
    dies(&no_rd, "smb_acc->smb_rd");
    if (output != nullptr) dies(&pellin_sprom_sup, output);
  };
  check(sprom_get_pid, "sprom_get_pid", "pid");
  check(sprom_get_sn, "sprom_get_sn", "sn");
  check(sprom_get_hw_change, "sprom_get_hw_change", nullptr);
  check(sprom_get_card_index, "sprom_get_card_index", nullptr);
}

}  // namespace
