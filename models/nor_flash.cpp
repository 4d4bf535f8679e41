// nor_flash.cpp: the NOR flash as a table of its states. Sections in quotation marks are those of the S29GL-N data
// sheet.
#include "models/nor_flash.h"

#include <algorithm>
#include <array>

#include "faults/random.h"

namespace models {

namespace {

// "Command Definitions", word mode. Command cycles decode the word address bits A10 to A0 and the data bits DQ7 to DQ0,
// some of them the sector.
constexpr uint32_t command_lines = 0x7FF * 2;
constexpr uint32_t sector_lines = (flash_sectors - 1) * flash_sector_bytes;
constexpr uint32_t all_lines = flash_bytes - 1;
constexpr uint32_t no_lines = 0;

constexpr uint16_t any_data = 0x100;

constexpr int64_t erase_window_ns = 50'000;  // "DQ3: Sector Erase Timer"

uint32_t sector_of(uint32_t offset) {
  return offset / flash_sector_bytes;
}

uint32_t base_of(uint32_t sector) {
  return sector * flash_sector_bytes;
}

}  // namespace

// --- The table of states ---

// What a read gives.
enum class nor_flash::answer : uint8_t { array, autoselect, query, status };

// Where a cycle must go, and with it what the chip decodes of its address.
enum class nor_flash::place : uint8_t {
  at_555,  // word address, A10 to A0
  at_2AA,
  at_055,
  any_sector,      // A25 to A16
  buffers_sector,  // the one that the buffer is for
  buffers_word,    // any word of that sector
  any_word,
};

enum class nor_flash::action : uint8_t {
  none,
  open_buffer,
  count_words,
  load_word,
  program_buffer,
  program_word,
  begin_erase,
  add_sector,
  erase_chip,
};

struct nor_flash::state_row {
  phase now;
  answer reads;
  bool busy;
  uint16_t status;   // bits that are set as long as this lasts
  uint32_t address;  // lines decoded in a cycle that no row below is for
  uint16_t data;     // lines looked at in any cycle
  phase reset;       // where a reset leads, at any address,
  phase otherwise;   // and any other cycle that no row below takes
};

// A cycle that the chip waits for.
struct nor_flash::cycle_row {
  phase now;
  uint16_t code;  // DQ7 to DQ0, or any_data
  place at;
  phase next;
  action does = action::none;
};

struct nor_flash::state_table {
  using enum phase;
  using enum place;
  using enum action;
  using a = answer;

  // clang-format off
  // A cycle out of order puts the chip into an unknown state, and only a reset gets it back to its array ("Command
  // Definitions"). Here it reads its array all the same, and takes no command.
  static constexpr std::array states{std::to_array<state_row>({
      // phase              a read gives   busy   status  address        data    a reset to   others to
      {array,               a::array,      false, 0,      command_lines, 0x00FF, array,       lost},
      {unlock1,             a::array,      false, 0,      command_lines, 0x00FF, array,       lost},
      {unlock2,             a::array,      false, 0,      command_lines, 0x00FF, array,       lost},
      {erase_setup,         a::array,      false, 0,      command_lines, 0x00FF, array,       lost},
      {erase_unlock1,       a::array,      false, 0,      command_lines, 0x00FF, array,       lost},
      {erase_unlock2,       a::array,      false, 0,      command_lines, 0x00FF, array,       lost},
      {word,                a::array,      false, 0,      all_lines,     0xFFFF, word,        word},
      {wb_count,            a::array,      false, 0,      sector_lines,  0xFFFF, aborted,     aborted},
      {wb_load,             a::array,      false, 0,      all_lines,     0xFFFF, aborted,     aborted},
      {wb_confirm,          a::array,      false, 0,      sector_lines,  0x00FF, aborted,     aborted},
      {lost,                a::array,      false, 0,      no_lines,      0x00FF, array,       lost},
      {autoselect,          a::autoselect, false, 0,      command_lines, 0x00FF, array,       autoselect},
      {query,               a::query,      false, 0,      command_lines, 0x00FF, array,       query},
      {query_in_autoselect, a::query,      false, 0,      command_lines, 0x00FF, autoselect,  query_in_autoselect},
      {aborted,             a::status,     false, dq1,    command_lines, 0x00FF, aborted,     aborted},
      {aborted_unlock1,     a::status,     false, dq1,    command_lines, 0x00FF, aborted,     aborted},
      {aborted_unlock2,     a::status,     false, dq1,    command_lines, 0x00FF, aborted,     aborted},
      // A command within the window ends the erase before it began.
      {erase_window,        a::status,     true,  0,      no_lines,      0x00FF, array,       array},
      {erasing,             a::status,     true,  0,      no_lines,      0x0000, erasing,     erasing},
      {programming,         a::status,     true,  0,      no_lines,      0x0000, programming, programming},
      {failed,              a::status,     true,  dq5,    no_lines,      0x00FF, array,       failed},
  })};

