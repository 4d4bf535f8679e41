// list.cpp: the faults as --list-faults prints them.
#include <array>

#include "faults/fault.h"
#include "faults/text.h"

namespace sim {

namespace {

constexpr size_t columns = 100;

constexpr char head[] =
    R"(A fault is given as its NAME and key=value. A parameter in [brackets] can be left out, and is then
what follows the colon. Numbers are decimal, hexadecimal after 0x, or octal after 0.

  bus, addr             number and 7-bit address on I2C; PCI bus
  offset, victim        byte offset
  bit, vbit             bit of the byte at offset, at victim
  line, other           line of the bus, as bit of the data word or of the byte offset
  level, vlevel, wins   logic level
  instance, sector      NVRAM; sector of the flash, all if it is left out
  errno                 error number of the call that fails
  polls, program, erase status reads
  ms, khz               milliseconds, kHz

[WHEN] of a fault is when it acts; with [WHEN:once], once if times is left out:
)";

struct when_text {
  parm key;
  const char *what;
};
constexpr std::array when_texts{std::to_array<when_text>({
    {parm::nth, "from which occasion on, counted in each process"},
    {parm::times, "on how many in a row, 0 for ever"},
    {parm::p, "chance of each occasion, in millionths"},
    {parm::seed, "of this chance"},
})};

constexpr std::array<const char *, 7> part_titles{"Files and services of the operating system",
                                                  "Ethernet controllers",
                                                  "I2C buses",
                                                  "Identity EEPROMs",
                                                  "I/O expanders of the families pellin and tosk",
                                                  "NVRAM",
                                                  "Flash"};
static_assert(static_cast<size_t>(fault_part::flash) + 1 == part_titles.size());

// Parameters of an example that are not the lowest values.
struct example_value {
  parm key;
  uint64_t value;
};
constexpr std::array example_values{std::to_array<example_value>({
    {parm::bus, 1},
    {parm::addr, 0x52},
    {parm::offset, 0x100},
    {parm::victim, 0x102},
    {parm::bit, 3},
    {parm::vbit, 5},
    {parm::line, 3},
    {parm::other, 8},
    {parm::instance, 1},
    {parm::nth, 11},
    {parm::khz, 1000000},
    {parm::sector, 6},
})};

// Examples with parameters that may be left out, or on another board.
struct example_row {
  fault_id id;
  const char *text;
};
constexpr std::array example_rows{std::to_array<example_row>({
    {fault_id::pci_missing, "--fault \"pci-missing bus=2 dev=0 func=0\""},
    {fault_id::pci_wrong_id, "--fault \"pci-wrong-id bus=2 dev=0 func=0 device=0x1234\""},
    {fault_id::straps, "--family pellin --fault \"straps value=1\""},
    {fault_id::pin_stuck, "--family pellin --fault \"pin-stuck bus=8 addr=0x76 pin=3 level=0\""},
    {fault_id::bar_io, "--fault \"bar-io bar=2\""},
    {fault_id::flash_cfi, "--fault \"flash-cfi word=0x27 value=0x18\""},
    {fault_id::flash_slow, "--fault \"flash-slow erase=5\""},
    {fault_id::eeprom_corrupt, "--fault \"eeprom-corrupt bus=1 addr=0x52 offset=0x10\""},
})};

// The words after `indent` blanks, in as many lines as they need.
std::string wrapped(std::string_view text, size_t indent) {
  std::string out;
  size_t column = 0;
  for (const auto word : words_of(text)) {
    const bool is_full = column + 1 + word.size() > columns;
    if (is_full) out += "\n";
    if (column == 0 || is_full) column = is_full ? 4 : indent;
    const size_t blanks = out.empty() || is_full ? column : 1;
    out.append(blanks, ' ').append(word);
    column += word.size() + (blanks == 1 ? 1 : 0);
  }
  return out + "\n";
}

uint64_t example_of(const parm_row &row) {
  for (const auto &one : example_values)
    if (one.key == row.key && one.value <= row.highest()) return one.value;
  return row.low;
}

std::string when_list() {
  std::string out;
  const auto *const row = fault_named("flash-silent");
  for (const auto &[key, what] : when_texts) {
    auto line = "  " + row->find(key)->usage();
    line.resize(std::max<size_t>(line.size(), 28), ' ');
    out += line + "  " + what + "\n";
  }
  return out;
}

std::string entry(const fault_row &row) {
  constexpr std::array<const char *, 3> when_marks{"", " [WHEN]", " [WHEN:once]"};
  return wrapped(row.usage() + when_marks[static_cast<size_t>(row.when)], 0) + wrapped(row.what, 4) +
         wrapped(fault_example(row), 4);
}

}  // namespace

std::string fault_example(const fault_row &row) {
  for (const auto &[id, text] : example_rows)
    if (id == row.id) return text;
  std::string text = std::string("--fault \"") + row.name;
  for (const auto &parm : row.parms()) {
    if (parm.given != parm_row::given::always) continue;
    text += " " + std::string(parm_name(parm.key)) + "=" + parm.print(example_of(parm));
  }
  return text + "\"";
}

std::string fault_list() {
  std::string out = head + when_list();
  const fault_row *former = nullptr;
  for (const auto &row : fault_table()) {
    if (former == nullptr || former->part != row.part)
      out += std::string("\n== ") + part_titles[static_cast<size_t>(row.part)] + " ==\n\n";
    out += entry(row);
    former = &row;
  }
  return out;
}

}  // namespace sim
