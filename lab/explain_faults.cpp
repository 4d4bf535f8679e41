#include "lab/explain_faults.h"

#include <array>

namespace lab {
namespace {

constexpr uint32_t line(unsigned number) {
  return uint32_t{1} << number;
}

// The plainer ones first.
void add_lines(bool address, unsigned first, unsigned last, std::vector<line_fault> *faults) {
  for (unsigned one = first; one <= last; ++one)
    for (const bool high : {false, true})
      faults->push_back({address, {line_kind::stuck, line(one), high}});
  for (unsigned one = first; one <= last && !address; ++one)
    faults->push_back({address, {line_kind::floating, line(one), false}});
  for (unsigned one = first; one <= last; ++one)
    for (unsigned other = one + 1; other <= last; ++other)
      for (const bool high : {false, true})
        faults->push_back({address, {line_kind::shorted, line(one) | line(other), high}});
}

// How a kind of the table of faults becomes cell faults.
struct kind_row {
  memory_kind memory;
  std::string_view name;
  cell_kind kind;
  // What the parameters level and vlevel can be: 0, 1, - for left out. Behind "=" stands what the fault is without the
  // parameter, 0, 1 or - for either.
  std::string_view level;
  std::string_view victim_level;
  std::string_view what;
};

// clang-format off
// An erased flash cell is 1. Charge reaches a floating gate unasked more easily than it leaves it: what disturbs a flash
// cell programs it.
constexpr std::array kind_rows{std::to_array<kind_row>({
    {memory_kind::nvram, "nvram-cell-stuck",              cell_kind::stuck,             "01",  "=-",  "stuck"},
    {memory_kind::nvram, "nvram-cell-transition",         cell_kind::transition,        "01",  "=-",  "cannot be changed to a level"},
    {memory_kind::nvram, "nvram-cell-read-disturb",       cell_kind::read_disturb,      "-01", "=-",  "inverted by a read, which gives the new level"},
    {memory_kind::nvram, "nvram-cell-read-deceptive",     cell_kind::read_deceptive,    "-01", "=-",  "inverted behind a read"},
    {memory_kind::nvram, "nvram-cell-read-wrong",         cell_kind::read_wrong,        "-01", "=-",  "reads as the inverse"},
    {memory_kind::nvram, "nvram-cell-write-disturb",      cell_kind::write_disturb,     "-01", "=-",  "inverted by a write of what it holds"},
    {memory_kind::nvram, "nvram-cell-coupled",            cell_kind::change,            "-01", "-01", "changed by a change of another cell"},
    {memory_kind::nvram, "nvram-cell-coupled-read",       cell_kind::read,              "=-",  "-01", "changed by a read of another cell"},
    {memory_kind::nvram, "nvram-cell-coupled-write",      cell_kind::write,             "=-",  "-01", "changed by a write to another cell"},
    {memory_kind::nvram, "nvram-cell-coupled-state",      cell_kind::state,             "01",  "01",  "forced by the level of another cell"},
    {memory_kind::nvram, "nvram-cell-coupled-transition", cell_kind::transition_of_two, "01",  "01",  "held by the level of another cell"},
    {memory_kind::flash, "flash-cell-stuck",              cell_kind::stuck,             "01",  "=-",  "stuck"},
    {memory_kind::flash, "flash-cell-transition",         cell_kind::transition,        "01",  "=-",  "cannot be programmed or erased"},
    {memory_kind::flash, "flash-cell-read-disturb",       cell_kind::read_disturb,      "=1",  "=-",  "programmed by a read, which gives the new level"},
    {memory_kind::flash, "flash-cell-read-deceptive",     cell_kind::read_deceptive,    "=1",  "=-",  "programmed behind a read"},
    {memory_kind::flash, "flash-cell-read-wrong",         cell_kind::read_wrong,        "-01", "=-",  "reads as the inverse"},
    {memory_kind::flash, "flash-cell-write-disturb",      cell_kind::write_disturb,     "=1",  "=-",  "programmed with its word, unasked"},
    {memory_kind::flash, "flash-erase-leaves",            cell_kind::erase_leaves,      "=-",  "=-",  "left programmed by an erase"},
    {memory_kind::flash, "flash-program-clears",          cell_kind::spoiled,           "=-",  "=-",  "programmed with anything in its sector"},
    {memory_kind::flash, "flash-cell-coupled",            cell_kind::change,            "=0",  "=0",  "programmed with another cell"},
    {memory_kind::flash, "flash-cell-coupled-read",       cell_kind::read,              "=-",  "=0",  "programmed by a read of another cell"},
    {memory_kind::flash, "flash-cell-coupled-write",      cell_kind::write,             "=-",  "=0",  "programmed with the word of another cell"},
    {memory_kind::flash, "flash-cell-coupled-state",      cell_kind::sense,             "=0",  "=0",  "reads as programmed while another cell is"},
    {memory_kind::flash, "flash-cell-coupled-transition", cell_kind::transition_of_two, "=1",  "=0",  "not programmed while another cell leaks"},
})};
// clang-format on

uint8_t level_of(char letter) {
  return letter == '-' ? either : static_cast<uint8_t>(letter - '0');
}

// The levels that a parameter can have, and how each is written.
std::vector<std::pair<uint8_t, std::string_view>> choices(std::string_view column) {
  if (column.starts_with('=')) return {{level_of(column[1]), ""}};
  std::vector<std::pair<uint8_t, std::string_view>> all;
  for (size_t i = 0; i < column.size(); ++i)
    all.emplace_back(level_of(column[i]), column[i] == '-' ? "" : column.substr(i, 1));
  return all;
}

}  // namespace

uint32_t bad_lines_of_bus::pass(uint32_t levels, uint32_t kept) const {
  const uint32_t now = levels & lines;
  if (kind == line_kind::floating) return (levels & ~lines) | (kept & lines);
  if (kind == line_kind::shorted && (now == 0 || now == lines)) return levels;
  return high ? levels | lines : levels & ~lines;
}

uint16_t data_bus::write(uint16_t word, uint16_t lanes) {
  const auto taken = static_cast<uint16_t>(m_bad.pass(word, m_at_chip));
  m_on_bus = static_cast<uint16_t>((m_on_bus & ~lanes) | (word & lanes));
  return taken;
}

uint16_t data_bus::read(uint16_t word) {
  m_at_chip = word;
  m_on_bus = static_cast<uint16_t>(m_bad.pass(word, m_on_bus));
  return m_on_bus;
}

std::vector<line_fault> line_faults(unsigned first_line, unsigned last_line) {
  std::vector<line_fault> faults;
  add_lines(false, 0, 15, &faults);
  add_lines(true, first_line, last_line, &faults);
  return faults;
}

std::vector<cell_variant> cell_variants(memory_kind memory) {
  std::vector<cell_variant> variants;
  for (const auto &row : kind_rows) {
    if (row.memory != memory) continue;
    for (const auto &[level, text] : choices(row.level))
      for (const auto &[victim, victim_text] : choices(row.victim_level))
        variants.push_back({{row.kind, level, victim}, row.name, row.what, {text, victim_text}});
  }
  return variants;
}

void cell_pair::hit() {
  m_second = m_fault.victim_level == either ? !m_second : m_fault.victim_level != 0;
}

bool cell_pair::read(cell_access at) {
  using enum cell_kind;
  if (m_fault.kind == state && at.second && suits(m_first)) hit();
  const bool before = m_fault.two_cells() ? m_second : m_first;
  switch (m_fault.kind) {
    case stuck:
      return m_fault.level != 0;
    case read_disturb:
      if (at.first && suits(m_first)) m_first = !m_first;
      return m_first;
    case read_deceptive:
      if (at.first && suits(m_first)) m_first = !m_first;
      return before;
    case read_wrong:
      return suits(m_first) ? !m_first : m_first;
    case read:
      if (at.first) hit();
      return before;
    case sense:
      return suits(m_first) ? m_fault.victim_level != 0 : before;
    default:
      return before;
  }
}

// The level that the first cell takes, if nothing but the write touches it.
bool cell_pair::taken_first(bool wanted) const {
  if (m_fault.kind == cell_kind::stuck) return m_fault.level != 0;
  if (m_fault.kind == cell_kind::transition && m_first != wanted && suits(wanted)) return m_first;
  return wanted;
}

bool cell_pair::taken_second(bool wanted) const {
  const bool held = m_fault.kind == cell_kind::transition_of_two && m_second != wanted &&
                    wanted == (m_fault.victim_level != 0) && suits(m_first);
  return held ? m_second : wanted;
}

// What a write does beyond the levels that it asks for.
void cell_pair::disturb(cell_access at, bool first_before, bool first_wanted) {
  using enum cell_kind;
  switch (m_fault.kind) {
    case write_disturb:
      if (at.first && first_before == first_wanted && suits(m_first)) m_first = !m_first;
      return;
    case change:
      if (at.first && m_first != first_before && suits(m_first)) hit();
      return;
    case write:
      if (at.first) hit();
      return;
    case state:
      if (suits(m_first)) hit();
      return;
    default:
      return;
  }
}

void cell_pair::write(cell_access at, bool first, bool second) {
  const bool before = m_first;
  const bool taken = at.second ? taken_second(second) : m_second;
  if (at.first) m_first = taken_first(first);
  if (at.second) m_second = taken;
  disturb(at, before, first);
}

bool cell_pair::program(cell_access at, bool first, bool second) {
  const bool first_wanted = m_first && first;
  const bool second_wanted = m_second && second;
  const bool before = m_first;
  const bool taken = at.second ? taken_second(second_wanted) : m_second;
  if (at.first) m_first = taken_first(first_wanted);
  if (at.second) m_second = taken;
  const bool good = (!at.first || m_first == first) && (!at.second || m_second == second);
  disturb(at, before, first_wanted);
  if (m_fault.kind == cell_kind::spoiled) m_first = false;
  return good;
}

bool cell_pair::erase(cell_access at) {
  if (at.second) m_second = true;
  if (!at.first) return true;
  const bool good = taken_first(true);
  m_first = good && m_fault.kind != cell_kind::erase_leaves;
  return good;
}

}  // namespace lab
