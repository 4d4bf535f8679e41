#include "lab/explain_flash_cells.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cstdio>
#include <map>
#include <span>

#include "lab/explain_faults.h"
#include "lab/explain_flash_run.h"

namespace lab {
namespace {

constexpr uint32_t sector_words = chip_sector_bytes / 2;
constexpr uint32_t page_words = chip_page_bytes / 2;
constexpr uint32_t all_words = chip_sectors * sector_words;

// ---- sets of words

// Words from low to high, numbered within the chip, in increasing order.
struct word_range {
  uint32_t low;
  uint32_t high;

  friend auto operator<=>(const word_range &, const word_range &) = default;
};
using word_set = std::vector<word_range>;

word_set joined(word_set ranges) {
  std::ranges::sort(ranges, {}, &word_range::low);
  word_set all;
  for (const auto &one : ranges) {
    if (!all.empty() && one.low <= all.back().high + 1)
      all.back().high = std::max(all.back().high, one.high);
    else
      all.push_back(one);
  }
  return all;
}

// The part from low to high.
word_set within(const word_set &words, uint32_t low, uint32_t high) {
  word_set part;
  for (const auto &one : words) {
    const word_range common{std::max(one.low, low), std::min(one.high, high)};
    if (common.low <= common.high) part.push_back(common);
  }
  return part;
}

uint64_t size_of(const word_set &words) {
  uint64_t size = 0;
  for (const auto &one : words)
    size += one.high - one.low + 1;
  return size;
}

// ---- what the test does with a word of a sector that it tests

enum class act : uint8_t {
  save,
  erase,
  read,
  program,  // of a list
  page_programmed,
  check,
  list_checked,
  last_erase,
  restore,
  page_restored,
  others,  // another word of the sector was programmed
};

struct moment {
  uint32_t time;
  act what;
  uint16_t data = 0;
};

// Times, in the order of a sector's test.
constexpr uint32_t erase_time = 100'000;
constexpr uint32_t list_time = 200'000;
constexpr uint32_t list_length = 100'000;
constexpr uint32_t last_erase_time = 900'000;
constexpr uint32_t restore_time = 1'000'000;

uint32_t time_of_list(size_t list) {
  return list_time + static_cast<uint32_t>(list) * list_length;
}

void add_list(const flash_list &list, uint32_t start, uint32_t word, std::vector<moment> *moments) {
  for (uint32_t i = 0; i < list.data.size(); ++i) {
    if (list.addresses[i] / 2 != word) continue;
    moments->push_back({start + 10 * i, act::program, list.data[i]});
    moments->push_back({start + 5000 + i, act::check, list.data[i]});
    // The wait for a page ends with reads of its last word.
    if (end_of_page(list, i) != i + 1) continue;
    moments->push_back({start + 10 * i + 2, act::read});
    moments->push_back({start + 10 * i + 3, act::read});
  }
}

// What happens to one word in one test of its sector.
std::vector<moment> moments_of(const flash_sector_test &test, uint32_t word) {
  const uint32_t base = test.sector * sector_words;
  const uint32_t number = word - base;
  std::vector<moment> moments{{number, act::save}};
  for (const auto start : {erase_time, last_erase_time})
    if (number == 0)
      for (const uint32_t i : {1U, 2U})
        moments.push_back({start + i, act::read});
  for (size_t i = 0; i < test.lists.size(); ++i)
    add_list(test.lists[i], time_of_list(i), word, &moments);
  const uint32_t page = restore_time + number / page_words * 100;
  moments.push_back({page + number % page_words, act::restore});
  moments.push_back({page + 50, act::page_restored});
  if (number % page_words == page_words - 1)
    for (const uint32_t i : {51U, 52U})
      moments.push_back({page + i, act::read});
  if (test.lists[0].addresses[0] / 2 != word) moments.push_back({list_time + 1, act::others});
  if (number != 0) moments.push_back({restore_time, act::others});
  return moments;
}

// What happens in the test of a sector whatever the word.
std::vector<moment> common_moments(const flash_sector_test &test) {
  std::vector<moment> moments{{erase_time, act::erase}, {last_erase_time, act::last_erase}};
  for (size_t list = 0; list < test.lists.size(); ++list) {
    const auto start = time_of_list(list);
    for (size_t first = 0; first < test.lists[list].data.size();) {
      first = end_of_page(test.lists[list], first);
      moments.push_back({start + 10 * static_cast<uint32_t>(first - 1) + 1, act::page_programmed});
    }
    moments.push_back({start + 9000, act::list_checked});
  }
  return moments;
}

// ---- the test of a sector with a pair of cells

struct cell_at {
  uint32_t word;
  unsigned bit;
};

struct timed {
  uint32_t time;
  act what;
  cell_access at;
  bool first;
  bool second;
  uint16_t data;
};

// All that happens to a pair of cells in one test. Without a victim both are the same.
std::vector<timed> timeline(const flash_sector_test &test, const cell_at &first, const cell_at &second) {
  std::vector<timed> all;
  const auto is_inside = [&](const cell_at &cell) { return cell.word / sector_words == test.sector; };
  const auto add = [&](const std::vector<moment> &moments, bool of_first, bool of_second) {
    for (const auto &one : moments)
      all.push_back({one.time,
                     one.what,
                     {of_first, of_second},
                     of_first && (one.data >> first.bit & 1) != 0,
                     of_second && (one.data >> second.bit & 1) != 0,
                     one.data});
  };
  add(common_moments(test), is_inside(first), is_inside(second));
  if (is_inside(first)) add(moments_of(test, first.word), true, first.word == second.word);
  if (is_inside(second) && first.word != second.word) add(moments_of(test, second.word), false, true);
  std::ranges::stable_sort(all, {}, &timed::time);
  return all;
}

class sector_run {
 public:
  sector_run(const cell_fault &fault, uint32_t word, const cell_at &seen)
      : m_two_cells(fault.two_cells()), m_word(word), m_seen(seen) {}

