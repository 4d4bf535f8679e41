#include "locate/nvram_cells.h"

#include <algorithm>
#include <bit>
#include <cstdio>
#include <map>
#include <optional>
#include <span>

#include "models/cells.h"
#include "models/nvram_answers.h"

namespace locate {
namespace {

using models::nvram_access;

constexpr size_t most_cells = 8;         // that are looked at more closely
constexpr unsigned words_of_march = 11;  // that are done, for each word of the memory: ten elements and the tour

struct cell {
  uint32_t word;  // its number
  unsigned bit;

  [[nodiscard]] uint32_t offset() const { return 2 * word + bit / 8; }
  [[nodiscard]] std::string text() const { return hex(offset(), 4) + " bit " + std::to_string(bit % 8); }
};

// The words, what they held at first, and how far the work is.
class words {
 public:
  words(word_bus *ram, const settings &how, std::string_view part) : m_ram(ram), m_how(how), m_part(part) {
    m_own.reserve(count());
    for (uint32_t word = 0; word < count(); ++word)
      m_own.push_back(read(word));
  }

  // Reads all once more. Returns the words that are not as before.
  [[nodiscard]] std::vector<uint32_t> unsteady() {
    std::vector<uint32_t> found;
    for (uint32_t word = 0; word < count(); ++word)
      if (read(word) != own(word)) found.push_back(word);
    return found;
  }

  [[nodiscard]] uint32_t count() const { return m_ram->length() / 2; }
  [[nodiscard]] uint16_t own(uint32_t word) const { return m_own[word]; }
  [[nodiscard]] uint16_t inverse(uint32_t word) const { return static_cast<uint16_t>(~m_own[word]); }
  uint16_t read(uint32_t word) { return m_ram->read(2 * word); }
  void write(uint32_t word, uint16_t value) { m_ram->write(2 * word, value); }

  // Counts a word that is done. Returns false if the user wants to stop.
  bool advance() {
    if (++m_done % 512 != 0) return !m_stopped;
    if (m_how.progress) show_progress();
    m_stopped |= stop_is_wanted();
    return !m_stopped;
  }
  [[nodiscard]] bool stopped() const { return m_stopped; }
  void end_progress() const {
    if (m_how.progress) (void)std::fputs("\r\x1b[K", stderr);
  }

 private:
  void show_progress() const {
    const auto percent = m_done * 100 / (words_of_march * count());
    if (percent < 100)
      (void)std::fprintf(stderr, "\r%s: cells, %u %%", m_part.c_str(), static_cast<unsigned>(percent));
    else
      (void)std::fprintf(stderr, "\r%s: cells, what disturbs them\x1b[K", m_part.c_str());
  }

  word_bus *m_ram;
  const settings &m_how;
  std::string m_part;
  std::vector<uint16_t> m_own;
  uint64_t m_done = 0;
  bool m_stopped = false;
};

// ---- which cells fail

// The bits that read wrong, by their words.
using failing_bits = std::map<uint32_t, uint16_t>;

// An element of the march: to each word in turn, r and w read and write its own contents, R and W the inverse.
struct element {
  bool up;
  std::string_view operations;
};
// March SS, and its end: two writes of a word that each invert another cell cancel out, one does not.
constexpr element elements[] = {{true, "w"}, {true, "rrwrW"}, {true, "RRWRw"}, {false, "rrwrW"}, {false, "RRWRw"},
                                {true, "r"}, {true, "W"},     {true, "R"},     {false, "w"},     {true, "r"}};

// Two of the words' bits differ in one of these; with their inverses, own and inverse contents, each pair has all
// levels.
constexpr uint16_t patterns[] = {0x5555, 0x3333, 0x0F0F, 0x00FF};
// From each of four states to each other.
constexpr uint8_t tour[] = {1, 0, 2, 0, 3, 1, 2, 1, 3, 2, 3, 0};

class march {
 public:
  explicit march(words *all) : m_all(all) {}

