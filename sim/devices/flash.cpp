// flash.cpp: command decoder, array and status of the NOR flash. Sections in quotation marks are those of the S29GL-N
// data sheet.
#include "sim/devices/flash.h"

#include <signal.h>
#include <unistd.h>

#include <algorithm>

#include "sim/board/random.h"
#include "sim/devices/cut_audit.h"
#include "sim/host/real.h"

namespace sim {

namespace {

// "Command Definitions", word mode. Command cycles decode the word address bits A10 to A0 and the data bits DQ7 to DQ0,
// some of them the sector.
constexpr uint32_t command_address_mask = 0x7FF;
constexpr uint32_t sector_lines = (flash_sectors - 1) * flash_sector_bytes;
constexpr uint32_t all_lines = flash_bytes - 1;
constexpr uint32_t unlock1_word = 0x555;
constexpr uint32_t unlock2_word = 0x2AA;
constexpr uint32_t query_entry_word = 0x055;

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

// "Write Operation Status".
enum status_bit : uint16_t {
  dq1 = 0x02,  // write buffer aborted
  dq2 = 0x04,  // toggles within sectors that are erased
  dq3 = 0x08,  // the erase window is over
  dq5 = 0x20,  // time exceeded
  dq6 = 0x40,  // toggles while busy
  dq7 = 0x80,  // complement of the data, 0 during an erase
};

constexpr int64_t erase_window_ns = 50'000;  // "DQ3: Sector Erase Timer"

// clang-format off
// "Common Flash Memory Interface" (JESD68.01): the words of the query from 0x10 on, but for times and sizes.
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

using query_words = std::array<uint16_t, 0x100>;

query_words make_query(const flash_times &times) {
  query_words words{};
  // clang-format off
  std::ranges::copy(query_identification, &words[0x10]);
  words[0x1F] = times.word_us;
  words[0x20] = times.buffer_us;
  words[0x21] = times.erase_ms;
  words[0x22] = 0;  // no time for the whole chip
  words[0x23] = times.word_factor;
  words[0x24] = times.buffer_factor;
  words[0x25] = times.erase_factor;
  words[0x26] = 0;
  std::ranges::copy(query_geometry, &words[0x27]);
  std::ranges::copy(query_command_set, &words[0x40]);
  // clang-format on
  return words;
}

const flash_times &times_of(const options &opts) {
  return opts.real_times ? flash_times_real : flash_times_scaled;
}

// "Autoselect Codes".
uint16_t autoselect_word(uint32_t word) {
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
}

// Why the fault would do nothing, "" if it does something.
std::string useless(const options &opts, const fault &f) {
  if (f.id == fault_id::flash_cfi) {
    const auto word = static_cast<size_t>(f.get("word"));
    return make_query(times_of(opts)).at(word) == f.get("value") ? "the word has this value anyway" : "";
  }
  const bool usual = f.get("program") == flash_program_polls && f.get("erase") == flash_erase_polls;
  return f.id == fault_id::flash_slow && usual && opts.busy == busy::polls ? "these are the usual numbers" : "";
}

}  // namespace

std::string flash_check(const options &opts) {
  for (const auto &f : opts.faults) {
    const auto why = useless(opts, f);
    if (!why.empty()) return "fault '" + f.text + "': " + why;
  }
  return "";
}

void flash_model::start(std::span<uint8_t> contents, const options &opts) {
  *this = flash_model{};
  m_memory = contents;
  m_buffer.reserve(flash_page_words);
  m_times = times_of(opts);
  m_query_table = make_query(m_times);
  for (const auto &f : opts.faults)
    if (f.row().part == fault_part::flash) add(f);
  m_real_time = opts.busy == busy::time && m_slow == nullptr;
  m_plain = m_silent == nullptr && m_cycle_address.healthy() && m_cycle_data.lines().healthy() &&
            m_array_address.healthy() && m_array_data.lines().healthy() && m_cells.read_plainly();
}

void flash_model::add(const fault &f) {
  const bool everywhere = f.get("commands") != 0;
  auto &data = everywhere ? m_cycle_data.lines() : m_array_data.lines();
  auto &address = everywhere ? m_cycle_address : m_array_address;
  switch (f.id) {
    case fault_id::flash_data_stuck:
      return data.add_stuck(f);
    case fault_id::flash_data_short:
      return data.add_shorted(f);
    case fault_id::flash_data_floating:
      return data.add_floating(f);
    case fault_id::flash_addr_stuck:
      return address.add_stuck(f);
    case fault_id::flash_addr_short:
      return address.add_shorted(f);
    case fault_id::flash_silent:
      m_silent = &f;
      return;
    case fault_id::flash_slow:
      m_slow = &f;
      return;
    case fault_id::flash_power_cut:
      m_power_cut = &f;
      return;
    case fault_id::flash_cfi:
      return m_wrong_words.push_back(&f);
    default:
      if (!m_cells.add(f)) m_operations.push_back(&f);
  }
}

// The first of these faults that names the sector and acts on it, or none.
const fault *flash_model::struck(fault_id id, uint32_t sector) const {
  for (const auto *const f : m_operations)
    if (f->id == id && f->get("sector", sector) == sector && f->strikes()) return f;
  return nullptr;
}

bool flash_model::is_blank(uint32_t sector) const {
  return std::ranges::all_of(m_memory.subspan(sector * flash_sector_bytes, flash_sector_bytes),
                             [](uint8_t byte) { return byte == 0xFF; });
}

// The sector of the array that a sector's address reaches.
uint32_t flash_model::cell_sector(uint32_t sector) {
  return sector_of(m_array_address.pass(sector * flash_sector_bytes, sector_lines));
}

uint16_t flash_model::read(uint32_t offset) {
  const uint32_t arriving = m_cycle_address.pass(offset, all_lines);
  if (steady_word(arriving) != steady_word(offset)) m_cycle_address.fired();
  const uint16_t word = m_cycle_data.to_bus(chip_read(arriving));
  return m_silent != nullptr && word != 0xFFFF && m_silent->strikes() ? 0xFFFF : word;
}

void flash_model::write(uint32_t offset, uint16_t data) {
  if (m_power_cut != nullptr && m_power_cut->acts()) m_cut = m_power_cut->get("seed");
  if (m_audit != nullptr) m_audit->cycle();
  if (m_silent == nullptr || !m_silent->strikes()) {
    const auto seen = decoded(static_cast<uint8_t>(data));
    const uint32_t arriving = m_cycle_address.pass(offset, seen.address);
    m_cycle_address.fired();
    chip_write(arriving, m_cycle_data.to_chip(data, seen.data));
  }
  if (m_audit != nullptr && m_mode == phase::array) m_audit->settle("other commands");
  if (!m_cut) return;
  if (m_mode == phase::erase_window) erase();
  m_power_cut->fired();
  kill(getpid(), SIGKILL);
}

// What the chip looks at in a write cycle with this code in the lower half of the data.
flash_model::decoded_lines flash_model::decoded(uint8_t code) const {
  constexpr uint32_t command_lines = command_address_mask << 1U;
  switch (m_mode) {
    case phase::erasing:
    case phase::programming:
      return {0, 0};
    case phase::lost:
    case phase::failed:
      return {0, 0xFF};
    case phase::word:
    case phase::wb_load:
      return {all_lines, 0xFFFF};
    case phase::wb_count:
      return {sector_lines, 0xFFFF};
    case phase::wb_confirm:
      return {sector_lines, 0xFF};
    case phase::erase_window:
      return {code == cmd_sector_erase ? sector_lines : 0, 0xFF};
    case phase::unlock2:
      return {code == cmd_buffer_load ? sector_lines : command_lines, 0xFF};
    case phase::erase_unlock2:
      return {code == cmd_sector_erase ? sector_lines : command_lines, 0xFF};
    default:
      return {code == cmd_reset ? 0 : command_lines, 0xFF};
  }
}

// What the answer to a read depends on: of a status the sector alone.
uint16_t flash_model::steady_word(uint32_t offset) const {
  if (reads_array()) return word_get(m_memory, offset);
  if (m_mode == phase::autoselect) return autoselect_word(offset / 2);
  if (m_mode == phase::query || m_mode == phase::query_in_autoselect) return m_query_table[offset / 2 & 0xFFU];
  return m_erasing_sectors[sector_of(offset)] ? dq2 : 0;
}

uint16_t flash_model::chip_read(uint32_t offset) {
  if (m_mode >= phase::erase_window) poll();
  switch (m_mode) {
    case phase::autoselect:
      return autoselect_word(offset / 2);
    case phase::query:
    case phase::query_in_autoselect:
      return query_word(offset / 2 & 0xFFU);
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

uint16_t flash_model::query_word(uint32_t word) const {
  for (const auto *const f : m_wrong_words)
    if (f->get("word") == word && f->strikes()) return static_cast<uint16_t>(f->get("value"));
  return m_query_table[word];
}

uint16_t flash_model::array_word(uint32_t offset) {
  if (m_plain) return word_get(m_memory, offset);
  const uint32_t at = m_array_address.pass(offset, all_lines);
  if (word_get(m_memory, at) != word_get(m_memory, offset)) m_array_address.fired();
  return m_array_data.to_bus(m_cells.read(m_memory, at));
}

uint16_t flash_model::status(uint32_t offset) {
  const bool erases = m_erasing_sectors.any();
  m_toggles ^= dq6;
  if (erases && m_erasing_sectors[sector_of(offset)]) m_toggles ^= dq2;
  unsigned bits = m_toggles & dq6;
  if (erases) {
    bits |= m_toggles & dq2;
    if (m_mode != phase::erase_window) bits |= dq3;
  } else if (!m_data_bit7) {
    bits |= dq7;
  }
  if (m_mode == phase::failed) bits |= dq5;
  if (m_mode >= phase::aborted && m_mode <= phase::aborted_unlock2) bits |= dq1;
  // The window's status was seen; now it is over.
  if (m_mode == phase::erase_window && !m_real_time) erase();
  return static_cast<uint16_t>(bits);
}

void flash_model::chip_write(uint32_t offset, uint16_t data) {
  const uint32_t word = offset / 2 & command_address_mask;
  const auto code = static_cast<uint8_t>(data);
  if (m_real_time && m_mode >= phase::erase_window) pass_time();
  switch (m_mode) {
    case phase::array:
      return array_cycle(word, code);
    case phase::unlock1:
      return next_cycle(word == unlock2_word && code == cmd_unlock2, phase::unlock2, code);
    case phase::unlock2:
      return command_cycle(offset, code);
    case phase::erase_setup:
      return next_cycle(word == unlock1_word && code == cmd_unlock1, phase::erase_unlock1, code);
    case phase::erase_unlock1:
      return next_cycle(word == unlock2_word && code == cmd_unlock2, phase::erase_unlock2, code);
    case phase::erase_unlock2:
      return erase_cycle(offset, code);
    case phase::word:
      m_data_bit7 = (data & dq7) != 0;
      return program(std::array{word_load{offset, data}}, m_times.word_us, m_times.word_factor);
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

// A cycle that is out of order puts the chip into an unknown state, and only a reset gets it back to its array
// ("Command Definitions"). Here it reads its array all the same, and takes no command.
void flash_model::next_cycle(bool in_order, phase next, uint8_t code) {
  m_mode = in_order ? next : code == cmd_reset ? phase::array : phase::lost;
}

void flash_model::array_cycle(uint32_t word, uint8_t code) {
  if (word == query_entry_word && code == cmd_query)
    m_mode = phase::query;
  else
    next_cycle(word == unlock1_word && code == cmd_unlock1, phase::unlock1, code);
}

// The third cycle of a command.
void flash_model::command_cycle(uint32_t offset, uint8_t code) {
  if (code == cmd_buffer_load) {
    m_buffer_sector = sector_of(offset);
    m_mode = phase::wb_count;
    return;
  }
  const bool here = (offset / 2 & command_address_mask) == unlock1_word;
  switch (code) {
    case cmd_erase_setup:
      return next_cycle(here, phase::erase_setup, code);
    case cmd_autoselect:
      return next_cycle(here, phase::autoselect, code);
    case cmd_program:
      return next_cycle(here, phase::word, code);
    default:
      return next_cycle(false, phase::lost, code);
  }
}

void flash_model::erase_cycle(uint32_t offset, uint8_t code) {
  m_erasing_sectors.reset();
  if (code == cmd_sector_erase) {
    m_erasing_sectors.set(sector_of(offset));
    open_window();
  } else if (code == cmd_chip_erase && (offset / 2 & command_address_mask) == unlock1_word) {
    m_erasing_sectors.set();
    if (m_audit != nullptr) tell_erase();
    erase();
  } else {
    next_cycle(false, phase::lost, code);
  }
}

// Cycles in the modes that only a reset leaves.
void flash_model::mode_cycle(uint32_t word, uint8_t code) {
  switch (m_mode) {
    case phase::autoselect:
      if (code == cmd_reset) m_mode = phase::array;
      if (code == cmd_query && word == query_entry_word) m_mode = phase::query_in_autoselect;
      return;
    case phase::query:
    case phase::lost:
      if (code == cmd_reset) m_mode = phase::array;
      return;
    case phase::query_in_autoselect:
      if (code == cmd_reset) m_mode = phase::autoselect;
      return;
    case phase::aborted:
      if (code == cmd_unlock1 && word == unlock1_word) m_mode = phase::aborted_unlock1;
      return;
    case phase::aborted_unlock1:
      m_mode = code == cmd_unlock2 && word == unlock2_word ? phase::aborted_unlock2 : phase::aborted;
      return;
    default:
      m_mode = code == cmd_reset && word == unlock1_word ? phase::array : phase::aborted;
      return;
  }
}

// "Write Buffer Programming" behind its first three cycles. Whatever does not fit aborts it.
void flash_model::buffer_cycle(uint32_t offset, uint16_t data) {
  const phase now = m_mode;
  m_mode = phase::aborted;
  m_erasing_sectors.reset();
  if (sector_of(offset) != m_buffer_sector) return;
  if (now == phase::wb_count) {
    m_buffer_count = data + 1U;
    m_buffer_cycles = 0;
    m_buffer.clear();
    if (m_buffer_count <= flash_page_words) m_mode = phase::wb_load;
  } else if (now == phase::wb_load) {
    buffer_word(offset, data);
  } else if (static_cast<uint8_t>(data) == cmd_buffer_confirm) {
    program(m_buffer, m_times.buffer_us, m_times.buffer_factor);
  }
}

// The first word chooses the page. Of several words for one place the last counts.
void flash_model::buffer_word(uint32_t offset, uint16_t data) {
  m_data_bit7 = (data & dq7) != 0;
  if (!m_buffer.empty() && offset / flash_page_bytes != m_buffer[0].offset / flash_page_bytes) return;
  const auto same = std::ranges::find(m_buffer, offset, &word_load::offset);
  if (same != m_buffer.end()) {
    same->data = data;
  } else {
    m_buffer.push_back({offset, data});
  }
  m_mode = ++m_buffer_cycles == m_buffer_count ? phase::wb_confirm : phase::wb_load;
}

// A busy chip takes no command but another sector within the window; any other one there ends the erase unbegun.
void flash_model::busy_cycle(uint32_t offset, uint8_t code) {
  if (m_mode == phase::failed && code == cmd_reset) m_mode = phase::array;
  if (m_mode != phase::erase_window) return;
  if (code == cmd_sector_erase) {
    m_erasing_sectors.set(sector_of(offset));
    open_window();
  } else {
    m_mode = phase::array;
  }
}

void flash_model::program(std::span<const word_load> words, unsigned typical_us, unsigned factor) {
  m_erasing_sectors.reset();
  if (m_audit != nullptr) tell_program(words);
  const uint32_t sector = sector_of(words[0].offset);
  const auto changes = [&](const word_load &w) { return (word_get(m_memory, w.offset) & ~w.data) != 0; };
  m_outcome = ending::success;
  if (const auto *const hang = struck(fault_id::flash_program_hangs, sector)) {
    m_outcome = hang->get("dq5") != 0 ? ending::failure : ending::never;
  } else if (!std::ranges::any_of(words, changes) || struck(fault_id::flash_program_ignored, sector) == nullptr) {
    for (const auto &w : words)
      if (!program_word(w.offset, w.data)) m_outcome = ending::failure;
  }
  if (m_audit != nullptr) m_audit->done();
  run(phase::programming, int64_t{1000} << typical_us, factor, flash_program_polls);
}

// Programming clears bits, then the chip compares. Returns whether the cells hold the word.
bool flash_model::program_word(uint32_t offset, uint16_t data) {
  const uint32_t at = m_array_address.pass(offset, all_lines);
  const uint16_t taken = m_array_data.to_chip(data, 0xFFFF);
  const uint16_t before = word_get(m_memory, at);
  const word_write w{at, before, static_cast<uint16_t>(before & taken)};
  if (at != offset && (w.wanted != before || (word_get(m_memory, offset) & ~taken) != 0)) m_array_address.fired();
  if (m_cut) {
    word_set(m_memory, at, torn_word(w, &*m_cut));
    return true;
  }
  const uint16_t after = m_cells.take(m_memory, w);
  word_set(m_memory, at, after);
  m_cells.disturb(m_memory, w);
  for (const auto *const f : m_operations)
    if (f->id == fault_id::flash_program_clears && f->get("sector") == sector_of(at))
      clear_bit(*f, sector_of(at) * flash_sector_bytes);
  return after == taken;
}

// Programs the bit that the fault names, at an offset from `base`.
void flash_model::clear_bit(const fault &f, uint32_t base) {
  auto &byte = m_memory[base + static_cast<uint32_t>(f.get("offset"))];
  const auto bit = static_cast<uint8_t>(1U << f.get("bit"));
  if ((byte & bit) != 0 && f.strikes()) byte ^= bit;
}

// --- The audit of power cuts. It counts the times of the real chip.

void flash_model::tell_program(std::span<const word_load> words) const {
  static_assert(flash_times_real.word_us == flash_times_real.buffer_us);
  std::vector<word_write> writes;
  for (const auto &w : words) {
    const uint16_t before = word_get(m_memory, w.offset);
    writes.push_back({w.offset, before, static_cast<uint16_t>(before & w.data)});
  }
  std::ranges::sort(writes, {}, &word_write::at);
  const auto what = "sector " + std::to_string(sector_of(writes[0].at)) + " program";
  m_audit->tears(what, writes, 1U << flash_times_real.buffer_us);
}

void flash_model::tell_erase() const {
  uint32_t first = 0;
  while (!m_erasing_sectors[first])
    ++first;
  uint32_t last = flash_sectors - 1;
  while (!m_erasing_sectors[last])
    last--;
  m_audit->tears("sector " + std::to_string(first) + " erase", first * flash_sector_bytes,
                 (last - first + 1) * flash_sector_bytes,
                 m_erasing_sectors.count() * 1000 << flash_times_real.erase_ms);
}

void flash_model::open_window() {
  m_mode = phase::erase_window;
  if (m_audit != nullptr) tell_erase();
  if (m_real_time) m_window_end_ns = monotonic_nsec() + erase_window_ns;
}

void flash_model::erase() {
  m_outcome = ending::success;
  for (uint32_t sector = 0; sector < flash_sectors; ++sector) {
    if (!m_erasing_sectors[sector]) continue;
    if (const auto *const hang = struck(fault_id::flash_erase_hangs, sector)) {
      m_outcome = hang->get("dq5") != 0 ? ending::failure : ending::never;
      break;
    }
    if (!erase_sector(sector)) m_outcome = ending::failure;
  }
  if (m_audit != nullptr) m_audit->done();
  const auto sectors = static_cast<int64_t>(m_erasing_sectors.count());
  run(phase::erasing, sectors * 1'000'000 << m_times.erase_ms, m_times.erase_factor, flash_erase_polls - 1);
}

// Returns whether all cells of the sector are erased, as the chip sees it.
bool flash_model::erase_sector(uint32_t addressed) {
  const uint32_t sector = cell_sector(addressed);
  if (sector != addressed && !(is_blank(sector) && is_blank(addressed))) m_array_address.fired();
  if (!is_blank(sector) && struck(fault_id::flash_erase_ignored, addressed) != nullptr) return true;
  if (m_cut) {
    erase_torn(sector);
    return true;
  }
  const uint32_t base = sector * flash_sector_bytes;
  std::vector<std::pair<uint32_t, uint16_t>> taken;
  for (const auto at : m_cells.words(base, flash_sector_bytes))
    taken.emplace_back(at, m_cells.take(m_memory, {at, word_get(m_memory, at), 0xFFFF}));
  std::ranges::fill(m_memory.subspan(base, flash_sector_bytes), uint8_t{0xFF});
  for (const auto &[at, word] : taken)
    word_set(m_memory, at, word);
  for (const auto *const f : m_operations)
    if (f->id == fault_id::flash_erase_leaves && sector_of(static_cast<uint32_t>(f->get("offset"))) == sector)
      clear_bit(*f, 0);
  return std::ranges::all_of(taken, [](const auto &t) { return t.second == 0xFFFF; });
}

// The power fails during an erase. The chip programs the whole sector before it erases it ("Sector Erase Command
// Sequence"): either it has come so far with that, or some cells are erased already.
void flash_model::erase_torn(uint32_t sector) {
  const uint32_t base = sector * flash_sector_bytes;
  const uint64_t random = random_next(&*m_cut);
  const bool programs = random % 2 == 0;
  const uint32_t reached = programs ? static_cast<uint32_t>(random >> 32U) % flash_sector_bytes : flash_sector_bytes;
  for (uint32_t at = 0; at < reached; at += 2)
    word_set(m_memory, base + at, programs ? 0 : static_cast<uint16_t>(random_next(&*m_cut)));
}

// An operation lasts a little less than its typical time. A failing one is given up before its longest time is over.
void flash_model::run(phase busy_phase, int64_t typical_ns, unsigned factor, uint64_t polls) {
  m_mode = busy_phase;
  const bool fails = m_outcome == ending::failure;
  const uint64_t least = fails ? flash_give_up_polls : 0;
  m_usual_polls_left = m_polls_left = std::max(polls, least);
  if (m_slow != nullptr)
    m_polls_left = std::max(busy_phase == phase::erasing ? m_slow->get("erase") - 1 : m_slow->get("program"), least);
  if (m_real_time) m_deadline_ns = monotonic_nsec() + (fails ? (typical_ns << factor) / 2 : typical_ns / 8 * 7);
}

void flash_model::poll() {
  if (m_real_time) return pass_time();
  if (m_mode != phase::erasing && m_mode != phase::programming) return;
  if (m_outcome == ending::never) return;
  const bool ends = m_polls_left == 0;
  const bool ends_usually = m_usual_polls_left == 0;
  if (m_slow != nullptr && ends != ends_usually) m_slow->fired();
  if (!ends_usually) m_usual_polls_left--;
  if (ends) return finish();
  m_polls_left--;
}

void flash_model::pass_time() {
  const int64_t now = monotonic_nsec();
  if (m_mode == phase::erase_window && now >= m_window_end_ns) {
    erase();
    m_deadline_ns -= now - m_window_end_ns;
  }
  if ((m_mode == phase::erasing || m_mode == phase::programming) && m_outcome != ending::never && now >= m_deadline_ns)
    finish();
}

void flash_model::finish() {
  m_mode = m_outcome == ending::failure ? phase::failed : phase::array;
}

}  // namespace sim
