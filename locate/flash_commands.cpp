#include "locate/flash_commands.h"

#include <algorithm>
#include <span>

#include "platform/mfgd/cmn_lib/diag_util/signal_hold.h"

namespace locate {
namespace {

// No command decodes A12 and up. With them high, lines that are shorted to lower ones get their level from these.
constexpr uint32_t free_lines = flash_lines & ~0xFFFU;
constexpr unsigned first_page_line = 5;
constexpr uint16_t ones = 0xFFFF;

class dialogue {
 public:
  explicit dialogue(flash_bus *bus) : m_bus(*bus) {}

  // Words that every chip of this kind has: identification, geometry, the name of the extended table. Some of them
  // again with each high line set: if that is shorted to a low line, another word answers.
  void query(uint32_t high) {
    std::vector<uint32_t> offsets;
    for (const auto &[first, last] : {std::pair{0x10U, 0x1EU}, {0x27U, 0x2BU}, {0x40U, 0x44U}})
      for (uint32_t word = first; word <= last; ++word)
        offsets.push_back(2 * word);
    for (uint32_t line = 0x200; line <= flash_lines; line *= 2)
      for (const uint32_t word : {0x10U, 0x13U})
        offsets.push_back(line + 2 * word);
    read_words(offsets, [&] { m_bus.write(flash_query_entry | high, cmd_query); });
  }

  // Maker and device, and again with each high line set.
  void autoselect(uint32_t high) {
    std::vector<uint32_t> offsets{0x00, 0x02, 0x1C, 0x1E};
    for (uint32_t line = 0x20; line <= flash_lines; line *= 2)
      for (const uint32_t word : {0x00U, 0x0EU})
        offsets.push_back(line + 2 * word);
    read_words(offsets, [&] {
      unlock(high);
      m_bus.write(flash_unlock_1 | high, cmd_autoselect);
    });
  }

  // Of two shorted lines, a high one goes low or a low one high: each line is changed where all others are low, and
  // where all others are high.
  void pages() {
    for (const uint32_t base : {0U, flash_lines}) {
      const uint32_t high = base == 0 ? free_lines : 0;
      for (uint32_t line = 1U << first_page_line; line <= flash_lines; line *= 2)
        m_answers.push_back({base ^ line, no_array, compare(base, base ^ line, high)});
    }
  }

  [[nodiscard]] bool left() const { return m_left; }
  [[nodiscard]] flash_answers take() { return std::move(m_answers); }

 private:
  void unlock(uint32_t high) {
    m_bus.write(flash_unlock_1 | high, cmd_unlock1);
    m_bus.write(flash_unlock_2 | high, cmd_unlock2);
  }
  void reset() { m_bus.write(0, cmd_reset); }

  // Reads the words once from the array and once between entry and reset.
  template <class Enter>
  void read_words(std::span<const uint32_t> offsets, Enter enter) {
    const size_t first = m_answers.size();
    for (const uint32_t offset : offsets)
      m_answers.push_back({offset, m_bus.read(offset), 0});
    enter();
    for (size_t i = 0; i < offsets.size(); ++i)
      m_answers[first + i].got = m_bus.read(offsets[i]);
    leave(std::span(m_answers).subspan(first));
  }

  // Resets the chip until it reads its array, if it answered at all. Where a data line is open the chip keeps the level
  // of the last word that was read, so each word gets its turn before a reset.
  void leave(std::span<const flash_answer> answers) {
    const auto differs = [](const flash_answer &answer) { return answer.got != answer.array; };
    const auto witness = std::ranges::find_if(answers, differs);
    reset();
    if (witness == answers.end()) return;
    m_left = m_bus.read(witness->offset) == witness->array;
    for (size_t i = 0; i < answers.size() && !m_left; ++i) {
      (void)m_bus.read(answers[i].offset);
      reset();
      m_left = m_bus.read(witness->offset) == witness->array;
    }
  }

  // "DQ1: Write-to-Buffer Abort". DQ6 toggles meanwhile, which no word of the array does.
  bool aborted(uint32_t offset) {
    const uint16_t before = m_bus.read(offset);
    const uint16_t after = m_bus.read(offset);
    return ((before ^ after) & dq6) != 0 && (before & after & dq1) != 0;
  }

  pair_answer compare(uint32_t first, uint32_t second, uint32_t high) {
    const uint32_t sector = first & flash_sector_lines;
    const bool two_sectors = sector != (second & flash_sector_lines);
    unlock(high);
    m_bus.write(sector, cmd_buffer_load);
    m_bus.write(two_sectors ? second & flash_sector_lines : sector, 1);  // two words
    if (!two_sectors) {
      m_bus.write(first, ones);
      m_bus.write(second, ones);
    }
    const bool differ = aborted(first);
    // More words than were announced abort it, too.
    for (int i = 0; i < 3 && !differ; ++i)
      m_bus.write(first, ones);
    const bool answers = differ || aborted(first);
    // "Write-to-Buffer-Abort Reset".
    unlock(high);
    m_bus.write(flash_unlock_1 | high, cmd_reset);
    reset();
    if (!answers) return no_answer;
    return differ ? two_pages : one_page;
  }

  flash_bus &m_bus;
  flash_answers m_answers;
  bool m_left = true;  // each reset had the array read again
};

}  // namespace

flash_answers ask_commands(flash_bus *bus) {
  const signal_hold::scope until_array_reads;
  dialogue with(bus);
  bus->write(0, cmd_reset);
  for (const uint32_t high : {0U, free_lines})
    if (with.left()) with.autoselect(high);
  for (const uint32_t high : {0U, free_lines})
    if (with.left()) with.query(high);
  if (with.left()) with.pages();
  return with.take();
}

}  // namespace locate
