#include "models/single_faults.h"

#include <array>

#include "models/cells.h"

namespace models {
namespace {

using id = fault_id;
using sim::parm;

// ---- lines

struct line_ids {
  id stuck;
  id shorted;
};
struct memory_ids {
  line_ids data;
  id floating;
  line_ids address;
};
constexpr memory_ids ids_of_lines[] = {
    {{id::nvram_data_stuck, id::nvram_data_short},
     id::nvram_data_floating,
     {id::nvram_addr_stuck, id::nvram_addr_short}},
    {{id::flash_data_stuck, id::flash_data_short},
     id::flash_data_floating,
     {id::flash_addr_stuck, id::flash_addr_short}},
};

void add(const chip_fault &fault, std::vector<single_line_fault> *faults) {
  const auto lines = line_fault_of(fault);
  if (lines) faults->push_back({fault, lines->address, lines->bad});
}

void add_stuck(id kind, uint8_t first, uint8_t last, std::vector<single_line_fault> *faults) {
  for (uint8_t line = first; line <= last; ++line)
    for (const bool level : {false, true})
      add({.id = kind, .line = line, .level = level}, faults);
}

void add_shorted(id kind, uint8_t first, uint8_t last, std::vector<single_line_fault> *faults) {
  for (uint8_t line = first; line <= last; ++line)
    for (auto other = static_cast<uint8_t>(line + 1); other <= last; ++other)
      for (const bool wins : {false, true})
        add({.id = kind, .line = line, .other = other, .wins = wins}, faults);
}

// ---- cells

// A kind of fault of the table, and the levels with which it is a hypothesis.
struct kind_row {
  memory_kind memory;
  id kind;
  // What the parameters level and vlevel can be: 0, 1, - for left out.
  std::string_view level;
  std::string_view vlevel;
  std::string_view what;
};

// clang-format off
constexpr auto nvram = memory_kind::nvram;
constexpr auto flash = memory_kind::flash;
constexpr std::array kind_rows{std::to_array<kind_row>({
    {nvram, id::nvram_cell_stuck,              "01",  "-",   "stuck"},
    {nvram, id::nvram_cell_transition,         "01",  "-",   "cannot be changed to a level"},
    {nvram, id::nvram_cell_read_disturb,       "-01", "-",   "inverted by a read, which gives the new level"},
    {nvram, id::nvram_cell_read_deceptive,     "-01", "-",   "inverted behind a read"},
    {nvram, id::nvram_cell_read_wrong,         "-01", "-",   "reads as the inverse"},
    {nvram, id::nvram_cell_write_disturb,      "-01", "-",   "inverted by a write of what it holds"},
    {nvram, id::nvram_cell_coupled,            "-01", "-01", "changed by a change of another cell"},
    {nvram, id::nvram_cell_coupled_read,       "-",   "-01", "changed by a read of another cell"},
    {nvram, id::nvram_cell_coupled_write,      "-",   "-01", "changed by a write to another cell"},
    {nvram, id::nvram_cell_coupled_state,      "01",  "01",  "forced by the level of another cell"},
    {nvram, id::nvram_cell_coupled_transition, "01",  "01",  "held by the level of another cell"},
    {flash, id::flash_cell_stuck,              "01",  "-",   "stuck"},
    {flash, id::flash_cell_transition,         "01",  "-",   "cannot be programmed or erased"},
    {flash, id::flash_cell_read_disturb,       "-",   "-",   "programmed by a read, which gives the new level"},
    {flash, id::flash_cell_read_deceptive,     "-",   "-",   "programmed behind a read"},
    {flash, id::flash_cell_read_wrong,         "-01", "-",   "reads as the inverse"},
    {flash, id::flash_cell_write_disturb,      "-",   "-",   "programmed with its word, unasked"},
    {flash, id::flash_erase_leaves,            "-",   "-",   "left programmed by an erase"},
    {flash, id::flash_program_clears,          "-",   "-",   "programmed with anything in its sector"},
    {flash, id::flash_cell_coupled,            "-",   "-",   "programmed with another cell"},
    {flash, id::flash_cell_coupled_read,       "-",   "-",   "programmed by a read of another cell"},
    {flash, id::flash_cell_coupled_write,      "-",   "-",   "programmed with the word of another cell"},
    {flash, id::flash_cell_coupled_state,      "-",   "-",   "reads as programmed while another cell is"},
    {flash, id::flash_cell_coupled_transition, "-",   "-",   "not programmed while another cell leaks"},
})};
// clang-format on

uint8_t level_of(char letter) {
  return letter == '-' ? either_level : static_cast<uint8_t>(letter - '0');
}

// ---- notation

const sim::fault_row &row_of(id fault) {
  return sim::fault_table()[static_cast<size_t>(fault)];
}

std::optional<uint64_t> level_value(uint8_t level) {
  return level == either_level ? std::nullopt : std::optional<uint64_t>(level);
}

// The value of a parameter, or nothing if it is left out.
std::optional<uint64_t> value_of(const chip_fault &f, parm key) {
  // clang-format off
  switch (key) {
    case parm::line:     return f.line;
    case parm::other:    return f.other;
    case parm::wins:     return f.wins;
    case parm::commands: return f.commands;
    case parm::level:    return level_value(f.level);
    case parm::vlevel:   return level_value(f.vlevel);
    case parm::bit:      return f.bit;
    case parm::vbit:     return f.vbit;
    case parm::offset:   return f.offset;
    case parm::victim:   return f.victim;
    case parm::sector:   return f.sector == every_sector ? std::nullopt : std::optional<uint64_t>(f.sector);
    case parm::dq5:      return f.dq5;
    case parm::value:    return f.value;
    case parm::word:     return f.word;
    case parm::program:  return f.program;
    case parm::erase:    return f.erase;
    default:             return std::nullopt;
  }
  // clang-format on
}

}  // namespace

std::vector<single_line_fault> line_faults(memory_kind memory, unsigned first_line, unsigned last_line) {
  const auto &ids = ids_of_lines[static_cast<size_t>(memory)];
  const auto first = static_cast<uint8_t>(first_line);
  const auto last = static_cast<uint8_t>(last_line);
  std::vector<single_line_fault> faults;
  add_stuck(ids.data.stuck, 0, 15, &faults);
  for (uint8_t line = 0; line <= 15; ++line)
    add({.id = ids.floating, .line = line}, &faults);
  add_shorted(ids.data.shorted, 0, 15, &faults);
  add_stuck(ids.address.stuck, first, last, &faults);
  add_shorted(ids.address.shorted, first, last, &faults);
  return faults;
}

std::string_view cell_variant::name() const {
  return row_of(id).name;
}

std::vector<cell_variant> cell_variants(memory_kind memory) {
  std::vector<cell_variant> variants;
  for (const auto &row : kind_rows) {
    if (row.memory != memory) continue;
    for (const char level : row.level)
      for (const char vlevel : row.vlevel)
        variants.push_back({row.kind, level_of(level), level_of(vlevel), is_coupling_fault(row.kind), row.what});
  }
  return variants;
}

std::string notation(const chip_fault &fault, unsigned instance) {
  const auto &row = row_of(fault.id);
  std::string text = row.name;
  for (const auto &given : row.parms()) {
    const auto value = given.key == parm::instance ? instance : value_of(fault, given.key);
    if (!value) continue;
    const bool is_default = given.given == sim::parm_row::given::or_default && *value == given.otherwise;
    if (is_default && given.key != parm::wins) continue;
    text.append(" ").append(sim::parm_name(given.key)).append("=").append(given.print(*value));
  }
  return text;
}

}  // namespace models
