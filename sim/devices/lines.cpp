#include "sim/devices/lines.h"

namespace sim {

namespace {

uint32_t bit(uint64_t number) {
  return uint32_t{1} << (number & 31U);
}

}  // namespace

void bus_lines::add_stuck(const fault &f) {
  m_faulty.push_back({&f, kind::stuck, bit(f.get("line")), f.get("level") != 0});
}

void bus_lines::add_shorted(const fault &f) {
  m_faulty.push_back({&f, kind::shorted, bit(f.get("line")) | bit(f.get("other")), f.get("wins") != 0});
}

void bus_lines::add_floating(const fault &f) {
  m_faulty.push_back({&f, kind::floating, bit(f.get("line")), false});
}

uint32_t bus_lines::faulty_lines::apply(uint32_t levels, uint32_t kept) const {
  const uint32_t now = levels & lines;
  if (kind == kind::floating) return (levels & ~lines) | (kept & lines);
  if (kind == kind::shorted && (now == 0 || now == lines)) return levels;
  return high ? levels | lines : levels & ~lines;
}

uint32_t bus_lines::pass(uint32_t levels, uint32_t seen, uint32_t kept) {
  for (auto &f : m_faulty) {
    const uint32_t wrong = f.apply(levels, kept);
    f.acted = ((wrong ^ levels) & seen) != 0 && f.cause->acts();
    if (f.acted) levels = wrong;
  }
  return levels;
}

void bus_lines::fired() const {
  for (const auto &f : m_faulty)
    if (f.acted) f.cause->fired();
}

uint16_t data_lines::to_chip(uint16_t word, uint16_t lanes) {
  const auto taken = static_cast<uint16_t>(m_lines.pass(word, lanes, m_chip_levels));
  m_lines.fired();
  m_bus_levels = static_cast<uint16_t>((m_bus_levels & ~lanes) | (word & lanes));
  return taken;
}

uint16_t data_lines::to_bus(uint16_t word, uint16_t lanes) {
  m_chip_levels = word;
  const auto taken = static_cast<uint16_t>(m_lines.pass(word, lanes, m_bus_levels));
  m_lines.fired();
  m_bus_levels = static_cast<uint16_t>((m_bus_levels & ~lanes) | (taken & lanes));
  return taken;
}

uint16_t word_get(std::span<const uint8_t> bytes, uint32_t offset) {
  return static_cast<uint16_t>(bytes[offset] | bytes[offset + 1] << 8U);
}

void word_set(std::span<uint8_t> bytes, uint32_t offset, uint16_t word) {
  bytes[offset] = static_cast<uint8_t>(word);
  bytes[offset + 1] = static_cast<uint8_t>(word >> 8U);
}

}  // namespace sim
