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

bool restore(flash_bus *bus, uint32_t sector, std::span<const uint16_t> words) {
  bool done = bus->erase(sector);
  for (uint32_t first = 0; done && first < words.size(); first += flash_page_words) {
    const auto page = words.subspan(first, flash_page_words);
    done = is_blank(page) || bus->program(sector + 2 * first, page);
  }
  return done;
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

flash_answers ask_written(flash_bus *bus, const written_step &step, bool keep) {
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
  operation(!keep || restore(bus, sector, before));
  return answers;
}

}  // namespace locate