  // By phases, in their order.
  static constexpr std::array cycles{std::to_array<cycle_row>({
      // in              code                at              leads to             and does
      {array,            cmd_query,          at_055,         query},
      {array,            cmd_unlock1,        at_555,         unlock1},
      {unlock1,          cmd_unlock2,        at_2AA,         unlock2},
      {unlock2,          cmd_autoselect,     at_555,         autoselect},
      {unlock2,          cmd_program,        at_555,         word},
      {unlock2,          cmd_buffer_load,    any_sector,     wb_count,            open_buffer},
      {unlock2,          cmd_erase_setup,    at_555,         erase_setup},
      {erase_setup,      cmd_unlock1,        at_555,         erase_unlock1},
      {erase_unlock1,    cmd_unlock2,        at_2AA,         erase_unlock2},
      {erase_unlock2,    cmd_sector_erase,   any_sector,     erase_window,        begin_erase},
      {erase_unlock2,    cmd_chip_erase,     at_555,         erasing,             erase_chip},
      {word,             any_data,           any_word,       programming,         program_word},
      // "Write Buffer Programming": what does not fit aborts it.
      {wb_count,         any_data,           buffers_sector, wb_load,             count_words},
      {wb_load,          any_data,           buffers_word,   wb_load,             load_word},
      {wb_confirm,       cmd_buffer_confirm, buffers_sector, programming,         program_buffer},
      {autoselect,       cmd_query,          at_055,         query_in_autoselect},
      // "Write-to-Buffer-Abort Reset".
      {aborted,          cmd_unlock1,        at_555,         aborted_unlock1},
      {aborted_unlock1,  cmd_unlock2,        at_2AA,         aborted_unlock2},
      {aborted_unlock2,  cmd_reset,          at_555,         array},
      {erase_window,     cmd_sector_erase,   any_sector,     erase_window,        add_sector},
  })};
  // clang-format on

  static constexpr size_t count = static_cast<size_t>(failed) + 1;

  // Where the cycles of each phase begin, and where the last ones end.
  static constexpr auto first_cycles = [] {
    std::array<uint8_t, count + 1> first{};
    for (size_t number = 0, row = 0; number <= count; ++number) {
      while (row < cycles.size() && static_cast<size_t>(cycles[row].now) < number)
        ++row;
      first[number] = static_cast<uint8_t>(row);
    }
    return first;
  }();

  static constexpr bool in_order() {
    for (size_t i = 0; i < states.size(); ++i)
      if (states[i].now != static_cast<phase>(i)) return false;
    return states.size() == count && std::ranges::is_sorted(cycles, {}, &cycle_row::now);
  }

