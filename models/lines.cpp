#include "models/lines.h"

#include <algorithm>
#include <array>

namespace models {

namespace {

// How a fault of the table becomes bad lines.
struct line_row {
  fault_id id;
  line_kind kind;
  bool address;  // of the address bus, else of the data bus
};

using id = fault_id;
using enum line_kind;

// clang-format off
constexpr std::array line_rows{std::to_array<line_row>({
    // fault                 kind      address
    {id::nvram_data_stuck,    stuck,    false},
    {id::nvram_data_short,    shorted,  false},
    {id::nvram_data_floating, floating, false},
    {id::nvram_addr_stuck,    stuck,    true},
    {id::nvram_addr_short,    shorted,  true},
    {id::flash_data_stuck,    stuck,    false},
    {id::flash_data_short,    shorted,  false},
    {id::flash_data_floating, floating, false},
    {id::flash_addr_stuck,    stuck,    true},
    {id::flash_addr_short,    shorted,  true},
})};
// clang-format on

uint32_t bit(unsigned number) {
  return uint32_t{1} << (number & 31U);
}

}  // namespace

std::optional<line_fault> line_fault_of(const chip_fault &f) {
  const auto *const row = std::ranges::find(line_rows, f.id, &line_row::id);
  if (row == line_rows.end()) return std::nullopt;
  bad_lines bad{row->kind, bit(f.line), f.level == 1};
  if (bad.kind == shorted) {
    bad.lines |= bit(f.other);
    bad.high = f.wins != 0;
  }
  return line_fault{row->address, bad};
}

bool add_line_fault(const chip_fault &f, bus_lines *data, bus_lines *address) {
  const auto fault = line_fault_of(f);
  if (fault) (fault->address ? address : data)->add(fault->bad, f.cause);
  return fault.has_value();
}

uint32_t bus_lines::pass_faulty(uint32_t levels, uint32_t seen, uint32_t kept) {
  for (auto &one : m_faulty) {
    const uint32_t wrong = one.bad.pass(levels, kept);
    one.acted = ((wrong ^ levels) & seen) != 0 && acts(one.cause);
    if (one.acted) levels = wrong;
  }
  return levels;
}

void bus_lines::fired() const {
  for (const auto &one : m_faulty)
    if (one.acted) count(one.cause);
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

}  // namespace models
