#include "lab/explain_chip.h"

#include <algorithm>
#include <array>

namespace lab {
namespace {

enum code : uint8_t {
  buffer_load_code = 0x25,
  buffer_confirm_code = 0x29,
  sector_erase_code = 0x30,
  unlock2_code = 0x55,
  erase_code = 0x80,
  query_code = 0x98,
  program_code = 0xA0,
  unlock1_code = 0xAA,
  reset_code = 0xF0,
};

enum status_bits : uint16_t { dq1 = 0x02, dq2 = 0x04, dq3 = 0x08, dq5 = 0x20, dq6 = 0x40, dq7 = 0x80 };

constexpr uint32_t unlock1_word = 0x555;
constexpr uint32_t unlock2_word = 0x2AA;
constexpr uint32_t query_word_of_entry = 0x055;
constexpr uint32_t command_words = 0x7FF;  // word address lines that a command looks at
constexpr uint32_t command_lines = command_words * 2;
constexpr uint32_t all_lines = chip_sectors * chip_sector_bytes - 1;
constexpr uint32_t sector_lines = (chip_sectors - 1) * chip_sector_bytes;
constexpr uint32_t page_words = chip_page_bytes / 2;
constexpr uint32_t give_up_polls = 4;

// clang-format off
// The query from word 0x10 on: identification, times (exponents of 2) and geometry.
constexpr std::array<uint16_t, 0x21> query_table{
    'Q', 'R', 'Y', 0x02, 0x00, 0x40, 0x00, 0x00, 0x00, 0x00, 0x00, 0x27, 0x36, 0x00, 0x00,
    2, 2, 1, 0, 3, 3, 3, 0,
    26, 0x01, 0x00, 5, 0x00, 1, 0xFF, 0x01, 0x00, 0x02,
};
// From word 0x40 on.
constexpr std::array<uint16_t, 6> command_set_table{'P', 'R', 'I', '1', '3', 0x10};
// clang-format on

uint32_t sector_of(uint32_t address) {
  return address / chip_sector_bytes;
}

uint16_t noise(uint32_t number) {
  number ^= number >> 16;
  number *= 0x7FEB352DU;
  number ^= number >> 15;
  number *= 0x846CA68BU;
  return static_cast<uint16_t>(number ^ (number >> 16));
}

}  // namespace

uint16_t chip_contents::at(uint32_t address) const {
  const auto found = words.find(address);
  if (found != words.end()) return found->second;
  if (base == kind::blank) return 0xFFFF;
  if (base == kind::zero) return 0;
  const uint16_t word = noise(address);
  if (base == kind::noise_of_reset) return static_cast<uint16_t>((word & 0xFF00U) | reset_code);
  return (word & 0xFF) == reset_code ? static_cast<uint16_t>(word ^ 1U) : word;
}

flash_chip::flash_chip(const chip_fault &fault, const chip_contents &contents)
    : m_fault(fault), m_contents(&contents), m_erased(chip_sectors, 0) {
  m_cells.reserve(1024);
  if (fault.what != chip_fault::kind::lines) return;
  auto &data = fault.commands ? m_cycle_data : m_array_data;
  auto &address = fault.commands ? m_cycle_address : m_array_address;
  if (fault.lines.address)
    address = fault.lines.bad;
  else
    data = data_bus(fault.lines.bad);
}

// Whether an operation in a sector goes wrong so.
bool flash_chip::is(chip_fault::kind what, uint32_t sector) const {
  return m_fault.what == what && m_fault.sector.value_or(sector) == sector;
}

uint16_t flash_chip::cell(uint32_t address) const {
  const auto erased = m_erased[sector_of(address)];
  const auto found = m_cells.find(address);
  if (found != m_cells.end() && found->second.erased == erased) return found->second.data;
  return erased > 0 ? 0xFFFF : m_contents->at(address);
}

void flash_chip::set_cell(uint32_t address, uint16_t data) {
  m_cells.insert_or_assign(address, cell_word{data, m_erased[sector_of(address)]});
}

uint16_t flash_chip::read(uint32_t address) {
  if (m_fault.what == chip_fault::kind::silent) return 0xFFFF;
  return m_cycle_data.read(answer(m_cycle_address.pass(address)));
}

void flash_chip::write(uint32_t address, uint16_t data) {
  if (m_fault.what == chip_fault::kind::silent) return;
  const auto [lines, lanes] = looked_at(static_cast<uint8_t>(data));
  const auto arriving = m_cycle_address.pass(address);
  cycle((arriving & lines) | (address & ~lines), m_cycle_data.write(data, lanes));
}

// The address and data lines that matter to the chip in a write cycle with this code.
std::pair<uint32_t, uint16_t> flash_chip::looked_at(uint8_t code) const {
  const auto sector_or_command = [code](uint8_t of_sector) { return code == of_sector ? sector_lines : command_lines; };
  switch (m_mode) {
    case mode::erasing:
    case mode::programming:
      return {0, 0};
    case mode::lost:
    case mode::failed:
      return {0, 0xFF};
    case mode::word:
    case mode::buffer_load:
      return {all_lines, 0xFFFF};
    case mode::buffer_count:
      return {sector_lines, 0xFFFF};
    case mode::buffer_confirm:
      return {sector_lines, 0xFF};
    case mode::erase_window:
      return {code == sector_erase_code ? sector_lines : 0, 0xFF};
    case mode::unlock2:
      return {sector_or_command(buffer_load_code), 0xFF};
    case mode::erase_unlock2:
      return {sector_or_command(sector_erase_code), 0xFF};
    default:
      return {code == reset_code ? 0 : command_lines, 0xFF};
  }
}

uint16_t flash_chip::answer(uint32_t address) {
  if (m_mode >= mode::erase_window) poll();
  if (m_mode == mode::query) return query_word(address / 2 & 0xFF);
  if (m_mode >= mode::aborted) return status(address);
  return m_array_data.read(cell(m_array_address.pass(address)));
}

uint16_t flash_chip::query_word(uint32_t word) const {
  if (m_fault.what == chip_fault::kind::query && m_fault.word == word) return static_cast<uint16_t>(m_fault.value);
  if (word >= 0x10 && word < 0x10 + query_table.size()) return query_table[word - 0x10];
  if (word >= 0x40 && word < 0x40 + command_set_table.size()) return command_set_table[word - 0x40];
  return 0;
}

uint16_t flash_chip::status(uint32_t address) {
  m_toggles ^= dq6;
  if (m_erasing == sector_of(address)) m_toggles ^= dq2;
  unsigned bits = m_toggles & dq6;
  if (m_erasing) {
    bits |= m_toggles & dq2;
    if (m_mode != mode::erase_window) bits |= dq3;
  } else if (!m_bit7) {
    bits |= dq7;
  }
  if (m_mode == mode::failed) bits |= dq5;
  if (m_mode <= mode::aborted_unlock2) bits |= dq1;
  if (m_mode == mode::erase_window) erase();
  return static_cast<uint16_t>(bits);
}

void flash_chip::cycle(uint32_t address, uint16_t data) {
  const uint32_t word = address / 2 & command_words;
  const auto code = static_cast<uint8_t>(data);
  switch (m_mode) {
    case mode::array:
      if (word == query_word_of_entry && code == query_code)
        m_mode = mode::query;
      else
        step(word == unlock1_word && code == unlock1_code, mode::unlock1, code);
      return;
    case mode::unlock1:
      return step(word == unlock2_word && code == unlock2_code, mode::unlock2, code);
    case mode::unlock2:
      return command(address, code);
    case mode::erase_setup:
      return step(word == unlock1_word && code == unlock1_code, mode::erase_unlock1, code);
    case mode::erase_unlock1:
      return step(word == unlock2_word && code == unlock2_code, mode::erase_unlock2, code);
    case mode::erase_unlock2:
      m_erasing.reset();
      step(code == sector_erase_code, mode::erase_window, code);
      if (m_mode == mode::erase_window) m_erasing = sector_of(address);
      return;
    case mode::word:
      m_bit7 = (data & dq7) != 0;
      return program({{address, data}});
    case mode::buffer_count:
    case mode::buffer_load:
    case mode::buffer_confirm:
      return buffer(address, data);
    case mode::erase_window:
    case mode::erasing:
    case mode::programming:
    case mode::failed:
      return busy(code);
    default:
      return leave(word, code);
  }
}

void flash_chip::step(bool in_order, mode next, uint8_t code) {
  m_mode = in_order ? next : code == reset_code ? mode::array : mode::lost;
}

void flash_chip::command(uint32_t address, uint8_t code) {
  if (code == buffer_load_code) {
    m_buffer_sector = sector_of(address);
    m_mode = mode::buffer_count;
    return;
  }
  const bool here = (address / 2 & command_words) == unlock1_word;
  if (code == program_code) return step(here, mode::word, code);
  step(here && code == erase_code, mode::erase_setup, code);
}

// Cycles in the modes that only a reset leaves; an aborted buffer has a reset of its own.
void flash_chip::leave(uint32_t word, uint8_t code) {
  switch (m_mode) {
    case mode::aborted:
      if (word == unlock1_word && code == unlock1_code) m_mode = mode::aborted_unlock1;
      return;
    case mode::aborted_unlock1:
      m_mode = word == unlock2_word && code == unlock2_code ? mode::aborted_unlock2 : mode::aborted;
      return;
    case mode::aborted_unlock2:
      m_mode = word == unlock1_word && code == reset_code ? mode::array : mode::aborted;
      return;
    default:
      if (code == reset_code) m_mode = mode::array;
      return;
  }
}

void flash_chip::buffer(uint32_t address, uint16_t data) {
  const auto now = m_mode;
  m_mode = mode::aborted;
  m_erasing.reset();
  if (sector_of(address) != m_buffer_sector) return;
  if (now == mode::buffer_count) {
    m_buffer_count = data + 1U;
    m_buffer_cycles = 0;
    m_buffer.clear();
    if (m_buffer_count <= page_words) m_mode = mode::buffer_load;
    return;
  }
  if (now == mode::buffer_confirm) {
    if (static_cast<uint8_t>(data) == buffer_confirm_code) program(m_buffer);
    return;
  }
  m_bit7 = (data & dq7) != 0;
  if (!m_buffer.empty() && address / chip_page_bytes != m_buffer[0].address / chip_page_bytes) return;
  const auto same = std::ranges::find(m_buffer, address, &load::address);
  if (same != m_buffer.end())
    same->data = data;
  else
    m_buffer.push_back({address, data});
  m_mode = ++m_buffer_cycles == m_buffer_count ? mode::buffer_confirm : mode::buffer_load;
}

// A busy chip takes no command; a window that is spoiled ends the erase unbegun.
void flash_chip::busy(uint8_t code) {
  if (m_mode == mode::failed && code == reset_code) m_mode = mode::array;
  if (m_mode == mode::erase_window && code != sector_erase_code) m_mode = mode::array;
}

void flash_chip::program(const std::vector<load> &loads) {
  m_erasing.reset();
  const auto sector = sector_of(loads[0].address);
  const auto changes = [this](const load &one) { return (cell(one.address) & ~one.data) != 0; };
  m_fails = m_never = false;
  if (is(chip_fault::kind::program_hangs, sector)) {
    m_fails = m_fault.gives_up;
    m_never = !m_fails;
  } else if (!is(chip_fault::kind::program_ignored, sector) || !std::ranges::any_of(loads, changes)) {
    for (const auto &one : loads)
      if (!program_word(one)) m_fails = true;
  }
  run(mode::programming, m_fault.what == chip_fault::kind::slow ? m_fault.word : 0);
}

// Programming clears bits; then the chip compares.
bool flash_chip::program_word(const load &one) {
  const auto at = m_array_address.pass(one.address);
  const auto taken = m_array_data.write(one.data);
  const auto after = static_cast<uint16_t>(cell(at) & taken);
  set_cell(at, after);
  return after == taken;
}

void flash_chip::erase() {
  const auto sector = *m_erasing;
  m_fails = m_never = false;
  if (is(chip_fault::kind::erase_hangs, sector)) {
    m_fails = m_fault.gives_up;
    m_never = !m_fails;
  } else if (!is(chip_fault::kind::erase_ignored, sector)) {
    ++m_erased[sector_of(m_array_address.pass(sector * chip_sector_bytes) & sector_lines)];
  }
  run(mode::erasing, m_fault.what == chip_fault::kind::slow ? m_fault.value - 1 : 1);
}

void flash_chip::run(mode busy, uint32_t polls) {
  m_mode = busy;
  m_polls = m_fails ? std::max(polls, give_up_polls) : polls;
}

void flash_chip::poll() {
  if ((m_mode != mode::erasing && m_mode != mode::programming) || m_never) return;
  if (m_polls == 0)
    m_mode = m_fails ? mode::failed : mode::array;
  else
    --m_polls;
}

}  // namespace lab