  failing_bits run() {
    for (const auto &one : elements)
      run(one);
    for (uint32_t word = 0; word < m_all->count() && m_all->advance(); ++word)
      for (const auto pattern : patterns)
        run_tour(word, pattern);
    return std::move(m_failing);
  }

 private:
  void run(const element &one) {
    const auto count = m_all->count();
    for (uint32_t i = 0; i < count && m_all->advance(); ++i) {
      const auto word = one.up ? i : count - 1 - i;
      for (const char operation : one.operations) {
        const auto value = operation == 'r' || operation == 'w' ? m_all->own(word) : m_all->inverse(word);
        operation == 'r' || operation == 'R' ? check(word, value) : m_all->write(word, value);
      }
    }
  }

  void run_tour(uint32_t word, uint16_t pattern) {
    const uint16_t states[] = {0, 0xFFFF, pattern, static_cast<uint16_t>(~pattern)};
    for (const auto next : tour) {
      const auto value = static_cast<uint16_t>(m_all->own(word) ^ states[next]);
      m_all->write(word, value);
      check(word, value);
      check(word, value);
    }
  }

  void check(uint32_t word, uint16_t value) {
    const auto wrong = static_cast<uint16_t>(m_all->read(word) ^ value);
    if (wrong != 0) m_failing[word] |= wrong;
  }

  words *m_all;
  failing_bits m_failing;
};

// ---- what disturbs a cell

// Words [first, last), without that of the victim.
struct word_range {
  uint32_t first;
  uint32_t last;
};

class search {
 public:
  search(words *all, const cell &victim) : m_all(all), m_victim(victim) {}

  // The word that has the disturbing cell, if it is not the victim's own.
  std::optional<uint32_t> run() {
    for (const auto &disturb : {&search::by_state, &search::by_inverse_state, &search::by_change, &search::by_read})
      for (const bool level : {false, true})
        if (const auto found = halve(disturb, level)) return found;
    return std::nullopt;
  }

 private:
  // Lets words disturb the victim, which should keep a level. Returns whether it fails.
  using disturbance = bool (search::*)(word_range range, bool level);

  std::optional<uint32_t> halve(disturbance disturb, bool level) {
    word_range range{0, m_all->count()};
    if (!(this->*disturb)(range, level) || (this->*disturb)({0, 0}, level)) return std::nullopt;
    while (range.last - range.first > 1 && !m_all->stopped()) {
      const auto middle = range.first + (range.last - range.first) / 2;
      ((this->*disturb)({range.first, middle}, level) ? range.last : range.first) = middle;
    }
    if (!(this->*disturb)(range, level)) return std::nullopt;
    return range.first;
  }

  template <typename Do>
  void for_each(word_range range, Do work) {
    for (uint32_t word = range.first; word < range.last && m_all->advance(); ++word)
      if (word != m_victim.word) work(word);
  }

  void write_victim(bool level) {
    const auto mask = static_cast<uint16_t>(1U << m_victim.bit);
    const auto rest = static_cast<uint16_t>(m_all->own(m_victim.word) & ~mask);
    m_all->write(m_victim.word, level ? static_cast<uint16_t>(rest | mask) : rest);
  }
  bool reads_wrong(bool level) {
    return (unsigned{m_all->read(m_victim.word)} >> m_victim.bit & 1U) != static_cast<unsigned>(level);
  }

  // All that can be done to a cell, while other cells have their levels.
  bool fails_alone(bool level) {
    write_victim(!level);
    write_victim(level);
    bool wrong = reads_wrong(level);
    wrong |= reads_wrong(level);
    write_victim(level);
    return reads_wrong(level) || wrong;
  }

  bool by_state(word_range range, bool level) { return by_states(range, level, false); }
  bool by_inverse_state(word_range range, bool level) { return by_states(range, level, true); }
  bool by_states(word_range range, bool level, bool inverse) {
    for_each({0, m_all->count()}, [&](uint32_t word) {
      const bool inside = word >= range.first && word < range.last;
      m_all->write(word, inside != inverse ? m_all->own(word) : m_all->inverse(word));
    });
    return fails_alone(level);
  }

