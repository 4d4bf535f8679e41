#include "sim/devices/expander.h"

namespace sim {

namespace {

enum : uint8_t { reg_input = 0, reg_output = 2, reg_polarity = 4, reg_configuration = 6, reg_count = 8 };

}  // namespace

uint16_t expander_pins::held::apply(uint16_t now, uint16_t seen) const {
  const auto wrong = static_cast<uint16_t>((levels & pins) | (now & ~pins));
  return ((wrong ^ now) & seen) != 0 && cause->strikes() ? wrong : now;
}

uint16_t expander_pins::levels(uint16_t driven, uint16_t outputs, uint16_t seen) const {
  uint16_t from_outside = level;
  for (const auto &f : outside)
    from_outside = f.apply(from_outside, static_cast<uint16_t>(seen & ~driven));
  auto now = static_cast<uint16_t>((outputs & driven) | (from_outside & ~driven));
  for (const auto &f : stuck)
    now = f.apply(now, seen);
  return now;
}

uint16_t pca9539::pair(unsigned first) const {
  return static_cast<uint16_t>(m_registers[first] | m_registers[first + 1] << 8);
}

uint16_t pca9539::levels(uint16_t seen) const {
  const auto driven = static_cast<uint16_t>(~pair(reg_configuration));
  return m_pins.levels(driven, pair(reg_output), seen);
}

bool pca9539::start(bool reading) {
  m_has_command = reading;
  return true;
}

bool pca9539::write(uint8_t byte) {
  if (!m_has_command) {
    if (byte >= reg_count) return false;
    m_next = byte;
    m_has_command = true;
    return true;
  }
  if (m_next >= reg_output) m_registers[m_next] = byte;
  m_next ^= 1;
  return true;
}

uint8_t pca9539::read() {
  const uint8_t from = m_next;
  m_next ^= 1;
  if (from >= reg_output) return m_registers[from];
  const auto seen = static_cast<uint16_t>(0xFF << 8 * from);
  return static_cast<uint8_t>((levels(seen) ^ pair(reg_polarity)) >> 8 * from);
}

uint16_t pca8575::levels(uint16_t seen) const {
  const auto low = static_cast<uint16_t>(~m_latch);
  return m_pins.levels(low, 0, seen);
}

bool pca8575::start(bool) {
  m_port = 0;
  return true;
}

bool pca8575::write(uint8_t byte) {
  const unsigned shift = 8 * m_port;
  m_latch = static_cast<uint16_t>((m_latch & ~(0xFF << shift)) | byte << shift);
  m_port ^= 1;
  return true;
}

uint8_t pca8575::read() {
  const auto seen = static_cast<uint16_t>(0xFF << 8 * m_port);
  const auto byte = static_cast<uint8_t>(levels(seen) >> 8 * m_port);
  m_port ^= 1;
  return byte;
}

}  // namespace sim
