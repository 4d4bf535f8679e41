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
    : fault_(fault), contents_(&contents), erased_(chip_sectors, 0) {
  cells_.reserve(1024);
  if (fault.what != chip_fault::kind::lines) return;
  auto &data = fault.commands ? cycle_data_ : array_data_;
  auto &address = fault.commands ? cycle_address_ : array_address_;
  if (fault.lines.address)
    address = fault.lines.bad;
  else
    data = data_bus(fault.lines.bad);
}

// Whether an operation in a sector goes wrong so.
bool flash_chip::is(chip_fault::kind what, uint32_t sector) const {
  return fault_.what == what && fault_.sector.value_or(sector) == sector;
}

uint16_t flash_chip::cell(uint32_t address) const {
  const auto erased = erased_[sector_of(address)];
  const auto found = cells_.find(address);
  if (found != cells_.end() && found->second.erased == erased) return found->second.data;
  return erased > 0 ? 0xFFFF : contents_->at(address);
}

void flash_chip::set_cell(uint32_t address, uint16_t data) {
  cells_.insert_or_assign(address, cell_word{data, erased_[sector_of(address)]});
}

uint16_t flash_chip::read(uint32_t address) {
  if (fault_.what == chip_fault::kind::silent) return 0xFFFF;
  return cycle_data_.read(answer(cycle_address_.pass(address)));
}

void flash_chip::write(uint32_t address, uint16_t data) {
  if (fault_.what == chip_fault::kind::silent) return;
  const auto [lines, lanes] = looked_at(static_cast<uint8_t>(data));
  const auto arriving = cycle_address_.pass(address);
  cycle((arriving & lines) | (address & ~lines), cycle_data_.write(data, lanes));
}

