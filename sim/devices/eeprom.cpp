#include "sim/devices/eeprom.h"

#include <unistd.h>

#include <algorithm>
#include <csignal>

#include "platform/libutils/sse.h"
#include "sim/base/real.h"

namespace sim {

namespace {

constexpr int64_t write_cycle_nsec = int64_t{SSE_EEPROM_WRITE_CYCLE_MS} * 1'000'000;

}  // namespace

bool eeprom::open(const std::string &path, std::span<const uint8_t> initial, std::string *error) {
  return m_file.open(
      path, initial.size(), [&] { return initial; }, error);
}

bool eeprom::is_busy() {
  if (m_setup.busy == busy::time) return m_busy_until != 0 && monotonic_nsec() < m_busy_until;
  if (m_busy_polls == 0) return false;
  if (!m_setup.busy_forever) m_busy_polls--;
  return true;
}

// A start is answered, or not, where the usual chip would do otherwise.
void eeprom::compare_with_usual(bool busy) {
  if (m_setup.slow == nullptr) return;
  if (busy != (m_usual_polls != 0)) m_setup.slow->fired();
  if (m_usual_polls != 0) m_usual_polls--;
}

bool eeprom::start(bool reading) {
  if (m_is_dead) {
    // Within a write cycle the healthy chip would not answer either.
    if (m_usual_polls == 0) m_setup.cut.cause->fired();
    if (m_usual_polls != 0) m_usual_polls--;
    return false;
  }
  const bool busy = is_busy();
  compare_with_usual(busy);
  if (busy) return false;
  // Data that no stop has followed are lost.
  m_any_written = false;
  std::fill(m_written.begin(), m_written.end(), false);
  if (reading) return true;
  m_address_bytes = 0;
  m_address = 0;
  return true;
}

bool eeprom::write(uint8_t byte) {
  if (m_address_bytes < m_setup.chip.address_bytes) {
    m_address = m_address << 8 | byte;
    if (++m_address_bytes == m_setup.chip.address_bytes) count_to(m_address);
    return true;
  }
  const auto place = counter() % m_setup.chip.page;
  m_page[place] = byte;
  m_written[place] = m_any_written = true;
  count_to(counter() - place + (place + 1) % m_setup.chip.page);
  return true;
}

uint8_t eeprom::read() {
  const size_t from = counter();
  uint8_t byte = m_file.bytes()[from];
  for (const auto &cell : m_setup.corrupt)
    if (cell.offset == from && cell.cause->strikes()) byte ^= cell.bits;
  count_to(from + 1);
  return byte;
}

void eeprom::stop() {
  if (!m_any_written) return;
  m_any_written = false;
  if (m_setup.write_protected && m_setup.write_protected()) return;
  if (changes() && std::ranges::any_of(m_setup.locked, [](const fault *f) { return f->strikes(); })) return;
  program();
}

// The page in which the counter is.
std::span<uint8_t> eeprom::page() const {
  return m_file.bytes().subspan(counter() - counter() % m_setup.chip.page, m_setup.chip.page);
}

// Whether programming makes a difference.
bool eeprom::changes() const {
  const auto now = page();
  for (size_t i = 0; i < now.size(); ++i)
    if (m_written[i] && now[i] != m_page[i]) return true;
  return false;
}

void eeprom::program() {
  const auto cells = page();
  for (size_t i = 0; i < cells.size(); ++i)
    if (m_written[i]) program_byte(&cells[i], m_page[i]);
  m_busy_polls = m_setup.busy_forever ? 1 : m_setup.busy_polls;
  m_usual_polls = usual_polls;
  m_busy_until = m_setup.busy_forever ? INT64_MAX : monotonic_nsec() + write_cycle_nsec;
}

void eeprom::program_byte(uint8_t *cell, uint8_t byte) {
  const auto &cut = m_setup.cut;
  if (m_is_dead) return;
  if (++m_bytes_written != cut.byte) {
    *cell = byte;
    return;
  }
  cut.cause->fired();
  *cell = static_cast<uint8_t>((*cell & ~cut.written) | (byte & cut.written));
  if (cut.of_the_run) (void)kill(getpid(), SIGKILL);
  m_is_dead = true;
}

}  // namespace sim
