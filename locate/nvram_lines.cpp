#include "locate/nvram_lines.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cmath>
#include <span>
#include <utility>

#include "locate/line_finding.h"
#include "models/nvram_answers.h"

namespace locate {
namespace {

using models::nvram_access;
using models::single_line_fault;
using fault_list = std::vector<const single_line_fault *>;

// Unlike in three bits at least; of each two bits, each is 1 in two tags where the other is 0. The last is the inverse
// of the first, which shows an open line at once.
constexpr std::array<uint16_t, 15> tags{0x9A21, 0x8A56, 0x034E, 0x0FE4, 0xF707, 0x7234, 0xA52D, 0x488B,
                                        0x75C9, 0x7C49, 0x985A, 0x3B99, 0xDDA1, 0xDC8E, 0x65DE};

constexpr unsigned rounds_of_intermittent = 16;
// A line that is bad at times can by chance spoil the same word again and again. Of two shorted lines only four words
// may show it: all of 8 answers are of one word in one of 4^7 cases.
constexpr size_t enough_of_cell = 8;
constexpr unsigned most_rounds = 1000;
constexpr size_t most_evidence = 4;
// A fault that makes what was seen so much less likely than another is not named.
constexpr double least_likely = 1e-3;

uint32_t place(size_t k) {
  return k == 0 ? 0 : uint32_t{1} << k;
}

struct wrong_answer {
  uint32_t offset;
  uint16_t written;
  uint16_t read;
  bool operator==(const wrong_answer &) const = default;
};

// What one round of 60 accesses gave.
struct round_answers {
  std::vector<nvram_access> log;
  std::vector<wrong_answer> wrong;
  bool differed = false;              // two reads of a word, one after the other
  std::vector<wrong_answer> changed;  // words since the first round
  std::array<uint16_t, tags.size()> saved{};
  std::array<bool, tags.size()> checked{};  // words that were read after all had their tags

  [[nodiscard]] bool is_wrong() const { return differed || !wrong.empty(); }
  [[nodiscard]] bool is_bad() const { return is_wrong() || !changed.empty(); }
};

// One round over the words. A word is saved just before it gets its tag, and read just before it is restored if a data
// line is bad: an open line keeps the level of its own word in the chip then.
class star_round {
 public:
  //   saved  what to restore, if it is known already
  star_round(word_bus *ram, journal *kept, size_t words, const round_answers *saved)
      : m_ram(ram), m_kept(kept), m_words(words), m_known(saved) {}

  round_answers run() {
    for (size_t k = 0; k < m_words; ++k)
      save_and_tag(k);
    if (std::has_single_bit(static_cast<uint16_t>(check(0) ^ tags[0])))
      check_and_restore();
    else
      check_then_restore();
    return std::move(m_answers);
  }

 private:
  uint16_t read(size_t k) {
    const auto word = m_ram->read(place(k));
    m_answers.log.push_back({place(k), word, false});
    return word;
  }
  void write(size_t k, uint16_t word) {
    m_answers.log.push_back({place(k), word, true});
    m_ram->write(place(k), word);
  }

  void save_and_tag(size_t k) {
    auto &saved = m_answers.saved[k];
    saved = read(k);
    const auto tagged = std::span(tags).first(k);
    // An earlier word's tag: either its address leads here, or this one read was wrong, or the word happens to hold it.
    // One fault does the first to two words at most.
    m_read_again[k] = std::ranges::find(tagged, saved) != tagged.end();
    if (m_read_again[k] && ++m_repeated <= 2) {
      const auto again = read(k);
      m_answers.differed |= again != saved;
      saved = again;
    }
    if (m_known == nullptr)
      (void)m_kept->keep({{place(k), saved}});
    else if (saved != m_known->saved[k])
      m_answers.changed.push_back({place(k), m_known->saved[k], saved});
    if (m_known != nullptr) saved = m_known->saved[k];
    write(k, tags[k]);
  }

  uint16_t check(size_t k) {
    const auto word = read(k);
    m_answers.checked[k] = true;
    if (word != tags[k]) m_answers.wrong.push_back({place(k), tags[k], word});
    return word;
  }

  void check_and_restore() {
    write(0, m_answers.saved[0]);
    for (size_t k = 1; k < m_words; ++k) {
      (void)check(k);
      write(k, m_answers.saved[k]);
    }
  }

