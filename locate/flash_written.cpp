#include "locate/flash_written.h"

#include <algorithm>
#include <array>
#include <span>

#include "platform/mfgd/cmn_lib/diag_util/signal_hold.h"

namespace locate {
namespace {

using models::flash_page_words;
using models::flash_sector_bytes;

constexpr uint16_t ones = 0xFFFF;
constexpr int tries = 3;

using sector_words = std::vector<uint16_t>;

bool is_blank(std::span<const uint16_t> words) {
  return std::ranges::all_of(words, [](uint16_t word) { return word == ones; });
}

sector_words save(flash_bus *bus, uint32_t sector) {
  sector_words words(flash_sector_bytes / 2);
  for (uint32_t i = 0; i < words.size(); ++i)
    words[i] = bus->read(sector + 2 * i);
  return words;
}

// Programs a page until it reads back, as far as that takes no erase. Counts what failed.
bool program_page(flash_bus *bus, uint32_t offset, std::span<const uint16_t> words, restoring *how) {
  for (int i = 0; i < tries; ++i) {
    how->failed += bus->program(offset, words) ? 0U : 1U;
    bool same = true;
    bool clear = true;
    for (uint32_t k = 0; k < words.size(); ++k) {
      const uint16_t word = bus->read(offset + 2 * k);
      same = same && word == words[k];
      clear = clear && (words[k] & ~word) == 0;
    }
    if (same || !clear) return same;
  }
  return false;
}

// Goes on with the other pages where one fails, but not for ever.
void program_pages(flash_bus *bus, uint32_t sector, std::span<const uint16_t> words, restoring *how) {
  constexpr int most_in_a_row = 16;
  int in_a_row = 0;
  for (uint32_t first = 0; first < words.size() && in_a_row < most_in_a_row; first += flash_page_words) {
    const auto page = words.subspan(first, flash_page_words);
    if (is_blank(page)) continue;
    in_a_row = program_page(bus, sector + 2 * first, page, how) ? 0 : in_a_row + 1;
  }
}

restoring restore(flash_bus *bus, uint32_t sector, std::span<const uint16_t> words) {
  restoring how;
  for (int i = 0; i < tries; ++i) {
    how.failed += bus->erase(sector) ? 0U : 1U;
    program_pages(bus, sector, words, &how);
    how.lost = 0;
    for (uint32_t k = 0; k < words.size(); ++k)
      how.lost += bus->read(sector + 2 * k) != words[k] ? 1U : 0U;
    if (how.lost == 0) break;
  }
  return how;
}

constexpr std::array<uint16_t, 1> tag{0x5A3C};
constexpr auto walking_one = [] {
  std::array<uint16_t, flash_page_words> words{};
  for (unsigned bit = 0; bit < words.size(); ++bit)
    words[bit] = static_cast<uint16_t>(1U << bit);
  return words;
}();

constexpr std::array<written_step, 3> steps{{{0, tag}, {flash_lines, tag}, {0, walking_one}}};

}  // namespace

std::span<const written_step> written_steps() {
  return steps;
}

flash_answers ask_written(flash_bus *bus, const written_step &step, restoring *how) {
  const bool keep = how != nullptr;
  const uint32_t sector = step.offset & flash_sector_lines;
  flash_answers answers;
  const auto operation = [&](bool done) { answers.push_back({sector, no_array, static_cast<uint16_t>(done)}); };
  for (uint32_t line = 1U << first_flash_line; line <= flash_lines; line *= 2)
    answers.push_back({step.offset ^ line, bus->read(step.offset ^ line), 0});
  const size_t neighbours = answers.size();
  const auto before = keep ? save(bus, sector) : sector_words();
  const signal_hold::scope held;
  operation((keep && is_blank(before)) || bus->erase(sector));
  operation(bus->program(step.offset, step.words));
  for (size_t i = 0; i < neighbours; ++i)
    answers[i].got = bus->read(answers[i].offset);
  for (uint32_t i = 0; i < step.words.size(); ++i)
    answers.push_back({step.offset + 2 * i, no_array, bus->read(step.offset + 2 * i)});
  if (keep) *how = restore(bus, sector, before);
  return answers;
}

}  // namespace locate
