#include "lab/explain.h"

#include <fnmatch.h>

#include <algorithm>
#include <array>
#include <map>
#include <optional>

#include "lab/cases.h"
#include "lab/explain_readers.h"
#include "lab/explain_texts.h"
#include "lab/rows.h"

namespace lab {
namespace {

constexpr size_t evidence_kept = 12;
constexpr size_t advice_kept = 4;

bool kind_fits(std::string_view name, std::string_view pattern) {
  return fnmatch(std::string(pattern).c_str(), std::string(name).c_str(), 0) == 0;
}

// ---- texts

struct scope {
  device_lines lines;
  bool stopped = false;                                 // the run ended here
  std::array<std::optional<bool>, 2> port_has_verdict;  // of the ports that every card tests
};

bool has_line(const device_lines &lines, std::string_view pattern) {
  return std::ranges::any_of(lines.messages->kept,
                             [&](const message &one) { return find_text(pattern, one.text).has_value(); });
}

bool holds(const text_row &row, const scope &where) {
  const auto silent = std::ranges::count(where.port_has_verdict, std::optional(false));
  const auto spoke = std::ranges::count(where.port_has_verdict, std::optional(true));
  switch (row.when) {
    case text_condition::none:
      return true;
    case text_condition::also:
      return has_line(where.lines, row.also);
    case text_condition::one_port:
      return spoke > 0;
    case text_condition::all_ports:
      return silent == static_cast<std::ptrdiff_t>(where.port_has_verdict.size());
    case text_condition::stopped:
      return where.stopped;
  }
  return false;
}

void add_causes(std::string_view causes, finding *found) {
  while (!causes.empty()) {
    const auto end = std::min(causes.find("; "), causes.size());
    const auto fault = parse_fault_text(causes.substr(0, end));
    auto group = group_named(fault.name, fault.values);
    group.where = found->part;
    found->faults.push_back(std::move(group));
    causes.remove_prefix(std::min(end + 2, causes.size()));
  }
  found->places = found->sure_places = found->faults.empty() ? 0 : 1;
}

finding finding_of(const text_row &row, text_fields fields, const device_lines &lines) {
  fields.try_emplace("part", lines.part);
  finding found;
  found.part = fill_text(row.part, fields);
  found.what = fill_text(row.what, fields);
  add_causes(fill_text(row.causes, fields), &found);
  if (!row.next.empty()) found.next.push_back(fill_text(row.next, fields));
  return found;
}

// The lines that no reader has taken.
std::vector<finding> read_texts(scope *where) {
  auto &lines = where->lines;
  std::vector<finding> findings;
  for (size_t line = 0; line < lines.count(); ++line) {
    for (const auto &row : text_rows()) {
      if (lines.used[line] || row.text.empty() || (!row.row.empty() && row.row != lines.row)) continue;
      const auto fields = find_text(row.text, lines.text(line));
      if (!fields || !holds(row, *where)) continue;
      lines.used[line] = true;
      if (row.part.empty()) continue;
      findings.push_back(finding_of(row, *fields, lines));
      findings.back().evidence.push_back(lines.messages->kept[line]);
    }
  }
  return findings;
}

// What a device says by failing, or by ending the run, without a word.
std::vector<finding> read_silence(const scope &where) {
  for (const auto &row : text_rows()) {
    if (!row.text.empty() || row.row != where.lines.row || !holds(row, where)) continue;
    if (row.when == text_condition::none && !where.lines.failed) continue;
    return {finding_of(row, {}, where.lines)};
  }
  if (!where.lines.failed && !where.stopped) return {};
  finding found;
  found.part = where.lines.part;
  found.known = false;
  found.what = where.lines.failed ? "failed, and of what it printed nothing is known" : "the run ended here";
  return {std::move(found)};
}

// ---- a run

std::vector<finding> read_row(device_lines *lines) {
  constexpr std::pair<std::string_view, std::vector<finding> (*)(device_lines *)> readers[] = {
      {"seeprom", read_seeprom}, {"gige", read_gige}, {"nvram", read_nvram}, {"obfl", read_obfl}, {"pcie", read_pcie}};
  for (const auto &[row, read] : readers)
    if (row == lines->row) return read(lines);
  return {};
}

bool same_cause(const finding &a, const finding &b) {
  return a.part == b.part && a.what == b.what;
}

void add_advice(finding *found) {
  const auto add = [](std::vector<std::string> *list, std::string_view text) {
    if (list->size() < advice_kept && std::ranges::find(*list, text) == list->end()) list->emplace_back(text);
  };
  const auto has = [&](std::string_view pattern) {
    return std::ranges::count_if(found->faults, [&](const auto &one) { return kind_fits(one.name, pattern); });
  };
  for (const auto &row : apart_rows()) {
    const bool same = row.one == row.other;
    if (same ? has(row.one) > 1 : has(row.one) > 0 && has(row.other) > 0) add(&found->apart, row.text);
  }
  for (const auto &row : advice_rows())
    if (has(row.kind) > 0) add(&found->next, row.text);
}

class reader {
 public:
  explicit reader(const run_log &log) : m_log(log) {}
  explanation read();

