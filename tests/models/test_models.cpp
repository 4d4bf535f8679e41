// What the chips are made of: a sparse memory holds what one of bytes holds, and every single fault can be written.
#include "models/memory.h"
#include "models/single_faults.h"
#include "tests/support/test.h"

namespace {

uint16_t filling(const void * /*with*/, uint32_t offset) {
  return static_cast<uint16_t>(offset / 2 * 0x9E37U ^ offset >> 15U);
}

TEST(models, keep_in_a_sparse_memory_what_they_keep_in_bytes) {
  constexpr uint32_t block = 0x100, size = 0x8000;
  std::vector<uint8_t> bytes(size);
  models::sparse_memory words(size, block);
  const models::memory both[] = {models::memory(bytes), models::memory(&words)};
  for (const uint32_t seed : {1U, 2U, 3U, 4U}) {
    std::mt19937 random(seed);
    const bool filled = seed % 2 == 0;
    words.restart(filled ? filling : nullptr);
    for (uint32_t at = 0; at < size; at += 2)
      models::word_set(bytes, at, filled ? filling(nullptr, at) : 0xFFFF);
    for (int step = 0; step < 40'000; ++step) {
      const auto at = static_cast<uint32_t>(random() % size) & ~1U;
      const uint32_t first = at / block * block;
      const auto word = static_cast<uint16_t>(random() % 3 == 0 ? 0xFFFF : random());
      for (const auto &memory : both)
        step % 50 == 0 ? memory.blank(first, block) : memory.set(at, word);
      ASSERT_EQ(both[0].is_blank(first, block), both[1].is_blank(first, block)) << first;
    }
    for (uint32_t at = 0; at < size; at += 2)
      ASSERT_EQ(both[0].get(at), both[1].get(at)) << at;
  }
}

using models::memory_kind;

// The text of a fault, which the parser reads back as the same fault.
std::string checked_text(const models::chip_fault &fault, unsigned instance) {
  std::string error;
  const auto text = models::notation(fault, instance);
  const auto parsed = sim::fault_parse(text, &error);
  EXPECT_TRUE(parsed) << error;
  if (!parsed) return text;
  EXPECT_EQ(parsed->find(sim::parm::instance).value_or(instance), instance) << text;
  EXPECT_EQ(models::notation(models::chip_fault_of(*parsed), instance), text);
  return text;
}

TEST(models, write_every_single_fault_as_it_is_asked_for) {
  for (const auto &[memory, last_line, faults] :
       {std::tuple{memory_kind::nvram, 14U, 482U + 16}, {memory_kind::flash, 25U, 922U + 16}}) {
    std::set<std::string> texts;
    for (const auto &one : models::line_faults(memory, 1, last_line))
      texts.insert(checked_text(one.fault, 2));
    EXPECT_EQ(texts.size(), faults);
    for (const auto &kind : models::cell_variants(memory)) {
      models::chip_fault cell{.id = kind.id, .level = kind.level, .vlevel = kind.vlevel, .bit = 3, .vbit = 7};
      cell.offset = 6, cell.victim = 9, cell.sector = 5;
      texts.insert(checked_text(cell, 1));
    }
    EXPECT_EQ(texts.size(), faults + models::cell_variants(memory).size());
  }
  EXPECT_EQ(checked_text({.id = sim::fault_id::nvram_addr_short, .line = 9, .other = 10}, 0),
            "nvram-addr-short instance=0 line=9 other=10 wins=0");
}

}  // namespace
