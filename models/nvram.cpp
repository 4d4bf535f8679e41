#include "models/nvram.h"

namespace models {

namespace {

constexpr uint32_t all_lines = ~0U;

}  // namespace

nvram::nvram(memory words, std::span<const chip_fault> faults) : m_words(words), m_healthy(faults.empty()) {
  for (const auto &f : faults)
    if (!add_line_fault(f, &m_data.lines(), &m_address)) (void)m_cells.add(f);
}

uint16_t nvram::read(uint32_t offset, uint16_t lanes) {
  const uint32_t at = m_address.pass(offset, all_lines);
  if (at != offset && ((m_words.get(at) ^ m_words.get(offset)) & lanes) != 0) m_address.fired();
  return m_data.to_bus(m_cells.read(m_words, at, lanes), lanes);
}

word_write nvram::arrives(uint32_t offset, uint16_t word, uint16_t lanes) {
  const uint32_t at = m_address.pass(offset, all_lines);
  const uint16_t taken = m_data.to_chip(word, lanes);
  const uint16_t before = m_words.get(at);
  const word_write w{at, before, static_cast<uint16_t>((before & ~lanes) | (taken & lanes)), lanes};
  const bool there_differs = ((m_words.get(offset) ^ taken) & lanes) != 0;
  if (at != offset && (there_differs || w.wanted != before)) m_address.fired();
  return w;
}

}  // namespace models
