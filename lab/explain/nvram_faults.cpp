#include "lab/explain/nvram_faults.h"

#include <algorithm>
#include <array>
#include <bit>
#include <map>
#include <mutex>
#include <span>
#include <unordered_map>

#include "lab/base/text.h"
#include "lab/explain/nvram_test.h"
#include "lab/explain/texts.h"
#include "models/single_faults.h"

namespace lab {
namespace {

constexpr unsigned first_line = 1;  // address lines of 32 KiB of words
constexpr unsigned last_line = 14;

// ---- lines of the log

struct check_line {
  std::string_view text;
  std::string_view what;
};

// clang-format off
constexpr check_line check_lines[] = {
    {"Failed above Data Bus Walking 1 Test for NVRAM {n} address 0x{offset}",  "walking one over the data lines"},
    {"Failed above Addr Bus Walking 1 Test for NVRAM {n}, address 0x{offset}", "walking one over the address lines"},
    {"Writing 0x08{value} at addr 0x08{written} -> 0x08{offset} addr alias failure for NVRAM {n}",
                                                                               "walking one over the address lines"},
    {"Failed above increment data pattern test for NVRAM {n}",                 "count"},
    {"Failed above inverted data pattern test for NVRAM {n}",                  "inverted count"},
};
// clang-format on
constexpr std::string_view mismatch_line = "0x{offset}: Expected 0x{expected} Actual 0x{actual}";

// What the test's lines show; nothing where it passed.
nvram_failure failure_in(std::string_view printed) {
  nvram_failure failure;
  for (const auto line : pieces_of(printed, '\n'))
    (void)read_nvram_line(line, &failure);
  return failure;
}

nvram_failure failure_with(const nvram_defect &defect, const nvram_contents &contents) {
  return failure_in(run_nvram_test(defect, contents));
}

// ---- the test on a good memory

// A read of the word that failed.
struct word_read {
  size_t at;              // in the record
  size_t number;          // of all reads
  bool fails = false;     // if it gives what was printed, the test prints the failure
  bool prints = false;    // or anything
  size_t changes_at = 0;  // or accesses from here on differ
};

using good_record = std::vector<nvram_access>;

// The same for every failure.
std::span<const good_record, 2> good_records() {
  static const auto records = [] {
    std::array<good_record, 2> made;
    (void)run_nvram_test({}, {.fill = 0}, made.data());
    (void)run_nvram_test({}, {.fill = 0xFFFF}, &made[1]);
    return made;
  }();
  return records;
}

// What the test does with a good memory, and what it makes of the value that was read instead. Up to a first wrong read
// every run is like this one.
struct good_run {
  std::span<const good_record, 2> records;  // with former contents of zeros, of ones
  std::vector<word_read> reads;
  size_t end = 0;  // after the last read that can have failed; 0: the test cannot print this

  // Whether an access writes the value to a word, with any former contents.
  [[nodiscard]] bool writes(uint32_t offset, uint32_t value) const {
    for (size_t i = 0; i < end; ++i) {
      const auto &one = records[0][i];
      if (one.write && one.offset == offset && one.value == value && records[1][i].value == value) return true;
    }
    return false;
  }
};

void try_read(const nvram_failure &failure, const good_record &record, word_read *read) {
  const auto differs = static_cast<uint16_t>(*failure.expected ^ *failure.actual);
  good_record now;
  const auto printed = failure_in(run_nvram_test({.bad_read = read->number, .inverted = differs}, {}, &now));
  read->prints = printed.offset.has_value();
  read->fails = read->prints && failure.fits(printed);
  const auto same = [](const nvram_access &a, const nvram_access &b) {
    return a.offset == b.offset && a.write == b.write && (a.value == b.value || !a.write);
  };
  const auto [first, second] = std::ranges::mismatch(record, now, same);
  read->changes_at = static_cast<size_t>(first - record.begin());
}

good_run run_good(const nvram_failure &failure) {
  good_run good{.records = good_records(), .reads = {}};
  size_t number = 0;
  for (size_t at = 0; at < good.records[0].size(); ++at) {
    const auto &one = good.records[0][at];
    if (one.write) continue;
    if (one.offset == failure.offset) {
      good.reads.push_back({at, number});
      try_read(failure, good.records[0], &good.reads.back());
      if (good.reads.back().fails) good.end = at + 1;
    }
    ++number;
  }
  return good;
}

// ---- lines

struct match {
  bool some = false;  // for some former contents
  bool all = true;    // for any

