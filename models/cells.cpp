#include "models/cells.h"

#include <algorithm>
#include <array>

#include "faults/random.h"

namespace models {

uint16_t torn_word(const word_write &w, uint64_t *random) {
  const uint64_t chosen = sim::random_next(random);
  const std::array<uint16_t, 4> masks{0, 0xFFFF, static_cast<uint16_t>(chosen >> 16U),
                                      static_cast<uint16_t>(chosen >> 32U)};
  const uint16_t left = masks[chosen % masks.size()];
  return static_cast<uint16_t>((w.wanted & ~left) | (w.before & left));
}

const bad_cells::kind_row *bad_cells::row_of(fault_id id) {
  using enum kind;
  using f = fault_id;
  constexpr uint8_t any = either_level;
  // In flash an erased cell is 1. Electrons reach a floating gate more easily than they leave it: everything that
  // disturbs a cell programs it.
  // clang-format off
  static constexpr std::array rows{std::to_array<kind_row>({
      // fault                              kind                level victim plain
      {f::nvram_cell_stuck,                 stuck,              any,  any,   false},
      {f::nvram_cell_transition,            transition,         any,  any,   true},
      {f::nvram_cell_read_disturb,          read_disturb,       any,  any,   false},
      {f::nvram_cell_read_deceptive,        read_deceptive,     any,  any,   false},
      {f::nvram_cell_read_wrong,            read_wrong,         any,  any,   false},
      {f::nvram_cell_write_disturb,         write_disturb,      any,  any,   true},
      {f::nvram_cell_coupled,               coupled_change,     any,  any,   true},
      {f::nvram_cell_coupled_read,          coupled_read,       any,  any,   false},
      {f::nvram_cell_coupled_write,         coupled_write,      any,  any,   true},
      {f::nvram_cell_coupled_state,         coupled_state,      any,  any,   false},
      {f::nvram_cell_coupled_transition,    coupled_transition, any,  any,   true},
      {f::flash_cell_stuck,                 stuck,              any,  any,   false},
      {f::flash_cell_transition,            transition,         any,  any,   true},
      {f::flash_cell_read_disturb,          read_disturb,       1,    any,   false},
      {f::flash_cell_read_deceptive,        read_deceptive,     1,    any,   false},
      {f::flash_cell_read_wrong,            read_wrong,         any,  any,   false},
      {f::flash_cell_write_disturb,         write_disturb,      1,    any,   true},
      {f::flash_cell_coupled,               coupled_change,     0,    0,     true},
      {f::flash_cell_coupled_read,          coupled_read,       any,  0,     false},
      {f::flash_cell_coupled_write,         coupled_write,      any,  0,     true},
      {f::flash_cell_coupled_state,         coupled_sense,      0,    0,     false},
      {f::flash_cell_coupled_transition,    coupled_transition, 1,    0,     true},
  })};
  // clang-format on
  const auto *const found = std::ranges::find(rows, id, &kind_row::id);
  return found == rows.end() ? nullptr : found;
}

bool is_cell_fault(fault_id id) {
  return bad_cells::row_of(id) != nullptr;
}

bool is_coupling_fault(fault_id id) {
  const auto *const row = bad_cells::row_of(id);
  return row != nullptr && row->kind >= bad_cells::kind::coupled_change;
}

bad_cells::place::place(uint32_t offset, unsigned bit)
    : at(offset & ~1U), mask(static_cast<uint16_t>(1U << (bit + 8 * (offset & 1U)))) {}

bool bad_cells::add(const chip_fault &f) {
  const auto *const row = row_of(f.id);
  if (row == nullptr) return false;
  const auto level = f.level == either_level ? row->level : f.level;
  const auto vlevel = f.vlevel == either_level ? row->vlevel : f.vlevel;
  m_cells.push_back({row->kind, level, vlevel, place(f.offset, f.bit), place(f.victim, f.vbit), f.cause});
  m_plain = m_plain && row->read_plainly;
  const auto at = m_cells.back().cell.at;
  const auto where = std::ranges::lower_bound(m_words, at);
  if (where == m_words.end() || *where != at) m_words.insert(where, at);
  m_taken.resize(m_words.size());
  return true;
}

// Gives the victim its level, or the other one.
void bad_cells::bad_cell::hit(const memory &words) const {
  const bool changes = vlevel == either_level || victim.get(words) != (vlevel != 0);
  if (changes && strikes(cause)) victim.invert(words);
}

// The word as this cell lets it be read.
uint16_t bad_cells::bad_cell::read(const memory &words, uint16_t word, uint16_t lanes) const {
  const bool seen = (cell.mask & lanes) != 0;
  const auto inverted = static_cast<uint16_t>(word ^ cell.mask);
  const bool holds = cell.get(words);
  switch (kind) {
    case kind::stuck:
      return seen && !suits((word & cell.mask) != 0) && strikes(cause) ? inverted : word;
    case kind::read_disturb:
      if (!suits(holds) || !strikes(cause)) return word;
      cell.invert(words);
      return inverted;
    case kind::read_deceptive:
      if (suits(holds) && strikes(cause)) cell.invert(words);
      return word;
    case kind::read_wrong:
      return seen && suits(holds) && strikes(cause) ? inverted : word;
    case kind::coupled_read:
      hit(words);
      return word;
    default:
      return word;
  }
}

uint16_t bad_cells::read(const memory &words, uint32_t at, uint16_t lanes) const {
  for (const auto &c : m_cells)
    if (c.kind == kind::coupled_state && c.victim.at == at && c.suits(c.cell.get(words))) c.hit(words);
  uint16_t word = words.get(at);
  for (const auto &c : m_cells) {
    if (c.cell.at == at) word = c.read(words, word, lanes);
    if (c.kind != kind::coupled_sense || c.victim.at != at || !c.suits(c.cell.get(words))) continue;
    const bool forced = c.vlevel != 0;
    if (((word & c.victim.mask) != 0) != forced && strikes(c.cause)) word ^= c.victim.mask;
  }
  return word;
}

// Whether the write leaves this cell, or the one coupled with it, at the other level than wanted.
bool bad_cells::bad_cell::refuses(const memory &words, const word_write &w) const {
  const auto &hit_place = kind == kind::coupled_transition ? victim : cell;
  if (hit_place.at != w.at || (hit_place.mask & w.lanes) == 0) return false;
  const bool holds = (w.before & hit_place.mask) != 0;
  const bool wants = (w.wanted & hit_place.mask) != 0;
  switch (kind) {
    case kind::stuck:
      return !suits(wants) && strikes(cause);
    case kind::transition:
      return holds != wants && suits(wants) && strikes(cause);
    case kind::coupled_transition:
      return holds != wants && wants == (vlevel != 0) && suits(cell.get(words)) && strikes(cause);
    default:
      return false;
  }
}

// What the word holds after a write.
uint16_t bad_cells::take(const memory &words, const word_write &w) const {
  uint16_t word = w.wanted;
  for (const auto &c : m_cells)
    if (c.refuses(words, w)) word ^= c.kind == kind::coupled_transition ? c.victim.mask : c.cell.mask;
  return word;
}

// What the write does beyond the cells that it changes, by this one.
void bad_cells::bad_cell::disturb(const memory &words, const word_write &w, uint16_t changed) const {
  const bool written = cell.at == w.at && (cell.mask & w.lanes) != 0;
  const bool holds = cell.get(words);
  switch (kind) {
    case kind::write_disturb:
      if (written && ((w.before ^ w.wanted) & cell.mask) == 0 && suits(holds) && strikes(cause)) cell.invert(words);
      return;
    case kind::coupled_change:
      if (written && (changed & cell.mask) != 0 && suits(holds)) hit(words);
      return;
    case kind::coupled_write:
      if (written) hit(words);
      return;
    case kind::coupled_state:
      if ((cell.at == w.at || victim.at == w.at) && suits(holds)) hit(words);
      return;
    default:
      return;
  }
}

uint16_t bad_cells::write(const memory &words, const word_write &w) const {
  const uint16_t taken = take(words, w);
  words.set(w.at, taken);
  for (const auto &c : m_cells)
    c.disturb(words, w, w.before ^ taken);
  return taken;
}

bool bad_cells::erase(const memory &words, uint32_t first, uint32_t length) {
  const auto inside = [&](uint32_t at) { return at - first < length; };
  for (size_t i = 0; i < m_words.size(); ++i)
    if (inside(m_words[i])) m_taken[i] = take(words, {m_words[i], words.get(m_words[i]), 0xFFFF});
  words.blank(first, length);
  bool erased = true;
  for (size_t i = 0; i < m_words.size(); ++i) {
    if (!inside(m_words[i])) continue;
    words.set(m_words[i], m_taken[i]);
    erased = erased && m_taken[i] == 0xFFFF;
  }
  return erased;
}

}  // namespace models
