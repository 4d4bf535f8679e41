// test_sim_flash.cpp: the NOR flash model, cycle by cycle.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <time.h>

#include <algorithm>
#include <map>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "sim/flash.h"

namespace {

struct cycle {
  uint32_t offset;
  uint16_t data;
};
using cycles = std::vector<cycle>;

constexpr uint32_t sector(uint32_t number) {
  return number * sim::flash_sector_bytes;
}

constexpr cycle unlock1{0xAAA, 0xAA};
constexpr cycle unlock2{0x554, 0x55};
constexpr cycle reset{0xAAA, 0xF0};

cycles operator+(cycles first, const cycles &second) {
  first.insert(first.end(), second.begin(), second.end());
  return first;
}

cycles command(uint16_t code) {
  return {unlock1, unlock2, {0xAAA, code}};
}
cycles erase_of(uint32_t number) {
  return command(0x80) + cycles{unlock1, unlock2, {sector(number), 0x30}};
}
cycles buffer_of(uint32_t number, const cycles &words) {
  return cycles{unlock1, unlock2, {sector(number), 0x25}, {sector(number), static_cast<uint16_t>(words.size() - 1)}} +
         words + cycles{{sector(number), 0x29}};
}

// A chip on its own contents: erased, but for a word at the start of every sector.
class chip {
 public:
  explicit chip(std::initializer_list<sim::fault> faults = {}, sim::busy busy = sim::busy::polls,
                bool real_times = false) {
    static std::vector<uint8_t> all(sim::flash_bytes);
    memory = all;
    std::ranges::fill(memory, uint8_t{0xFF});
    for (uint32_t s = 0; s < sim::flash_sectors; s++)
      sim::word_set(memory, sector(s), mark(s));
    sim::options opts;
    opts.busy = busy;
    opts.real_times = real_times;
    opts.faults = faults;
    model.start(memory, opts);
  }

  static uint16_t mark(uint32_t number) { return static_cast<uint16_t>(0x4000 | number); }

  void write(const cycles &list) {
    for (const auto &c : list)
      model.write(c.offset, c.data);
  }
  uint16_t read(uint32_t offset) { return model.read(offset); }
  std::vector<uint16_t> reads(uint32_t offset, unsigned count) {
    std::vector<uint16_t> list;
    while (count-- > 0)
      list.push_back(read(offset));
    return list;
  }
  // A cell's word, whatever mode the chip is in.
  [[nodiscard]] uint16_t cell(uint32_t offset) const { return sim::word_get(memory, offset); }
  void set_cell(uint32_t offset, uint16_t word) { sim::word_set(memory, offset, word); }

  // The polls of a driver: whether an erase or program ended within `limit` pairs of reads.
  bool erase_ends(uint32_t offset, unsigned limit = 8) { return ends(offset, 0x44, limit); }
  bool program_ends(uint32_t offset, unsigned limit = 8) { return ends(offset, 0x40, limit); }

  sim::flash_model model;
  std::span<uint8_t> memory;