 private:
  void scan(scope where);
  void scan_device(size_t row, size_t device);
  void scan_outside(const message_list &messages, std::string_view row);
  void add(finding found, const device_lines &lines);
  void add_unknown(const device_lines &lines);
  [[nodiscard]] bool named_before(std::string_view row) const;
  [[nodiscard]] std::optional<bool> has_verdict(size_t port) const;

  const run_log &m_log;
  explanation m_all;
};

// Whether ethtool gave the port a verdict; nothing if the test did not come so far.
std::optional<bool> reader::has_verdict(size_t port) const {
  const auto &device = m_log.devices[first_place(*row_of_test(5)) + port];
  if (!device.ended) return std::nullopt;
  return !device.messages.contain("Fail to parse /post/ethtool.log");
}

void reader::add(finding found, const device_lines &lines) {
  const auto same = std::ranges::find_if(m_all.findings, [&](const auto &one) { return same_cause(one, found); });
  if (same != m_all.findings.end()) {
    for (auto &line : found.evidence)
      if (same->evidence.size() < evidence_kept) same->evidence.push_back(std::move(line));
    return;
  }
  found.device = lines.device;
  if (!found.faults.empty()) found.unseen = unseen_behind(lines.row);
  add_advice(&found);
  m_all.findings.push_back(std::move(found));
}

void reader::add_unknown(const device_lines &lines) {
  for (size_t line = 0; line < lines.count(); ++line) {
    if (lines.used[line]) continue;
    ++m_all.unknown_count;
    if (m_all.unknown.size() < explanation::unknown_kept) m_all.unknown.push_back(lines.messages->kept[line]);
  }
}

// The first device of the PCIe row names every function that is missing; the function's own device just fails.
bool reader::named_before(std::string_view row) const {
  return row == "pcie" && std::ranges::any_of(m_all.findings, [](const finding &one) {
           return one.device.starts_with("pcie.") && !one.faults.empty();
         });
}

void reader::scan(scope where) {
  auto &lines = where.lines;
  lines.used.assign(lines.count(), false);
  auto findings = read_row(&lines);
  auto texts = read_texts(&where);
  findings.insert(findings.end(), texts.begin(), texts.end());
  const bool explained =
      std::ranges::any_of(findings, [](const finding &one) { return one.part != "/post" || !one.faults.empty(); });
  if (!explained && !named_before(lines.row)) {
    auto silence = read_silence(where);
    findings.insert(findings.end(), silence.begin(), silence.end());
  }
  for (auto &found : findings)
    add(std::move(found), lines);
  add_unknown(lines);
}

void reader::scan_device(size_t row, size_t device) {
  const auto place = first_place(row) + device;
  const auto &of = m_log.devices[place];
  const auto row_devices = std::span(m_log.devices).subspan(first_place(row), rows[row].parts.size());
  scope where;
  where.lines.row = rows[row].key;
  where.lines.part = rows[row].parts[device];
  where.lines.device = std::string(rows[row].key) + "." + std::to_string(device);
  where.lines.messages = &of.messages;
  where.lines.failed = of.failed;
  where.lines.row_failed = std::ranges::any_of(row_devices, &device_log::failed);
  where.lines.whole = of.ended && of.messages.more == 0;
  where.stopped = m_log.stopped_at() == place;
  where.port_has_verdict = {has_verdict(0), has_verdict(3)};
  scan(std::move(where));
}

void reader::scan_outside(const message_list &messages, std::string_view row) {
  scope where;
  where.lines.row = row;
  where.lines.part = "the program";
  where.lines.messages = &messages;
  scan(std::move(where));
}

explanation reader::read() {
  scan_outside(m_log.startup, "startup");
  for (size_t row = 0; row < rows.size(); ++row)
    for (size_t device = 0; device < rows[row].parts.size(); ++device)
      scan_device(row, device);
  scan_outside(m_log.between, "between");
  return std::move(m_all);
}

// Failures that nothing but the records shows.
void add_recorded(const run_log *log, std::span<const record> records, explanation *all) {
  const auto report = make_report(records, log);
  for (const auto &one : report.cases) {
    const auto has_device = [&](const finding &found) { return found.device == one.name(); };
    if (one.result != verdict::fail || std::ranges::any_of(all->findings, has_device)) continue;
    if (log != nullptr && log->devices[first_place(one.row) + static_cast<size_t>(one.device)].failed) continue;
    finding found;
    found.device = one.name();
    found.part = one.part();
    found.known = false;
    found.what = "its record says that it failed; what it printed is missing";
    found.next.emplace_back("Run the test again and keep what it prints.");
    all->findings.push_back(std::move(found));
  }
}

// ---- texts of findings

// "data line D3 stuck at 0": a place with all that it can be, or with that which it is.
std::string place_text(const fault_group &group) {
  return group.how.empty() ? group.where : group.where + " " + group.how;
}

}  // namespace

void take_line(device_lines *lines, size_t line, finding *found) {
  lines->used[line] = true;
  if (found->evidence.size() < evidence_kept &&
      (found->evidence.empty() || found->evidence.back().line != lines->messages->kept[line].line))
    found->evidence.push_back(lines->messages->kept[line]);
}

// What fits whatever the memory held before comes first; what fits by chance alone is only counted.
std::string finding::headline() const {
  constexpr size_t most = 3;
  if (!known) return part + ": not known: " + what;
  auto groups = in_few_groups(faults);
  const bool some_sure = std::ranges::any_of(groups, [](const fault_group &one) { return !one.contents; });
  if (some_sure) std::erase_if(groups, &fault_group::contents);
  if (groups.empty() || groups[0].where == part) return part + ": " + what;
  if (groups.size() == 1 && places == 1) return part + ": " + place_text(groups[0]) + " (" + what + ")";
  std::vector<std::string> named;
  for (const auto &group : groups)
    if (std::ranges::find(named, group.where) == named.end()) named.push_back(group.where);
  auto text = part + ": " + what + ": ";
  for (size_t i = 0; i < std::min(named.size(), most); ++i)
    text += (i == 0 ? "" : ", or ") + named[i];
  if (named.size() > most) text += ", or others";
  if (places > 1) text += "; one of " + std::to_string(some_sure ? sure_places : places) + " places";
  if (some_sure && places > sure_places) text += ", or of more if the memory held certain words";
  return text;
}

std::string explanation::in_short() const {
  std::string text;
  for (const auto &one : findings)
    text += (text.empty() ? "" : "; ") + one.headline();
  return text;
}

explanation explain_run(const run_log *log, std::span<const record> records) {
  explanation all;
  if (log != nullptr) all = reader(*log).read();
  if (!records.empty()) add_recorded(log, records, &all);
  return all;
}

uint64_t count_places(std::span<const fault_group> groups, bool sure) {
  std::map<std::string_view, uint64_t> places;
  for (const auto &group : groups) {
    if (sure && group.contents) continue;
    auto &count = places[group.where];
    count = std::max(count, group.places);
  }
  uint64_t count = 0;
  for (const auto &[where, some] : places)
    count += some;
  return count;
}

std::vector<fault_group> in_few_groups(std::span<const fault_group> groups) {
  std::vector<fault_group> few(groups.begin(), groups.end());
  for (const auto *const key : {"commands", "other", "line", "sector"})
    join_groups(key, &few);
  return few;
}

}  // namespace lab