  static constexpr uint32_t lines_of(place at) {
    switch (at) {
      case any_sector:
      case buffers_sector:
        return sector_lines;
      case buffers_word:
      case any_word:
        return all_lines;
      default:
        return command_lines;
    }
  }
};

const nor_flash::state_row &nor_flash::state() const {
  static_assert(state_table::in_order());
  return state_table::states[static_cast<size_t>(m_now)];
}

// The cycle with this code that the chip waits for, or null.
const nor_flash::cycle_row *nor_flash::row_of(uint8_t code) const {
  const auto now = static_cast<size_t>(m_now);
  for (size_t i = state_table::first_cycles[now]; i < state_table::first_cycles[now + 1]; ++i) {
    const auto &row = state_table::cycles[i];
    if (row.code == code || row.code == any_data) return &row;
  }
  return nullptr;
}

// What the chip looks at in a cycle with this code.
nor_flash::decoded_lines nor_flash::decoded(uint8_t code) const {
  const auto &now = state();
  if (const auto *const row = row_of(code)) return {state_table::lines_of(row->at), now.data};
  const bool is_reset = code == cmd_reset && now.reset != now.otherwise;
  return {is_reset ? no_lines : now.address, now.data};
}

bool nor_flash::is_at(place wanted, uint32_t offset) const {
  const auto names = [offset](uint32_t word) { return (offset & command_lines) == word * 2; };
  switch (wanted) {
    case place::at_555:
      return names(0x555);
    case place::at_2AA:
      return names(0x2AA);
    case place::at_055:
      return names(0x055);
    case place::buffers_sector:
    case place::buffers_word:
      return sector_of(offset) == m_buffer_sector;
    default:
      return true;
  }
}

bool nor_flash::reads_array() const {
  return state().reads == answer::array;
}

bool nor_flash::is_busy() const {
  return state().busy;
}

// --- Query and autoselect ---

uint16_t flash_query_word(const flash_times &times, uint32_t word) {
  // clang-format off
  // "Common Flash Memory Interface" (JESD68.01), from word 0x10 on.
  static constexpr std::array<uint16_t, 0x0F> identification{
      'Q', 'R', 'Y',
      0x02, 0x00,   // command set
      0x40, 0x00,   // address of its table
      0x00, 0x00,   // no alternate set,
      0x00, 0x00,   // nor its table
      0x27, 0x36,   // supply 2.7 V to 3.6 V
      0x00, 0x00,   // no programming voltage
  };
  const std::array<uint16_t, 0x08> durations{
      times.word_us, times.buffer_us, times.erase_ms,
      0,            // no time for the whole chip
      times.word_factor, times.buffer_factor, times.erase_factor,
      0,
  };
  static constexpr std::array<uint16_t, 0x0A> geometry{
      26,           // size, exponent of 2
      0x01, 0x00,   // 16 bits wide
      5, 0x00,      // bytes of the write buffer, exponent of 2
      1,            // erase regions
      (flash_sectors - 1) & 0xFFU, (flash_sectors - 1) >> 8U,
      (flash_sector_bytes / 256) & 0xFFU, (flash_sector_bytes / 256) >> 8U,
  };
  static constexpr std::array<uint16_t, 0x11> command_set{
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
  const struct { uint32_t first; std::span<const uint16_t> words; } parts[] = {
      {0x10, identification}, {0x1F, durations}, {0x27, geometry}, {0x40, command_set},
  };
  // clang-format on
  for (const auto &part : parts)
    if ((word & 0xFFU) - part.first < part.words.size()) return part.words[(word & 0xFFU) - part.first];
  return 0;
}

namespace {

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

}  // namespace

uint16_t nor_flash::query_word(uint32_t word) const {
  for (const auto &f : m_others)
    if (f.id == fault_id::flash_cfi && f.word == (word & 0xFFU) && strikes(f.cause)) return f.value;
  return flash_query_word(m_setup.times, word);
}

// --- Cycles ---

namespace {

// Faults that do not change array reads. With any other, every read is a cycle.
constexpr std::array not_of_reads{
    fault_id::flash_cfi,           fault_id::flash_slow,           fault_id::flash_erase_hangs,
    fault_id::flash_program_hangs, fault_id::flash_erase_ignored,  fault_id::flash_program_ignored,
    fault_id::flash_erase_leaves,  fault_id::flash_program_clears, fault_id::flash_power_cut,
};

}  // namespace

nor_flash::nor_flash(memory words, std::span<const chip_fault> faults, const flash_setup &setup)
    : m_words(words), m_setup(setup) {
  for (const auto &f : faults) {
    auto &data = f.commands ? m_cycle_data : m_array_data;
    auto &address = f.commands ? m_cycle_address : m_array_address;
    if (m_cells.add(f)) continue;
    m_plain = m_plain && std::ranges::find(not_of_reads, f.id) != not_of_reads.end();
    if (add_line_fault(f, &data.lines(), &address)) continue;
    if (f.id == fault_id::flash_silent)
      m_silent.push_back(f.cause);
    else if (f.id == fault_id::flash_slow)
      m_slow = f;
    else
      m_others.push_back(f);
  }
  if (m_slow) m_setup.now = nullptr;
  m_plain = m_plain && m_cells.read_plainly();
}

bool nor_flash::is_silent() const {
  return std::ranges::any_of(m_silent, strikes);
}

uint16_t nor_flash::read(uint32_t offset) {
  if (reads_plainly()) return m_words.get(offset);
  const uint32_t arriving = m_cycle_address.pass(offset, all_lines);
  if (arriving != offset && steady_word(arriving) != steady_word(offset)) m_cycle_address.fired();
  const uint16_t word = m_cycle_data.to_bus(chip_read(arriving));
  return word != 0xFFFF && is_silent() ? 0xFFFF : word;
}

void nor_flash::write(uint32_t offset, uint16_t data) {
  if (is_silent()) return;
  const auto seen = decoded(static_cast<uint8_t>(data));
  const uint32_t arriving = m_cycle_address.pass(offset, seen.address);
  m_cycle_address.fired();
  chip_write(arriving, m_cycle_data.to_chip(data, seen.data));
}

void nor_flash::write_torn(uint32_t offset, uint16_t data, uint64_t seed) {
  m_cut = seed;
  write(offset, data);
  if (m_now == phase::erase_window) erase();
}

// What the answer to a read depends on: of a status only the sector.
uint16_t nor_flash::steady_word(uint32_t offset) const {
  switch (state().reads) {
    case answer::array:
      return m_words.get(offset);
    case answer::autoselect:
      return autoselect_word(offset / 2);
    case answer::query:
      return flash_query_word(m_setup.times, offset / 2);
    default:
      return m_erasing_sectors[sector_of(offset)] ? dq2 : 0;
  }
}

uint16_t nor_flash::chip_read(uint32_t offset) {
  if (is_busy()) poll();
  switch (state().reads) {
    case answer::array:
      return array_word(offset);
    case answer::autoselect:
      return autoselect_word(offset / 2);
    case answer::query:
      return query_word(offset / 2);
    default:
      return status(offset);
  }
}

uint16_t nor_flash::array_word(uint32_t offset) {
  const uint32_t at = m_array_address.pass(offset, all_lines);
  if (at != offset && m_words.get(at) != m_words.get(offset)) m_array_address.fired();
  return m_array_data.to_bus(m_cells.read(m_words, at));
}

uint16_t nor_flash::status(uint32_t offset) {
  const bool erases = m_erasing_sectors.any();
  const bool window = m_now == phase::erase_window;
  m_toggles ^= dq6;
  if (erases && m_erasing_sectors[sector_of(offset)]) m_toggles ^= dq2;
  unsigned bits = state().status | (m_toggles & dq6);
  if (erases)
    bits |= (m_toggles & dq2) | (window ? 0U : unsigned{dq3});
  else if (!m_data_bit7)
    bits |= dq7;
  // The window's status was seen; now it is over.
  if (window && m_setup.now == nullptr) erase();
  return static_cast<uint16_t>(bits);
}

void nor_flash::chip_write(uint32_t offset, uint16_t data) {
  if (m_setup.now != nullptr && is_busy()) pass_time();
  const auto code = static_cast<uint8_t>(data);
  const auto *const row = row_of(code);
  if (row == nullptr || !is_at(row->at, offset)) {
    m_now = code == cmd_reset ? state().reset : state().otherwise;
    return;
  }
  m_now = row->next;
  act(row->does, offset, data);
}

void nor_flash::act(action what, uint32_t offset, uint16_t data) {
  switch (what) {
    case action::none:
      return;
    case action::open_buffer:
      m_buffer_sector = sector_of(offset);
      m_erasing_sectors.reset();
      return;
    case action::count_words:
      m_buffer_count = data + 1U;
      m_buffer_cycles = m_buffer_words = 0;
      if (m_buffer_count > flash_page_words) m_now = phase::aborted;
      return;
    case action::load_word:
      return load(offset, data);
    case action::program_buffer:
      return program(std::span(m_buffer).first(m_buffer_words), m_setup.times.buffer_us, m_setup.times.buffer_factor);
    case action::program_word:
      m_data_bit7 = (data & dq7) != 0;
      return program(std::array{word_load{offset, data}}, m_setup.times.word_us, m_setup.times.word_factor);
    case action::begin_erase:
      m_erasing_sectors.reset();
      return open_window(sector_of(offset));
    case action::add_sector:
      return open_window(sector_of(offset));
    case action::erase_chip:
      m_erasing_sectors.set();
      if (m_setup.watcher != nullptr) m_setup.watcher->erases(m_erasing_sectors);
      return erase();
  }
}

// The first word chooses the page. Of several words for one place the last counts.
void nor_flash::load(uint32_t offset, uint16_t data) {
  m_data_bit7 = (data & dq7) != 0;
  const auto loaded = std::span(m_buffer).first(m_buffer_words);
  if (!loaded.empty() && offset / flash_page_bytes != loaded[0].offset / flash_page_bytes) {
    m_now = phase::aborted;
    return;
  }
  const auto same = std::ranges::find(loaded, offset, &word_load::offset);
  if (same != loaded.end())
    same->data = data;
  else
    m_buffer[m_buffer_words++] = {offset, data};
  if (++m_buffer_cycles == m_buffer_count) m_now = phase::wb_confirm;
}

// --- Programming and erasing ---

// The first of these faults that names the sector and acts on it, or none.
const chip_fault *nor_flash::struck(fault_id id, uint32_t sector) const {
  for (const auto &f : m_others)
    if (f.id == id && (f.sector == every_sector || f.sector == sector) && strikes(f.cause)) return &f;
  return nullptr;
}

bool nor_flash::is_blank(uint32_t sector) const {
  return m_words.is_blank(base_of(sector), flash_sector_bytes);
}

void nor_flash::program(std::span<const word_load> loads, unsigned typical_us, unsigned factor) {
  m_erasing_sectors.reset();
  if (m_setup.watcher != nullptr) {
    std::array<word_write, flash_page_words> writes{};
    const auto to = std::span(writes).first(loads.size());
    std::ranges::transform(loads, to.begin(), [this](const word_load &l) {
      const uint16_t before = m_words.get(l.offset);
      return word_write{l.offset, before, static_cast<uint16_t>(before & l.data)};
    });
    std::ranges::sort(to, {}, &word_write::at);
    m_setup.watcher->programs(to);
  }
  const uint32_t sector = sector_of(loads[0].offset);
  const auto changes = [this](const word_load &l) { return (m_words.get(l.offset) & ~l.data) != 0; };
  m_ending = ending::success;
  if (const auto *const hang = struck(fault_id::flash_program_hangs, sector)) {
    m_ending = hang->dq5 ? ending::failure : ending::never;
  } else if (!std::ranges::any_of(loads, changes) || struck(fault_id::flash_program_ignored, sector) == nullptr) {
    for (const auto &l : loads)
      if (!program_word(l)) m_ending = ending::failure;
  }
  if (m_setup.watcher != nullptr) m_setup.watcher->done();
  run(phase::programming, int64_t{1000} << typical_us, factor, flash_program_polls);
}

// Programming clears bits, then the chip compares. Returns whether the cells hold the word.
bool nor_flash::program_word(const word_load &load) {
  const uint32_t at = m_array_address.pass(load.offset, all_lines);
  const uint16_t taken = m_array_data.to_chip(load.data);
  const uint16_t before = m_words.get(at);
  const word_write w{at, before, static_cast<uint16_t>(before & taken)};
  if (at != load.offset && (w.wanted != before || (m_words.get(load.offset) & ~taken) != 0)) m_array_address.fired();
  if (m_cut) {
    m_words.set(at, torn_word(w, &*m_cut));
    return true;
  }
  const uint16_t after = m_cells.write(m_words, w);
  for (const auto &f : m_others)
    if (f.id == fault_id::flash_program_clears && f.sector == sector_of(at)) clear_bit(f, base_of(f.sector) + f.offset);
  return after == taken;
}

// Programs the bit of the byte at an offset.
void nor_flash::clear_bit(const chip_fault &f, uint32_t offset) const {
  const uint32_t at = offset & ~1U;
  const auto mask = static_cast<uint16_t>(1U << (f.bit + 8 * (offset & 1U)));
  const uint16_t word = m_words.get(at);
  if ((word & mask) != 0 && strikes(f.cause)) m_words.set(at, word ^ mask);
}

void nor_flash::open_window(uint32_t sector) {
  m_erasing_sectors.set(sector);
  if (m_setup.watcher != nullptr) m_setup.watcher->erases(m_erasing_sectors);
  if (m_setup.now != nullptr) m_window_end_ns = m_setup.now() + erase_window_ns;
}

void nor_flash::erase() {
  m_ending = ending::success;
  for (uint32_t sector = 0; sector < flash_sectors; ++sector) {
    if (!m_erasing_sectors[sector]) continue;
    if (const auto *const hang = struck(fault_id::flash_erase_hangs, sector)) {
      m_ending = hang->dq5 ? ending::failure : ending::never;
      break;
    }
    if (!erase_sector(sector)) m_ending = ending::failure;
  }
  if (m_setup.watcher != nullptr) m_setup.watcher->done();
  const auto sectors = static_cast<int64_t>(m_erasing_sectors.count());
  run(phase::erasing, sectors * 1'000'000 << m_setup.times.erase_ms, m_setup.times.erase_factor, flash_erase_polls - 1);
}

// Returns whether all cells of the sector are erased, as the chip sees it.
bool nor_flash::erase_sector(uint32_t addressed) {
  const uint32_t sector = sector_of(m_array_address.pass(base_of(addressed), sector_lines));
  if (sector != addressed && !(is_blank(sector) && is_blank(addressed))) m_array_address.fired();
  const auto ignores = [](const chip_fault &f) { return f.id == fault_id::flash_erase_ignored; };
  if (std::ranges::any_of(m_others, ignores) && !is_blank(sector) &&
      struck(fault_id::flash_erase_ignored, addressed) != nullptr)
    return true;
  if (m_cut) {
    erase_torn(sector);
    return true;
  }
  const bool erased = m_cells.erase(m_words, base_of(sector), flash_sector_bytes);
  for (const auto &f : m_others)
    if (f.id == fault_id::flash_erase_leaves && sector_of(f.offset) == sector) clear_bit(f, f.offset);
  return erased;
}

// The power fails during an erase. The chip programs the whole sector before it erases it ("Sector Erase Command
// Sequence"): either it has come so far with that, or some cells are erased already.
void nor_flash::erase_torn(uint32_t sector) {
  const uint64_t random = sim::random_next(&*m_cut);
  const bool programs = random % 2 == 0;
  const uint32_t reached = programs ? static_cast<uint32_t>(random >> 32U) % flash_sector_bytes : flash_sector_bytes;
  for (uint32_t at = 0; at < reached; at += 2)
    m_words.set(base_of(sector) + at, programs ? 0 : static_cast<uint16_t>(sim::random_next(&*m_cut)));
}

// --- Time ---

// An operation lasts a little less than its typical time. A failing one is given up before its longest time is over.
void nor_flash::run(phase busy, int64_t typical_ns, unsigned factor, uint64_t polls) {
  m_now = busy;
  const bool fails = m_ending == ending::failure;
  const uint64_t least = fails ? flash_give_up_polls : 0;
  m_usual_polls_left = m_polls_left = std::max(polls, least);
  if (m_slow) m_polls_left = std::max<uint64_t>(busy == phase::erasing ? m_slow->erase - 1 : m_slow->program, least);
  if (m_setup.now != nullptr) m_deadline_ns = m_setup.now() + (fails ? (typical_ns << factor) / 2 : typical_ns / 8 * 7);
}

void nor_flash::poll() {
  if (m_setup.now != nullptr) return pass_time();
  if (m_now != phase::erasing && m_now != phase::programming) return;
  if (m_ending == ending::never) return;
  const bool ends = m_polls_left == 0;
  const bool ends_usually = m_usual_polls_left == 0;
  if (m_slow && ends != ends_usually) count(m_slow->cause);
  if (!ends_usually) m_usual_polls_left--;
  if (ends) return finish();
  m_polls_left--;
}

void nor_flash::pass_time() {
  const int64_t now = m_setup.now();
  if (m_now == phase::erase_window && now >= m_window_end_ns) {
    erase();
    m_deadline_ns -= now - m_window_end_ns;
  }
  if ((m_now == phase::erasing || m_now == phase::programming) && m_ending != ending::never && now >= m_deadline_ns)
    finish();
}

void nor_flash::finish() {
  m_now = m_ending == ending::failure ? phase::failed : phase::array;
}

}  // namespace models