  // Backwards, so that of words at one place the first one's contents, which are its own, come last. A word that was
  // read again is not checked: if it has another's address, that one is.
  void check_then_restore() {
    for (size_t k = 1; k < m_words; ++k)
      if (m_repeated > 2 || !m_read_again[k]) (void)check(k);
    for (size_t k = m_words; k-- > 0;)
      write(k, m_answers.saved[k]);
  }

  word_bus *m_ram;
  journal *m_kept;
  size_t m_words;
  const round_answers *m_known;
  round_answers m_answers;
  std::array<bool, tags.size()> m_read_again{};
  size_t m_repeated = 0;  // of them
};

// Whether all rounds gave the same wrong answers. At least one of them must be bad.
bool are_alike(std::span<const round_answers> rounds) {
  return !rounds[0].wrong.empty() &&
         std::ranges::all_of(rounds, [&](const auto &one) { return one.wrong == rounds[0].wrong && !one.differed; });
}

uint16_t bits_of(const wrong_answer &one) {
  return static_cast<uint16_t>(one.written ^ one.read);
}

std::string bit_text(const wrong_answer &one) {
  return "bit " + std::to_string(std::countr_zero(bits_of(one))) + " of the word at " + hex(one.offset);
}

// All of the rounds: the wrong answers, or the changes.
std::vector<wrong_answer> all_of(std::span<const round_answers> rounds,
                                 std::vector<wrong_answer> round_answers::*list) {
  std::vector<wrong_answer> all;
  for (const auto &one : rounds)
    all.insert(all.end(), (one.*list).begin(), (one.*list).end());
  return all;
}

// What was wrong, if all of it is one bit of one word: a cell can do that. Else nothing. Changes count only where no
// answer was wrong: a line changes only words that have the other level, and there may be one.
std::vector<wrong_answer> of_one_bit(std::span<const round_answers> rounds) {
  auto wrong = all_of(rounds, &round_answers::wrong);
  auto changed = all_of(rounds, &round_answers::changed);
  if (wrong.empty()) std::swap(wrong, changed);
  if (wrong.empty() || std::ranges::any_of(rounds, &round_answers::differed)) return {};
  const auto bits = bits_of(wrong[0]);
  const auto is_it = [&](const auto &one) { return one.offset == wrong[0].offset && bits_of(one) == bits; };
  const bool one_bit = std::has_single_bit(bits) && std::ranges::all_of(wrong, is_it);
  return one_bit && std::ranges::all_of(changed, is_it) ? wrong : std::vector<wrong_answer>{};
}

bool is_one_cell(std::span<const round_answers> rounds) {
  return of_one_bit(rounds).size() >= enough_of_cell;
}

const round_answers &worst(std::span<const round_answers> rounds) {
  return *std::ranges::max_element(rounds, {}, [](const auto &one) { return one.wrong.size(); });
}

std::vector<nvram_access> joined_log(std::span<const round_answers> rounds) {
  std::vector<nvram_access> log;
  for (const auto &one : rounds)
    log.insert(log.end(), one.log.begin(), one.log.end());
  return log;
}

size_t count_wrong(std::span<const round_answers> rounds) {
  size_t count = 0;
  for (const auto &one : rounds)
    count += one.wrong.size() + (one.differed ? 1U : 0U);
  return count;
}

// How many of the words the fault can make wrong.
size_t count_spoilable(const single_line_fault &fault, size_t words) {
  // The word whose address the others then have is wrong as well.
  size_t count = fault.address && !fault.bad.high ? 1 : 0;
  for (size_t k = 0; k < words; ++k) {
    const bool spoilt =
        fault.address ? fault.bad.pass(place(k)) != place(k) : fault.bad.pass(tags[k], ~uint32_t{tags[k]}) != tags[k];
    count += static_cast<size_t>(spoilt);
  }
  return count;
}

// How often the fault acts in an access that it can spoil, in millionths: one of two accesses, the write and the read,
// makes an answer wrong.
uint32_t rate_of(const single_line_fault &fault, std::span<const round_answers> rounds, size_t words) {
  constexpr double least = 1.0 / sim::fault_trigger::certain;
  const auto spoilable = std::max<size_t>(count_spoilable(fault, words), 1);
  const auto share = static_cast<double>(count_wrong(rounds)) / static_cast<double>(spoilable * rounds.size());
  const double rate = std::max(1 - std::sqrt(1 - std::min(share, 1.0)), least);
  // One digit is more than it is good for.
  const double digit = std::pow(10, std::floor(std::log10(rate)));
  return static_cast<uint32_t>(std::lround(std::round(rate / digit) * digit * sim::fault_trigger::certain));
}

// How likely a fault is to spoil so many answers in so many rounds, as a logarithm, at the rate that fits it best. One
// that can spoil many words is not likely to spoil a few only.
double likelihood(const single_line_fault &fault, std::span<const round_answers> rounds, size_t words) {
  const auto wrong = static_cast<double>(count_wrong(rounds));
  const auto right = static_cast<double>(count_spoilable(fault, words) * rounds.size()) - wrong;
  if (wrong == 0 || right <= 0) return 0;
  return wrong * std::log(wrong / (wrong + right)) + right * std::log(right / (wrong + right));
}

class line_probe {
 public:
  line_probe(word_bus *ram, unsigned instance, journal *kept, part_result *result, std::optional<seen_cell> *cell)
      : m_ram(ram),
        m_kept(kept),
        m_result(result),
        m_cell(cell),
        m_lines(static_cast<unsigned>(std::countr_zero(ram->length())) - 1),
        m_of{"NVRAM " + std::to_string(instance), "nvram" + std::to_string(instance), instance},
        m_faults(models::line_faults(models::memory_kind::nvram, 1, m_lines)) {}