 private:
  bool ends(uint32_t offset, uint16_t toggling, unsigned limit) {
    while (limit-- > 0) {
      const uint16_t first = read(offset);
      if (((first ^ read(offset)) & toggling) != toggling) return true;
    }
    return false;
  }
};

sim::fault with(std::string name, std::map<std::string, uint64_t, std::less<>> parms = {}) {
  sim::fault f;
  f.name = std::move(name);
  f.parm = std::move(parms);
  return f;
}

std::string hex(std::span<const uint16_t> words) {
  std::string text;
  for (const uint16_t w : words) {
    char one[8];
    snprintf(one, sizeof one, "%x ", static_cast<unsigned>(w));
    text += one;
  }
  return text;
}

// --- Commands -------------------------------------------------------------------------------------------------------

struct unlock_case {
  const char *name;
  cycles given;
  bool identifies;
};

TEST(sim_flash, takes_a_command_only_after_its_unlock_cycles_in_order) {
  // clang-format off
  const unlock_case cases[] = {
      {"in order",                   command(0x90), true},
      {"data bits 8 to 15 ignored",  {{0xAAA, 0x12AA}, {0x554, 0xFF55}, {0xAAA, 0x0190}}, true},
      {"high address bits ignored",  {{0x3FF0AAA, 0xAA}, {0x0010554, 0x55}, {0x2000AAA, 0x90}}, true},
      {"reset before",               cycles{unlock1, reset} + command(0x90), true},
      {"reset within",               {unlock1, unlock2, reset, {0xAAA, 0x90}}, false},
      {"no unlock",                  {{0xAAA, 0x90}}, false},
      {"first alone",                {unlock1, {0xAAA, 0x90}}, false},
      {"second alone",               {unlock2, {0xAAA, 0x90}}, false},
      {"swapped",                    {unlock2, unlock1, {0xAAA, 0x90}}, false},
      {"first twice",                {unlock1, unlock1, unlock2, {0xAAA, 0x90}}, false},
      {"addresses swapped",          {{0x554, 0xAA}, {0xAAA, 0x55}, {0xAAA, 0x90}}, false},
      {"wrong first data",           {{0xAAA, 0xA8}, unlock2, {0xAAA, 0x90}}, false},
      {"wrong second data",          {unlock1, {0x554, 0x54}, {0xAAA, 0x90}}, false},
      {"command elsewhere",          {unlock1, unlock2, {0x554, 0x90}}, false},
      {"word addresses for bytes",   {{0x555, 0xAA}, {0x2AA, 0x55}, {0x555, 0x90}}, false},
      {"cycle in between",           {unlock1, {0x10, 0x00}, unlock2, {0xAAA, 0x90}}, false},
      {"unknown command",            command(0x33), false},
  };
  // clang-format on
  for (const auto &c : cases) {
    SCOPED_TRACE(c.name);
    chip flash;
    flash.write(c.given);
    EXPECT_EQ(flash.read(0), c.identifies ? 0x0001 : chip::mark(0));
    EXPECT_EQ(flash.read(2), c.identifies ? 0x227E : 0xFFFF);
    EXPECT_EQ(flash.model.reads_plainly(), !c.identifies);
    flash.write({reset});
    EXPECT_EQ(flash.read(0), chip::mark(0));
  }
}

TEST(sim_flash, drops_writes_without_a_command) {
  chip flash;
  flash.write({{0, 0x0000}, {sector(3), 0x1234}, {0x20, 0x29}, {sector(1), 0x30}, {0xAAA, 0x10}});
  EXPECT_EQ(flash.cell(0), chip::mark(0));
  EXPECT_EQ(flash.cell(sector(1)), chip::mark(1));
  EXPECT_EQ(flash.cell(sector(3)), chip::mark(3));
}

TEST(sim_flash, answers_the_query) {
  for (const bool real : {false, true}) {
    chip flash({}, sim::busy::polls, real);
    const auto times = real ? sim::flash_times_real : sim::flash_times_scaled;
    flash.write({{0xAA, 0x98}});
    EXPECT_EQ(flash.reads(0x20, 1)[0], 'Q');
    EXPECT_EQ(flash.read(0x22), 'R');
    EXPECT_EQ(flash.read(0x24), 'Y');
    EXPECT_EQ(flash.read(0x26), 2);  // command set
    EXPECT_EQ(flash.read(0x40), times.buffer_us);
    EXPECT_EQ(flash.read(0x42), times.erase_ms);
    EXPECT_EQ(flash.read(0x48), times.buffer_factor);
    EXPECT_EQ(flash.read(0x4A), times.erase_factor);
    const uint32_t size = 1U << flash.read(0x4E);
    const uint32_t sectors = 1U + flash.read(0x5A) + flash.read(0x5C) * 256U;
    const uint32_t sector_size = 256U * (flash.read(0x5E) + flash.read(0x60) * 256U);
    EXPECT_EQ(size, 64U << 20U);
    EXPECT_EQ(flash.read(0x58), 1);  // one region, which covers the chip
    EXPECT_EQ(sectors * sector_size, size);
    EXPECT_EQ(1U << flash.read(0x54), 2 * sim::flash_page_words);
    const auto table = static_cast<uint32_t>(flash.read(0x2A) + flash.read(0x2C) * 256) * 2;
    EXPECT_EQ(flash.read(table), 'P');
    EXPECT_EQ(flash.read(table + 2), 'R');
    EXPECT_EQ(flash.read(table + 4), 'I');
    flash.write({reset});
    EXPECT_EQ(flash.read(0x20), 0xFFFF);
  }
}

TEST(sim_flash, leaves_query_and_autoselect_by_reset_alone) {
  chip flash;
  flash.write(cycles{{0xAA, 0x98}} + erase_of(2) + buffer_of(2, {{sector(2), 0}}));
  EXPECT_EQ(flash.read(0x20), 'Q');
  EXPECT_EQ(flash.cell(sector(2)), chip::mark(2));
  flash.write({reset});
  EXPECT_TRUE(flash.model.reads_plainly());

  flash.write(command(0x90) + erase_of(2));
  EXPECT_EQ(flash.read(0x1C), 0x2223);
  EXPECT_EQ(flash.cell(sector(2)), chip::mark(2));
  flash.write({{0xAA, 0x98}});
  EXPECT_EQ(flash.read(0x20), 'Q');
  flash.write({reset});
  EXPECT_EQ(flash.read(0x1E), 0x2201) << "back to where the query came from";
  flash.write({reset});
  EXPECT_TRUE(flash.model.reads_plainly());
}

// --- Erase ----------------------------------------------------------------------------------------------------------

TEST(sim_flash, erases_one_sector_and_tells_its_progress) {
  chip flash({with("flash-slow", {{"erase", 4}})});
  flash.write(erase_of(7));
  EXPECT_FALSE(flash.model.reads_array());
  // DQ6 and DQ2 toggle, DQ3 rises when the window is over, DQ7 is 0 until the cells are erased.
  EXPECT_EQ(hex(flash.reads(sector(7) + 0x10, 6)), "44 8 4c 8 ffff ffff ");
  for (uint32_t s = 0; s < sim::flash_sectors; s++)
    ASSERT_EQ(flash.cell(sector(s)), s == 7 ? 0xFFFF : chip::mark(s)) << "sector " << s;
}

TEST(sim_flash, toggles_dq2_only_in_the_sector_that_is_erased) {
  chip flash({with("flash-slow", {{"erase", 5}})});
  flash.write(erase_of(7));
  EXPECT_EQ(hex(flash.reads(sector(8), 3)), "40 8 48 ");
  EXPECT_EQ(hex(flash.reads(sector(7), 2)), "c 48 ");
  EXPECT_EQ(flash.read(sector(8)), chip::mark(8));
}

TEST(sim_flash, lets_a_default_erase_end_at_the_second_poll) {
  chip flash;
  flash.write(erase_of(7));
  EXPECT_FALSE(flash.erase_ends(sector(7), 1));
  EXPECT_TRUE(flash.erase_ends(sector(7), 1));
  EXPECT_EQ(flash.cell(sector(7)), 0xFFFF);
}

TEST(sim_flash, adds_sectors_within_the_window) {
  chip flash;
  flash.write(erase_of(7) + cycles{{sector(100) + 0x40, 0x30}, {sector(511), 0x30}});
  EXPECT_TRUE(flash.erase_ends(sector(511)));
  for (uint32_t s = 0; s < sim::flash_sectors; s++)
    ASSERT_EQ(flash.cell(sector(s)), s == 7 || s == 100 || s == 511 ? 0xFFFF : chip::mark(s)) << "sector " << s;
}

TEST(sim_flash, forgets_an_erase_on_another_command_within_the_window) {
  for (const cycle other : {reset, unlock1, cycle{sector(7), 0xB0}, cycle{sector(7), 0x25}}) {
    chip flash;
    flash.write(erase_of(7) + cycles{other});
    EXPECT_EQ(flash.read(sector(7)), chip::mark(7));
    EXPECT_TRUE(flash.model.reads_plainly());
  }
}

TEST(sim_flash, takes_no_command_while_it_is_busy) {
  chip flash({with("flash-slow", {{"erase", 6}, {"program", 6}})});
  flash.write(erase_of(7));
  (void)flash.reads(sector(7), 2);
  flash.write(cycles{reset, {sector(8), 0x30}} + erase_of(9) + buffer_of(10, {{sector(10), 0}}));
  EXPECT_FALSE(flash.model.reads_array());
  EXPECT_TRUE(flash.erase_ends(sector(7)));
  flash.write(buffer_of(10, {{sector(10) + 2, 0x1111}}));
  flash.write(cycles{reset} + erase_of(11));
  EXPECT_FALSE(flash.model.reads_array());
  EXPECT_TRUE(flash.program_ends(sector(10) + 2));
  for (const uint32_t s : {8U, 9U, 10U, 11U})
    EXPECT_EQ(flash.cell(sector(s)), chip::mark(s));
}

TEST(sim_flash, erases_the_whole_chip) {
  chip flash;
  flash.write(command(0x80) + command(0x10));
  EXPECT_TRUE(flash.erase_ends(0));
  EXPECT_TRUE(std::ranges::all_of(flash.memory, [](uint8_t byte) { return byte == 0xFF; }));
}

TEST(sim_flash, erases_nothing_after_broken_sequences) {
  const cycles sequences[] = {
      command(0x80) + cycles{{sector(7), 0x30}},
      command(0x80) + cycles{unlock1, {sector(7), 0x30}},
      command(0x80) + cycles{unlock2, unlock1, {sector(7), 0x30}},
      command(0x80) + cycles{unlock1, unlock2, {sector(7), 0x31}},
      command(0x80) + cycles{unlock1, unlock2, {0x554, 0x10}},
      command(0x30),
      cycles{unlock1, unlock2, {sector(7), 0x80}, unlock1, unlock2, {sector(7), 0x30}},
  };
  for (const auto &s : sequences) {
    chip flash;
    flash.write(s);
    EXPECT_EQ(flash.read(sector(7)), chip::mark(7));
    EXPECT_EQ(flash.read(sector(7)), chip::mark(7));
  }
}

// --- Programming ----------------------------------------------------------------------------------------------------

TEST(sim_flash, programs_a_word_and_tells_its_progress) {
  chip flash({with("flash-slow", {{"program", 3}})});
  flash.write(command(0xA0) + cycles{{0x100, 0x1234}});
  EXPECT_EQ(hex(flash.reads(0x100, 4)), "c0 80 c0 1234 ") << "DQ7 is the complement of 0";
  flash.write(command(0xA0) + cycles{{0x102, 0x1284}});
  EXPECT_EQ(hex(flash.reads(0x102, 4)), "0 40 0 1284 ") << "DQ7 is the complement of 1";
}

TEST(sim_flash, programs_through_the_write_buffer) {
  chip flash;
  cycles words;
  for (uint16_t w = 0; w < 16; w++)
    words.push_back({sector(7) + 0x20 + 2U * w, static_cast<uint16_t>(~(1U << w))});
  flash.write(buffer_of(7, words));
  EXPECT_FALSE(flash.model.reads_array()) << "busy until it is polled";
  EXPECT_TRUE(flash.program_ends(words.back().offset, 1)) << "ends at the first poll";
  for (const auto &w : words)
    EXPECT_EQ(flash.read(w.offset), w.data);
  EXPECT_EQ(flash.read(sector(7) + 0x1E), 0xFFFF);
  EXPECT_EQ(flash.read(sector(7) + 0x40), 0xFFFF);
}

TEST(sim_flash, takes_buffer_words_in_any_order_the_last_one_counts) {
  chip flash;
  flash.write(buffer_of(7, {{sector(7) + 0x2E, 1}, {sector(7) + 0x20, 2}, {sector(7) + 0x2E, 3}}));
  EXPECT_TRUE(flash.program_ends(sector(7) + 0x2E));
  EXPECT_EQ(flash.cell(sector(7) + 0x20), 2);
  EXPECT_EQ(flash.cell(sector(7) + 0x2E), 3);
  // The confirmation goes to any place of the sector.
  flash.write(
      {unlock1, unlock2, {sector(7) + 0x555, 0x25}, {sector(7), 0}, {sector(7) + 0x60, 5}, {sector(7) + 0x800, 0x29}});
  EXPECT_TRUE(flash.program_ends(sector(7) + 0x60));
  EXPECT_EQ(flash.cell(sector(7) + 0x60), 5);
}

TEST(sim_flash, only_clears_bits_and_gives_up_on_setting_one) {
  const cycles ways[] = {command(0xA0) + cycles{{0x200, 0xFF0F}}, buffer_of(0, {{0x200, 0xFF0F}})};
  for (const auto &way : ways) {
    chip flash;
    flash.set_cell(0x200, 0xF0F0);
    flash.write(way);
    EXPECT_EQ(flash.cell(0x200), 0xF000);
    EXPECT_EQ(hex(flash.reads(0x200, 6)), "c0 80 c0 80 e0 a0 ") << "DQ5 after a while";
    EXPECT_FALSE(flash.program_ends(0x200));
    flash.write(command(0x90));
    EXPECT_EQ(flash.read(0x200) & 0x20, 0x20) << "no command but reset";
    flash.write({reset});
    EXPECT_EQ(flash.read(0x200), 0xF000);
  }
}

struct abort_case {
  const char *name;
  cycles given;
};

TEST(sim_flash, aborts_a_write_buffer_that_does_not_fit) {
  const cycles start{unlock1, unlock2, {sector(7), 0x25}};
  const cycles two = start + cycles{{sector(7), 1}, {sector(7) + 0x40, 0x1100}};
  // clang-format off
  const abort_case cases[] = {
      {"17 words",                      start + cycles{{sector(7), 16}}},
      {"count beyond a byte",           start + cycles{{sector(7), 0x100}}},
      {"count in another sector",       start + cycles{{sector(8), 1}}},
      {"first word in another sector",  start + cycles{{sector(7), 1}, {sector(8) + 0x40, 0}}},
      {"second word in another sector", two + cycles{{sector(8) + 0x42, 0}}},
      {"word in the next page",         two + cycles{{sector(7) + 0x60, 0}}},
      {"word in the page before",       two + cycles{{sector(7) + 0x3E, 0}}},
      {"no confirmation",               two + cycles{{sector(7) + 0x42, 0}, {sector(7) + 0x44, 0}}},
      {"other command",                 two + cycles{{sector(7) + 0x42, 0}, {sector(7), 0x30}}},
      {"confirmed elsewhere",           two + cycles{{sector(7) + 0x42, 0}, {sector(8), 0x29}}},
  };
  // clang-format on
  for (const auto &c : cases) {
    SCOPED_TRACE(c.name);
    chip flash;
    flash.write(c.given);
    EXPECT_EQ((flash.read(sector(7)) ^ flash.read(sector(7))) & 0x46, 0x40) << "DQ6 alone toggles";
    EXPECT_EQ(flash.read(sector(7)) & 0x22, 0x02) << "DQ1, no DQ5";
    EXPECT_FALSE(flash.program_ends(sector(7)));
    for (uint32_t at = 0; at < 0x80; at += 2)
      ASSERT_EQ(flash.cell(sector(7) + at), at == 0 ? chip::mark(7) : 0xFFFF);
    EXPECT_EQ(flash.cell(sector(8)), chip::mark(8));

    flash.write({reset});
    EXPECT_EQ(flash.read(sector(7)) & 0x02, 0x02) << "a plain reset is not enough";
    flash.write({unlock1, unlock2, {0x554, 0xF0}});
    EXPECT_EQ(flash.read(sector(7)) & 0x02, 0x02);
    flash.write({unlock1, unlock2, reset});
    EXPECT_EQ(flash.read(sector(7)), chip::mark(7));
  }
}

TEST(sim_flash, waits_for_all_words_that_the_count_announces) {
  chip flash;
  flash.write({unlock1, unlock2, {sector(7), 0x25}, {sector(7), 2}, {sector(7) + 2, 0x29}, {sector(7) + 4, 0x29}});
  EXPECT_TRUE(flash.model.reads_array());
  EXPECT_EQ(flash.cell(sector(7) + 2), 0xFFFF) << "0x29 among the words is data";
  flash.write({{sector(7) + 6, 0x29}, {sector(7), 0x29}});
  EXPECT_TRUE(flash.program_ends(sector(7) + 6));
  EXPECT_EQ(flash.cell(sector(7) + 2), 0x29);
}

// --- Faults ---------------------------------------------------------------------------------------------------------

constexpr uint16_t never = 0xDEAD;  // the chip does not come back

struct fault_case {
  const char *name;
  sim::fault fault;
  bool erase_ends, erase_dq5;
  bool program_ends, program_dq5;
  uint16_t word, read_back;
  uint32_t offset = sector(7) + 0x40;
};

TEST(sim_flash, shows_each_fault_as_the_chip_would) {
  const uint32_t at = sector(7) + 0x40;
  // Cells are bits of bytes: bit 1 of the byte after `at` is bit 9 of the word.
  // clang-format off
  const fault_case cases[] = {
      {"healthy",              with("none"), true, false, true, false, 0x1234, 0x1234},
      {"data line low",        with("flash-data-stuck", {{"line", 4}, {"level", 0}}), true, false, true, false, 0x1234, 0x1224},
      {"data line high",       with("flash-data-stuck", {{"line", 0}, {"level", 1}}), true, false, true, false, 0x1234, 0x1235},
      {"data lines short low", with("flash-data-short", {{"line", 0}, {"other", 2}, {"wins", 0}}), true, false, true, false, 0x1234, 0x1230},
      {"short, alike",         with("flash-data-short", {{"line", 4}, {"other", 2}, {"wins", 0}}), true, false, true, false, 0x1234, 0x1234},
      {"data lines short high", with("flash-data-short", {{"line", 0}, {"other", 2}, {"wins", 1}}), true, false, true, false, 0x1234, 0x1235},
      {"silent",               with("flash-silent"), true, false, true, false, 0x1234, 0xFFFF},
      {"erase hangs",          with("flash-erase-hangs", {{"sector", 7}, {"dq5", 0}}), false, false, false, false, 0x1234, never},
      {"erase gives up",       with("flash-erase-hangs", {{"dq5", 1}}), false, true, true, false, 0x1234, 0x1234},
      {"another erase hangs",  with("flash-erase-hangs", {{"sector", 8}, {"dq5", 0}}), true, false, true, false, 0x1234, 0x1234},
      {"program hangs",        with("flash-program-hangs", {{"dq5", 0}}), true, false, false, false, 0x1234, never},
      {"program gives up",     with("flash-program-hangs", {{"sector", 7}, {"dq5", 1}}), true, false, false, true, 0x1234, 0xFFFF},
      {"another program hangs", with("flash-program-hangs", {{"sector", 6}, {"dq5", 1}}), true, false, true, false, 0x1234, 0x1234},
      {"erase leaves a bit",   with("flash-erase-leaves", {{"offset", at + 1}, {"bit", 5}}), true, false, true, false, 0x1234, 0x1234},
      {"and shows it",         with("flash-erase-leaves", {{"offset", at + 1}, {"bit", 1}}), true, false, false, true, 0x1234, 0x1034},
      {"program clears a bit", with("flash-program-clears", {{"sector", 7}, {"offset", 0x40}, {"bit", 2}}), true, false, true, false, 0x1234, 0x1230},
      {"in another sector",    with("flash-program-clears", {{"sector", 8}, {"offset", 0x40}, {"bit", 2}}), true, false, true, false, 0x1234, 0x1234},
      {"cell never programs",  with("flash-cell-stuck", {{"offset", at}, {"bit", 0}, {"level", 1}}), true, false, false, true, 0x1234, 0x1235},
      {"cell never erases",    with("flash-cell-stuck", {{"offset", at}, {"bit", 2}, {"level", 0}}), false, true, false, true, 0x1234, 0x1230},
      {"cell disturbs",        with("flash-cell-coupled", {{"offset", at}, {"bit", 0}, {"victim", at}, {"vbit", 5}}), true, false, true, false, 0x1234, 0x1214},
      {"leading cell at rest", with("flash-cell-coupled", {{"offset", at}, {"bit", 2}, {"victim", at}, {"vbit", 5}}), true, false, true, false, 0x1234, 0x1234},
  };
  // clang-format on
  for (const auto &c : cases) {
    SCOPED_TRACE(c.name);
    chip flash({c.fault});
    flash.write(erase_of(7));
    EXPECT_EQ(flash.erase_ends(c.offset), c.erase_ends);
    EXPECT_TRUE(c.erase_ends || ((flash.read(c.offset) & 0x20) != 0) == c.erase_dq5);
    flash.write({reset});
    flash.write(buffer_of(7, {{c.offset, c.word}}));
    EXPECT_EQ(flash.program_ends(c.offset), c.program_ends);
    EXPECT_TRUE(c.program_ends || ((flash.read(c.offset) & 0x20) != 0) == c.program_dq5);
    flash.write({reset});
    const bool hangs = !flash.model.reads_array();
    EXPECT_EQ(hangs, c.read_back == never);
    EXPECT_TRUE(hangs || flash.read(c.offset) == c.read_back) << std::hex << flash.read(c.offset);
    for (const uint32_t s : {6U, 9U})
      EXPECT_EQ(flash.cell(sector(s)), chip::mark(s));
  }
}

TEST(sim_flash, mixes_up_places_behind_bad_address_lines) {
  struct address_case {
    const char *name;
    sim::fault fault;
    uint32_t given, cell;
  };
  // clang-format off
  const address_case cases[] = {
      {"low line stuck low",    with("flash-addr-stuck", {{"line", 2}, {"level", 0}}), sector(7) + 0x44, sector(7) + 0x40},
      {"low line stuck high",   with("flash-addr-stuck", {{"line", 1}, {"level", 1}}), sector(7) + 0x44, sector(7) + 0x46},
      {"sector line stuck low", with("flash-addr-stuck", {{"line", 17}, {"level", 0}}), sector(7) + 0x44, sector(6) + 0x44},
      {"lines short, low wins", with("flash-addr-short", {{"line", 2}, {"other", 8}, {"wins", 0}}), sector(7) + 0x44, sector(7) + 0x40},
      {"short, high wins",      with("flash-addr-short", {{"line", 2}, {"other", 8}, {"wins", 1}}), sector(7) + 0x44, sector(7) + 0x144},
  };
  // clang-format on
  for (const auto &c : cases) {
    SCOPED_TRACE(c.name);
    chip flash({c.fault});
    flash.write(buffer_of(7, {{c.given, 0x55AA}}));
    EXPECT_TRUE(flash.program_ends(c.given));
    EXPECT_EQ(flash.cell(c.cell), 0x55AA);
    EXPECT_EQ(flash.cell(c.given), 0xFFFF);
    EXPECT_EQ(flash.read(c.given), 0x55AA);
    flash.write(erase_of(7));
    EXPECT_TRUE(flash.erase_ends(sector(7)));
    EXPECT_EQ(flash.cell(c.cell), 0xFFFF);
  }
}

TEST(sim_flash, loses_commands_behind_lines_that_all_cycles_meet) {
  struct lost_case {
    const char *name;
    sim::fault fault;
    bool commands_work;
  };
  // clang-format off
  const lost_case cases[] = {
      {"data line 1 low",     with("flash-data-stuck", {{"line", 1}, {"level", 0}, {"commands", 1}}), false},
      {"data line 12 low",    with("flash-data-stuck", {{"line", 12}, {"level", 0}, {"commands", 1}}), true},
      {"address line 2 high", with("flash-addr-stuck", {{"line", 1}, {"level", 0}, {"commands", 1}}), false},
      {"address line 20 low", with("flash-addr-stuck", {{"line", 20}, {"level", 0}, {"commands", 1}}), true},
  };
  // clang-format on
  for (const auto &c : cases) {
    SCOPED_TRACE(c.name);
    chip flash({c.fault});
    flash.write(command(0x90));
    EXPECT_EQ(flash.read(0) == 0x0001, c.commands_work);
    flash.write(cycles{reset} + erase_of(7));
    EXPECT_EQ(flash.erase_ends(sector(7), 1), !c.commands_work);
    EXPECT_TRUE(flash.erase_ends(sector(7)));
    EXPECT_EQ(flash.cell(sector(7)) == 0xFFFF, c.commands_work);
  }
}

TEST(sim_flash, answers_the_query_wrong_on_request) {
  chip flash({with("flash-cfi", {{"word", 0x21}, {"value", 0xFFFF}})});
  flash.write({{0xAA, 0x98}});
  EXPECT_EQ(flash.read(0x42), 0xFFFF);
  EXPECT_EQ(flash.read(0x40), sim::flash_times_scaled.buffer_us);
}

TEST(sim_flash, reads_plainly_only_where_nothing_alters_the_words) {
  EXPECT_TRUE(chip().model.reads_plainly());
  EXPECT_TRUE(chip({with("flash-erase-hangs")}).model.reads_plainly());
  EXPECT_FALSE(chip({with("flash-silent")}).model.reads_plainly());
  EXPECT_FALSE(chip({with("flash-data-stuck", {{"line", 0}})}).model.reads_plainly());
  EXPECT_FALSE(chip({with("flash-addr-short", {{"line", 3}, {"other", 4}})}).model.reads_plainly());
  EXPECT_FALSE(chip({with("flash-cell-stuck", {{"offset", 0}})}).model.reads_plainly());
}

TEST(sim_flash, ends_what_runs_when_the_board_goes) {
  chip flash;
  flash.write(erase_of(7));
  flash.model.stop();
  EXPECT_EQ(flash.cell(sector(7)), 0xFFFF);
}

TEST(sim_flash_death, kills_the_run_at_a_power_cut) {
  EXPECT_EXIT(
      {
        chip flash({with("flash-power-cut", {{"nth", 3}})});
        flash.write({unlock1, unlock2});
        fputs("two", stderr);
        flash.write({reset});
      },
      testing::KilledBySignal(SIGKILL), "two");
}

// --- Real time ------------------------------------------------------------------------------------------------------

uint64_t now_us() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<uint64_t>(now.tv_sec) * 1'000'000U + static_cast<uint64_t>(now.tv_nsec) / 1000;
}

