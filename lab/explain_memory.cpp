// explain_memory.cpp: lines of the NVRAM and the flash test.
#include <algorithm>
#include <cstdio>
#include <functional>
#include <map>
#include <mutex>

#include "lab/explain_flash.h"
#include "lab/explain_nvram.h"
#include "lab/explain_readers.h"
#include "lab/explain_texts.h"
#include "lab/text.h"

namespace lab {
namespace {

std::optional<uint32_t> number(const text_fields &fields, std::string_view name, int base) {
  const auto found = fields.find(name);
  if (found == fields.end()) return std::nullopt;
  std::string_view text = found->second;
  const auto value = take_number<uint32_t>(&text, base);
  return text.empty() ? value : std::nullopt;
}

std::string hex(uint32_t value, int digits = 0) {
  char text[24];
  (void)std::snprintf(text, sizeof text, "0x%0*x", digits, value);
  return text;
}

void set_faults(std::vector<fault_group> faults, finding *found) {
  found->faults = std::move(faults);
  found->places = count_places(found->faults, false);
  found->sure_places = count_places(found->faults, true);
}

// Results by what was asked, so that many runs that failed alike ask the models once.
template <typename Result>
class memory_of_results {
 public:
  Result get(const std::string &key, const std::function<Result()> &ask) {
    const std::scoped_lock lock(m_mutex);
    const auto found = m_results.find(key);
    if (found != m_results.end()) return found->second;
    if (m_results.size() >= kept) m_results.clear();
    return m_results.emplace(key, ask()).first->second;
  }