  void run(unsigned count) {
    std::vector<round_answers> rounds{round(nullptr)};
    measure(count, &rounds);
    if (count > 1) restore_at_last(&rounds);
    const auto bad = std::ranges::find_if(rounds, &round_answers::is_bad);
    if (bad == rounds.end()) return;
    const auto fits = are_alike(rounds) ? fitting(bad->log) : fault_list{};
    if (!fits.empty() && is_one_place(fits))
      report_permanent(fits, *bad);
    else
      repeat(std::move(rounds));
  }

 private:
  round_answers round(const round_answers *saved) { return star_round(m_ram, m_kept, m_lines + 1, saved).run(); }
  void measure(size_t count, std::vector<round_answers> *rounds) {
    while (rounds->size() < count && !stop_is_wanted())
      rounds->push_back(round(rounds->data()));
  }

  [[nodiscard]] fault_list fitting(std::span<const nvram_access> log) const {
    fault_list fits;
    for (const auto &fault : m_faults)
      if (models::gives(&fault, log)) fits.push_back(&fault);
    return fits;
  }

  void report_permanent(const fault_list &fits, const round_answers &seen) {
    auto what = line_finding(m_of, fits);
    add_evidence(seen, &what);
    // What goes through bad data lines twice has what they let through; an open line is restored by the chip's own
    // level.
    const auto alters = [](const auto *f) { return !f->address && f->bad.kind != models::line_kind::floating; };
    if (std::ranges::any_of(fits, alters)) add_changed({}, &what);
    add_finding(std::move(what), m_result);
  }

  static void add_evidence(const round_answers &seen, finding *what) {
    for (const auto &one : seen.wrong) {
      if (what->evidence.size() == most_evidence) break;
      what->evidence.push_back("the word at " + hex(one.offset) + " read " + hex(one.read, 4) + " after " +
                               hex(one.written, 4) + " was written");
    }
    if (seen.wrong.size() > most_evidence)
      what->evidence.back() += ", and " + std::to_string(seen.wrong.size() - most_evidence) + " more like it";
  }

  void repeat(std::vector<round_answers> rounds) {
    if (rounds.size() < rounds_of_intermittent) {
      measure(rounds_of_intermittent, &rounds);
      restore_at_last(&rounds);
    }
    // What two writes invert twice only the last restoring shows.
    while (rounds.size() < most_rounds && !of_one_bit(rounds).empty() && !is_one_cell(rounds) && !stop_is_wanted()) {
      measure(rounds.size() + 1, &rounds);
      restore_at_last(&rounds);
    }
    if (std::ranges::none_of(rounds, &round_answers::is_wrong)) return report_changed(rounds);
    const bool alike = are_alike(rounds);
    const auto fits = alike ? fitting(joined_log(rounds)) : is_one_cell(rounds) ? fault_list{} : possible(rounds);
    if (fits.empty())
      report_unknown(rounds);
    else if (alike)
      report_permanent(fits, rounds[0]);
    else
      report_intermittent(fits, rounds);
  }

