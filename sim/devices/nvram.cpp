// nvram.cpp: battery-backed RAM with bad lines and cells.
#include "sim/devices/nvram.h"

#include <signal.h>
#include <unistd.h>

#include "sim/devices/cut_audit.h"

namespace sim {

void nvram_model::start(std::span<uint8_t> contents, unsigned instance, const options &opts) {
  *this = nvram_model{};
  m_memory = contents;
  for (const auto &f : opts.faults)
    if (f.row().part == fault_part::nvram && f.get("instance") == instance) add(f);
}

void nvram_model::add(const fault &f) {
  switch (f.id) {
    case fault_id::nvram_data_stuck:
      return m_data.lines().add_stuck(f);
    case fault_id::nvram_data_short:
      return m_data.lines().add_shorted(f);
    case fault_id::nvram_data_floating:
      return m_data.lines().add_floating(f);
    case fault_id::nvram_addr_stuck:
      return m_address.add_stuck(f);
    case fault_id::nvram_addr_short:
      return m_address.add_shorted(f);
    case fault_id::nvram_power_cut:
      m_power_cut = &f;
      return;
    default:
      (void)m_cells.add(f);
  }
}

uint32_t nvram_model::cell_offset(uint32_t offset) {
  return m_address.pass(offset, ~0U);
}

uint16_t nvram_model::read(uint32_t offset, uint16_t lanes) {
  const uint32_t at = cell_offset(offset);
  if (((word_get(m_memory, at) ^ word_get(m_memory, offset)) & lanes) != 0) m_address.fired();
  return m_data.to_bus(m_cells.read(m_memory, at, lanes), lanes);
}

void nvram_model::write(uint32_t offset, uint16_t word, uint16_t lanes) {
  const uint32_t at = cell_offset(offset);
  const uint16_t taken = m_data.to_chip(word, lanes);
  const uint16_t before = word_get(m_memory, at);
  const word_write w{at, before, static_cast<uint16_t>((before & ~lanes) | (taken & lanes)), lanes};
  const bool there_differs = ((word_get(m_memory, offset) ^ taken) & lanes) != 0;
  if (at != offset && (there_differs || w.wanted != before)) m_address.fired();
  if (m_power_cut != nullptr && m_power_cut->strikes()) cut_power(w);
  if (m_audit != nullptr) m_audit->write(w);
  word_set(m_memory, at, m_cells.take(m_memory, w));
  if (m_audit != nullptr) m_audit->done();
  m_cells.disturb(m_memory, w);
}

void nvram_model::cut_power(const word_write &w) {
  uint64_t random = m_power_cut->get("seed");
  word_set(m_memory, w.at, torn_word(w, &random));
  kill(getpid(), SIGKILL);
}

}  // namespace sim