  // Whether the test goes on with the next sector.
  bool run(std::span<const timed> timeline, cell_pair *cells);

  std::vector<flash_event> events;

 private:
  bool fail(flash_line line) {
    events.push_back({flash_line::gave_up});
    events.push_back({line});
    return false;
  }
  void save(const timed &one, cell_pair *cells);
  void check(const timed &one, bool seen);
  [[nodiscard]] bool step(const timed &one, cell_pair *cells);

  bool m_two_cells;
  uint32_t m_word;  // of the cell that reads wrong
  cell_at m_seen;
  bool m_saved_first = false;  // of this test of the sector
  bool m_saved_second = false;
  bool m_list_failed = false;
  bool m_bad = false;
  bool m_mismatch = false;
};

void sector_run::check(const timed &one, bool seen) {
  if (!(m_two_cells ? one.at.second : one.at.first) || m_mismatch) return;
  if (seen == (m_two_cells ? one.second : one.first)) return;
  m_mismatch = true;
  events.push_back({flash_line::mismatch, 2 * m_word, one.data, one.data ^ 1U << m_seen.bit});
}

void sector_run::save(const timed &one, cell_pair *cells) {
  const bool seen = cells->read(one.at);
  if (one.at.first) m_saved_first = m_two_cells ? cells->first() : seen;
  if (one.at.second) m_saved_second = seen;
}

// Returns whether the test of the sector goes on.
bool sector_run::step(const timed &one, cell_pair *cells) {
  switch (one.what) {
    case act::save:
      save(one, cells);
      return true;
    case act::erase:
    case act::last_erase:
      return cells->erase(one.at) || fail(flash_line::erase_failed);
    case act::read:
      (void)cells->read(one.at);
      return true;
    case act::program:
      m_bad |= !cells->program(one.at, one.first, one.second);
      return true;
    case act::page_programmed:
      return !m_bad || fail(flash_line::write_failed);
    case act::check:
      check(one, cells->read(one.at));
      return true;
    case act::list_checked:
      m_list_failed = m_mismatch;
      return true;
    case act::restore:
      m_bad |= !cells->program(one.at, m_saved_first, m_saved_second);
      return true;
    case act::page_restored:
      return !m_bad || fail(flash_line::restore_failed);
    case act::others:
      (void)cells->program({}, false, false);
      return true;
  }
  return true;
}

bool sector_run::run(std::span<const timed> timeline, cell_pair *cells) {
  m_saved_first = m_saved_second = m_list_failed = false;
  for (const auto &one : timeline) {
    const bool in_list = one.time >= list_time && one.time < last_erase_time;
    if (m_list_failed && in_list) continue;
    if (!step(one, cells)) return false;
  }
  return !m_mismatch;
}

// The tests of a sector: sector 0 has two.
using timelines = std::vector<std::vector<timed>>;

timelines timelines_of(uint32_t sector, const cell_at &first, const cell_at &second) {
  timelines all;
  for (const auto &test : flash_sector_tests())
    if (test.sector == sector) all.push_back(timeline(test, first, second));
  return all;
}

std::vector<flash_event> prints(const cell_fault &fault, const timelines &tests, const cell_at &seen,
                                unsigned contents) {
  cell_pair cells(fault, (contents & 1) != 0, (contents & 2) != 0);
  sector_run run(fault, seen.word, seen);
  for (const auto &one : tests)
    if (!run.run(one, &cells)) break;
  return run.events;
}

// Behind a write that failed the chip stays as it is, and the erase before the sector is written back does nothing.
// That fails then, unless a word written back looks like a reset command.
bool prints_fit(const std::vector<flash_event> &printed, const std::vector<flash_event> &events, bool whole) {
  if (flash_events_fit(printed, events, whole)) return true;
  if (printed.empty() || printed.back().what != flash_line::write_failed) return false;
  auto longer = printed;
  longer.push_back({flash_line::gave_up});
  longer.push_back({flash_line::restore_failed});
  return flash_events_fit(longer, events, whole);
}

struct match {
  bool some = false;
  bool all = true;
};

match match_of(const cell_fault &fault, const timelines &tests, const cell_at &seen,
               const std::vector<flash_event> &events, bool whole) {
  match found;
  for (const unsigned contents : {0U, 1U, 2U, 3U}) {
    const auto printed = prints(fault, tests, seen, contents);
    const bool fits = !printed.empty() && prints_fit(printed, events, whole);
    found.some |= fits;
    found.all &= fits && printed.back().what != flash_line::write_failed;
  }
  return found;
}

// ---- words that are alike

// Words with which the test of a sector does the same but for the time, and bits of theirs.
struct cell_class {
  word_set words;
  uint16_t bits;
  bool outside = false;  // of the sector

