#include "lab/explain_nvram.h"

#include <algorithm>
#include <array>
#include <bit>
#include <iterator>
#include <map>
#include <span>
#include <unordered_map>

#include "lab/explain_faults.h"

namespace lab {
namespace {

constexpr uint32_t words = 0x4000;  // of 16 bits; the test looks at the lower half
constexpr uint32_t tested_words = words / 2;
constexpr unsigned first_line = 1;  // address lines of 32 KiB of words
constexpr unsigned last_line = 14;

// ---- the test's accesses

enum class step : uint8_t {
  read,      // what it gives does not matter
  keep,      // it is put back later
  put_back,  // what was kept
  write,
  check,
};

struct access {
  step what;
  uint16_t word;  // number
  uint16_t value = 0;
  nvram_check check = nvram_check::walking_one;
  uint16_t written = 0;  // word number, of an alias
};

class sequence {
 public:
  sequence() {
    for (uint32_t word = 0; word < words; ++word)
      add({step::read, number(word)});
    walk_data();
    walk_address();
    count();
  }
  [[nodiscard]] std::span<const access> all() const { return m_accesses; }
  // Places of the accesses to a word.
  [[nodiscard]] std::span<const uint32_t> of(uint32_t word) const { return m_places[word]; }
  // What was saved at the start does not matter to what is checked.
  [[nodiscard]] static size_t behind_save() { return words; }

 private:
  static uint16_t number(uint32_t word) { return static_cast<uint16_t>(word); }

  void add(const access &one) {
    m_places[one.word].push_back(static_cast<uint32_t>(m_accesses.size()));
    m_accesses.push_back(one);
  }

  void walk_data() {
    add({step::keep, 0});
    for (unsigned bit = 0; bit < 16; ++bit) {
      const auto one = static_cast<uint16_t>(1U << bit);
      add({step::write, 0, one});
      add({step::check, 0, one, nvram_check::walking_one});
    }
    add({step::put_back, 0});
  }

  // Words with one address line set, as long as the test takes them.
  void each_line(const auto &visit) {
    for (uint32_t word = 1; word < tested_words; word *= 2)
      visit(number(word));
  }

  void walk_address() {
    constexpr uint16_t pattern = 0xAAAA;
    constexpr uint16_t antipattern = 0x5555;
    add({step::keep, 0});
    each_line([&](uint16_t word) { add({step::keep, word}); });
    each_line([&](uint16_t word) { add({step::write, word, pattern}); });
    add({step::write, 0, antipattern});
    each_line([&](uint16_t word) { add({step::check, word, pattern, nvram_check::address}); });
    add({step::write, 0, pattern});
    each_line([&](uint16_t target) {
      add({step::write, target, antipattern});
      add({step::check, 0, pattern, nvram_check::alias, target});
      each_line([&](uint16_t word) {
        add({word == target ? step::read : step::check, word, pattern, nvram_check::alias, target});
      });
      add({step::write, target, pattern});
    });
    add({step::put_back, 0});
    each_line([&](uint16_t word) { add({step::put_back, word}); });
  }

  void count() {
    for (uint32_t word = 0; word < tested_words; ++word)
      add({step::write, number(word), number(word + 1)});
    for (uint32_t word = 0; word < tested_words; ++word) {
      add({step::check, number(word), number(word + 1), nvram_check::count});
      add({step::write, number(word), number(~(word + 1))});
    }
    for (uint32_t word = 0; word < tested_words; ++word)
      add({step::check, number(word), number(~(word + 1)), nvram_check::inverse});
  }