// The address and data lines that matter to the chip in a write cycle with this code.
std::pair<uint32_t, uint16_t> flash_chip::looked_at(uint8_t code) const {
  const auto sector_or_command = [code](uint8_t of_sector) { return code == of_sector ? sector_lines : command_lines; };
  switch (mode_) {
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
  if (mode_ >= mode::erase_window) poll();
  if (mode_ == mode::query) return query_word(address / 2 & 0xFF);
  if (mode_ >= mode::aborted) return status(address);
  return array_data_.read(cell(array_address_.pass(address)));
}

uint16_t flash_chip::query_word(uint32_t word) const {
  if (fault_.what == chip_fault::kind::query && fault_.word == word) return static_cast<uint16_t>(fault_.value);
  if (word >= 0x10 && word < 0x10 + query_table.size()) return query_table[word - 0x10];
  if (word >= 0x40 && word < 0x40 + command_set_table.size()) return command_set_table[word - 0x40];
  return 0;
}

uint16_t flash_chip::status(uint32_t address) {
  toggles_ ^= dq6;
  if (erasing_ == sector_of(address)) toggles_ ^= dq2;
  unsigned bits = toggles_ & dq6;
  if (erasing_) {
    bits |= toggles_ & dq2;
    if (mode_ != mode::erase_window) bits |= dq3;
  } else if (!bit7_) {
    bits |= dq7;
  }
  if (mode_ == mode::failed) bits |= dq5;
  if (mode_ <= mode::aborted_unlock2) bits |= dq1;
  if (mode_ == mode::erase_window) erase();
  return static_cast<uint16_t>(bits);
}

void flash_chip::cycle(uint32_t address, uint16_t data) {
  const uint32_t word = address / 2 & command_words;
  const auto code = static_cast<uint8_t>(data);
  switch (mode_) {
    case mode::array:
      if (word == query_word_of_entry && code == query_code)
        mode_ = mode::query;
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
      erasing_.reset();
      step(code == sector_erase_code, mode::erase_window, code);
      if (mode_ == mode::erase_window) erasing_ = sector_of(address);
      return;
    case mode::word:
      bit7_ = (data & dq7) != 0;
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
  mode_ = in_order ? next : code == reset_code ? mode::array : mode::lost;
}

void flash_chip::command(uint32_t address, uint8_t code) {
  if (code == buffer_load_code) {
    buffer_sector_ = sector_of(address);
    mode_ = mode::buffer_count;
    return;
  }
  const bool here = (address / 2 & command_words) == unlock1_word;
  if (code == program_code) return step(here, mode::word, code);
  step(here && code == erase_code, mode::erase_setup, code);
}

// Cycles in the modes that only a reset leaves; an aborted buffer has a reset of its own.
void flash_chip::leave(uint32_t word, uint8_t code) {
  switch (mode_) {
    case mode::aborted:
      if (word == unlock1_word && code == unlock1_code) mode_ = mode::aborted_unlock1;
      return;
    case mode::aborted_unlock1:
      mode_ = word == unlock2_word && code == unlock2_code ? mode::aborted_unlock2 : mode::aborted;
      return;
    case mode::aborted_unlock2:
      mode_ = word == unlock1_word && code == reset_code ? mode::array : mode::aborted;
      return;
    default:
      if (code == reset_code) mode_ = mode::array;
      return;
  }
}

void flash_chip::buffer(uint32_t address, uint16_t data) {
  const auto now = mode_;
  mode_ = mode::aborted;
  erasing_.reset();
  if (sector_of(address) != buffer_sector_) return;
  if (now == mode::buffer_count) {
    buffer_count_ = data + 1U;
    buffer_cycles_ = 0;
    buffer_.clear();
    if (buffer_count_ <= page_words) mode_ = mode::buffer_load;
    return;
  }
  if (now == mode::buffer_confirm) {
    if (static_cast<uint8_t>(data) == buffer_confirm_code) program(buffer_);
    return;
  }
  bit7_ = (data & dq7) != 0;
  if (!buffer_.empty() && address / chip_page_bytes != buffer_[0].address / chip_page_bytes) return;
  const auto same = std::ranges::find(buffer_, address, &load::address);
  if (same != buffer_.end())
    same->data = data;
  else
    buffer_.push_back({address, data});
  mode_ = ++buffer_cycles_ == buffer_count_ ? mode::buffer_confirm : mode::buffer_load;
}

// A busy chip takes no command; a window that is spoiled ends the erase unbegun.
void flash_chip::busy(uint8_t code) {
  if (mode_ == mode::failed && code == reset_code) mode_ = mode::array;
  if (mode_ == mode::erase_window && code != sector_erase_code) mode_ = mode::array;
}

void flash_chip::program(const std::vector<load> &loads) {
  erasing_.reset();
  const auto sector = sector_of(loads[0].address);
  const auto changes = [this](const load &one) { return (cell(one.address) & ~one.data) != 0; };
  fails_ = never_ = false;
  if (is(chip_fault::kind::program_hangs, sector)) {
    fails_ = fault_.gives_up;
    never_ = !fails_;
  } else if (!is(chip_fault::kind::program_ignored, sector) || !std::ranges::any_of(loads, changes)) {
    for (const auto &one : loads)
      if (!program_word(one)) fails_ = true;
  }
  run(mode::programming, fault_.what == chip_fault::kind::slow ? fault_.word : 0);
}

// Programming clears bits; then the chip compares.
bool flash_chip::program_word(const load &one) {
  const auto at = array_address_.pass(one.address);
  const auto taken = array_data_.write(one.data);
  const auto after = static_cast<uint16_t>(cell(at) & taken);
  set_cell(at, after);
  return after == taken;
}

void flash_chip::erase() {
  const auto sector = *erasing_;
  fails_ = never_ = false;
  if (is(chip_fault::kind::erase_hangs, sector)) {
    fails_ = fault_.gives_up;
    never_ = !fails_;
  } else if (!is(chip_fault::kind::erase_ignored, sector)) {
    ++erased_[sector_of(array_address_.pass(sector * chip_sector_bytes) & sector_lines)];
  }
  run(mode::erasing, fault_.what == chip_fault::kind::slow ? fault_.value - 1 : 1);
}

void flash_chip::run(mode busy, uint32_t polls) {
  mode_ = busy;
  polls_ = fails_ ? std::max(polls, give_up_polls) : polls;
}

void flash_chip::poll() {
  if ((mode_ != mode::erasing && mode_ != mode::programming) || never_) return;
  if (polls_ == 0)
    mode_ = fails_ ? mode::failed : mode::array;
  else
    --polls_;
}

}  // namespace lab