  [[nodiscard]] bool is_one_word() const { return words.size() == 1 && words[0].low == words[0].high; }
  [[nodiscard]] cell_class part(uint32_t low, uint32_t high) const { return {within(words, low, high), bits, outside}; }
  // A cell of the first or the last word, in the lowest or the highest of the bits.
  [[nodiscard]] cell_at cell(bool last_word, bool high_bit) const {
    const auto bit = high_bit ? 15 - std::countl_zero(bits) : std::countr_zero(bits);
    return {last_word ? words.back().high : words.front().low, static_cast<unsigned>(bit)};
  }
};

// The words that the lists write in a sector, with what they write.
std::map<uint32_t, uint16_t> list_words_of(uint32_t sector) {
  std::map<uint32_t, uint16_t> words;
  for (const auto &test : flash_sector_tests()) {
    if (test.sector != sector) continue;
    for (const auto &list : test.lists)
      for (size_t i = 0; i < list.data.size(); ++i)
        words[list.addresses[i] / 2] = list.data[i];
  }
  return words;
}

std::vector<cell_class> classes_of(uint32_t sector) {
  const uint32_t base = sector * sector_words;
  auto special = list_words_of(sector);
  std::vector<cell_class> classes;
  for (const auto &[word, data] : special)
    for (const auto bits : {data, static_cast<uint16_t>(~data)})
      if (bits != 0) classes.push_back({{{word, word}}, bits, false});
  if (special.try_emplace(base).second) classes.push_back({{{base, base}}, 0xFFFF, false});
  cell_class plain{{}, 0xFFFF, false};
  cell_class page_ends{{}, 0xFFFF, false};
  for (uint32_t word = base; word < base + sector_words; ++word)
    if (!special.contains(word))
      (word % page_words == page_words - 1 ? page_ends : plain).words.push_back({word, word});
  plain.words = joined(std::move(plain.words));
  classes.push_back(std::move(plain));
  classes.push_back(std::move(page_ends));
  return classes;
}

cell_class outside_of(uint32_t sector) {
  const uint32_t base = sector * sector_words;
  cell_class cells{{}, 0xFFFF, true};
  if (base > 0) cells.words.push_back({0, base - 1});
  if (base + sector_words < all_words) cells.words.push_back({base + sector_words, all_words - 1});
  return cells;
}

// ---- groups

std::string bit_list(unsigned mask) {
  std::vector<uint32_t> list;
  for (uint32_t bit = 0; bit < 8; ++bit)
    if ((mask >> bit & 1) != 0) list.push_back(bit);
  return number_list(list, false);
}

// Bytes of words: the lower ones, the higher ones or both.
std::string byte_list(const word_set &words, bool lower, bool higher) {
  std::vector<uint32_t> numbers;
  constexpr size_t many = 64;
  const uint32_t first = lower ? 0 : 1;
  const uint32_t last = higher ? 1 : 0;
  const uint32_t step = lower && higher ? 1 : 2;
  if (words.size() > many) {
    for (const auto &one : words)
      for (uint32_t byte = 2 * one.low + first; byte <= 2 * one.high + last; byte += step)
        numbers.push_back(byte);
    return number_list(numbers, true);
  }
  std::string text;
  for (const auto &one : words) {
    const std::array ends{2 * one.low + first, 2 * one.high + last};
    if (!text.empty()) text += ",";
    text += number_list(std::span(ends).first(1), true);
    if (ends[0] == ends[1]) continue;
    text += ".." + number_list(std::span(ends).last(1), true);
    if (step > 1) text += "/2";
  }
  return text;
}

// Cells as an offset and a bit: where the two bytes of the words differ in their bits, one after the other.
struct cell_values {
  std::string offsets;
  std::string bits;
  uint64_t count;
};

std::vector<cell_values> values_of(const word_set &words, uint16_t bits) {
  const unsigned low = bits & 0xFFU;
  const unsigned high = bits >> 8U;
  const auto count = [&words](unsigned mask) { return size_of(words) * static_cast<uint64_t>(std::popcount(mask)); };
  if (low == high) return {{byte_list(words, true, true), bit_list(low), 2 * count(low)}};
  std::vector<cell_values> values;
  if (low != 0) values.push_back({byte_list(words, true, false), bit_list(low), count(low)});
  if (high != 0) values.push_back({byte_list(words, false, true), bit_list(high), count(high)});
  return values;
}

uint64_t places_of(const cell_class &cells) {
  return size_of(cells.words) * static_cast<uint64_t>(std::popcount(cells.bits));
}

std::string place_text(const cell_class &cells) {
  if (!cells.is_one_word()) {
    const bool page_ends = cells.words[0].low % page_words == page_words - 1 && cells.words.size() > 1;
    return "a cell of sector " + std::to_string(cells.words[0].low / sector_words) + (page_ends ? ", page end" : "");
  }
  const auto offset = 2 * cells.words[0].low;
  char text[48];
  if (std::has_single_bit(cells.bits))
    (void)std::snprintf(text, sizeof text, "cell 0x%x bit %d", offset + (cells.bits > 0xFF ? 1U : 0U),
                        std::countr_zero(cells.bits) % 8);
  else
    (void)std::snprintf(text, sizeof text, "a cell of word 0x%x (bits 0x%04x)", offset, unsigned{cells.bits});
  return text;
}

// Where the victim lies.
enum class relation : uint8_t { anywhere, later, earlier, same_word };

class finder {
 public:
  finder(const std::vector<flash_event> &events, bool whole, std::vector<fault_group> *groups)
      : m_events(events), m_whole(whole), m_groups(groups), m_variants(cell_variants(memory_kind::flash)) {}