 private:
  static constexpr size_t kept = 64;
  std::mutex m_mutex;
  std::map<std::string, Result> m_results;
};

std::string key_of(std::initializer_list<std::optional<uint32_t>> values) {
  std::string key;
  for (const auto &value : values)
    key += value ? std::to_string(*value) + " " : "- ";
  return key;
}

// ---- NVRAM

struct failure_line {
  std::string_view text;
  nvram_check check;
};

// clang-format off
// A line of what failed, below the line of the mismatch.
constexpr failure_line failure_lines[] = {
    {"Failed above Data Bus Walking 1 Test for NVRAM {n} address 0x{offset}",  nvram_check::walking_one},
    {"Failed above Addr Bus Walking 1 Test for NVRAM {n}, address 0x{offset}", nvram_check::address},
    {"Writing 0x08{value} at addr 0x08{written} -> 0x08{offset} addr alias failure for NVRAM {n}", nvram_check::alias},
    {"Failed above increment data pattern test for NVRAM {n}",                 nvram_check::count},
    {"Failed above inverted data pattern test for NVRAM {n}",                  nvram_check::inverse},
};
constexpr std::string_view mismatch_line = "0x{offset}: Expected 0x{expected} Actual 0x{actual}";

constexpr std::string_view check_names[] = {
    "walking one over the data lines", "walking one over the address lines", "walking one over the address lines",
    "count", "inverted count",
};
// clang-format on

struct nvram_lines {
  nvram_failure failure;
  finding found;
};

void read_mismatch(const text_fields &fields, nvram_failure *failure) {
  failure->offset = number(fields, "offset", 16);
  failure->expected = number(fields, "expected", 16);
  failure->actual = number(fields, "actual", 16);
}

void read_failure(const text_fields &fields, nvram_check check, nvram_failure *failure) {
  failure->instance = number(fields, "n", 10);
  failure->check = check;
  failure->written = number(fields, "written", 16);
  if (!failure->offset) failure->offset = number(fields, "offset", 16);
}

std::string what_of(const nvram_failure &failure) {
  std::string text;
  if (failure.check) text += std::string(check_names[static_cast<size_t>(*failure.check)]) + ": ";
  if (failure.written && failure.offset)
    text += "a write to " + hex(*failure.written) + " changed " + hex(*failure.offset) + ": ";
  text += failure.expected ? "wrote " + hex(*failure.expected, 4) : "a word reads wrong";
  if (failure.offset) text += " at " + hex(*failure.offset);
  if (failure.actual) text += ", read " + hex(*failure.actual, 4);
  return text;
}

finding explain(nvram_lines &&lines) {
  auto found = std::move(lines.found);
  const auto &failure = lines.failure;
  found.part = failure.instance ? "NVRAM " + std::to_string(*failure.instance) : "NVRAM";
  found.what = what_of(failure);
  static memory_of_results<nvram_verdict> results;
  const auto check = failure.check ? std::optional(static_cast<uint32_t>(*failure.check)) : std::nullopt;
  auto verdict =
      results.get(key_of({failure.instance, check, failure.written, failure.offset, failure.expected, failure.actual}),
                  [&failure] { return explain_nvram(failure); });
  set_faults(std::move(verdict.groups), &found);
  found.passing = std::move(verdict.passing);
  found.known = verdict.possible;
  if (!verdict.possible) found.what += ": no check of the test prints this";
  return found;
}

// ---- flash

struct event_line {
  std::string_view text;
  flash_line what;
};

// clang-format off
constexpr event_line event_lines[] = {
    {"Reached the max timeout and DQ5 bit is set",       flash_line::gave_up},
    {"Reached the max timeout but DQ5 bit not set",      flash_line::timed_out},
    {"## Error : obfl_sector_erase failed",              flash_line::erase_failed},
    {"## Error:obfl_wr_array failed",                    flash_line::write_failed},
    {"## Error : obfl_sector_wr failed",                 flash_line::restore_failed},
    {"## Error: Addr 0x{address}, data 0x{data} : failed", flash_line::mismatch},
};
constexpr std::string_view read_line = "Read 0x{read}, failed bits 0x{bits}";

constexpr std::string_view event_names[] = {
    "the chip gave an operation up (DQ5)", "an operation did not end in time", "the erase of a sector failed",
    "programming a list of words failed", "a sector could not be written back", "a word reads wrong",
};
// clang-format on

constexpr uint32_t sector_bytes = 0x20000;

std::string what_of(const flash_event &event) {
  if (event.what != flash_line::mismatch || !event.address || !event.data)
    return std::string(event_names[static_cast<size_t>(event.what)]);
  auto text = "sector " + std::to_string(*event.address / sector_bytes) + ": wrote " + hex(*event.data, 4) + " at " +
              hex(*event.address);
  return event.read ? text + ", read " + hex(*event.read, 4) : text;
}

std::string what_of(const std::vector<flash_event> &events) {
  std::string text;
  for (const auto &event : events)
    text += (text.empty() ? "" : "; ") + what_of(event);
  return text;
}

void read_event(device_lines *lines, size_t line, std::vector<flash_event> *events, finding *found) {
  for (const auto &known : event_lines) {
    const auto fields = find_text(known.text, lines->text(line));
    if (!fields) continue;
    events->push_back({known.what, number(*fields, "address", 16), number(*fields, "data", 16)});
    take_line(lines, line, found);
  }
  const auto fields = find_text(read_line, lines->text(line));
  if (!fields) return;
  take_line(lines, line, found);
  if (!events->empty() && events->back().what == flash_line::mismatch)
    events->back().read = number(*fields, "read", 16);
}

}  // namespace

// The lines of two instances follow each other; those of others may stand between them.
std::vector<finding> read_nvram(device_lines *lines) {
  std::vector<finding> findings;
  nvram_lines open;
  bool any = false;
  for (size_t line = 0; line < lines->count(); ++line) {
    if (const auto fields = find_text(mismatch_line, lines->text(line))) {
      if (any) findings.push_back(explain(std::move(open)));
      open = {};
      any = true;
      read_mismatch(*fields, &open.failure);
      take_line(lines, line, &open.found);
    }
    for (const auto &known : failure_lines) {
      const auto fields = find_text(known.text, lines->text(line));
      if (!fields) continue;
      read_failure(*fields, known.check, &open.failure);
      take_line(lines, line, &open.found);
      findings.push_back(explain(std::move(open)));
      open = {};
      any = false;
    }
  }
  if (any) findings.push_back(explain(std::move(open)));
  return findings;
}

std::vector<finding> read_obfl(device_lines *lines) {
  std::vector<flash_event> events;
  finding found;
  for (size_t line = 0; line < lines->count(); ++line)
    read_event(lines, line, &events, &found);
  if (events.empty()) return {};
  found.part = "flash";
  found.what = what_of(events);
  static memory_of_results<std::vector<fault_group>> results;
  auto key = key_of({lines->whole ? 1 : 0});
  for (const auto &event : events)
    key += key_of({static_cast<uint32_t>(event.what), event.address, event.data, event.read});
  set_faults(results.get(key, [&] { return explain_flash(events, lines->whole); }), &found);
  return {std::move(found)};
}

}  // namespace lab