  // Whether a word is wrong in nearly every round, and one that the fault can spoil as well in hardly any: what comes
  // and goes hits all alike, unless it acts all the time.
  [[nodiscard]] bool is_uneven(const single_line_fault &fault, std::span<const round_answers> rounds) const {
    constexpr ptrdiff_t enough = rounds_of_intermittent / 2;
    bool often = false;
    bool seldom = false;
    for (size_t k = 0; k <= m_lines; ++k) {
      const auto checked = std::ranges::count_if(rounds, [k](const auto &one) { return one.checked[k]; });
      const auto wrong = std::ranges::count_if(rounds, [k](const auto &one) {
        return std::ranges::find(one.wrong, place(k), &wrong_answer::offset) != one.wrong.end();
      });
      if (checked < enough) continue;
      often |= 10 * wrong >= 9 * checked;
      seldom |= 10 * wrong <= checked && fault.bad.pass(place(k)) != place(k);
    }
    return often && seldom &&
           std::ranges::none_of(rounds, [&](const auto &one) { return models::gives(&fault, one.log); });
  }

  // The line faults that may act in some accesses only and would give these answers, without unlikely ones. Two answers
  // that an address fault does not explain, but another fault beside it would, are too many.
  [[nodiscard]] fault_list possible(std::span<const round_answers> rounds) {
    constexpr size_t too_many = 2;
    const auto log = joined_log(rounds);
    // An answer that must be former contents could have been anything else.
    const double by_chance = std::log(0x1p-16);
    std::vector<std::pair<double, const single_line_fault *>> likely;
    for (const auto &fault : m_faults) {
      const auto former = models::may_give(fault, log);
      if (!former) continue;
      if (fault.address && (former->doubtful >= too_many || is_uneven(fault, rounds))) {
        m_doubted = true;
        continue;
      }
      likely.emplace_back(likelihood(fault, rounds, m_lines + 1) + static_cast<double>(former->count) * by_chance,
                          &fault);
    }
    fault_list fits;
    for (const auto &[of_it, fault] : likely)
      if (of_it >= std::ranges::max_element(likely)->first + std::log(least_likely)) fits.push_back(fault);
    return fits;
  }

  void report_intermittent(const fault_list &fits, std::span<const round_answers> rounds) {
    auto what = line_finding(m_of, fits);
    const auto bad = static_cast<size_t>(std::ranges::count_if(rounds, &round_answers::is_bad));
    const auto rate = rate_of(*fits[0], rounds, m_lines + 1);
    what.intermittent = true;
    what.sentence.pop_back();
    // Too few answers to distinguish a line from a cell.
    if (const auto seen = of_one_bit(rounds); !seen.empty()) add_cell(seen[0], &what);
    what.sentence += ", but only at times: in " +
                     (rate < 10'000 ? "less than 1" : "about " + std::to_string((rate + 5000) / 10'000)) +
                     " % of the accesses.";
    add_evidence(worst(rounds), &what);
    what.evidence.push_back("wrong answers in " + std::to_string(bad) + " of " + std::to_string(rounds.size()) +
                            " rounds");
    for (auto &text : what.candidates)
      text += " p=" + std::to_string(rate);
    what.next = "look for a cracked joint or a bent pin: repeat while you warm, cool or press on it; " + what.next;
    add_changed(fits, &what);
    add_finding(std::move(what), m_result);
  }

  void add_cell(const wrong_answer &wrong, finding *what) const {
    auto &first = what->sentence[0];
    first = static_cast<char>(first - 'A' + 'a');
    what->sentence = "Either " + what->sentence + ", or the cell of " + bit_text(wrong) + " is bad";
    const auto bit = static_cast<unsigned>(std::countr_zero(bits_of(wrong)));
    what->candidates.push_back(models::notation({.id = models::fault_id::nvram_cell_stuck,
                                                 .level = static_cast<uint8_t>(wrong.read >> bit & 1),
                                                 .bit = static_cast<uint8_t>(bit % 8),
                                                 .offset = wrong.offset + bit / 8},
                                                m_of.instance));
    what->places.push_back(m_of.part);
    what->next = "repeat the test, to distinguish a line from a cell; " + what->next;
  }

