#include "sim/devices/cut_audit.h"

#include <algorithm>
#include <array>
#include <cinttypes>
#include <cstdio>

#include "faults/random.h"
#include "models/lines.h"
#include "sim/bus/trace.h"

namespace sim {

namespace {

// So many words written one after the other are a pass over the memory.
constexpr size_t pass_words = 16;
constexpr size_t most_waiting = 64;

double share(uint64_t part, uint64_t of) {
  return of == 0 ? 0 : 100.0 * static_cast<double>(part) / static_cast<double>(of);
}

}  // namespace

uint64_t cut_sum(uint32_t offset, uint16_t word) {
  uint64_t state = uint64_t{offset} << 16U | word;
  return random_next(&state);
}

cut_audit::cut_audit(std::string memory, std::span<const uint8_t> contents, uint32_t block, std::string fault)
    : m_memory(std::move(memory)),
      m_contents(contents),
      m_block(block),
      m_fault(std::move(fault)),
      m_start(new uint8_t[contents.size()]),
      m_kept(contents.size() / block) {}

// --- What differs ---------------------------------------------------------------------------------------------------

uint16_t cut_audit::start_word(uint32_t offset) const {
  return models::word_get({m_start.get(), m_contents.size()}, offset);
}

void cut_audit::keep_start(uint32_t first, uint32_t length) {
  for (uint32_t block = first / m_block; block * m_block < first + length; ++block) {
    if (m_kept[block]) continue;
    m_kept[block] = true;
    std::ranges::copy(m_contents.subspan(size_t{block} * m_block, m_block), &m_start[size_t{block} * m_block]);
  }
}

cut_audit::difference cut_audit::differs(uint32_t first, uint32_t length) const {
  difference found;
  for (uint32_t at = first; at < first + length; at += 2) {
    const uint16_t word = models::word_get(m_contents, at);
    if (word == start_word(at)) continue;
    ++found.words;
    found.sum += cut_sum(at, word);
  }
  return found;
}

// --- Cycles ---------------------------------------------------------------------------------------------------------

void cut_audit::cycle() {
  m_cut = {m_cut.nth + 1, m_now.words, m_now.sum, m_now.words, 0, 0};
  m_waiting.push_back(m_cut);
  if (m_waiting.size() > most_waiting) settle("other cycles");
}

void cut_audit::tear(uint32_t first, uint32_t length) {
  keep_start(first, length);
  const auto inside = differs(first, length);
  m_cut.certain = m_now.words - inside.words;
  m_cut.sum = m_now.sum - inside.sum;
  m_cut.first = first;
  m_cut.length = length;
}

void cut_audit::tears(const std::string &what, std::span<const models::word_write> words, uint64_t usec) {
  tear(words.front().at, words.back().at + 2 - words.front().at);
  m_cut.at_most = m_now.words;
  for (const auto &w : words)
    if (w.before == start_word(w.at) && w.wanted != w.before) m_cut.at_most++;
  m_waiting.back() = m_cut;
  if (!what.empty()) put(what, usec);
}

void cut_audit::tears(const std::string &what, uint32_t first, uint32_t length, uint64_t usec) {
  tear(first, length);
  m_cut.at_most = m_cut.certain + length / 2;
  m_waiting.back() = m_cut;
  put(what, usec);
}

void cut_audit::done() {
  m_now = differs(m_cut.first, m_cut.length);
  m_now.words += m_cut.certain;
  m_now.sum += m_cut.sum;
}

void cut_audit::write(const models::word_write &w) {
  const bool goes_on = w.at == m_next;
  if (!goes_on && !m_in_pass) settle("single words");
  if (!goes_on) m_in_pass = false;
  m_next = w.at + 2;
  cycle();
  tears("", {&w, 1}, 0);
  if (!m_in_pass && m_waiting.size() == pass_words) {
    m_in_pass = true;
    ++m_passes;
  }
  if (m_in_pass) settle("pass " + std::to_string(m_passes));
}

// --- Phases ---------------------------------------------------------------------------------------------------------

void cut_audit::settle(const std::string &what) {
  if (!m_waiting.empty()) put(what, 0);
}

// The waiting cycles belong to this phase; the last of them keeps the chip busy.
void cut_audit::put(const std::string &what, uint64_t usec) {
  const auto &row = row_now();
  if (m_phases.empty() || m_phases.back().what != what || m_phases.back().row != row) m_phases.emplace_back(row, what);
  for (const auto &cut : m_waiting)
    m_phases.back().take(cut, &cut == &m_waiting.back() ? usec : 0, &m_random);
  m_waiting.clear();
}

void cut_audit::phase::take(const cut_point &cut, uint64_t usec_busy, uint64_t *random) {
  ++writes;
  usec += usec_busy;
  if (cut.at_most != 0) {
    ++writes_at_risk;
    usec_at_risk += usec_busy;
  }
  if (writes == 1) first = worst = cut;
  if (cut.at_most > worst.at_most) worst = cut;
  if (random_next(random) % writes == 0) any = cut;
  last = cut;
}

// --- Text -----------------------------------------------------------------------------------------------------------

std::string cut_audit::line(const phase &p, const phase &all) const {
  char text[160];
  (void)std::snprintf(text, sizeof(text),
                      "\t%" PRIu64 "\t%" PRIu64 "\t%.3f\t%.3f\t%.3f\t%.3f\t%" PRIu32 "\t--fault \"%s nth=%" PRIu64
                      "\"\n",
                      p.writes, p.writes_at_risk, share(p.writes_at_risk, all.writes),
                      static_cast<double>(p.usec) / 1000, static_cast<double>(p.usec_at_risk) / 1000,
                      share(p.usec_at_risk, all.usec), p.worst.at_most, m_fault.c_str(), p.worst.nth);
  return m_memory + "\t" + p.row + "\t" + p.what + text;
}

std::string cut_audit::table() {
  settle("single words");
  if (m_phases.empty()) return "";
  phase all("", "all");
  for (const auto &p : m_phases) {
    all.writes += p.writes;
    all.writes_at_risk += p.writes_at_risk;
    all.usec += p.usec;
    all.usec_at_risk += p.usec_at_risk;
    if (p.worst.at_most >= all.worst.at_most) all.worst = p.worst;
  }
  std::string lines;
  for (const auto &p : m_phases)
    lines += line(p, all) + cuts(p);
  return lines + line(all, all);
}

// Cuts of a phase that a check may repeat.
std::string cut_audit::cuts(const phase &p) const {
  std::string lines;
  std::array listed{&p.first, &p.any, &p.worst, &p.last};
  std::ranges::sort(listed, {}, &cut_point::nth);
  const auto same = [](const cut_point *one, const cut_point *other) { return one->nth == other->nth; };
  for (const auto *const cut : std::span(listed.begin(), std::unique(listed.begin(), listed.end(), same))) {
    char text[160];
    (void)std::snprintf(text, sizeof(text),
                        "cut\t%s nth=%" PRIu64 "\t%" PRIu32 "\t0x%" PRIx64 "\t%" PRIu32 "\t0x%" PRIx32 "\t0x%" PRIx32
                        "\n",
                        m_fault.c_str(), cut->nth, cut->certain, cut->sum, cut->at_most, cut->first, cut->length);
    lines += text;
  }
  return lines;
}

}  // namespace sim
