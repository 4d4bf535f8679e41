#include "sim/devices/at24c512.h"

#include "sim/host/real.h"

namespace sim {

namespace {

constexpr int64_t write_cycle_nsec = 5'000'000;  // tWR, maximum

}  // namespace

bool at24c512::open(const std::string &path, std::span<const uint8_t> initial, std::string *error) {
  return m_file.open(
      path, initial.size(), [&] { return initial; }, error);
}

bool at24c512::is_busy() {
  if (m_setup.busy == busy::time) return m_busy_until != 0 && monotonic_nsec() < m_busy_until;
  if (m_busy_polls == 0) return false;
  if (!m_setup.busy_forever) m_busy_polls--;
  return true;
}

// A start is answered, or not, where the usual chip would do otherwise.
void at24c512::compare_with_usual(bool busy) {
  if (m_setup.slow == nullptr) return;
  if (busy != (m_usual_polls != 0)) m_setup.slow->fired();
  if (m_usual_polls != 0) m_usual_polls--;
}

bool at24c512::start(bool reading) {
  const bool busy = is_busy();
  compare_with_usual(busy);
  if (busy) return false;
  // Data that no stop has followed are lost.
  m_any_written = false;
  m_written.fill(false);
  if (!reading) m_address_bytes = 0;
  return true;
}

bool at24c512::write(uint8_t byte) {
  if (m_address_bytes < 2) {
    m_address = static_cast<uint16_t>(m_address << 8 | byte);
    if (++m_address_bytes == 2) m_counter = m_address;
    return true;
  }
  const auto place = m_counter % at24c512_page;
  m_page[place] = byte;
  m_written[place] = m_any_written = true;
  m_counter = static_cast<uint16_t>(m_counter - place + (place + 1) % at24c512_page);
  return true;
}

uint8_t at24c512::read() {
  uint8_t byte = m_file.bytes()[m_counter];
  for (const auto &cell : m_setup.corrupt)
    if (cell.offset == m_counter && cell.cause->strikes()) byte ^= cell.bits;
  m_counter++;
  return byte;
}

void at24c512::stop() {
  if (!m_any_written) return;
  m_any_written = false;
  if (m_setup.write_protected && m_setup.write_protected()) return;
  if (m_setup.locked != nullptr && changes() && m_setup.locked->strikes()) return;
  program();
}

// Whether programming makes a difference.
bool at24c512::changes() const {
  const auto page = m_file.bytes().subspan(m_counter - m_counter % at24c512_page, at24c512_page);
  for (size_t i = 0; i < at24c512_page; i++)
    if (m_written[i] && page[i] != m_page[i]) return true;
  return false;
}

void at24c512::program() {
  const auto page = m_file.bytes().subspan(m_counter - m_counter % at24c512_page, at24c512_page);
  for (size_t i = 0; i < at24c512_page; i++)
    if (m_written[i]) page[i] = m_page[i];
  m_busy_polls = m_setup.busy_forever ? 1 : m_setup.busy_polls;
  m_usual_polls = usual_polls;
  m_busy_until = m_setup.busy_forever ? INT64_MAX : monotonic_nsec() + write_cycle_nsec;
}

}  // namespace sim