  void report_unknown(std::span<const round_answers> rounds) {
    const auto &seen = worst(rounds);
    const bool alike = are_alike(rounds);
    const bool silent = std::ranges::all_of(seen.log, [](const auto &one) { return one.write || one.word == 0xFFFF; });
    finding what{
        .sentence = m_of.sentence + " gives answers that no single line fault gives.",
        .intermittent = !alike,
        .next = "look for several bad lines, a missing supply or select signal, or bad cells: --cells names them"};
    if (m_doubted)
      what.sentence = m_of.sentence + " has several bad lines, or one that is bad at times; no answer shows the place.";
    if (silent) what.sentence = m_of.sentence + " does not answer: every word reads 0xFFFF.";
    if (silent) what.next = "check the chip's supply, its select signal and the bridge's local address space";
    const bool one_cell = is_one_cell(rounds);
    if (one_cell) {
      const auto &wrong = seen.wrong[0];
      what.sentence =
          "A cell of " + m_of.sentence + (alike ? " is bad: " : " is bad at times: ") + bit_text(wrong) + ".";
      what.next = "--cells names the kind of fault";
    }
    add_evidence(seen, &what);
    report_any(rounds, std::move(what));
  }

  // Every answer was right: a line or a cell that is bad at times, and no access shows which.
  void report_changed(std::span<const round_answers> rounds) {
    finding what{.sentence = "Words of " + m_of.sentence + " change that are not written.",
                 .intermittent = true,
                 .next = "--cells names cells that disturb others; --repeat 1000 shows a line that is bad at times",
                 .places = {m_of.part}};
    const auto changed = all_of(rounds, &round_answers::changed);
    for (const auto &word : std::span(changed).first(std::min(changed.size(), most_evidence)))
      what.evidence.push_back("the word at " + hex(word.offset) + " was " + hex(word.written, 4) + ", and later " +
                              hex(word.read, 4));
    report_any(rounds, std::move(what));
  }

  // No line is named. A cell is left to the cells' test, if there is one.
  void report_any(std::span<const round_answers> rounds, finding what) {
    const bool one_cell = is_one_cell(rounds);
    add_changed({}, &what, one_cell);
    if (m_cell == nullptr || !one_cell) return add_finding(std::move(what), m_result);
    *m_cell = {of_one_bit(rounds)[0].offset, std::move(what)};
  }

  // Which words the accesses may have reached, and so changed. Where no line is named, an address line may be bad.
  void add_changed(const fault_list &fits, finding *what, bool named = true) const {
    std::vector<uint32_t> places;
    for (size_t k = 0; k <= m_lines; ++k) {
      places.push_back(place(k));
      for (const auto *fault : fits)
        if (fault->address) places.push_back(fault->bad.pass(place(k)));
    }
    std::ranges::sort(places);
    places.erase(std::unique(places.begin(), places.end()), places.end());
    std::string list;
    for (const auto at : places)
      list += (list.empty() ? "" : " ") + hex(at);
    what->evidence.push_back("these words may have changed" +
                             std::string(named ? "" : ", or any others if an address line is bad") + ": " + list);
  }

  // Writes each word until it reads back, backwards as after each round. A word that does not is an answer of the last
  // round, too.
  void restore_at_last(std::vector<round_answers> *rounds) {
    constexpr int tries = 8;
    const auto &saved = rounds->front().saved;
    for (size_t k = m_lines + 1; k-- > 0;) {
      for (int i = 0; i < tries; ++i) {
        const auto word = m_ram->read(place(k));
        if (word == saved[k]) break;
        m_ram->write(place(k), saved[k]);
        rounds->back().changed.push_back({place(k), saved[k], word});
      }
    }
  }

  word_bus *m_ram;
  journal *m_kept;
  part_result *m_result;
  std::optional<seen_cell> *m_cell;
  unsigned m_lines;
  memory_name m_of;
  std::vector<single_line_fault> m_faults;
  bool m_doubted = false;  // a line fault may have given the answers, but two are likelier
};

}  // namespace

bool locate_lines(word_bus *ram, unsigned instance, unsigned rounds, journal *kept, part_result *result,
                  std::optional<seen_cell> *cell) {
  const auto before = result->findings.size();
  line_probe(ram, instance, kept, result, cell).run(rounds);
  return result->findings.size() == before;
}

}  // namespace locate