TEST(sim_flash, is_busy_for_its_own_times) {
  chip flash({}, sim::busy::time);
  uint64_t start = now_us();
  flash.write(erase_of(7));
  bool window_over = false;
  while (!flash.model.reads_array() && now_us() < start + 5'000'000) {
    if ((flash.read(sector(7)) & 0x88) == 0x08) window_over = true;
  }
  EXPECT_TRUE(window_over);
  EXPECT_GE(now_us() - start, 1750U);
  EXPECT_EQ(flash.cell(sector(7)), 0xFFFF);

  start = now_us();
  for (unsigned i = 0; i < 100; i++) {
    flash.write(buffer_of(7, {{sector(7) + 2 * i, 0x1234}}));
    while (!flash.model.reads_array() && now_us() < start + 5'000'000)
      (void)flash.read(sector(7));
  }
  EXPECT_GE(now_us() - start, 350U);
  EXPECT_EQ(flash.cell(sector(7) + 198), 0x1234);
}

TEST(sim_flash, gives_up_within_the_longest_time) {
  chip flash({with("flash-program-hangs", {{"dq5", 1}})}, sim::busy::time);
  const uint64_t start = now_us();
  flash.write(buffer_of(7, {{sector(7) + 2, 0x1234}}));
  while ((flash.read(sector(7)) & 0x20) == 0 && now_us() < start + 5'000'000) {
  }
  EXPECT_GE(now_us() - start, 16U);
  EXPECT_EQ(flash.read(sector(7)) & 0x20, 0x20);
}

}  // namespace