  bool by_change(word_range range, bool level) {
    for_each(range, [&](uint32_t word) { m_all->write(word, m_all->own(word)); });
    write_victim(level);
    for_each(range, [&](uint32_t word) { m_all->write(word, m_all->inverse(word)); });
    const bool wrong = reads_wrong(level);
    write_victim(level);
    for_each(range, [&](uint32_t word) { m_all->write(word, m_all->own(word)); });
    return reads_wrong(level) || wrong;
  }

  bool by_read(word_range range, bool level) {
    write_victim(level);
    for_each(range, [&](uint32_t word) { (void)m_all->read(word); });
    return reads_wrong(level);
  }

  words *m_all;
  cell m_victim;
};

// ---- which kind of fault it is

// Accesses to the victim's word and to that of the disturbing cell, all in all states.
class trial {
 public:
  trial(words *all, uint32_t victim, uint32_t other) : m_all(all), m_victim(victim), m_other(other) {}

  std::vector<nvram_access> run() {
    for (const bool inverse : {false, true})
      for (const bool other_inverse : {false, true})
        run(inverse ? m_all->inverse(m_victim) : m_all->own(m_victim),
            other_inverse ? m_all->inverse(m_other) : m_all->own(m_other));
    return std::move(m_log);
  }

 private:
  void read(uint32_t word) { m_log.push_back({2 * word, m_all->read(word), false}); }
  void write(uint32_t word, uint16_t value) {
    m_log.push_back({2 * word, value, true});
    m_all->write(word, value);
  }
  void write_and_read(uint16_t value) {
    write(m_victim, value);
    read(m_victim);
    read(m_victim);
  }

  void run(uint16_t value, uint16_t other) {
    const auto inverse = static_cast<uint16_t>(~value);
    write(m_other, other);
    for (const auto next : {value, value, inverse, inverse, value})
      write_and_read(next);
    if (m_other != m_victim) disturb(value, other);
    for (unsigned bit = 0; bit < 16; ++bit)
      for (const auto next : {static_cast<uint16_t>(value ^ 1U << bit), value})
        write_and_read(next);
  }

  void disturb(uint16_t value, uint16_t other) {
    read(m_other);
    read(m_victim);
    write(m_victim, value);
    write(m_other, other);
    read(m_victim);
    for (unsigned bit = 0; bit < 16; ++bit) {
      write(m_victim, value);
      write(m_other, static_cast<uint16_t>(other ^ 1U << bit));
      read(m_victim);
      for (const auto next : {static_cast<uint16_t>(~value), value})
        write_and_read(next);
      write(m_other, other);
      read(m_victim);
    }
  }