  std::vector<access> m_accesses;
  std::array<std::vector<uint32_t>, words> m_places;
};

const sequence &test() {
  static const sequence one;
  return one;
}

bool says(const std::optional<uint32_t> &told, uint32_t value) {
  return !told || *told == value;
}

bool fits(const nvram_failure &failure, const access &one) {
  return one.what == step::check && (!failure.check || *failure.check == one.check) &&
         says(failure.offset, 2U * one.word) && says(failure.expected, one.value) &&
         (one.check != nvram_check::alias || says(failure.written, 2U * one.written));
}

std::vector<uint32_t> fitting_checks(const nvram_failure &failure) {
  std::vector<uint32_t> places;
  const auto all = test().all();
  for (size_t place = sequence::behind_save(); place < all.size(); ++place)
    if (fits(failure, all[place])) places.push_back(static_cast<uint32_t>(place));
  return places;
}

// ---- lines

// What a memory with bad lines makes the test print.
struct prediction {
  uint32_t place = 0;  // of the failing check; 0 for none
  uint16_t actual = 0;
};

// No fault of a line depends on what the memory held: each word is written before it is checked, and an open data line
// gives what was last written to any word.
prediction predict(const line_fault &fault) {
  std::vector<uint16_t> memory(words, 0);
  std::vector<uint16_t> kept(words, 0);
  data_bus data(fault.address ? bad_lines_of_bus{} : fault.bad);
  const auto at = [&](uint16_t word) -> uint16_t & {
    return memory[fault.address ? fault.bad.pass(2U * word) / 2 : word];
  };
  const auto all = test().all();
  for (size_t place = sequence::behind_save(); place < all.size(); ++place) {
    const auto &one = all[place];
    if (one.what == step::write || one.what == step::put_back) {
      at(one.word) = data.write(one.what == step::write ? one.value : kept[one.word]);
      continue;
    }
    const auto word = data.read(at(one.word));
    if (one.what == step::keep) kept[one.word] = word;
    if (one.what == step::check && word != one.value) return {static_cast<uint32_t>(place), word};
  }
  return {};
}

struct predicted_line {
  line_fault fault;
  prediction prints;
};

const std::vector<predicted_line> &predicted_lines() {
  static const std::vector<predicted_line> all = [] {
    std::vector<predicted_line> list;
    for (const auto &fault : line_faults(first_line, last_line))
      list.push_back({fault, predict(fault)});
    return list;
  }();
  return all;
}

std::string instance_text(const nvram_failure &failure) {
  return failure.instance ? std::to_string(*failure.instance) : "0..2";
}

fault_group line_group_of(const nvram_failure &failure, const line_fault &fault) {
  auto group = line_group("nvram", fault);
  group.values.insert(group.values.begin(), {"instance", instance_text(failure)});
  if (!failure.instance) group.count = 3;
  return group;
}

void add_lines(const nvram_failure &failure, std::vector<fault_group> *groups) {
  for (const auto &one : predicted_lines()) {
    if (one.prints.place == 0 || !fits(failure, test().all()[one.prints.place])) continue;
    if (says(failure.actual, one.prints.actual)) groups->push_back(line_group_of(failure, one.fault));
  }
}

// A region that nobody answers in reads as ones.
void add_silence(const nvram_failure &failure, std::vector<fault_group> *groups) {
  if (!fits(failure, test().all()[sequence::behind_save() + 2]) || !says(failure.actual, 0xFFFF)) return;
  std::string bars = "2..4";
  if (failure.instance) bars = std::to_string(*failure.instance + 2);
  auto group = group_named("bar-io", {{"bar", bars}});
  group.where = "the region";
  group.how = "nothing answers: the bridge maps no memory there";
  groups->push_back(std::move(group));
}

// ---- cells

struct bit_place {
  uint32_t word;
  unsigned bit;

  [[nodiscard]] uint32_t offset() const { return 2 * word + bit / 8; }
  bool operator==(const bit_place &) const = default;
};

// An access to the word of the bad cell or to that of its victim, with the levels that are written.
struct event {
  step what;
  cell_access at;
  bool first;
  bool second;

