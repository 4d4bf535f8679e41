// nvram.cpp: battery-backed RAM with bad lines and cells.
#include "sim/devices/nvram.h"

#include <bit>

namespace sim {

void nvram_model::start(std::span<uint8_t> contents, unsigned instance, const options &opts) {
  *this = nvram_model{};
  memory = contents;
  for (const auto &f : opts.faults) {
    if (f.row().part != fault_part::nvram || f.get("instance") != instance) continue;
    (void)(data.add(f, fault_id::nvram_data_stuck, fault_id::nvram_data_short) ||
           address.add(f, fault_id::nvram_addr_stuck, fault_id::nvram_addr_short) ||
           cells.add(f, fault_id::nvram_cell_stuck, fault_id::nvram_cell_coupled, contents.size()));
  }
}

// A line stuck high above the last one of the chip is not connected.
uint32_t nvram_model::cell_offset(uint32_t offset) const {
  return address.pass(offset) & (std::bit_ceil(static_cast<uint32_t>(memory.size())) - 1U) & ~1U;
}

uint16_t nvram_model::read(uint32_t offset) const {
  const uint32_t at = cell_offset(offset);
  return static_cast<uint16_t>(data.pass(cells.force(at, word_get(memory, at))));
}

void nvram_model::write(uint32_t offset, uint16_t word, uint16_t lanes) {
  const uint32_t at = cell_offset(offset);
  const uint16_t before = cells.force(at, word_get(memory, at));
  const uint32_t driven = data.pass(word);
  const auto after = cells.force(at, static_cast<uint16_t>((before & ~lanes) | (driven & lanes)));
  word_set(memory, at, after);
  for (const auto &cell : cells.disturbed(at, before ^ after))
    memory[cell.victim] ^= cell.victim_mask;
}

}  // namespace sim
