// memories.cpp: lines of the NVRAM and the flash test.
#include <algorithm>
#include <array>

#include "lab/base/text.h"
#include "lab/explain/nvram_faults.h"
#include "lab/explain/row_lines.h"
#include "lab/explain/texts.h"
#include "models/single_faults.h"

namespace lab {
namespace {

// ---- NVRAM

struct open_failure {
  nvram_failure failure;
  finding found;
};

finding explain(open_failure &&open) {
  auto found = std::move(open.found);
  const auto &failure = open.failure;
  found.part = failure.instance ? "NVRAM " + std::to_string(*failure.instance) : "NVRAM";
  found.what = failure.text();
  auto verdict = explain_nvram(failure);
  found.faults = std::move(verdict.faults);
  found.now_and_then = std::move(verdict.now_and_then);
  found.known = verdict.possible;
  const bool none = found.faults.empty() && found.now_and_then.empty();
  if (!verdict.possible) found.what += ": no check of the test prints this";
  if (verdict.possible && none)
    found.what += failure.expected ? ": no single fault prints this" : ": the line with the words is missing";
  if (none) found.next.emplace_back("The lines do not show what is broken; post-locate measures it.");
  return found;
}

// ---- flash

// What the flash test can fail at, as bits.
enum situation : uint16_t {
  erase_given_up = 1,  // by the chip (DQ5)
  erase_late = 2,      // not done in time
  program_given_up = 4,
  program_late = 8,
  restore_given_up = 0x10,
  restore_late = 0x20,
  data_walk = 0x40,     // a word reads wrong: sector 6
  low_address = 0x80,   // sector 0
  high_address = 0x100  // others
};
constexpr unsigned mismatch = data_walk | low_address | high_address;
constexpr unsigned given_up = erase_given_up | program_given_up | restore_given_up;
constexpr unsigned late = erase_late | program_late | restore_late;
constexpr unsigned written = program_given_up | restore_given_up | mismatch;  // something else than asked is kept
constexpr unsigned any = mismatch | given_up | late;

struct flash_text {
  std::string_view text;
  unsigned left_by;  // situations that print it
  bool closes;       // it ends the account of a failure; what follows is the attempt to write the sector back
  std::string_view what;
};
// clang-format off
constexpr flash_text flash_texts[] = {
    // text                                        left by                            closes what
    {"Reached the max timeout and DQ5 bit is set",  given_up,                          false, "the chip gave an operation up (DQ5)"},
    {"Reached the max timeout but DQ5 bit not set", late,                              false, "an operation did not end in time"},
    {"## Error : obfl_sector_erase failed",         erase_given_up | erase_late,       true,  "the erase of a sector failed"},
    {"## Error:obfl_wr_array failed",               program_given_up | program_late,   true,  "programming a list of words failed"},
    {"## Error : obfl_sector_wr failed",            restore_given_up | restore_late,   true,  "a sector could not be written back"},
};
constexpr std::string_view mismatch_text = "## Error: Addr 0x{address}, data 0x{data} : failed";
constexpr std::string_view read_text = "Read 0x{read}, failed bits 0x{bits}";

// What each kind of fault can make the test fail at.
struct flash_row {
  std::string_view pattern;
  std::string_view where;
  std::string_view how;
  unsigned can;
  bool only_data = false;  // commands do not pass the bad data line
};
constexpr flash_row flash_rows[] = {
    {"flash-silent",                                             "the chip",            "does not answer",                    any},
    {"bar-io bar=5",                                             "the region",          "nothing answers",                    any},
    {"flash-data-stuck line=* level=* commands=1",               "the data lines",      "stuck",                              any},
    {"flash-data-short line=* other=* wins=* commands=1",        "the data lines",      "shorted",                            any},
    {"flash-data-floating line=* commands=1",                    "the data lines",      "open",                               any},
    {"flash-data-stuck line=* level=*",                          "the data lines",      "stuck",                              mismatch, true},
    {"flash-data-short line=* other=* wins=*",                   "the data lines",      "shorted",                            mismatch, true},
    {"flash-data-floating line=*",                               "the data lines",      "open",                               mismatch, true},
    {"flash-addr-stuck line=* level=* commands=1",               "the address lines",   "stuck",                              any},
    {"flash-addr-short line=* other=* wins=* commands=1",        "the address lines",   "shorted",                            any},
    {"flash-addr-stuck line=* level=*",                          "the address lines",   "stuck",                              written},
    {"flash-addr-short line=* other=* wins=*",                   "the address lines",   "shorted",                            written},
    {"flash-cfi word=* value=*",                                 "the chip's query",    "gives other times or sizes",         any},
    {"flash-slow program=* erase=*",                             "the chip's speed",    "too slow",                           any},
    {"flash-erase-hangs sector=* dq5=1",                         "erasing",             "never ends",                         erase_given_up},
    {"flash-erase-hangs sector=* dq5=0",                         "erasing",             "never ends",                         erase_late},
    {"flash-program-hangs sector=* dq5=1",                       "programming",         "never ends",                         program_given_up | restore_given_up},
    {"flash-program-hangs sector=* dq5=0",                       "programming",         "never ends",                         program_late | restore_late},
    {"flash-erase-ignored sector=*",                             "erasing",             "does nothing",                       written},
    {"flash-program-ignored sector=*",                           "programming",         "does nothing",                       mismatch},
    {"flash-erase-leaves offset=* bit=*",                        "erasing",             "leaves a bit programmed",            written},
    {"flash-program-clears sector=* offset=* bit=*",             "programming",         "clears another bit",                 written},
    {"flash-cell-stuck offset=* bit=* level=*",                  "cells of the flash",  "stuck",                              given_up | mismatch},
    {"flash-cell-transition offset=* bit=* level=*",             "cells of the flash",  "cannot be programmed or erased",     given_up | mismatch},
    {"flash-cell-read-disturb offset=* bit=*",                   "cells of the flash",  "programmed by a read",               given_up | mismatch},
    {"flash-cell-read-deceptive offset=* bit=*",                 "cells of the flash",  "programmed after a read",            given_up | mismatch},
    {"flash-cell-read-wrong offset=* bit=* level=*",             "cells of the flash",  "reads wrong",                        given_up | mismatch},
    {"flash-cell-write-disturb offset=* bit=*",                  "cells of the flash",  "programmed with its word",           given_up | mismatch},
    {"flash-cell-coupled offset=* bit=* victim=* vbit=*",        "cells of the flash",  "programmed with another cell",       given_up | mismatch},
    {"flash-cell-coupled-read offset=* bit=* victim=* vbit=*",   "cells of the flash",  "programmed by a read of another",    given_up | mismatch},
    {"flash-cell-coupled-write offset=* bit=* victim=* vbit=*",  "cells of the flash",  "programmed by a write of another",   given_up | mismatch},
    {"flash-cell-coupled-state offset=* bit=* victim=* vbit=*",  "cells of the flash",  "reads as another cell",              given_up | mismatch},
    {"flash-cell-coupled-transition offset=* bit=* victim=* vbit=*", "cells of the flash", "held by another cell",            given_up | mismatch},
};
// clang-format on

constexpr uint32_t sector_bytes = 0x20000;
constexpr uint32_t walk_sector = 6;

// What the first failure of the flash test shows.
struct flash_failure {
  unsigned can = any;  // situations that it can be
  bool closed = false;
  std::string what;
  // Of a mismatch.
  std::optional<uint32_t> data;
  std::optional<uint32_t> read;
};

unsigned situation_of(uint32_t address) {
  const auto sector = address / sector_bytes;
  return sector == walk_sector ? data_walk : sector == 0 ? low_address : high_address;
}

// The words of the data-line walk, in their order: a one, then a zero.
constexpr std::array<uint16_t, 32> walk = [] {
  std::array<uint16_t, 32> words{};
  for (unsigned i = 0; i < 16; ++i) {
    words[i] = static_cast<uint16_t>(1U << i);
    words[i + 16] = static_cast<uint16_t>(~(1U << i));
  }
  return words;
}();

// Whether a bad line changes this word of the walk to what was read, and none before it.
bool walk_shows(const models::bad_lines &bad, const flash_failure &failure) {
  if (bad.kind == models::line_kind::floating) return false;
  for (const auto word : walk) {
    if (word == failure.data) return bad.pass(word) == failure.read && bad.pass(word) != word;
    if (bad.pass(word) != word) return false;
  }
  return false;
}

// The data lines that the walk leaves.
void add_walk(const flash_failure &failure, finding *found) {
  for (const auto &line : models::line_faults(models::memory_kind::flash, 1, 25)) {
    if (line.address || line.bad.pass(*failure.data, *failure.read) != *failure.read) continue;
    auto group = line_group(line.fault);
    group.may_differ = !walk_shows(line.bad, failure);
    const bool lasts = !group.may_differ || line.bad.kind == models::line_kind::floating;
    (lasts ? found->faults : found->now_and_then).push_back(std::move(group));
  }
}

void add_flash_faults(const flash_failure &failure, finding *found) {
  const bool walked = failure.can == data_walk && failure.data && failure.read;
  if (walked) add_walk(failure, found);
  for (const auto &row : flash_rows) {
    if ((row.can & failure.can) == 0 || (walked && row.only_data)) continue;
    auto group = group_of(row.pattern);
    group.where = row.where;
    group.how = row.how;
    group.may_differ = true;
    found->faults.push_back(std::move(group));
  }
}

void read_flash_line(row_lines *lines, size_t line, flash_failure *failure, finding *found) {
  const auto &text = lines->text(line);
  const auto add = [&](const std::string &what) {
    take_line(lines, line, found);
    failure->what += (failure->what.empty() ? "" : "; ") + what;
  };
  for (const auto &row : flash_texts) {
    if (!find_text(row.text, text)) continue;
    add(std::string(row.what));
    if (!failure->closed) failure->can &= row.left_by;
    failure->closed |= row.closes;
  }
  if (const auto fields = find_text(mismatch_text, text)) {
    const auto address = number_of(*fields, "address", 16);
    failure->data = number_of(*fields, "data", 16);
    if (address) failure->can = situation_of(*address);
    const auto sector = address.value_or(0) / sector_bytes;
    add("sector " + std::to_string(sector) + ": wrote " + hex(failure->data.value_or(0), 4) + " at " +
        hex(address.value_or(0)));
    failure->closed = true;
  }
  if (const auto fields = find_text(read_text, text)) {
    failure->read = number_of(*fields, "read", 16);
    add("read " + hex(failure->read.value_or(0), 4));
  }
}

}  // namespace

// The lines of two instances follow each other; lines of other programs may be between them.
std::vector<finding> explain_nvram(row_lines *lines) {
  std::vector<finding> findings;
  open_failure open;
  bool any_open = false;
  const auto close = [&] {
    if (any_open) findings.push_back(explain(std::move(open)));
    open = {};
    any_open = false;
  };
  for (size_t line = 0; line < lines->count(); ++line) {
    nvram_failure seen;
    const auto what = read_nvram_line(lines->text(line), &seen);
    if (what == nvram_line::other) continue;
    if (what == nvram_line::mismatch) close();
    (void)read_nvram_line(lines->text(line), &open.failure);
    take_line(lines, line, &open.found);
    any_open = true;
    if (what == nvram_line::check) close();
  }
  close();
  return findings;
}

std::vector<finding> explain_obfl(row_lines *lines) {
  flash_failure failure;
  finding found;
  for (size_t line = 0; line < lines->count(); ++line)
    read_flash_line(lines, line, &failure, &found);
  if (found.evidence.empty()) return {};
  found.part = "flash";
  found.what = std::move(failure.what);
  add_flash_faults(failure, &found);
  found.next.emplace_back("The log does not show which part of the flash it is; post-locate measures it.");
  return {std::move(found)};
}

}  // namespace lab