  [[nodiscard]] char key() const {
    return static_cast<char>(32 + (static_cast<int>(what) << 4 | static_cast<int>(at.first) << 3 |
                                   static_cast<int>(at.second) << 2 | static_cast<int>(first) << 1 |
                                   static_cast<int>(second)));
  }
};

// Places of the accesses to two words up to a place, in their order.
std::vector<uint32_t> merged(uint32_t one, uint32_t other, uint32_t last) {
  std::vector<uint32_t> places;
  const auto a = test().of(one);
  const auto b = one == other ? std::span<const uint32_t>{} : test().of(other);
  std::ranges::merge(a, b, std::back_inserter(places));
  places.erase(std::ranges::upper_bound(places, last), places.end());
  return places;
}

event event_of(uint32_t place, const bit_place &first, const bit_place &second) {
  const auto &one = test().all()[place];
  const cell_access at{one.word == first.word, one.word == second.word};
  return {one.what, at, at.first && (one.value >> first.bit & 1) != 0, at.second && (one.value >> second.bit & 1) != 0};
}

// The accesses up to a place to two cells, in their order.
std::vector<event> events_of(const bit_place &first, const bit_place &second, uint32_t last) {
  std::vector<event> events;
  for (const auto place : merged(first.word, second.word, last))
    events.push_back(event_of(place, first, second));
  return events;
}

// Whether all checks of the victim pass but the last, which fails.
bool fails_last(const cell_fault &fault, std::span<const event> events, bool first, bool second) {
  cell_pair cells(fault, first, second);
  bool kept_first = first;
  bool kept_second = second;
  for (const auto &one : events) {
    if (one.what == step::write || one.what == step::put_back) {
      const bool put_back = one.what == step::put_back;
      cells.write(one.at, put_back ? kept_first : one.first, put_back ? kept_second : one.second);
      continue;
    }
    const bool seen = cells.read(one.at);
    const bool of_seen = fault.two_cells() ? one.at.second : one.at.first;
    if (one.what == step::keep && one.at.first) kept_first = fault.two_cells() ? cells.first() : seen;
    if (one.what == step::keep && one.at.second) kept_second = seen;
    if (one.what != step::check || !of_seen) continue;
    const bool good = seen == (fault.two_cells() ? one.second : one.first);
    if (&one == &events.back()) return !good;
    if (!good) return false;
  }
  return false;
}

struct match {
  bool some = false;  // for some former contents
  bool all = true;    // for any
};

match match_of(const cell_fault &fault, std::span<const event> events) {
  match found;
  for (const unsigned contents : {0U, 1U, 2U, 3U}) {
    const bool fails = fails_last(fault, events, (contents & 1) != 0, (contents & 2) != 0);
    found.some |= fails;
    found.all &= fails;
  }
  return found;
}

std::string cell_text(const bit_place &cell) {
  char text[40];
  (void)std::snprintf(text, sizeof text, "cell 0x%x bit %u", cell.offset(), cell.bit % 8);
  return text;
}

fault_group cell_group(const cell_variant &variant, const nvram_failure &failure) {
  auto group = group_named(std::string(variant.name), {{"instance", instance_text(failure)}});
  group.how = variant.what;
  return group;
}

void add_levels(const cell_variant &variant, fault_group *group) {
  if (!variant.levels[0].empty()) group->values.emplace_back("level", variant.levels[0]);
  if (!variant.levels[1].empty()) group->values.emplace_back("vlevel", variant.levels[1]);
  if (variant.fault.kind == cell_kind::stuck) group->how += " at " + std::string(variant.levels[0]);
}

std::string hexadecimal(uint32_t number) {
  return number_list(std::array{number}, true);
}

// The cells of the memory by what the test does with them, as seen from the victim: those of one class act alike.
using cell_classes = std::map<std::string, std::vector<bit_place>>;

// The key has a letter for each access, with what a write or a check of the first cell's bit is.
cell_classes classes_of(const bit_place &victim, uint32_t last) {
  std::unordered_map<std::string, std::vector<bit_place>> classes;
  std::string key;
  for (uint32_t word = 0; word < words; ++word) {
    const auto accesses = merged(word, victim.word, last);
    for (unsigned bit = 0; bit < 16; ++bit) {
      const bit_place cell{word, bit};
      if (cell == victim) continue;
      key.clear();
      for (const auto place : accesses)
        key += event_of(place, cell, victim).key();
      classes[key].push_back(cell);
    }
  }
  return {classes.begin(), classes.end()};
}

// The cells that a variant matches with, by whether the contents matter.
using matching_cells = std::map<bool, std::vector<bit_place>>;

// Bits of a byte by the offsets at which each is.
using cells_in_lists = std::map<std::vector<uint32_t>, std::vector<uint32_t>>;

cells_in_lists in_lists(const std::vector<bit_place> &cells) {
  std::map<unsigned, std::vector<uint32_t>> by_bit;
  for (const auto &cell : cells)
    by_bit[cell.bit].push_back(cell.offset());
  cells_in_lists lists;
  for (auto &[bit, offsets] : by_bit) {
    std::ranges::sort(offsets);
    lists[std::move(offsets)].push_back(bit % 8);
  }
  return lists;
}

void add_cells(const cell_variant &variant, const bit_place &victim, const matching_cells &cells,
               const nvram_failure &failure, std::vector<fault_group> *groups) {
  for (const auto &[contents, list] : cells) {
    for (const auto &[offsets, bits] : in_lists(list)) {
      auto group = cell_group(variant, failure);
      group.values.emplace_back("offset", number_list(offsets, true));
      group.values.emplace_back("bit", number_list(bits, false));
      group.values.emplace_back("victim", hexadecimal(victim.offset()));
      group.values.emplace_back("vbit", std::to_string(victim.bit % 8));
      add_levels(variant, &group);
      group.count = offsets.size() * bits.size() * (failure.instance ? 1 : 3);
      group.contents = contents;
      group.where = cell_text(victim);
      groups->push_back(std::move(group));
    }
  }
}

void add_two_cells(const bit_place &victim, uint32_t last, const nvram_failure &failure,
                   const std::vector<cell_variant> &variants, std::vector<fault_group> *groups) {
  const auto classes = classes_of(victim, last);
  std::vector<matching_cells> found(variants.size());
  for (const auto &[key, cells] : classes) {
    const auto events = events_of(cells.front(), victim, last);
    for (size_t i = 0; i < variants.size(); ++i) {
      if (!variants[i].fault.two_cells()) continue;
      const auto match = match_of(variants[i].fault, events);
      if (!match.some) continue;
      auto &list = found[i][!match.all];
      list.insert(list.end(), cells.begin(), cells.end());
    }
  }
  for (size_t i = 0; i < variants.size(); ++i)
    add_cells(variants[i], victim, found[i], failure, groups);
}

fault_group one_cell_group(const cell_variant &variant, const bit_place &cell, const nvram_failure &failure) {
  auto group = cell_group(variant, failure);
  group.values.emplace_back("offset", hexadecimal(cell.offset()));
  group.values.emplace_back("bit", std::to_string(cell.bit % 8));
  add_levels(variant, &group);
  group.where = cell_text(cell);
  return group;
}

void add_one_cell(const bit_place &cell, uint32_t last, const nvram_failure &failure,
                  const std::vector<cell_variant> &variants, std::vector<fault_group> *groups) {
  auto events = events_of(cell, cell, last);
  for (const auto &variant : variants) {
    if (variant.fault.two_cells()) continue;
    const auto match = match_of(variant.fault, events);
    if (!match.some) continue;
    groups->push_back(one_cell_group(variant, cell, failure));
    groups->back().contents = !match.all;
  }
}

// A bad cell spoils one bit of one word.
void add_cells_at(const nvram_failure &failure, uint32_t place, std::vector<fault_group> *groups) {
  const auto &check = test().all()[place];
  const auto variants = cell_variants(memory_kind::nvram);
  for (unsigned bit = 0; bit < 16; ++bit) {
    if (!says(failure.actual, check.value ^ 1U << bit)) continue;
    const bit_place cell{check.word, bit};
    add_one_cell(cell, place, failure, variants, groups);
    add_two_cells(cell, place, failure, variants, groups);
  }
}

// ---- faults that come and go

// What a good memory has been through when a word is checked. Nothing stands for what was there before the test.
using held_word = std::optional<uint16_t>;
struct past {
  std::vector<held_word> memory = std::vector<held_word>(words);
  held_word older;                                    // what the word held before its last write
  std::vector<std::pair<uint16_t, held_word>> later;  // words written since, with what
  held_word on_bus;                                   // in the access before
};

past past_of(uint32_t place) {
  const auto all = test().all();
  past then;
  auto kept = then.memory;
  for (size_t i = sequence::behind_save(); i < place; ++i) {
    const auto &one = all[i];
    auto &word = then.memory[one.word];
    then.on_bus = word;
    if (one.what == step::keep) kept[one.word] = word;
    if (one.what != step::write && one.what != step::put_back) continue;
    then.on_bus = one.what == step::write ? held_word(one.value) : kept[one.word];
    if (one.word == all[place].word) {
      then.older = word;
      then.later.clear();
    } else {
      then.later.emplace_back(one.word, then.on_bus);
    }
    word = then.on_bus;
  }
  return then;
}

// Whether a fault of a line in one access, the check's read or a write before it, gives what was read.
match shown_once(const line_fault &fault, const past &then, const access &check, uint32_t actual) {
  if (!fault.address) {
    const bool shown = fault.bad.pass(check.value, then.on_bus.value_or(actual)) == actual;
    return {shown, shown};
  }
  match found{false, false};
  const auto look = [&](const held_word &word) {
    found.some |= word.value_or(actual) == actual;
    found.all |= word == actual;
  };
  const auto meant_for = [&fault](uint32_t word) { return fault.bad.pass(2 * word) / 2; };
  const auto other = meant_for(check.word);
  if (other != check.word) {
    look(then.memory[other]);
    look(then.older);
  }
  for (const auto &[word, value] : then.later)
    if (meant_for(word) == check.word) look(value);
  return found;
}

// The same of a cell that has to hold a level.
bool shown_once(const cell_fault &fault, bool level) {
  constexpr cell_access here{true, false};
  cell_pair read(fault, level, false);
  if (read.read(here) != level) return true;
  return std::ranges::any_of(std::array{false, true}, [&](bool older) {
    cell_pair written(fault, older, false);
    written.write(here, level, false);
    return written.first() != level;
  });
}

void add_passing_cells(const nvram_failure &failure, const access &check, std::vector<fault_group> *groups) {
  const auto wrong = check.value ^ *failure.actual;
  if (!std::has_single_bit(wrong)) return;
  const bit_place cell{check.word, static_cast<unsigned>(std::countr_zero(wrong))};
  for (const auto &variant : cell_variants(memory_kind::nvram))
    if (!variant.fault.two_cells() && shown_once(variant.fault, (check.value & wrong) != 0))
      groups->push_back(one_cell_group(variant, cell, failure));
}

void add_passing(const nvram_failure &failure, uint32_t place, std::vector<fault_group> *groups) {
  if (!failure.actual) return;
  const auto &check = test().all()[place];
  const auto then = past_of(place);
  for (const auto &fault : line_faults(first_line, last_line)) {
    const auto found = shown_once(fault, then, check, *failure.actual);
    if (!found.some) continue;
    groups->push_back(line_group_of(failure, fault));
    groups->back().contents = !found.all;
  }
  add_passing_cells(failure, check, groups);
}

}  // namespace

nvram_verdict explain_nvram(const nvram_failure &failure) {
  nvram_verdict verdict;
  const auto places = fitting_checks(failure);
  verdict.possible = !places.empty();
  add_silence(failure, &verdict.groups);
  add_lines(failure, &verdict.groups);
  if (places.size() != 1) return verdict;
  add_cells_at(failure, places[0], &verdict.groups);
  add_passing(failure, places[0], &verdict.passing);
  return verdict;
}

}  // namespace lab
