#include "sim/devices/cells.h"

#include <algorithm>
#include <array>

#include "sim/board/random.h"
#include "sim/devices/lines.h"

namespace sim {

uint16_t torn_word(const word_write &w, uint64_t *random) {
  const uint64_t chosen = random_next(random);
  const std::array<uint16_t, 4> masks{0, 0xFFFF, static_cast<uint16_t>(chosen >> 16U),
                                      static_cast<uint16_t>(chosen >> 32U)};
  const uint16_t left = masks[chosen % masks.size()];
  return static_cast<uint16_t>((w.wanted & ~left) | (w.before & left));
}

const bad_cells::kind_row *bad_cells::row_of(fault_id id) {
  using enum kind;
  using f = fault_id;
  // In flash an erased cell is 1. Electrons reach a floating gate unasked more easily than they leave it: whatever
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

bad_cells::place::place(uint64_t offset, uint64_t bit)
    : at(static_cast<uint32_t>(offset & ~uint64_t{1})), mask(static_cast<uint16_t>(1U << (bit + 8 * (offset & 1)))) {}

bool bad_cells::place::get(std::span<const uint8_t> memory) const {
  return (word_get(memory, at) & mask) != 0;
}

void bad_cells::place::invert(std::span<uint8_t> memory) const {
  word_set(memory, at, word_get(memory, at) ^ mask);
}

bool bad_cells::add(const fault &f) {
  const auto *const row = row_of(f.id);
  if (row == nullptr) return false;
  m_cells.push_back({&f, row->kind, place(f.get("offset"), f.get("bit")), place(f.get("victim"), f.get("vbit")),
                     static_cast<uint8_t>(f.get("level", row->level)),
                     static_cast<uint8_t>(f.get("vlevel", row->victim_level))});
  m_plain = m_plain && row->read_plainly;
  return true;
}

// Gives the victim its level, or the other one.
void bad_cells::bad_cell::hit(std::span<uint8_t> memory) const {
  const bool changes = victim_level == any || victim.get(memory) != (victim_level != 0);
  if (changes && cause->strikes()) victim.invert(memory);
}

// The word as this cell lets it be read.
uint16_t bad_cells::bad_cell::read(std::span<uint8_t> memory, uint16_t word, uint16_t lanes) const {
  const bool seen = (cell.mask & lanes) != 0;
  const auto inverted = static_cast<uint16_t>(word ^ cell.mask);
  const bool holds = cell.get(memory);
  switch (kind) {
    case kind::stuck:
      return seen && !suits((word & cell.mask) != 0) && cause->strikes() ? inverted : word;
    case kind::read_disturb:
      if (!suits(holds) || !cause->strikes()) return word;
      cell.invert(memory);
      return inverted;
    case kind::read_deceptive:
      if (suits(holds) && cause->strikes()) cell.invert(memory);
      return word;
    case kind::read_wrong:
      return seen && suits(holds) && cause->strikes() ? inverted : word;
    case kind::coupled_read:
      hit(memory);
      return word;
    default:
      return word;
  }
}

uint16_t bad_cells::read(std::span<uint8_t> memory, uint32_t at, uint16_t lanes) const {
  for (const auto &c : m_cells)
    if (c.kind == kind::coupled_state && c.victim.at == at && c.suits(c.cell.get(memory))) c.hit(memory);
  uint16_t word = word_get(memory, at);
  for (const auto &c : m_cells) {
    if (c.cell.at == at) word = c.read(memory, word, lanes);
    if (c.kind != kind::coupled_sense || c.victim.at != at || !c.suits(c.cell.get(memory))) continue;
    const bool forced = c.victim_level != 0;
    if (((word & c.victim.mask) != 0) != forced && c.cause->strikes()) word ^= c.victim.mask;
  }
  return word;
}

// Whether the write leaves this cell, or the one coupled with it, at the other level than wanted.
bool bad_cells::bad_cell::refuses(std::span<const uint8_t> memory, const word_write &w) const {
  const auto &hit_place = kind == kind::coupled_transition ? victim : cell;
  if (hit_place.at != w.at || (hit_place.mask & w.lanes) == 0) return false;
  const bool holds = (w.before & hit_place.mask) != 0;
  const bool wants = (w.wanted & hit_place.mask) != 0;
  switch (kind) {
    case kind::stuck:
      return !suits(wants) && cause->strikes();
    case kind::transition:
      return holds != wants && suits(wants) && cause->strikes();
    case kind::coupled_transition:
      return holds != wants && wants == (victim_level != 0) && suits(cell.get(memory)) && cause->strikes();
    default:
      return false;
  }
}

uint16_t bad_cells::take(std::span<const uint8_t> memory, const word_write &w) const {
  uint16_t word = w.wanted;
  for (const auto &c : m_cells)
    if (c.refuses(memory, w)) word ^= c.kind == kind::coupled_transition ? c.victim.mask : c.cell.mask;
  return word;
}

// What the write does beyond the cells that it changes, by this one.
void bad_cells::bad_cell::disturb(std::span<uint8_t> memory, const word_write &w, uint16_t changed) const {
  const bool written = cell.at == w.at && (cell.mask & w.lanes) != 0;
  const bool holds = cell.get(memory);
  switch (kind) {
    case kind::write_disturb:
      if (written && ((w.before ^ w.wanted) & cell.mask) == 0 && suits(holds) && cause->strikes()) cell.invert(memory);
      return;
    case kind::coupled_change:
      if (written && (changed & cell.mask) != 0 && suits(holds)) hit(memory);
      return;
    case kind::coupled_write:
      if (written) hit(memory);
      return;
    case kind::coupled_state:
      if ((cell.at == w.at || victim.at == w.at) && suits(holds)) hit(memory);
      return;
    default:
      return;
  }
}

void bad_cells::disturb(std::span<uint8_t> memory, const word_write &w) const {
  const auto changed = static_cast<uint16_t>(w.before ^ word_get(memory, w.at));
  for (const auto &c : m_cells)
    c.disturb(memory, w, changed);
}

std::vector<uint32_t> bad_cells::words(uint32_t first, uint32_t length) const {
  std::vector<uint32_t> list;
  for (const auto &c : m_cells)
    if (c.cell.at - first < length) list.push_back(c.cell.at);
  std::ranges::sort(list);
  list.erase(std::unique(list.begin(), list.end()), list.end());
  return list;
}

}  // namespace sim