  words *m_all;
  uint32_t m_victim;
  uint32_t m_other;
  std::vector<nvram_access> m_log;
};

// The faults that give these answers.
std::vector<models::chip_fault> kinds_of(std::span<const nvram_access> log, const cell &victim, uint32_t other) {
  std::vector<models::chip_fault> fits;
  for (const auto &kind : models::cell_variants(models::memory_kind::nvram)) {
    models::chip_fault fault{.id = kind.id, .level = kind.level, .vlevel = kind.vlevel};
    if (kind.two_cells) {
      fault.victim = victim.offset();
      fault.vbit = static_cast<uint8_t>(victim.bit % 8);
    }
    for (unsigned bit = 0; bit < 16; ++bit) {
      // A fault of one cell is the victim's own, one of two cells is of another.
      const cell bad{kind.two_cells ? other : victim.word, bit};
      if ((bad.word == victim.word && bit == victim.bit) == kind.two_cells) continue;
      fault.offset = bad.offset();
      fault.bit = static_cast<uint8_t>(bit % 8);
      if (models::cell_gives(fault, log)) fits.push_back(fault);
    }
  }
  return fits;
}

std::string_view what_of(const models::chip_fault &fault) {
  for (const auto &kind : models::cell_variants(models::memory_kind::nvram))
    if (kind.id == fault.id) return kind.what;
  return "";
}

// ", 0x0456 bit 7", ", in the word at 0x0456"
std::string disturbing_text(std::span<const models::chip_fault> fits) {
  const auto &first = fits[0];
  const bool one_cell = std::ranges::all_of(
      fits, [&](const auto &fault) { return fault.offset == first.offset && fault.bit == first.bit; });
  if (!one_cell) return ", in the word at " + hex(first.offset & ~1U, 4);
  return ", " + hex(first.offset, 4) + " bit " + std::to_string(first.bit);
}

finding cell_finding(words *all, const cell &victim, unsigned instance) {
  const auto disturbing = search(all, victim).run();
  const auto other = disturbing.value_or(victim.word);
  const auto log = trial(all, victim.word, other).run();
  const auto fits = kinds_of(log, victim, other);
  finding what{
      .sentence = "Cell " + victim.text() + " of NVRAM " + std::to_string(instance),
      .evidence = {"the march found its bit wrong; then " + std::to_string(log.size()) + " accesses to the words at " +
                       hex(2 * victim.word, 4) + (disturbing ? " and " + hex(2 * other, 4) : ""),
                   "the first of these words may have changed in this bit"},
      .next = "replace the chip",
      .places = {"nvram" + std::to_string(instance)}};
  for (const auto &fault : fits)
    what.candidates.push_back(models::notation(fault, instance));
  if (fits.empty()) {
    const bool alone = models::gives(nullptr, log);
    what.intermittent = alone || trial(all, victim.word, other).run() != log;
    what.sentence +=
        alone ? " failed, but not when it was tried alone: it or a line is bad at times, or several cells disturb it."
        : what.intermittent ? " fails at times."
                            : " fails as no single fault does.";
    what.next = "measure the lines often, --repeat 1000, then replace the chip";
    return what;
  }
  what.sentence += " is bad: " + std::string(what_of(fits[0]));
  if (models::is_coupling_fault(fits[0].id)) what.sentence += disturbing_text(fits);
  what.sentence += ".";
  return what;
}

// ---- the contents

// Whether a word reads wrong twice: once may be a line that is bad at times.
bool is_wrong(words *all, uint32_t word) {
  return all->read(word) != all->own(word) && all->read(word) != all->own(word);
}

// Writes every word until all read back. Few words that failed have bad cells and come last: a read may invert such a
// cell, which the second read shows; a write of what it holds may do so, too. Returns how many of the others do not
// read back.
size_t restore(words *all, const failing_bits &failing) {
  constexpr int tries = 8;
  const bool bad_cells = failing.size() <= most_cells;
  for (uint32_t word = 0; word < all->count(); ++word)
    all->write(word, all->own(word));
  size_t wrong = 1;
  for (int i = 0; i < tries && wrong != 0; ++i) {
    wrong = 0;
    for (uint32_t word = 0; word < all->count(); ++word) {
      if ((bad_cells && failing.contains(word)) || !is_wrong(all, word)) continue;
      all->write(word, all->own(word));
      ++wrong;
    }
  }
  for (const auto &[word, bits] : failing) {
    if (!bad_cells) break;
    bool differs = all->read(word) != all->own(word);
    differs |= all->read(word) != all->own(word);
    if (differs) all->write(word, all->own(word));
  }
  return wrong;
}

bool keep_all(const words &all, journal *kept) {
  std::vector<kept_word> list;
  list.reserve(all.count());
  for (uint32_t word = 0; word < all.count(); ++word)
    list.push_back({2 * word, all.own(word)});
  return kept->keep(list);
}

// "0x0 0x2 and others"
std::string few_text(std::span<const uint32_t> list, const char *after_all) {
  std::string few;
  for (const auto word : list.first(std::min(list.size(), most_cells)))
    few += (few.empty() ? "" : " ") + hex(2 * word);
  return few + (list.size() > most_cells ? " and others" : after_all);
}

// What is read wrong at first would be restored wrong.
void report_unsteady(std::span<const uint32_t> list, unsigned instance, part_result *result) {
  const auto number = std::to_string(instance);
  add_finding({.sentence = "Words of NVRAM " + number + " change from read to read.",
               .evidence = {std::to_string(list.size()) +
                            " words differ when read again: " + few_text(list, ", which may have changed")},
               .intermittent = true,
               .next = "measure the lines often: --repeat 1000; check supply and contacts",
               .places = {"nvram" + number}},
              result);
}

// More than a few cells: a line that is bad at times does that, too, and no access shows which it is.
void report_many(std::span<const cell> cells, std::span<const uint32_t> failed, unsigned instance,
                 part_result *result) {
  const auto number = std::to_string(instance);
  const auto bit = cells[0].bit;
  finding what{.sentence = std::to_string(cells.size()) + " cells of NVRAM " + number + " fail",
               .evidence = {"words with wrong bits: " + few_text(failed, "")},
               .intermittent = true,
               .next = "measure the lines often: --repeat 1000; then replace the chip",
               .places = {"nvram" + number}};
  if (std::ranges::all_of(cells, [bit](const auto &one) { return one.bit == bit; }))
    what.sentence += ", all in bit " + std::to_string(bit) + " of their words";
  what.sentence += ": a line is bad at times, or the chip is.";
  add_finding(std::move(what), result);
}

void report_lost(size_t count, unsigned instance, journal *kept, part_result *result) {
  const auto number = std::to_string(instance);
  finding what{.sentence = "NVRAM " + number + " does not hold its contents: " + std::to_string(count) +
                           (count == 1 ? " word." : " words."),
               .evidence = {"restored and read back several times"},
               .next = "measure the lines often: --repeat 1000",
               .places = {"nvram" + number}};
  if (const auto path = kept->set_aside()) {
    what.evidence.push_back("what the words held is in " + *path);
    what.next += "; after the repair give this file the name " + kept->path() + ", and the next start restores them";
  }
  add_finding(std::move(what), result);
}

}  // namespace

std::vector<uint32_t> locate_cells(word_bus *ram, unsigned instance, const settings &how, journal *kept,
                                   part_result *result) {
  words all(ram, how, "nvram" + std::to_string(instance));
  // Reads may invert a bad cell.
  auto unsteady = all.unsteady();
  if (unsteady.size() > most_cells) {
    report_unsteady(unsteady, instance, result);
    add_omission("The cells were not tested: words change from read to read.", result);
    return {};
  }
  if (!keep_all(all, kept)) {
    add_omission("The cells were not tested: their contents cannot be written down first, " + kept->error() + ".",
                 result);
    return {};
  }
  const auto failing = march(&all).run();
  std::vector<uint32_t> failed;
  std::vector<cell> cells;
  for (const auto &[word, bits] : failing) {
    failed.push_back(word);
    for (unsigned bit = 0; bit < 16; ++bit)
      if ((bits >> bit & 1U) != 0) cells.push_back({word, bit});
  }
  if (cells.size() > most_cells) {
    report_many(cells, failed, instance, result);
  } else {
    for (const auto &one : cells)
      if (!all.stopped()) add_finding(cell_finding(&all, one, instance), result);
  }
  const auto lost = restore(&all, failing);
  all.end_progress();
  if (lost != 0) report_lost(lost, instance, kept, result);
  std::erase_if(unsteady, [&](uint32_t word) { return failing.contains(word) && failing.size() <= most_cells; });
  if (!unsteady.empty()) report_unsteady(unsteady, instance, result);
  if (all.stopped())
    add_omission("The cells were not tested to the end: a signal came.", result);
  else
    result->looked_at.emplace_back("every cell");
  return failed;
}

}  // namespace locate
