#include "locate/flash_reads.h"

#include <algorithm>
#include <bit>

#include "faults/random.h"

namespace locate {
namespace {

using models::flash_sector_bytes;
using models::flash_sectors;
using models::single_line_fault;

constexpr unsigned wanted_places = 8;  // with contents, before pairs are compared
constexpr unsigned stars = 2;

// Evidence for a fault of address lines: different words, and sectors where a line that selects one is concerned.
constexpr size_t enough_equal_words = 24;
constexpr size_t enough_sectors = 4;
// For one of data lines: different words, and of them with either level on both lines of a pair, or on every other
// line.
constexpr size_t enough_words = 48;
constexpr unsigned enough_of_each = 8;

constexpr uint32_t bit(unsigned line) {
  return uint32_t{1} << line;
}

// An erased word is all ones, perhaps without the one that a data line loses.
bool looks_erased(uint16_t word) {
  return std::popcount(word) >= 15;
}

// The sectors in an order in which any regular filling is met early.
uint32_t nth_sector(uint32_t n) {
  uint32_t sector = 0;
  for (uint32_t weight = 1; weight < flash_sectors; weight *= 2)
    sector = 2 * sector + ((n & weight) != 0 ? 1 : 0);
  return sector;
}

}  // namespace

flash_reads::flash_reads(flash_bus *bus, unsigned budget)
    : m_bus(bus),
      m_budget(budget),
      m_faults(models::line_faults(models::memory_kind::flash, first_flash_line, last_flash_line)) {
  m_suspects.reserve(m_faults.size());
  for (const auto &fault : m_faults)
    m_suspects.push_back(&fault);
}

void flash_reads::run() {
  find_contents();
  const auto bases = m_filled;
  for (size_t i = 0; i < bases.size() && i < stars; ++i)
    read_star(bases[i]);
  while (!m_filled.empty() && m_words.size() < m_budget && !decided()) {
    const auto &one = *m_suspects[random(static_cast<uint32_t>(m_suspects.size()))];
    if (one.address)
      try_pair(one);
    else
      (void)read(pick_address());
  }
}

bool flash_reads::decided() const {
  if (m_suspects.empty()) return true;
  const auto found = proven();
  if (found.empty()) return false;
  return std::ranges::all_of(m_suspects,
                             [&](const auto *s) { return !s->address || place_of(*s) == place_of(*found[0]); });
}

uint16_t flash_reads::read(uint32_t offset) {
  if (const auto known = m_words.find(offset); known != m_words.end()) return known->second;
  const uint16_t word = m_bus->read(offset);
  std::erase_if(m_suspects, [&](const auto *s) { return contradicts(*s, offset, word); });
  m_words[offset] = word;
  m_bus_levels = word;
  if (looks_erased(word)) {
    m_erased[word].insert(offset & flash_sector_lines);
  } else {
    m_filled.push_back(offset);
    ++m_values[word];
  }
  return word;
}

bool flash_reads::contradicts(const single_line_fault &f, uint32_t offset, uint16_t word) const {
  if (!f.address) return f.bad.pass(word, m_bus_levels) != word;
  const uint32_t arriving = f.bad.pass(offset);
  for (uint32_t levels = f.bad.lines;; levels = (levels - 1) & f.bad.lines) {
    const uint32_t other = (offset & ~f.bad.lines) | levels;
    const auto known = m_words.find(other);
    if (known != m_words.end() && f.bad.pass(other) == arriving && known->second != word) return true;
    if (levels == 0) return false;
  }
}

// First the beginnings of sectors, then anywhere.
void flash_reads::find_contents() {
  for (uint32_t i = 0; i < 2 * flash_sectors && m_filled.size() < wanted_places; ++i)
    (void)read(nth_sector(i % flash_sectors) * flash_sector_bytes +
               2 * random(i < flash_sectors ? 16 : flash_sector_bytes / 2));
}

// A word, and those whose addresses differ in one line.
void flash_reads::read_star(uint32_t base) {
  for (unsigned line = first_flash_line; line <= last_flash_line; ++line)
    (void)read(base ^ bit(line));
}

uint32_t flash_reads::random(uint32_t below) {
  return static_cast<uint32_t>(sim::random_next(&m_random) >> 32U) % below;
}

// Beside a word that is not erased, the nearer the likelier.
uint32_t flash_reads::pick_address() {
  const uint32_t filled = m_filled[random(static_cast<uint32_t>(m_filled.size()))];
  return filled ^ (random(bit(1 + random(17))) & ~1U);
}

// Compares two words that are one under this fault.
void flash_reads::try_pair(const single_line_fault &f) {
  uint32_t from = pick_address();
  const uint32_t low = f.bad.lines & (0 - f.bad.lines);
  std::vector<uint32_t> changes;
  for (const uint32_t change : {low, f.bad.lines, f.bad.lines ^ low})
    if (change != 0 && f.bad.pass(from ^ change) == f.bad.pass(from)) changes.push_back(change);
  if (changes.empty()) {
    // The one address of the four that no other reaches.
    from ^= low;
    changes.push_back(low);
    if (f.bad.pass(from ^ low) != f.bad.pass(from)) changes = {f.bad.lines};
  }
  const uint32_t change = changes[random(static_cast<uint32_t>(changes.size()))];
  const uint16_t word = read(from);
  if (read(from ^ change) != word || !neighbours_differ(from, change, f.bad.lines)) return;
  auto &seen = m_evidence[place_of(f)];
  seen.words.insert(word);
  seen.sectors.insert(from & flash_sector_lines & ~f.bad.lines);
}

// Whether all words differ from the first that are as far away in a neighbouring line instead.
bool flash_reads::neighbours_differ(uint32_t from, uint32_t change, uint32_t lines) {
  const uint32_t last = change & (0 - change);
  for (const uint32_t other : {last << 1U, last >> 1U}) {
    const bool is_line = other >= bit(first_flash_line) && other <= bit(last_flash_line);
    if (!is_line || (other & lines) != 0) continue;
    if (read(from ^ change ^ last ^ other) == read(from)) return false;
  }
  return true;
}

// Half of them hold something, if that many do: an erased word hides a line that is high at times.
std::vector<uint32_t> flash_reads::read_again(unsigned rounds) {
  constexpr size_t most = 32;
  std::set<uint32_t> again;
  const size_t step = 1 + m_filled.size() / (most / 2);
  for (size_t i = 0; i < m_filled.size(); i += step)
    again.insert(m_filled[i]);
  for (auto one = m_words.begin(); one != m_words.end() && again.size() < most; ++one)
    again.insert(one->first);
  std::vector<uint32_t> changed;
  for (const auto offset : again)
    for (unsigned round = 0; round < rounds; ++round) {
      if (m_bus->read(offset) == m_words[offset]) continue;
      changed.push_back(offset);
      break;
    }
  return changed;
}

line_fault_list flash_reads::suspects() const {
  return m_suspects;
}

line_fault_list flash_reads::proven() const {
  line_fault_list found;
  for (const auto *const s : m_suspects) {
    if (!proves(*s)) continue;
    if (!found.empty() && place_of(*found[0]) != place_of(*s)) return {};
    found.push_back(s);
  }
  if (found.empty()) return {};
  // Pairs of one line are equal, too, where that is shorted to another.
  line_fault_list all;
  std::ranges::copy_if(m_suspects, std::back_inserter(all), [&](const auto *s) {
    return place_of(*s) == place_of(*found[0]) ||
           (s->address && found[0]->address && (s->bad.lines & found[0]->bad.lines) != 0);
  });
  return all;
}

bool flash_reads::proves(const single_line_fault &f) const {
  if (!f.address) return words_prove(f.bad);
  const auto found = m_evidence.find(place_of(f));
  if (found == m_evidence.end()) return false;
  const bool selects_sector = (f.bad.lines & flash_sector_lines) != 0;
  return found->second.words.size() >= enough_equal_words &&
         (!selects_sector || found->second.sectors.size() >= enough_sectors);
}

bool flash_reads::words_prove(const models::bad_lines &bad) const {
  // A line that keeps erased words from being all ones.
  const auto erased = m_erased.find(static_cast<uint16_t>(~bad.lines));
  if (bad.kind != models::line_kind::shorted && erased != m_erased.end() && erased->second.size() >= enough_sectors)
    return true;
  if (m_values.size() < enough_words) return false;
  const auto with = [&](uint32_t lines, uint32_t levels) {
    return static_cast<size_t>(
        std::ranges::count_if(m_values, [&](const auto &one) { return (one.first & lines) == levels; }));
  };
  if (bad.kind == models::line_kind::shorted)
    return with(bad.lines, 0) >= enough_of_each && with(bad.lines, bad.lines) >= enough_of_each;
  // Texts have bits that never change. Where all others do, it is not the contents.
  for (uint32_t other = 1; other <= 0x8000; other *= 2) {
    const size_t high = with(other, other);
    if (other != bad.lines && std::min(high, m_values.size() - high) < enough_of_each) return false;
  }
  return true;
}

}  // namespace locate