  void add(bool fits) {
    some |= fits;
    all &= fits;
  }
};

// Whether a line that is bad in some accesses can have given what was read. `all`: it needs no certain contents.
match acts_now_and_then(const models::single_line_fault &line, const nvram_failure &failure, const good_run &good) {
  if (!line.address) {
    const bool fits = line.bad.pass(*failure.expected, *failure.actual) == *failure.actual;
    return {fits, fits};
  }
  // The words that the line takes for one another.
  const auto meant = *failure.offset;
  const auto reached = line.bad.pass(meant);
  match found{false, false};
  for (uint32_t lines = line.bad.lines;; lines = (lines - 1) & line.bad.lines) {
    const uint32_t other = (meant & ~line.bad.lines) | lines;
    if (line.bad.pass(other) == reached) {
      found.some |= other != meant;
      found.all |= good.writes(other, *failure.actual);
    }
    if (lines == 0) break;
  }
  found.all &= found.some;
  return found;
}

constexpr std::array<uint16_t, 3> fills{0, 0xFFFF, 0x5AC3};

// A line, and how the test fails with it, for each fill. That is the same for every failure, so it is found once, by
// the first that asks.
struct line_run {
  models::single_line_fault line;
  std::optional<std::array<nvram_failure, fills.size()>> failures;
};

std::vector<line_run> &line_runs() {
  static std::vector<line_run> runs = [] {
    std::vector<line_run> made;
    for (const auto &line : models::line_faults(models::memory_kind::nvram, first_line, last_line))
      made.push_back({line, {}});
    return made;
  }();
  return runs;
}

match acts_always(line_run *run, const nvram_failure &failure) {
  if (!run->failures) {
    auto &failures = run->failures.emplace();
    for (size_t i = 0; i < fills.size(); ++i)
      failures[i] = failure_with({.fault = &run->line.fault}, {.fill = fills[i]});
  }
  match found;
  for (const auto &one : *run->failures)
    found.add(failure.fits(one));
  return found;
}

void set_instance(const nvram_failure &failure, fault_group *group) {
  const auto number = failure.instance ? std::to_string(*failure.instance) : "0..2";
  auto &values = group->values;
  std::erase_if(values, [](const auto &value) { return value.first == "instance"; });
  values.insert(values.begin(), {"instance", number});
}

void add_lines(const nvram_failure &failure, const good_run &good, nvram_verdict *verdict) {
  for (auto &run : line_runs()) {
    const auto at_times = acts_now_and_then(run.line, failure, good);
    if (!at_times.some) continue;
    const auto always = acts_always(&run, failure);
    auto group = line_group(run.line.fault);
    set_instance(failure, &group);
    group.may_differ = !always.all;
    if (always.some) verdict->faults.push_back(group);
    group.may_differ = !at_times.all;
    if (!always.all) verdict->now_and_then.push_back(std::move(group));
  }
}

// A region that nothing answers in reads as ones.
void add_silence(const nvram_failure &failure, std::vector<fault_group> *groups) {
  if (!failure.fits(failure_with({.silent = true}, {}))) return;
  auto group = group_of("bar-io bar=" + (failure.instance ? std::to_string(*failure.instance + 2) : "2..4"));
  group.where = "the region";
  group.how = "nothing answers: the bridge maps no memory there";
  groups->push_back(std::move(group));
}

// ---- cells

struct bit_place {
  uint32_t word;  // its offset
  unsigned bit;

  [[nodiscard]] uint32_t offset() const { return word + bit / 8; }
  bool operator==(const bit_place &) const = default;
};

// An access to the word of a bad cell or of its victim.
struct cell_event {
  size_t at;  // in the record
  bool write;
  bool first;   // to the bad cell's word
  bool second;  // to the victim's
};

// Where the test accesses each word.
class access_lists {
 public:
  explicit access_lists(const good_run &good) : m_good(good), m_lists(nvram_bytes / 2) {
    for (size_t at = 0; at < good.end; ++at)
      m_lists[good.records[0][at].offset / 2].push_back(at);
  }

