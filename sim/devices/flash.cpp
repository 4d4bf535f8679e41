// flash.cpp: command decoder, array and status of the NOR flash.
#include "sim/devices/flash.h"

#include <signal.h>
#include <unistd.h>

#include <algorithm>

#include "sim/host/real.h"

namespace sim {

namespace {

// Command cycles decode the word address bits A10 to A0 and the data bits DQ7 to DQ0.
constexpr uint32_t command_address_mask = 0x7FF;
constexpr uint32_t unlock1_word = 0x555;
constexpr uint32_t unlock2_word = 0x2AA;
constexpr uint32_t query_word = 0x055;

enum command : uint8_t {
  cmd_chip_erase = 0x10,
  cmd_buffer_load = 0x25,
  cmd_buffer_confirm = 0x29,
  cmd_sector_erase = 0x30,
  cmd_unlock2 = 0x55,
  cmd_erase_setup = 0x80,
  cmd_autoselect = 0x90,
  cmd_query = 0x98,
  cmd_program = 0xA0,
  cmd_unlock1 = 0xAA,
  cmd_reset = 0xF0,
};

enum status_bit : uint16_t {
  dq1 = 0x02,  // write buffer aborted
  dq2 = 0x04,  // toggles within sectors that are erased
  dq3 = 0x08,  // the erase window is over
  dq5 = 0x20,  // time exceeded
  dq6 = 0x40,  // toggles while busy
  dq7 = 0x80,  // complement of the data, 0 during an erase
};

constexpr int64_t erase_window_ns = 50'000;

// clang-format off
// The words of the query from 0x10 on, but for times and sizes.
constexpr std::array<uint16_t, 0x0F> query_identification{
    'Q', 'R', 'Y',
    0x02, 0x00,   // command set
    0x40, 0x00,   // address of its table
    0x00, 0x00,   // no alternate set,
    0x00, 0x00,   // nor its table
    0x27, 0x36,   // supply 2.7 V to 3.6 V
    0x00, 0x00,   // no programming voltage
};

// From 0x27 on.
constexpr std::array<uint16_t, 0x0A> query_geometry{
    26,           // size, exponent of 2
    0x01, 0x00,   // 16 bits wide
    5, 0x00,      // bytes of the write buffer, exponent of 2
    1,            // erase regions
    (flash_sectors - 1) & 0xFFU, (flash_sectors - 1) >> 8U,
    (flash_sector_bytes / 256) & 0xFFU, (flash_sector_bytes / 256) >> 8U,
};

// From 0x40 on.
constexpr std::array<uint16_t, 0x11> query_command_set{
    'P', 'R', 'I', '1', '3',
    0x10,         // unlock addresses are decoded
    0x00,         // no erase suspend
    0x00,         // no sector protection
    0x00, 0x00,   // no temporary unprotection, no scheme
    0x00,         // no operation in another bank
    0x00,         // no burst
    0x00,         // no page mode
    0x00, 0x00,   // no accelerated programming
    0x00,         // uniform sectors
    0x00,         // no program suspend
};
// clang-format on

uint32_t sector_of(uint32_t offset) {
  return offset / flash_sector_bytes;
}

uint32_t parm(const fault &f, std::string_view key) {
  return static_cast<uint32_t>(f.get(key));
}

}  // namespace

void flash_model::start(std::span<uint8_t> contents, const options &opts) {
  *this = flash_model{};
  memory = contents;
  buffer.reserve(flash_page_words);
  real_time = opts.busy == busy::time;
  if (opts.real_times) times = flash_times_real;

  // clang-format off
  std::ranges::copy(query_identification, &query_table[0x10]);
  query_table[0x1F] = times.word_us;
  query_table[0x20] = times.buffer_us;
  query_table[0x21] = times.erase_ms;
  query_table[0x22] = 0;  // no time for the whole chip
  query_table[0x23] = times.word_factor;
  query_table[0x24] = times.buffer_factor;
  query_table[0x25] = times.erase_factor;
  query_table[0x26] = 0;
  std::ranges::copy(query_geometry, &query_table[0x27]);
  std::ranges::copy(query_command_set, &query_table[0x40]);
  // clang-format on

  for (const auto &f : opts.faults) {
    if (f.row().part != fault_part::flash) continue;
    if (f.id == fault_id::flash_silent) silent = true;
    if (f.id == fault_id::flash_power_cut) writes_left = f.get("nth");
    if (f.id == fault_id::flash_cfi) query_table.at(parm(f, "word")) = static_cast<uint16_t>(f.get("value"));
    if (f.id == fault_id::flash_slow) {
      real_time = false;
      program_polls = f.get("program");
      erase_polls = f.get("erase");
    }
    const bool line = data_lines.add(f, fault_id::flash_data_stuck, fault_id::flash_data_short) ||
                      address_lines.add(f, fault_id::flash_addr_stuck, fault_id::flash_addr_short);
    if (line && f.get("commands") != 0) command_faults = true;
    if (!line && !cells.add(f, fault_id::flash_cell_stuck, fault_id::flash_cell_coupled, contents.size()))
      faults.push_back(f);
  }
  plain = !silent && data_lines.healthy() && address_lines.healthy() && cells.healthy();
}

// The first of these faults that names the sector, or none.
const fault *flash_model::find(fault_id id, uint32_t sector) const {
  for (const auto &f : faults)
    if (f.id == id && f.get("sector", sector) == sector) return &f;
  return nullptr;
}

uint16_t flash_model::read(uint32_t offset) {
  if (silent) return 0xFFFF;
  if (!command_faults) return chip_read(offset);
  const uint32_t arriving = address_lines.pass(offset) & (flash_bytes - 1) & ~1U;
  return static_cast<uint16_t>(data_lines.pass(chip_read(arriving)));
}

void flash_model::write(uint32_t offset, uint16_t data) {
  if (writes_left != 0 && --writes_left == 0) kill(getpid(), SIGKILL);
  if (silent) return;
  if (!command_faults) return chip_write(offset, data);
  chip_write(address_lines.pass(offset) & (flash_bytes - 1) & ~1U, static_cast<uint16_t>(data_lines.pass(data)));
}

uint16_t flash_model::chip_read(uint32_t offset) {
  const uint32_t word = offset / 2;
  if (mode >= phase::erase_window) poll();
  switch (mode) {
    case phase::autoselect:
      switch (word & 0xFFU) {
        case 0x00:
          return 0x0001;  // manufacturer
        case 0x01:
          return 0x227E;  // device, in three words
        case 0x0E:
          return 0x2223;
        case 0x0F:
          return 0x2201;
        default:
          return 0x0000;  // 0x02: the sector is not protected
      }
    case phase::query:
    case phase::query_in_autoselect:
      return query_table[word & 0xFFU];
    case phase::aborted:
    case phase::aborted_unlock1:
    case phase::aborted_unlock2:
    case phase::erase_window:
    case phase::erasing:
    case phase::programming:
    case phase::failed:
      return status(offset);
    default:
      return array_word(offset);
  }
}

// Faulty address lines that commands do not see lie behind the command decoder.
uint32_t flash_model::cell_offset(uint32_t offset) const {
  return command_faults ? offset : address_lines.pass(offset) & (flash_bytes - 1) & ~1U;
}

uint16_t flash_model::array_word(uint32_t offset) const {
  if (plain) return word_get(memory, offset);
  const uint32_t at = cell_offset(offset);
  const uint16_t word = cells.force(at, word_get(memory, at));
  return command_faults ? word : static_cast<uint16_t>(data_lines.pass(word));
}

uint16_t flash_model::status(uint32_t offset) {
  const bool erases = erasing_sectors.any();
  toggles ^= dq6;
  if (erases && erasing_sectors[sector_of(cell_offset(offset))]) toggles ^= dq2;
  unsigned bits = toggles & dq6;
  if (erases) {
    bits |= toggles & dq2;
    if (mode != phase::erase_window) bits |= dq3;
  } else if (!data_bit7) {
    bits |= dq7;
  }
  if (mode == phase::failed) bits |= dq5;
  if (mode >= phase::aborted && mode <= phase::aborted_unlock2) bits |= dq1;
  // The window's status was seen; now it is over.
  if (mode == phase::erase_window && !real_time) erase();
  return static_cast<uint16_t>(bits);
}

void flash_model::chip_write(uint32_t offset, uint16_t data) {
  const uint32_t word = offset / 2 & command_address_mask;
  const auto code = static_cast<uint8_t>(data);
  if (real_time && mode >= phase::erase_window) pass_time();
  switch (mode) {
    case phase::array:
      return array_cycle(word, code);
    case phase::unlock1:
      mode = word == unlock2_word && code == cmd_unlock2 ? phase::unlock2 : phase::array;
      return;
    case phase::unlock2:
      return command_cycle(offset, code);
    case phase::erase_setup:
      mode = word == unlock1_word && code == cmd_unlock1 ? phase::erase_unlock1 : phase::array;
      return;
    case phase::erase_unlock1:
      mode = word == unlock2_word && code == cmd_unlock2 ? phase::erase_unlock2 : phase::array;
      return;
    case phase::erase_unlock2:
      return erase_cycle(offset, code);
    case phase::word:
      data_bit7 = (data & dq7) != 0;
      return program(std::array{word_load{offset, data}}, times.word_us, times.word_factor);
    case phase::wb_count:
    case phase::wb_load:
    case phase::wb_confirm:
      return buffer_cycle(offset, data);
    case phase::erase_window:
    case phase::erasing:
    case phase::programming:
    case phase::failed:
      return busy_cycle(offset, code);
    default:
      return mode_cycle(word, code);
  }
}

void flash_model::array_cycle(uint32_t word, uint8_t code) {
  if (word == unlock1_word && code == cmd_unlock1) mode = phase::unlock1;
  if (word == query_word && code == cmd_query) mode = phase::query;
}

// The third cycle of a command. A cycle that continues no command drops it.
void flash_model::command_cycle(uint32_t offset, uint8_t code) {
  mode = phase::array;
  if (code == cmd_buffer_load) {
    buffer_sector = sector_of(offset);
    mode = phase::wb_count;
  }
  if ((offset / 2 & command_address_mask) != unlock1_word) return;
  if (code == cmd_erase_setup) mode = phase::erase_setup;
  if (code == cmd_autoselect) mode = phase::autoselect;
  if (code == cmd_program) mode = phase::word;
}

void flash_model::erase_cycle(uint32_t offset, uint8_t code) {
  mode = phase::array;
  erasing_sectors.reset();
  if (code == cmd_sector_erase) {
    erasing_sectors.set(sector_of(cell_offset(offset)));
    open_window();
  } else if (code == cmd_chip_erase && (offset / 2 & command_address_mask) == unlock1_word) {
    erasing_sectors.set();
    erase();
  }
}

// Cycles in the modes that only a reset leaves.
void flash_model::mode_cycle(uint32_t word, uint8_t code) {
  switch (mode) {
    case phase::autoselect:
      if (code == cmd_reset) mode = phase::array;
      if (code == cmd_query && word == query_word) mode = phase::query_in_autoselect;
      return;
    case phase::query:
      if (code == cmd_reset) mode = phase::array;
      return;
    case phase::query_in_autoselect:
      if (code == cmd_reset) mode = phase::autoselect;
      return;
    case phase::aborted:
      if (code == cmd_unlock1 && word == unlock1_word) mode = phase::aborted_unlock1;
      return;
    case phase::aborted_unlock1:
      mode = code == cmd_unlock2 && word == unlock2_word ? phase::aborted_unlock2 : phase::aborted;
      return;
    default:
      mode = code == cmd_reset && word == unlock1_word ? phase::array : phase::aborted;
      return;
  }
}

// Write-buffer programming behind its first three cycles. Whatever does not fit aborts it.
void flash_model::buffer_cycle(uint32_t offset, uint16_t data) {
  const phase now = mode;
  mode = phase::aborted;
  erasing_sectors.reset();
  if (sector_of(offset) != buffer_sector) return;
  if (now == phase::wb_count) {
    buffer_count = data + 1U;
    buffer_cycles = 0;
    buffer.clear();
    if (buffer_count <= flash_page_words) mode = phase::wb_load;
  } else if (now == phase::wb_load) {
    buffer_word(offset, data);
  } else if (static_cast<uint8_t>(data) == cmd_buffer_confirm) {
    program(buffer, times.buffer_us, times.buffer_factor);
  }
}

// The first word chooses the page. Of several words for one place the last counts.
void flash_model::buffer_word(uint32_t offset, uint16_t data) {
  data_bit7 = (data & dq7) != 0;
  if (!buffer.empty() && offset / flash_page_bytes != buffer[0].offset / flash_page_bytes) return;
  const auto same = std::ranges::find(buffer, offset, &word_load::offset);
  if (same != buffer.end()) {
    same->data = data;
  } else {
    buffer.push_back({offset, data});
  }
  mode = ++buffer_cycles == buffer_count ? phase::wb_confirm : phase::wb_load;
}

// A busy chip takes no command but another sector within the window; any other one there ends the erase unbegun.
void flash_model::busy_cycle(uint32_t offset, uint8_t code) {
  if (mode == phase::failed && code == cmd_reset) mode = phase::array;
  if (mode != phase::erase_window) return;
  if (code == cmd_sector_erase) {
    erasing_sectors.set(sector_of(cell_offset(offset)));
    open_window();
  } else {
    mode = phase::array;
  }
}

void flash_model::program(std::span<const word_load> words, unsigned typical_us, unsigned factor) {
  erasing_sectors.reset();
  const fault *const hang = find(fault_id::flash_program_hangs, sector_of(cell_offset(words[0].offset)));
  outcome = ending::success;
  if (hang != nullptr) {
    outcome = hang->get("dq5") != 0 ? ending::failure : ending::never;
  } else {
    for (const auto &w : words)
      if (!program_word(w.offset, w.data)) outcome = ending::failure;
  }
  run(phase::programming, int64_t{1000} << typical_us, factor, program_polls);
}

// Programming clears bits, then the chip compares. Returns whether the cells hold the word.
bool flash_model::program_word(uint32_t offset, uint16_t data) {
  const uint32_t at = cell_offset(offset);
  if (!command_faults) data = static_cast<uint16_t>(data_lines.pass(data));
  const uint16_t before = cells.force(at, word_get(memory, at));
  const uint16_t after = cells.force(at, before & data);
  word_set(memory, at, after);
  for (const auto &cell : cells.disturbed(at, before & static_cast<uint16_t>(~after)))
    memory[cell.victim] &= static_cast<uint8_t>(~cell.victim_mask);
  const uint32_t sector = sector_of(at);
  for (const auto &f : faults) {
    if (f.id == fault_id::flash_program_clears && f.get("sector") == sector)
      memory[sector * flash_sector_bytes + parm(f, "offset")] &= static_cast<uint8_t>(~(1U << parm(f, "bit")));
  }
  return after == data;
}

void flash_model::open_window() {
  mode = phase::erase_window;
  if (real_time) window_end_ns = monotonic_nsec() + erase_window_ns;
}

void flash_model::erase() {
  outcome = ending::success;
  for (uint32_t sector = 0; sector < flash_sectors; sector++) {
    if (!erasing_sectors[sector]) continue;
    const fault *const hang = find(fault_id::flash_erase_hangs, sector);
    if (hang != nullptr) {
      outcome = hang->get("dq5") != 0 ? ending::failure : ending::never;
      break;
    }
    if (!erase_sector(sector)) outcome = ending::failure;
  }
  const auto sectors = static_cast<int64_t>(erasing_sectors.count());
  run(phase::erasing, sectors * 1'000'000 << times.erase_ms, times.erase_factor, erase_polls - 1);
}

// Returns whether all cells of the sector are erased, as the chip sees it.
bool flash_model::erase_sector(uint32_t sector) {
  const uint32_t base = sector * flash_sector_bytes;
  std::ranges::fill(memory.subspan(base, flash_sector_bytes), uint8_t{0xFF});
  bool erased = true;
  for (uint32_t at = base; !cells.healthy() && at < base + flash_sector_bytes; at += 2) {
    const uint16_t word = cells.force(at, 0xFFFF);
    word_set(memory, at, word);
    erased = erased && word == 0xFFFF;
  }
  for (const auto &f : faults) {
    if (f.id == fault_id::flash_erase_leaves && sector_of(parm(f, "offset")) == sector)
      memory[parm(f, "offset")] &= static_cast<uint8_t>(~(1U << parm(f, "bit")));
  }
  return erased;
}

// An operation lasts a little less than its typical time. A failing one is given up before its longest time is over.
void flash_model::run(phase busy_phase, int64_t typical_ns, unsigned factor, uint64_t polls) {
  mode = busy_phase;
  const bool fails = outcome == ending::failure;
  polls_left = fails ? std::max<uint64_t>(polls, flash_give_up_polls) : polls;
  if (real_time) deadline_ns = monotonic_nsec() + (fails ? (typical_ns << factor) / 2 : typical_ns / 8 * 7);
}

void flash_model::poll() {
  if (real_time) return pass_time();
  if (mode != phase::erasing && mode != phase::programming) return;
  if (outcome == ending::never) return;
  if (polls_left == 0) return finish();
  polls_left--;
}

void flash_model::pass_time() {
  const int64_t now = monotonic_nsec();
  if (mode == phase::erase_window && now >= window_end_ns) {
    erase();
    deadline_ns -= now - window_end_ns;
  }
  if ((mode == phase::erasing || mode == phase::programming) && outcome != ending::never && now >= deadline_ns)
    finish();
}

void flash_model::finish() {
  mode = outcome == ending::failure ? phase::failed : phase::array;
}

}  // namespace sim
