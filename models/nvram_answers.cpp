#include "models/nvram_answers.h"

#include <algorithm>
#include <bit>
#include <map>
#include <set>

#include "models/nvram.h"

namespace models {
namespace {

constexpr uint32_t region_bytes = 0x8000;

// The word that an access reaches.
uint32_t place_of(const single_line_fault *fault, uint32_t offset) {
  return fault != nullptr && fault->address ? fault->bad.pass(offset) : offset;
}

// What is possible in a memory whose fault acts or does not act, in each access.
class possible_words {
 public:
  explicit possible_words(const single_line_fault &fault) : m_fault(fault) {}

  void write(uint32_t offset, uint16_t word) {
    m_written[offset] = word;
    if (!m_own.contains(word)) m_tags.insert(word);
    const auto other = place_of(&m_fault, offset);
    if (other == offset) {
      m_words[offset] = {{word, wrong(word)}, true};
      return;
    }
    m_words[offset].values.insert(word);
    m_words[other].values.insert(word);
  }

  bool read(uint32_t offset, uint16_t answer) {
    auto &here = m_words[offset];
    auto &there = m_words[place_of(&m_fault, offset)];
    if (here.allows(answer, *this) || there.allows(answer, *this)) return true;
    // What a word held at first is seen once.
    if (here.known && there.known) return false;
    const bool whose_is_open = &here != &there && !here.known && !there.known;
    for (auto *const word : {&here, &there}) {
      if (word->known) continue;
      word->values.insert({answer, wrong(answer)});
      word->known = !whose_is_open || here.doubtful;
    }
    here.doubtful = true;
    m_former.insert(answer);
    const auto written = m_written.find(offset);
    if (written == m_written.end())
      m_own.insert(answer);
    else if (std::popcount(static_cast<uint16_t>(written->second ^ answer)) <= few_bits || m_tags.contains(answer))
      m_doubtful.insert(answer);
    return true;
  }
  [[nodiscard]] former_answers former() const { return {m_former.size(), m_doubtful.size()}; }

 private:
  struct held {
    std::set<uint16_t> values;
    bool known = false;     // what it held at first was seen, or is gone
    bool doubtful = false;  // an answer may have been that

    [[nodiscard]] bool allows(uint16_t answer, const possible_words &of) const {
      for (const auto value : values)
        if (value == answer || of.wrong(value) == answer) return true;
      return false;
    }
  };

  // The word after the bad data lines; a floating line can have either level.
  [[nodiscard]] uint16_t wrong(uint16_t word) const {
    if (m_fault.address) return word;
    return static_cast<uint16_t>(m_fault.bad.pass(word, ~uint32_t{word}));
  }

  static constexpr int few_bits = 2;

  const single_line_fault &m_fault;
  std::map<uint32_t, held> m_words;
  std::map<uint32_t, uint16_t> m_written;  // last, at each offset
  std::set<uint16_t> m_own;                // what was read before anything was written there
  std::set<uint16_t> m_tags;               // what was written, without such words
  std::set<uint16_t> m_former;
  std::set<uint16_t> m_doubtful;
};

}  // namespace

bool gives(const single_line_fault *fault, std::span<const nvram_access> log) {
  sparse_memory words(region_bytes, region_bytes);
  std::set<uint32_t> known;
  nvram ram(memory(&words), fault != nullptr ? std::span(&fault->fault, 1) : std::span<const chip_fault>{});
  // A floating line had some level before the first access: the one that it showed.
  if (!log.empty()) ram.write(log[0].offset, log[0].word);
  for (const auto &one : log) {
    const auto at = place_of(fault, one.offset);
    const bool is_first = known.insert(at).second;
    if (one.write) {
      ram.write(one.offset, one.word);
      continue;
    }
    if (is_first) words.set(at, one.word);
    if (ram.read(one.offset) != one.word) return false;
  }
  return true;
}

std::optional<former_answers> may_give(const single_line_fault &fault, std::span<const nvram_access> log) {
  possible_words words(fault);
  for (const auto &one : log) {
    if (one.write)
      words.write(one.offset, one.word);
    else if (!words.read(one.offset, one.word))
      return std::nullopt;
  }
  return words.former();
}

bool cell_gives(const chip_fault &fault, std::span<const nvram_access> log) {
  const auto flip = [](const sparse_memory &words, uint32_t offset, uint8_t bit) {
    return static_cast<uint16_t>(words.get(offset & ~1U) ^ 1U << (8 * (offset & 1) + bit));
  };
  for (const unsigned levels : {0U, 1U, 2U, 3U}) {
    sparse_memory words(region_bytes, region_bytes);
    if ((levels & 1) != 0) words.set(fault.offset & ~1U, flip(words, fault.offset, fault.bit));
    if ((levels & 2) != 0) words.set(fault.victim & ~1U, flip(words, fault.victim, fault.vbit));
    nvram ram(memory(&words), std::span(&fault, 1));
    const bool all = std::ranges::all_of(log, [&ram](const auto &one) {
      if (!one.write) return ram.read(one.offset) == one.word;
      ram.write(one.offset, one.word);
      return true;
    });
    if (all) return true;
  }
  return false;
}

}  // namespace models