  void find_in(uint32_t sector);

 private:
  struct pair_class {
    cell_class first;
    cell_class second;
    relation lies;
  };

  // First cells that stand in words of their own, with one second class: words by what they are found with.
  struct pair_key {
    size_t variant;
    std::vector<word_range> second;
    uint16_t second_bits;
    bool contents;

    friend auto operator<=>(const pair_key &, const pair_key &) = default;
  };
  using first_words = std::map<std::vector<word_range>, uint16_t>;

  [[nodiscard]] std::vector<cell_class> visible(const std::vector<cell_class> &classes) const;
  void one_cell(uint32_t sector, const cell_class &cells);
  void two_cells(uint32_t sector, const cell_class &first, const cell_class &second);
  void try_pair(uint32_t sector, const cell_at &first, const cell_at &second, const pair_class &stands_for);
  void in_one_word(uint32_t sector, const cell_class &first, const cell_class &second);
  void add_pair(const cell_variant &variant, const pair_class &cells, bool contents);
  void add_pairs();
  void push(const cell_variant &variant, const pair_class &cells, const cell_values &first, const cell_values &second,
            bool contents);
  [[nodiscard]] static fault_group group_of(const cell_variant &variant);

  const std::vector<flash_event> &m_events;
  bool m_whole;
  std::vector<fault_group> *m_groups;
  std::vector<cell_variant> m_variants;
  std::map<pair_key, first_words> m_pairs;
};

fault_group finder::group_of(const cell_variant &variant) {
  auto group = group_named(std::string(variant.name), {});
  group.how = variant.what;
  if (variant.fault.kind == cell_kind::stuck) group.how += " at " + std::string(variant.levels[0]);
  return group;
}

// A mismatch shows the word, and by one wrong bit the cell, that reads wrong.
std::vector<cell_class> finder::visible(const std::vector<cell_class> &classes) const {
  const auto &event = m_events.front();
  if (event.what != flash_line::mismatch) return classes;
  std::vector<cell_class> some;
  for (const auto &one : classes) {
    if (!one.is_one_word() || (event.address && *event.address / 2 != one.words[0].low)) continue;
    some.push_back(one);
    if (event.data && event.read) some.back().bits &= static_cast<uint16_t>(*event.data ^ *event.read);
    const bool one_bit = !event.data || !event.read || std::has_single_bit(*event.data ^ *event.read);
    if (some.back().bits == 0 || !one_bit) some.pop_back();
  }
  return some;
}

void finder::one_cell(uint32_t sector, const cell_class &cells) {
  const auto cell = cells.cell(true, true);
  const auto tests = timelines_of(sector, cell, cell);
  for (const auto &variant : m_variants) {
    if (variant.fault.two_cells()) continue;
    const auto match = match_of(variant.fault, tests, cell, m_events, m_whole);
    if (!match.some) continue;
    const bool relative = variant.fault.kind == cell_kind::spoiled;
    auto words = cells.words;
    for (auto &one : words)
      if (relative) one = {one.low % sector_words, one.high % sector_words};
    for (const auto &values : values_of(words, cells.bits)) {
      auto group = group_of(variant);
      if (relative) group.values.emplace_back("sector", std::to_string(sector));
      group.values.emplace_back("offset", values.offsets);
      group.values.emplace_back("bit", values.bits);
      if (!variant.levels[0].empty()) group.values.emplace_back("level", variant.levels[0]);
      group.count = values.count;
      group.places = places_of(cells);
      group.where = place_text(cells);
      group.contents = !match.all;
      m_groups->push_back(std::move(group));
    }
  }
}

void finder::try_pair(uint32_t sector, const cell_at &first, const cell_at &second, const pair_class &stands_for) {
  const auto tests = timelines_of(sector, first, second);
  for (size_t i = 0; i < m_variants.size(); ++i) {
    if (!m_variants[i].fault.two_cells()) continue;
    const auto match = match_of(m_variants[i].fault, tests, second, m_events, m_whole);
    if (!match.some) continue;
    if (stands_for.lies == relation::anywhere)
      m_pairs[{i, stands_for.second.words, stands_for.second.bits, !match.all}][stands_for.first.words] |=
          stands_for.first.bits;
    else
      add_pair(m_variants[i], stands_for, !match.all);
  }
}

// First cells of all words that differ in nothing but the word are one group.
void finder::add_pairs() {
  for (const auto &[key, words] : m_pairs) {
    std::map<uint16_t, word_set> by_bits;
    for (const auto &[ranges, bits] : words)
      by_bits[bits].insert(by_bits[bits].end(), ranges.begin(), ranges.end());
    for (auto &[bits, ranges] : by_bits)
      add_pair(m_variants[key.variant],
               {{joined(ranges), bits, false}, {key.second, key.second_bits, false}, relation::anywhere}, key.contents);
  }
  m_pairs.clear();
}

// Pairs of cells in one word.
void finder::in_one_word(uint32_t sector, const cell_class &first, const cell_class &second) {
  const bool same_bits = first.bits == second.bits;
  if (same_bits && std::has_single_bit(first.bits)) return;
  const auto one = first.cell(false, false);
  auto other = second.cell(false, same_bits);
  if (one.bit == other.bit) other = second.cell(false, true);
  try_pair(sector, one, other, {first, second, relation::same_word});
}

// The pairs of two classes, by the order of their words in time.
void finder::two_cells(uint32_t sector, const cell_class &first, const cell_class &second) {
  const auto try_parts = [&](const cell_class &a, const cell_class &b, relation lies) {
    if (a.words.empty() || b.words.empty()) return;
    const bool ahead = lies == relation::later;
    try_pair(sector, a.cell(!ahead && lies == relation::earlier, false), b.cell(ahead, false), {a, b, lies});
  };
  if (first.outside) return try_parts(first, second, relation::anywhere);
  if (first.words == second.words) in_one_word(sector, first, second);
  if (!first.is_one_word() && !second.is_one_word()) {
    try_parts(first, second, relation::later);
    try_parts(first, second, relation::earlier);
    return;
  }
  const auto &one = first.is_one_word() ? first : second;
  const auto word = one.words[0].low;
  for (const auto &[low, high] : {std::pair{0U, word - std::min(word, 1U)}, std::pair{word + 1, all_words}}) {
    if (low == 0 && word == 0) continue;
    if (&one == &first)
      try_parts(first, second.part(low, high), relation::anywhere);
    else
      try_parts(first.part(low, high), second, relation::anywhere);
  }
}

void finder::push(const cell_variant &variant, const pair_class &cells, const cell_values &first,
                  const cell_values &second, bool contents) {
  auto group = group_of(variant);
  const bool many = !cells.first.is_one_word();
  const std::string offset_suffix = many && cells.lies == relation::earlier ? ">>victim" : "";
  const std::string victim_suffix = !many                               ? ""
                                    : cells.lies == relation::later     ? ">>offset"
                                    : cells.lies == relation::same_word ? "~offset"
                                                                        : "";
  const auto limited = [](std::string list, const std::string &suffix) {
    for (size_t at = suffix.empty() ? std::string::npos : list.find(','); at != std::string::npos;
         at = list.find(',', at + suffix.size() + 1))
      list.insert(at, suffix);
    return list + suffix;
  };
  group.values.emplace_back("offset", limited(first.offsets, offset_suffix));
  group.values.emplace_back("bit", first.bits);
  group.values.emplace_back("victim", limited(second.offsets, victim_suffix));
  group.values.emplace_back("vbit", second.bits);
  const auto words = size_of(cells.first.words);
  group.count = first.count * second.count;
  if (many && cells.lies == relation::same_word) group.count /= words;
  if (many && cells.lies != relation::same_word && cells.lies != relation::anywhere) group.count /= 2;
  group.places = places_of(cells.second);
  group.where = place_text(cells.second);
  group.contents = contents;
  m_groups->push_back(std::move(group));
}

void finder::add_pair(const cell_variant &variant, const pair_class &cells, bool contents) {
  const bool same = cells.lies == relation::same_word;
  for (const auto &first : values_of(cells.first.words, cells.first.bits))
    for (const auto &second : values_of(cells.second.words, cells.second.bits))
      if (!same) push(variant, cells, first, second, contents);
  for (unsigned bit = 0; same && bit < 16; ++bit) {
    const auto mask = static_cast<uint16_t>(1U << bit);
    if ((cells.first.bits & mask) == 0) continue;
    for (const auto &first : values_of(cells.first.words, mask))
      for (const auto &second : values_of(cells.second.words, cells.second.bits & static_cast<uint16_t>(~mask)))
        push(variant, cells, first, second, contents);
  }
}

void finder::find_in(uint32_t sector) {
  const auto &event = m_events.front();
  if (event.address && *event.address / chip_sector_bytes != sector) return;
  auto classes = classes_of(sector);
  const auto seen = visible(classes);
  for (const auto &cells : seen)
    one_cell(sector, cells);
  classes.push_back(outside_of(sector));
  for (const auto &first : classes)
    for (const auto &second : seen)
      two_cells(sector, first, second);
  add_pairs();
}

}  // namespace

bool flash_events_fit(const std::vector<flash_event> &printed, const std::vector<flash_event> &events, bool whole) {
  if (printed.size() < events.size() || (whole && printed.size() != events.size())) return false;
  const auto says = [](const std::optional<uint32_t> &told, const std::optional<uint32_t> &value) {
    return !told || told == value;
  };
  return std::equal(events.begin(), events.end(), printed.begin(), [&](const auto &told, const auto &one) {
    return told.what == one.what && says(told.address, one.address) && says(told.data, one.data) &&
           says(told.read, one.read);
  });
}

void explain_flash_cells(const std::vector<flash_event> &events, bool whole, std::vector<fault_group> *groups) {
  if (events.empty()) return;
  finder find(events, whole, groups);
  std::vector<uint32_t> done;
  for (const auto &test : flash_sector_tests()) {
    if (std::ranges::find(done, test.sector) != done.end()) continue;
    done.push_back(test.sector);
    find.find_in(test.sector);
  }
}

}  // namespace lab
