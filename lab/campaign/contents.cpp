#include "lab/campaign/contents.h"

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <memory>

#include "lab/base/files.h"

namespace lab {
namespace {

constexpr size_t nvram_bytes = 0x8000;
constexpr size_t nvram_count = 3;
constexpr size_t flash_bytes = 0x4000000;
constexpr uint64_t sector_bytes = 0x20000;
constexpr size_t piece_bytes = 0x10000;

// Noise that is the same in every campaign (xorshift, Marsaglia).
std::string noise(size_t size, uint64_t seed) {
  std::string bytes(size, '\0');
  uint64_t state = seed * 0x9E3779B97F4A7C15;
  for (size_t at = 0; at + sizeof state <= size; at += sizeof state) {
    state ^= state << 13;
    state ^= state >> 7;
    state ^= state << 17;
    std::memcpy(&bytes[at], &state, sizeof state);
  }
  return bytes;
}

bool make_directory(const std::string &path) {
  return mkdir(path.c_str(), 0777) == 0 || errno == EEXIST;
}

std::string copy_file(const std::string &from, const std::string &to) {
  const auto bytes = read_whole(from);
  return bytes ? write_whole(to, *bytes) : os_error(from);
}

// The names in a directory that begin with `prefix`, sorted.
std::vector<std::string> files_of(const std::string &directory, std::string_view prefix) {
  std::vector<std::string> names;
  const std::unique_ptr<DIR, int (*)(DIR *)> dir(opendir(directory.c_str()), closedir);
  while (const auto *const entry = dir ? readdir(dir.get()) : nullptr)
    if (std::string_view(entry->d_name).starts_with(prefix)) names.emplace_back(entry->d_name);
  std::ranges::sort(names);
  return names;
}

std::string copy_files(const std::string &from, const std::string &to, std::string_view prefix) {
  for (const auto &name : files_of(from, prefix)) {
    auto wrong = copy_file(from + "/" + name, to + "/" + name);
    if (!wrong.empty()) return wrong;
  }
  return "";
}

void compare_piece(uint64_t base, std::span<const uint8_t> before, std::span<const uint8_t> after, damage_map *own,
                   memory_change *change) {
  for (size_t i = 0; i < before.size(); ++i) {
    if (before[i] == after[i]) continue;
    const uint64_t at = base + i;
    if (change->bytes++ == 0) change->first = at;
    change->last = at;
    const auto differing = static_cast<uint8_t>(before[i] ^ after[i]);
    if ((differing & ~own->bits(change->memory, at)) == 0) continue;
    if (change->beyond++ == 0) change->first_beyond = at;
  }
}

std::span<const uint8_t> bytes_of(const std::string &text) {
  return {reinterpret_cast<const uint8_t *>(text.data()), text.size()};
}

// Whether all is there to compare; what is not is a change as well.
bool comparable(const std::string &name, size_t before, size_t after, std::vector<memory_change> *changes) {
  if (before == after) return true;
  changes->push_back({name, before, 0, before - 1, before, 0});
  return false;
}

void compare_files(const std::string &before, const std::string &after, std::string_view prefix, damage_map *own,
                   std::vector<memory_change> *changes) {
  for (const auto &name : files_of(before, prefix)) {
    const auto was = read_whole(before + "/" + name).value_or("");
    const auto is = read_whole(after + "/" + name).value_or("");
    compare_memory(name, bytes_of(was), bytes_of(is), own, changes);
  }
}

}  // namespace

std::string memory_change::text() const {
  char line[160];
  const auto n = [](uint64_t number) { return static_cast<unsigned long long>(number); };
  (void)std::snprintf(line, sizeof line, ": %llu byte%s, 0x%llx to 0x%llx", n(bytes), bytes == 1 ? "" : "s", n(first),
                      n(last));
  std::string whole = memory + line;
  if (beyond == 0) return whole;
  (void)std::snprintf(line, sizeof line, ", %llu beyond the fault from 0x%llx", n(beyond), n(first_beyond));
  return whole + line;
}

std::string contents_text(const std::vector<memory_change> &changes) {
  std::string text;
  for (const auto &change : changes)
    text += (text.empty() ? "" : "; ") + change.text();
  return text;
}

damage_map::damage_map(const sim::fault *fault) {
  if (fault == nullptr) return;
  const auto get = [fault](sim::parm key) { return fault->get(key); };
  m_kind = facts_of(fault->id).destroys;
  const auto instance = fault->find(sim::parm::instance);
  m_memory = instance ? "nvram" + std::to_string(*instance) : "flash";
  if (m_kind == own_damage::lines) {
    for (const auto key : {sim::parm::line, sim::parm::other})
      if (const auto line = fault->find(key)) m_lines |= static_cast<uint16_t>(1U << (*line & 15));
  }
  if (m_kind == own_damage::cells) {
    add_cell(get(sim::parm::offset), get(sim::parm::bit));
    if (fault->find(sim::parm::victim)) add_cell(get(sim::parm::victim), get(sim::parm::vbit));
  }
  if (m_kind == own_damage::sector_bit)
    add_cell(get(sim::parm::sector) * sector_bytes + get(sim::parm::offset), get(sim::parm::bit));
  if (m_kind == own_damage::sector) m_sector = fault->find(sim::parm::sector);
}

void damage_map::add_cell(uint64_t offset, uint64_t bit) {
  m_cells[offset] |= static_cast<uint8_t>(1U << (bit & 7));
}

uint8_t damage_map::bits(std::string_view memory, uint64_t offset) {
  if (memory != m_memory) return 0;
  if (m_kind == own_damage::lines) return static_cast<uint8_t>(offset % 2 == 0 ? m_lines : m_lines >> 8);
  if (m_kind == own_damage::sector) {
    // Where the fault names no sector, it is the first that differs.
    if (!m_sector) m_sector = offset / sector_bytes;
    return offset / sector_bytes == *m_sector ? 0xFF : 0;
  }
  const auto cell = m_cells.find(offset);
  return cell == m_cells.end() ? 0 : cell->second;
}

void compare_memory(const std::string &name, std::span<const uint8_t> before, std::span<const uint8_t> after,
                    damage_map *own, std::vector<memory_change> *changes) {
  if (!comparable(name, before.size(), after.size(), changes)) return;
  memory_change change{name};
  for (size_t at = 0; at < before.size(); at += piece_bytes) {
    const auto length = std::min(piece_bytes, before.size() - at);
    if (std::memcmp(&before[at], &after[at], length) != 0)
      compare_piece(at, before.subspan(at, length), after.subspan(at, length), own, &change);
  }
  if (change.bytes > 0) changes->push_back(change);
}

std::string contents_template::use(const std::string &directory) {
  m_directory = directory;
  return make_directory(directory) ? "" : os_error(directory);
}

std::string contents_template::make() const {
  for (size_t i = 0; i < nvram_count; ++i) {
    auto wrong = write_whole(m_directory + "/nvram" + std::to_string(i), noise(nvram_bytes, 100 + i));
    if (!wrong.empty()) return wrong;
  }
  return write_whole(m_directory + "/flash", noise(flash_bytes, 1));
}

std::string contents_template::board_directory(const board_setting &board) const {
  return m_directory + "/" + std::to_string(board.card) + "-" + board.revision;
}

std::string contents_template::take_eeproms(const board_setting &board, const std::string &state) {
  // The directory has its name only once it has all of them.
  const auto to = board_directory(board);
  const auto made = to + ".part";
  std::error_code ignored;
  std::filesystem::remove_all(made, ignored);
  auto wrong = make_directory(made) ? copy_files(state, made, "eeprom-") : os_error(made);
  if (wrong.empty() && rename(made.c_str(), to.c_str()) != 0) wrong = os_error(to);
  return wrong;
}

bool contents_template::has_eeproms(const board_setting &board) const {
  return access(board_directory(board).c_str(), F_OK) == 0;
}

std::string contents_template::fill(const run_item &run, const std::string &state, const std::string &flash) const {
  if (!make_directory(state)) return os_error(state);
  auto wrong = copy_files(m_directory, state, "nvram");
  if (wrong.empty()) wrong = copy_files(board_directory(run.board), state, "eeprom-");
  if (flash.empty() || !wrong.empty()) return wrong;
  if (access(flash.c_str(), F_OK) != 0) wrong = copy_file(m_directory + "/flash", flash);
  if (wrong.empty() && rename(flash.c_str(), (state + "/flash").c_str()) != 0) wrong = os_error(flash);
  return wrong;
}

std::vector<memory_change> contents_template::compare(const run_item &run, const std::string &state,
                                                      const std::string &flash, bool keep) const {
  std::vector<memory_change> changes;
  const auto fault = fault_of(run);
  damage_map own(fault ? &*fault : nullptr);
  compare_files(board_directory(run.board), state, "eeprom-", &own, &changes);
  compare_files(m_directory, state, "nvram", &own, &changes);
  const auto small_changes = changes.size();
  const auto moved = state + "/flash";
  if (flash.empty()) {
    if (access(moved.c_str(), F_OK) == 0) changes.push_back({"flash", flash_bytes, 0, flash_bytes - 1, flash_bytes, 0});
    return changes;
  }
  const mapped_file before(m_directory + "/flash");
  const mapped_file after(moved);
  compare_memory("flash", before.bytes(), after.bytes(), &own, &changes);
  const bool differs = changes.size() > small_changes;
  // A file that is missing or has another size is created again.
  if (before.bytes().size() != after.bytes().size() || (keep && differs)) return changes;
  if (differs) {
    const auto first = static_cast<size_t>(changes.back().first);
    const auto length = static_cast<size_t>(changes.back().last) - first + 1;
    std::memcpy(&after.bytes()[first], &before.bytes()[first], length);
  }
  (void)rename(moved.c_str(), flash.c_str());
  return changes;
}

}  // namespace lab
