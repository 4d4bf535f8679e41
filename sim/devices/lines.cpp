// lines.cpp: stuck and shorted lines, bad cells.
#include "sim/devices/lines.h"

namespace sim {

namespace {

uint32_t bit(uint64_t number) {
  return uint32_t{1} << (number & 31U);
}

// A byte mask as part of the word that holds the byte.
uint16_t in_word(uint32_t offset, uint8_t mask) {
  return static_cast<uint16_t>((offset & 1U) != 0 ? mask << 8U : mask);
}

}  // namespace

bool bus_lines::add(const fault &f, fault_id stuck, fault_id shorted) {
  if (f.id == stuck) {
    (f.get("level") != 0 ? stuck_high : stuck_low) |= bit(f.get("line"));
    return true;
  }
  if (f.id != shorted) return false;
  shorts.push_back({bit(f.get("line")) | bit(f.get("other")), f.get("wins") != 0});
  return true;
}

uint32_t bus_lines::pass(uint32_t levels) const {
  for (const auto &s : shorts) {
    const uint32_t now = levels & s.both;
    if (now != 0 && now != s.both) levels = s.high_wins ? levels | s.both : levels & ~s.both;
  }
  return (levels | stuck_high) & ~stuck_low;
}

bool bad_cells::add(const fault &f, fault_id stuck_id, fault_id coupled_id, size_t size) {
  const auto offset = static_cast<uint32_t>(f.get("offset"));
  const auto mask = static_cast<uint8_t>(bit(f.get("bit")));
  if (f.id == stuck_id && offset < size) {
    stuck.push_back({offset, mask, f.get("level") != 0});
    return true;
  }
  const auto victim = static_cast<uint32_t>(f.get("victim"));
  if (f.id != coupled_id || offset >= size || victim >= size) return false;
  coupled.push_back({offset, mask, victim, static_cast<uint8_t>(bit(f.get("vbit")))});
  return true;
}

uint16_t bad_cells::force(uint32_t offset, uint16_t word) const {
  for (const auto &cell : stuck) {
    if ((cell.offset & ~1U) != offset) continue;
    const uint16_t mask = in_word(cell.offset, cell.mask);
    word = static_cast<uint16_t>(cell.high ? word | mask : word & ~mask);
  }
  return word;
}

std::vector<bad_cells::coupled_cell> bad_cells::disturbed(uint32_t offset, uint16_t changed) const {
  std::vector<coupled_cell> hit;
  for (const auto &cell : coupled) {
    if ((cell.offset & ~1U) == offset && (changed & in_word(cell.offset, cell.mask)) != 0) hit.push_back(cell);
  }
  return hit;
}

uint16_t word_get(std::span<const uint8_t> bytes, uint32_t offset) {
  return static_cast<uint16_t>(bytes[offset] | bytes[offset + 1] << 8U);
}

void word_set(std::span<uint8_t> bytes, uint32_t offset, uint16_t word) {
  bytes[offset] = static_cast<uint8_t>(word);
  bytes[offset + 1] = static_cast<uint8_t>(word >> 8U);
}

}  // namespace sim