  // The accesses to two words in their order.
  [[nodiscard]] std::vector<cell_event> of(uint32_t first, uint32_t second) const {
    std::vector<size_t> merged;
    std::ranges::set_union(m_lists[first / 2], m_lists[second / 2], std::back_inserter(merged));
    std::vector<cell_event> events;
    events.reserve(merged.size());
    for (const auto at : merged) {
      const auto &one = m_good.records[0][at];
      events.push_back({at, one.write, one.offset == first, one.offset == second});
    }
    return events;
  }

 private:
  const good_run &m_good;
  std::vector<std::vector<size_t>> m_lists;
};

// A fault of a cell, or of a cell and its victim, with the accesses that it meets.
struct cell_case {
  models::cell_variant kind;
  bit_place cell;
  bit_place victim;  // the cell itself where there is none
};

models::chip_fault fault_of(const cell_case &one) {
  return {.id = one.kind.id,
          .level = one.kind.level,
          .vlevel = one.kind.vlevel,
          .bit = static_cast<uint8_t>(one.cell.bit % 8),
          .vbit = static_cast<uint8_t>(one.victim.bit % 8),
          .offset = one.cell.offset(),
          .victim = one.victim.offset()};
}

// The memory's words with the cell and its victim, and what both hold before.
struct held_bits {
  bool cell;
  bool victim;
};

// Runs the test itself.
bool fails_in_test(const cell_case &one, held_bits held, const nvram_failure &failure) {
  const auto bit = [](const bit_place &place, bool level) {
    return static_cast<uint16_t>(level ? 1U << place.bit : 0U);
  };
  const nvram_contents::word words[] = {
      {one.cell.word, bit(one.cell, held.cell)},
      {one.victim.word, static_cast<uint16_t>(bit(one.victim, held.victim) |
                                              (one.cell.word == one.victim.word ? bit(one.cell, held.cell) : 0))}};
  const auto fault = fault_of(one);
  return failure.fits(failure_with({.fault = &fault}, {.fill = 0, .words = words}));
}

// The two words on a model that meets only their accesses. Where a wrong read changes the test's later accesses, the
// test itself is run.
bool fails(const cell_case &one, held_bits held, std::span<const cell_event> events, const good_run &good,
           const nvram_failure &failure) {
  std::array<uint8_t, 4> bytes{};
  const models::memory words(bytes);
  const uint32_t second = one.cell.word == one.victim.word ? 0 : 2;
  auto fault = fault_of(one);
  fault.offset -= one.cell.word;
  fault.victim = fault.victim - one.victim.word + second;
  models::nvram chip(words, {&fault, 1});
  const auto mask = [](const bit_place &place) { return static_cast<uint16_t>(1U << place.bit); };
  const auto word_with = [&](bool cell, bool victim) {
    return static_cast<uint16_t>((cell ? mask(one.cell) : 0) | (victim ? mask(one.victim) : 0));
  };
  words.set(0, word_with(held.cell, false));
  words.set(second, word_with(second == 0 && held.cell, held.victim));
  bool good_level = held.victim;
  size_t read = 0;
  for (const auto &event : events) {
    if (event.write) {
      const bool cell = event.first && (good.records[held.cell ? 1 : 0][event.at].value & mask(one.cell)) != 0;
      const bool victim = event.second && (good.records[held.victim ? 1 : 0][event.at].value & mask(one.victim)) != 0;
      chip.write(event.first ? 0 : second, word_with(cell, victim));
      if (event.second) good_level = victim;
      continue;
    }
    const auto word = chip.read(event.first ? 0 : second);
    if (!event.second) continue;
    const auto &now = good.reads[read++];
    if (((word & mask(one.victim)) != 0) == good_level) continue;
    if (now.prints) return now.fails;
    if (now.changes_at < good.end) return fails_in_test(one, held, failure);
  }
  return false;
}

match match_of(const cell_case &one, std::span<const cell_event> events, const good_run &good,
               const nvram_failure &failure) {
  match found;
  for (const bool cell : {false, true})
    for (const bool victim : {false, true})
      if (one.kind.two_cells || cell == victim) found.add(fails(one, {cell, victim}, events, good, failure));
  return found;
}

// Cells that the test treats alike, as seen from the victim.
using alike_cells = std::map<std::string, std::vector<bit_place>>;

alike_cells cells_alike(const bit_place &victim, const access_lists &lists, const good_run &good) {
  std::unordered_map<std::string, std::vector<bit_place>> cells;
  std::string key;
  for (uint32_t word = 0; word < nvram_bytes; word += 2) {
    const auto events = lists.of(word, victim.word);
    for (unsigned bit = 0; bit < 16; ++bit) {
      if (bit_place{word, bit} == victim) continue;
      key.clear();
      for (const auto &event : events) {
        const auto level = [&](size_t contents) { return good.records[contents][event.at].value >> bit & 1; };
        const int levels = event.write && event.first ? level(0) | level(1) << 1 : 0;
        key += static_cast<char>('@' + (event.write | event.first << 1 | event.second << 2 | levels << 3));
      }
      cells[key].push_back({word, bit});
    }
  }
  return {cells.begin(), cells.end()};
}

std::string cell_text(const bit_place &cell) {
  return "cell " + hex(cell.offset()) + " bit " + std::to_string(cell.bit % 8);
}

fault_group cell_group(const nvram_failure &failure, const cell_case &one) {
  auto group = group_of(models::notation(fault_of(one)));
  set_instance(failure, &group);
  group.where = cell_text(one.victim);
  group.how = one.kind.what;
  if (one.kind.id == models::fault_id::nvram_cell_stuck) group.how += " at " + std::to_string(one.kind.level);
  return group;
}

// The cells as few lists of offsets and bits.
void add_pairs(const cell_case &example, const std::vector<bit_place> &cells, bool may_differ,
               const nvram_failure &failure, std::vector<fault_group> *groups) {
  std::map<unsigned, std::vector<uint32_t>> by_bit;
  for (const auto &cell : cells)
    by_bit[cell.bit].push_back(cell.offset());
  std::map<std::vector<uint32_t>, std::vector<uint32_t>> bits_at;
  for (auto &[bit, offsets] : by_bit) {
    std::ranges::sort(offsets);
    bits_at[offsets].push_back(bit % 8);
  }
  for (const auto &[offsets, bits] : bits_at) {
    groups->push_back(cell_group(failure, example));
    groups->back().may_differ = may_differ;
    for (auto &[key, value] : groups->back().values) {
      if (key == "offset") value = number_list(offsets, true);
      if (key == "bit") value = number_list(bits, false);
    }
  }
}

void add_coupled(const bit_place &victim, const good_run &good, const nvram_failure &failure, nvram_verdict *verdict) {
  const access_lists lists(good);
  const auto alike = cells_alike(victim, lists, good);
  for (const auto &kind : models::cell_variants(models::memory_kind::nvram)) {
    if (!kind.two_cells) continue;
    std::array<std::vector<bit_place>, 2> found;
    for (const auto &[key, cells] : alike) {
      const cell_case one{kind, cells.front(), victim};
      const auto match = match_of(one, lists.of(one.cell.word, victim.word), good, failure);
      if (!match.some) continue;
      auto &list = found[match.all ? 0 : 1];
      list.insert(list.end(), cells.begin(), cells.end());
    }
    for (const bool may_differ : {false, true})
      add_pairs({kind, {}, victim}, found[may_differ ? 1 : 0], may_differ, failure, &verdict->faults);
  }
}

// Whether a cell that is bad at times can read like this: `expected` is what it should hold.
bool can_lose(const models::cell_variant &kind, bool expected) {
  const bool level = kind.id == models::fault_id::nvram_cell_stuck ? !expected : expected;
  return kind.level == models::either_level || kind.level == static_cast<uint8_t>(level);
}

// One bad cell spoils one bit.
void add_cells(const nvram_failure &failure, const good_run &good, nvram_verdict *verdict) {
  const auto differs = *failure.expected ^ *failure.actual;
  if (!std::has_single_bit(differs)) return;
  const bit_place cell{*failure.offset, static_cast<unsigned>(std::countr_zero(differs))};
  const auto events = access_lists(good).of(cell.word, cell.word);
  for (const auto &kind : models::cell_variants(models::memory_kind::nvram)) {
    const cell_case one{kind, cell, cell};
    if (kind.two_cells) continue;
    const auto match = match_of(one, events, good, failure);
    auto group = cell_group(failure, one);
    group.may_differ = !match.all;
    if (match.some) verdict->faults.push_back(group);
    if (!match.all && can_lose(kind, (*failure.expected & differs) != 0))
      verdict->now_and_then.push_back(std::move(group));
  }
  add_coupled(cell, good, failure, verdict);
  // Pairs that act at times are one group.
  for (const auto &kind : models::cell_variants(models::memory_kind::nvram)) {
    if (!kind.two_cells || (!verdict->now_and_then.empty() && verdict->now_and_then.back().name == kind.name()))
      continue;
    auto group = group_of(std::string(kind.name()) + " offset=* bit=* victim=" + hex(cell.offset()) +
                          " vbit=" + std::to_string(cell.bit % 8) + " level=* vlevel=*");
    set_instance(failure, &group);
    group.where = cell_text(cell);
    group.how = "disturbed by another cell";
    group.may_differ = true;
    verdict->now_and_then.push_back(std::move(group));
  }
}

nvram_verdict explain_again(const nvram_failure &failure) {
  nvram_verdict verdict;
  const auto good = run_good(failure);
  verdict.possible = good.end != 0;
  if (!verdict.possible) return verdict;
  add_silence(failure, &verdict.faults);
  add_lines(failure, good, &verdict);
  add_cells(failure, good, &verdict);
  // Where the check's line is missing, the rest of what the test prints can still rule them out.
  if (!failure.check)
    for (auto *const groups : {&verdict.faults, &verdict.now_and_then})
      for (auto &group : *groups)
        group.may_differ = true;
  return verdict;
}

}  // namespace

bool nvram_failure::fits(const nvram_failure &other) const {
  const auto same = [](const auto &a, const auto &b) { return !a || !b || *a == *b; };
  return other.offset && same(check, other.check) && same(written, other.written) && same(offset, other.offset) &&
         same(expected, other.expected) && same(actual, other.actual);
}

std::string nvram_failure::text() const {
  std::string text;
  if (check) text += std::string(check_lines[*check].what) + ": ";
  if (written && offset) text += "a write to " + hex(*written) + " changed " + hex(*offset) + ": ";
  text += expected ? "wrote " + hex(*expected, 4) : "a word reads wrong";
  if (offset) text += " at " + hex(*offset);
  if (actual) text += ", read " + hex(*actual, 4);
  return text;
}

nvram_line read_nvram_line(std::string_view line, nvram_failure *failure) {
  if (const auto fields = find_text(mismatch_line, line)) {
    failure->offset = number_of(*fields, "offset", 16);
    failure->expected = number_of(*fields, "expected", 16);
    failure->actual = number_of(*fields, "actual", 16);
    return nvram_line::mismatch;
  }
  for (uint32_t i = 0; i < std::size(check_lines); ++i) {
    const auto fields = find_text(check_lines[i].text, line);
    if (!fields) continue;
    failure->check = i;
    failure->instance = number_of(*fields, "n", 10);
    failure->written = number_of(*fields, "written", 16);
    if (!failure->offset) failure->offset = number_of(*fields, "offset", 16);
    return nvram_line::check;
  }
  return nvram_line::other;
}

// Many runs fail alike: a campaign asks for each failure once. The lock also guards what is found only once.
nvram_verdict explain_nvram(const nvram_failure &failure) {
  const auto is_word = [](const std::optional<uint32_t> &value) { return value && *value <= 0xFFFF; };
  if (!failure.offset || !is_word(failure.expected) || !is_word(failure.actual) || failure.expected == failure.actual)
    return {.possible = !failure.expected, .faults = {}, .now_and_then = {}};
  static std::mutex mutex;
  static std::map<std::string, nvram_verdict> verdicts;
  const auto key = failure.text() + " of " + std::to_string(failure.instance.value_or(3));
  const std::scoped_lock lock(mutex);
  const auto found = verdicts.find(key);
  if (found != verdicts.end()) return found->second;
  if (verdicts.size() >= 64) verdicts.clear();
  return verdicts[key] = explain_again(failure);
}

}  // namespace lab
