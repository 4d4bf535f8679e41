// test_sim_nvram.cpp: the battery-backed RAM and its faults, through its windows.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <vector>

#include "tests/unit/sim_memory_board.h"

namespace {

using testing::ElementsAre;

struct word_case {
  const char *name;
  const char *fault;
  uint32_t at;            // where 16 bits are written
  uint16_t given, taken;  // and read back there
  uint32_t cell;          // where they are kept,
  uint16_t kept;          // and how
};

TEST(sim_nvram, shows_each_fault_on_the_words_that_it_hits) {
  // clang-format off
  const word_case cases[] = {
      {"healthy",              "nvram-data-stuck instance=1 line=3 level=0",             0x20, 0x1238, 0x1238, 0x20, 0x1238},
      {"data line low",        "nvram-data-stuck instance=0 line=3 level=0",             0x20, 0x1238, 0x1230, 0x20, 0x1230},
      {"data line high",       "nvram-data-stuck instance=0 line=15 level=1",            0x20, 0x1238, 0x9238, 0x20, 0x9238},
      {"data short, low wins", "nvram-data-short instance=0 line=3 other=9",             0x20, 0x1438, 0x1430, 0x20, 0x1430},
      {"data short, high",     "nvram-data-short instance=0 line=3 other=9 wins=1",      0x20, 0x1438, 0x1638, 0x20, 0x1638},
      {"data short, alike",    "nvram-data-short instance=0 line=3 other=9",             0x20, 0x1638, 0x1638, 0x20, 0x1638},
      {"address line low",     "nvram-addr-stuck instance=0 line=5 level=0",             0x20, 0x1238, 0x1238, 0x00, 0x1238},
      {"address line high",    "nvram-addr-stuck instance=0 line=14 level=1",            0x20, 0x1238, 0x1238, 0x4020, 0x1238},
      {"address short, low",   "nvram-addr-short instance=0 line=5 other=1",             0x20, 0x1238, 0x1238, 0x00, 0x1238},
      {"address short, high",  "nvram-addr-short instance=0 line=5 other=1 wins=1",      0x20, 0x1238, 0x1238, 0x22, 0x1238},
      {"cell low",             "nvram-cell-stuck instance=0 offset=0x21 bit=4 level=0",  0x20, 0x1238, 0x0238, 0x20, 0x0238},
      {"cell high",            "nvram-cell-stuck instance=0 offset=0x20 bit=0 level=1",  0x20, 0x1238, 0x1239, 0x20, 0x1239},
      {"another cell",         "nvram-cell-stuck instance=0 offset=0x22 bit=0 level=1",  0x20, 0x1238, 0x1238, 0x20, 0x1238},
  };
  // clang-format on
  for (const auto &c : cases) {
    SCOPED_TRACE(c.name);
    memory_board board{c.fault};
    ASSERT_NO_FATAL_FAILURE(board.start());
    auto *const words = board.map<uint16_t>(nvram0);
    auto expected = board.snapshot(nvram0);
    words[c.at / 2] = c.given;
    EXPECT_EQ(words[c.at / 2], c.taken);
    expected[c.cell] = static_cast<uint8_t>(c.kept);
    expected[c.cell + 1] = static_cast<uint8_t>(c.kept >> 8);
    EXPECT_EQ(board.snapshot(nvram0), expected);
  }
}

TEST(sim_nvram, inverts_a_coupled_cell_at_each_change_of_the_leading_one) {
  memory_board board{"nvram-cell-coupled instance=2 offset=0x11 bit=7 victim=0x40 vbit=1"};
  ASSERT_NO_FATAL_FAILURE(board.start());
  auto *const words = board.map<uint16_t>(nvram2);
  std::vector<uint16_t> seen;
  words[0x40 / 2] = 0;
  for (const uint16_t value : std::initializer_list<uint16_t>{0x0000, 0x8000, 0xFFFF, 0x7FFF, 0x8000}) {
    words[0x10 / 2] = value;
    seen.push_back(uint16_t{words[0x40 / 2]});
  }
  const uint16_t start = seen[0];  // depends on what the cell held
  const uint16_t other = start ^ 2;
  EXPECT_THAT(seen, ElementsAre(start, other, other, start, other));
}

TEST(sim_nvram, keeps_lanes_apart_in_bytes_and_long_words) {
  memory_board board{"nvram-data-stuck instance=0 line=8 level=1"};
  ASSERT_NO_FATAL_FAILURE(board.start());
  auto *const bytes = board.map<uint8_t>(nvram0);
  auto *const longs = reinterpret_cast<volatile uint32_t *>(bytes);
  longs[4] = 0x10203040;
  EXPECT_EQ(longs[4], 0x11203140U) << "line 8 in both words";
  bytes[0x10] = 0xA0;
  bytes[0x13] = 0xB0;
  EXPECT_EQ(longs[4], 0xB12031A0U);
  EXPECT_EQ(bytes[0x11], 0x31);
  EXPECT_EQ(bytes[0x12], 0x20);
  // Across words, and with a byte at either end.
  auto *const odd = reinterpret_cast<volatile uint32_t *>(bytes + 0x21);
  bytes[0x20] = 0x5A;
  bytes[0x25] = 0x5A;
  asm volatile("movl %1, %0" : "=m"(*odd) : "r"(0x44332211));
  EXPECT_EQ(bytes[0x20], 0x5A);
  EXPECT_EQ(bytes[0x21], 0x11);
  EXPECT_EQ(bytes[0x22], 0x22);
  EXPECT_EQ(bytes[0x23], 0x33);
  EXPECT_EQ(bytes[0x24], 0x44);
  EXPECT_EQ(bytes[0x25], 0x5B);
  uint32_t back = 0;
  asm volatile("movl %1, %0" : "=r"(back) : "m"(*odd));
  EXPECT_EQ(back, 0x44332211U | 0x00010001U) << "the odd bytes are the upper lanes";
}

TEST(sim_nvram, is_three_devices) {
  memory_board board;
  ASSERT_NO_FATAL_FAILURE(board.start());
  volatile uint16_t *const words[] = {board.map<uint16_t>(nvram0), board.map<uint16_t>(nvram1),
                                      board.map<uint16_t>(nvram2)};
  EXPECT_NE(board.snapshot(nvram0), board.snapshot(nvram1));
  EXPECT_NE(board.snapshot(nvram1), board.snapshot(nvram2));
  const auto first = board.snapshot(nvram0);
  const auto third = board.snapshot(nvram2);
  words[1][8] = 0xBEEF;
  EXPECT_EQ(words[1][8], 0xBEEF);
  EXPECT_EQ(board.contents(nvram1)[0x10], 0xEF);
  EXPECT_EQ(board.snapshot(nvram0), first);
  EXPECT_EQ(board.snapshot(nvram2), third);
}

}  // namespace
