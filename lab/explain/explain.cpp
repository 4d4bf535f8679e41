#include "lab/explain/explain.h"

#include <fnmatch.h>

#include <algorithm>
#include <array>
#include <optional>

#include "lab/base/text.h"
#include "lab/explain/row_lines.h"
#include "lab/explain/texts.h"
#include "lab/run/cases.h"
#include "lab/run/rows.h"

namespace lab {
namespace {

constexpr size_t evidence_kept = 12;
constexpr size_t advice_kept = 4;
constexpr std::string_view ended_run = "the run";
constexpr int32_t pcie_test = 12;
constexpr std::string_view unread_text = "err: could not read sup sprom";

// ---- texts

// Lines and what else the table of texts asks for.
struct scope {
  row_lines lines;
  const run_log *log;
  bool stopped = false;         // the run ended here
  bool ending_unknown = false;  // a line shows what ended it, and no row explains that line
};

bool has_line(const std::vector<message> &lines, std::string_view pattern) {
  return std::ranges::any_of(lines, [&](const message &one) { return find_text(pattern, one.text).has_value(); });
}

// How many of the ports that every card tests ended with a verdict of ethtool, and without.
std::array<size_t, 2> ports_by_verdict(const run_log &log) {
  std::array<size_t, 2> count{};
  for (const size_t port : {size_t{0}, size_t{3}}) {
    const auto &device = log.devices[first_case(*row_of_test(5)) + port];
    const bool silent = device.messages.contain("Fail to parse /post/ethtool.log");
    const bool shows_verdict = silent || !device.failed || device.messages.contain("ethtool -t eth");
    if (device.ended && shows_verdict) ++count[silent ? 0 : 1];
  }
  return count;
}

// Whether no SPROM was read, as far as the log shows. `whole`: both were tried.
bool nothing_was_read(const run_log &log, bool whole) {
  const auto sproms = std::span(log.devices).subspan(first_case(*row_of_test(seeprom_test)), 2);
  const auto passed = [](const device_log &one) { return one.ended && !one.failed; };
  return has_line(log.startup.kept, unread_text) && std::ranges::none_of(sproms, passed) &&
         std::ranges::all_of(sproms, &device_log::ended) == whole;
}

// A line that shows what ended the program.
bool is_ending(std::string_view line) {
  constexpr std::string_view texts[] = {"was ended by signal {n}", ": Assertion `", "## Assert:"};
  return std::ranges::any_of(texts, [line](auto text) { return find_text(text, line).has_value(); });
}

bool holds(const text_row &row, const scope &where) {
  switch (row.when) {
    case text_condition::none:
      return true;
    case text_condition::also:
      return has_line(where.lines.lines, row.also);
    case text_condition::one_port:
      return ports_by_verdict(*where.log)[1] > 0;
    case text_condition::all_ports:
      return ports_by_verdict(*where.log)[0] == 2;
    case text_condition::unread:
      return nothing_was_read(*where.log, true);
    case text_condition::perhaps_unread:
      return nothing_was_read(*where.log, false);
    case text_condition::stopped:
      return where.stopped && !where.ending_unknown;
  }
  return false;
}

void add_causes(std::string_view causes, finding *found) {
  while (!causes.empty()) {
    const auto end = std::min(causes.find("; "), causes.size());
    auto cause = causes.substr(0, end);
    const bool at_times = take(&cause, "~");
    const bool may_differ = take(&cause, "?");
    auto group = group_of(cause);
    group.where = found->part;
    group.may_differ = may_differ || at_times;
    (at_times ? found->now_and_then : found->faults).push_back(std::move(group));
    causes.remove_prefix(std::min(end + 2, causes.size()));
  }
}

// Base address registers by the order in which regions are mapped: flash, then NVRAM.
constexpr std::array<std::string_view, 4> mapped_bars{"5", "2", "3", "4"};
constexpr std::array<std::string_view, 4> bars_before{"4", "1", "2", "3"};

// A mapping prints two lines, one that is refused only the first. Either kind may be lost.
size_t mapped_regions(const std::vector<message> &lines) {
  const auto count = [&](std::string_view text) {
    return std::ranges::count_if(lines, [&](const message &one) { return find_text(text, one.text).has_value(); });
  };
  const auto tried = count("devmemfd:0x") - (has_line(lines, "mmap() failed") ? 1 : 0);
  return static_cast<size_t>(std::max(count("phys->virt: 0x"), tried));
}

finding finding_of(const text_row &row, text_fields fields, const scope &where) {
  const auto mapped = mapped_regions(where.log->startup.kept);
  fields.try_emplace("part", where.lines.part);
  fields.try_emplace("nth", std::to_string(mapped + 1));
  fields.try_emplace("bar", mapped_bars[std::min(mapped, mapped_bars.size() - 1)]);
  fields.try_emplace("bar_before", bars_before[std::min(mapped, bars_before.size() - 1)]);
  // The upper half of a 64-bit register can itself look like the lower half of one.
  if (const auto number = number_of(fields, "n", 10); number && *number > 0)
    fields.try_emplace("n_before", std::to_string(*number - 1));
  finding found;
  found.part = fill_text(row.part, fields);
  found.what = fill_text(row.what, fields);
  add_causes(fill_text(row.causes, fields), &found);
  if (!row.next.empty()) found.next.push_back(fill_text(row.next, fields));
  return found;
}

// The lines that are of no row's own.
std::vector<finding> explain_texts(scope *where) {
  auto &lines = where->lines;
  std::vector<finding> findings;
  for (size_t line = 0; line < lines.count(); ++line) {
    for (const auto &row : text_rows()) {
      if (lines.used[line] || row.text.empty() || (!row.row.empty() && row.row != lines.row)) continue;
      const auto fields = find_text(row.text, lines.text(line));
      if (!fields || !holds(row, *where)) continue;
      lines.used[line] = true;
      if (row.part.empty()) continue;
      findings.push_back(finding_of(row, *fields, *where));
      findings.back().evidence.push_back(lines.lines[line]);
    }
  }
  return findings;
}

// What a device shows by failing, or by ending the run, without a line.
std::vector<finding> explain_silence(const scope &where) {
  for (const auto &row : text_rows()) {
    if (!row.text.empty() || row.row != where.lines.row || !holds(row, where)) continue;
    if (row.when != text_condition::stopped && !where.lines.failed) continue;
    return {finding_of(row, {}, where)};
  }
  if (!where.lines.failed) return {};
  finding found;
  found.part = where.lines.part;
  found.known = false;
  found.what = "failed, and none of its lines is known";
  return {std::move(found)};
}

// ---- a run

std::vector<finding> explain_row(row_lines *lines) {
  constexpr std::pair<std::string_view, std::vector<finding> (*)(row_lines *)> by_row[] = {{"seeprom", explain_seeprom},
                                                                                           {"gige", explain_gige},
                                                                                           {"nvram", explain_nvram},
                                                                                           {"obfl", explain_obfl},
                                                                                           {"pcie", explain_pcie}};
  for (const auto &[row, explain] : by_row)
    if (row == lines->row) return explain(lines);
  return {};
}

// How post-locate is asked about the device of a finding; "" where there is nothing to decide between.
std::string locate_command(const finding &found) {
  constexpr std::pair<std::string_view, std::string_view> parts[] = {
      {"nvram.", "nvram"}, {"obfl.", "flash"}, {"gige.", "ethernet"}, {"pcie.", "pci"}};
  const auto is_cell = [](const fault_group &one) { return one.name.starts_with("nvram-cell-"); };
  const auto *const row =
      std::ranges::find_if(parts, [&](const auto &part) { return found.device.starts_with(part.first); });
  if (row == std::end(parts) || count_places(found.faults) + count_places(found.now_and_then) < 2) return "";
  auto command = "post-locate " + std::string(std::ranges::any_of(found.faults, is_cell) ? "--cells " : "");
  command += row->second;
  return row->second == "nvram" ? command + found.device.substr(row->first.size()) : command;
}

void add_advice(finding *found) {
  const auto add = [](std::vector<std::string> *list, std::string_view text) {
    if (list->size() < advice_kept && std::ranges::find(*list, text) == list->end()) list->emplace_back(text);
  };
  const auto count = [&](std::string_view pattern) {
    size_t places = 0;
    for (const auto *const groups : {&found->faults, &found->now_and_then})
      for (const auto &one : *groups)
        if (fnmatch(std::string(pattern).c_str(), one.name.c_str(), 0) == 0) places += one.places;
    return places;
  };
  if (const auto command = locate_command(*found); !command.empty())
    found->measures.push_back("Run " + command + " on the board: it measures which place it is.");
  for (const auto &row : measure_rows()) {
    const bool same = row.one == row.other;
    if (same ? count(row.one) > 1 : count(row.one) > 0 && count(row.other) > 0) add(&found->measures, row.text);
  }
  for (const auto &row : advice_rows())
    if (count(row.kind) > 0) add(&found->next, row.text);
}

class run_explainer {
 public:
  explicit run_explainer(const run_log &log) : m_log(log) {}
  explanation explain();

 private:
  void scan(scope where);
  void scan_device(size_t row, size_t device);
  void scan_outside(const message_list &messages, std::string_view row);
  void add(finding found, const row_lines &lines);
  void add_unknown(const row_lines &lines);
  void add_end();
  [[nodiscard]] bool named_before(std::string_view row) const;

  const run_log &m_log;
  std::string m_stopped_in;                 // device within which the run ended
  std::optional<message> m_unknown_ending;  // a line that shows what ended it, of no known text
  explanation m_all;
};

void run_explainer::add(finding found, const row_lines &lines) {
  const auto same = std::ranges::find_if(
      m_all.findings, [&](const finding &one) { return one.part == found.part && one.what == found.what; });
  if (same != m_all.findings.end()) {
    for (auto &line : found.evidence)
      if (same->evidence.size() < evidence_kept) same->evidence.push_back(std::move(line));
    return;
  }
  found.device = lines.device;
  if (!found.faults.empty()) found.unseen = unseen_after(lines.row);
  m_all.findings.push_back(std::move(found));
}

void run_explainer::add_unknown(const row_lines &lines) {
  for (size_t line = 0; line < lines.count(); ++line) {
    if (lines.used[line]) continue;
    ++m_all.unknown_count;
    if (m_all.unknown.size() < explanation::unknown_kept) m_all.unknown.push_back(lines.lines[line]);
  }
}

// The first device of the PCIe row names every function that is missing; the function's own device just fails.
bool run_explainer::named_before(std::string_view row) const {
  return row == "pcie" && std::ranges::any_of(m_all.findings, [](const finding &one) {
           return one.device.starts_with("pcie.") && !one.faults.empty();
         });
}

void run_explainer::scan(scope where) {
  auto &lines = where.lines;
  const auto cut = std::ranges::find(lines.lines, false, &message::whole);
  if (cut != lines.lines.end() && is_ending(cut->text)) m_unknown_ending = *cut;
  std::erase_if(lines.lines, [](const message &one) { return !one.whole; });
  lines.used.assign(lines.count(), false);
  auto findings = explain_row(&lines);
  auto texts = explain_texts(&where);
  findings.insert(findings.end(), texts.begin(), texts.end());
  for (size_t line = 0; line < lines.count(); ++line)
    if (!lines.used[line] && is_ending(lines.text(line)) && !m_unknown_ending) m_unknown_ending = lines.lines[line];
  where.ending_unknown = m_unknown_ending.has_value();
  const bool explained =
      std::ranges::any_of(findings, [](const finding &one) { return one.part != "/post" || !one.faults.empty(); });
  if (!explained && !named_before(lines.row)) {
    auto silence = explain_silence(where);
    findings.insert(findings.end(), silence.begin(), silence.end());
  }
  for (auto &found : findings)
    add(std::move(found), lines);
  add_unknown(lines);
}

void run_explainer::scan_device(size_t row, size_t device) {
  const auto index = first_case(row) + device;
  const auto &of = m_log.devices[index];
  const auto row_devices = std::span(m_log.devices).subspan(first_case(row), rows[row].parts.size());
  scope where{{}, &m_log, m_log.stopped_at() == index};
  where.lines.row = rows[row].key;
  where.lines.part = rows[row].parts[device];
  where.lines.device = std::string(rows[row].key) + "." + std::to_string(device);
  where.lines.lines = of.messages.kept;
  where.lines.failed = of.failed;
  where.lines.row_failed = std::ranges::any_of(row_devices, &device_log::failed);
  if (where.stopped) m_stopped_in = where.lines.device;
  scan(std::move(where));
}

void run_explainer::scan_outside(const message_list &messages, std::string_view row) {
  scope where{{}, &m_log, false};
  where.lines.row = row;
  where.lines.part = "the program";
  where.lines.lines = messages.kept;
  scan(std::move(where));
}

// A run that was not completed, unless a known line shows what ended it; one that failed without a device's line.
void run_explainer::add_end() {
  if (m_log.completed && m_log.passed == false && m_all.findings.empty()) {
    finding found;
    found.part = ended_run;
    found.known = false;
    found.what = "its verdict is failed, and no device shows it: lines are missing";
    found.next.emplace_back("Run the test again and keep what it prints.");
    m_all.findings.push_back(std::move(found));
  }
  if (m_log.completed) return;
  const auto explains = [&](const finding &one) {
    const bool by_assertion = m_log.asserted && !m_unknown_ending && one.known && one.device == m_stopped_in;
    return one.part == ended_run || by_assertion;
  };
  if (std::ranges::any_of(m_all.findings, explains)) return;
  const bool before_rows = std::ranges::none_of(m_log.rows, &row_log::started);
  const bool by_signal = m_unknown_ending && find_text("was ended by signal", m_unknown_ending->text);
  finding found;
  found.part = ended_run;
  found.device = m_stopped_in;
  found.what = m_log.asserted ? "an assertion ended it"
               : by_signal    ? "a signal ended it"
                              : "it did not come to its end";
  found.what += m_log.stopped_at() ? ", in " + m_stopped_in
                : before_rows      ? ", before the first test"
                                   : ", between two tests";
  if (m_unknown_ending) found.evidence.push_back(*m_unknown_ending);
  found.next.emplace_back(
      "If the log was cut, explain the whole one; otherwise look for a kill, a reset or a power cut.");
  m_all.findings.push_back(std::move(found));
}

explanation run_explainer::explain() {
  scan_outside(m_log.startup, "startup");
  for (size_t row = 0; row < rows.size(); ++row)
    for (size_t device = 0; device < rows[row].parts.size(); ++device)
      scan_device(row, device);
  scan_outside(m_log.between, "between");
  const bool all_seen = m_log.devices[first_case(*row_of_test(pcie_test))].ended;
  join_misread_revision(m_log.change_bits.value_or(0), all_seen, &m_all.findings);
  add_end();
  for (auto &found : m_all.findings)
    add_advice(&found);
  return std::move(m_all);
}

// Failures that only the records show.
void add_recorded(const run_log *log, std::span<const record> records, explanation *all) {
  const auto report = make_report(records, log);
  for (const auto &one : report.cases) {
    const auto has_device = [&](const finding &found) { return found.device == one.name(); };
    if (one.result != verdict::fail || std::ranges::any_of(all->findings, has_device)) continue;
    if (log != nullptr && log->devices[first_case(one.row) + static_cast<size_t>(one.device)].failed) continue;
    finding found;
    found.device = one.name();
    found.part = one.part();
    found.known = false;
    found.what = "its record says that it failed; what it printed is missing";
    found.next.emplace_back("Run the test again and keep what it prints.");
    all->findings.push_back(std::move(found));
  }
}

// ---- headlines

// Few enough to be named one by one.
constexpr size_t most_named = 4;

std::string kind_of_place(const fault_group &group) {
  constexpr std::pair<std::string_view, std::string_view> kinds[] = {
      {"-data-short", "shorted data lines"}, {"-addr-short", "shorted address lines"}, {"-cell-", "cells"}};
  for (const auto &[kind, name] : kinds)
    if (group.name.find(kind) != std::string::npos) return std::string(name);
  return group.where;
}

// One of the lists of a headline.
struct headline_list {
  std::vector<fault_group> groups;
  bool open = false;  // it says that the log does not show the place
  std::string text;
};

// The places, or their kinds where there are many; those in `named` are left out and the others are added to it.
headline_list list_of_places(std::vector<fault_group> groups, std::vector<std::string> *named) {
  const auto is_named = [named](const std::string &one) { return std::ranges::find(*named, one) != named->end(); };
  auto few = in_few_groups(groups);
  std::erase_if(few, [&](const fault_group &one) { return is_named(one.where); });
  const bool many = count_places(few) > most_named;
  std::vector<std::string> places;
  for (const auto &group : few) {
    auto place = many ? kind_of_place(group) : group.where;
    if (!is_named(place) && std::ranges::find(places, place) == places.end()) places.push_back(std::move(place));
  }
  headline_list list{std::move(groups), places.size() > most_named, ""};
  if (list.open) places = {"another part (the log does not show which; post-locate measures it)"};
  for (auto &place : places) {
    list.text += (list.text.empty() ? "" : ", or ") + place;
    named->push_back(std::move(place));
  }
  return list;
}

std::vector<fault_group> groups_that(std::span<const fault_group> groups, bool may_differ) {
  std::vector<fault_group> some;
  std::ranges::copy_if(groups, std::back_inserter(some), [&](const auto &one) { return one.may_differ == may_differ; });
  return some;
}

bool has_sure_address_line(std::span<const fault_group> groups) {
  return std::ranges::any_of(
      groups, [](const fault_group &one) { return !one.may_differ && one.name.find("-addr-") != std::string::npos; });
}

// Of what comes and goes, the headline names all but address lines that print this by a chance in former contents while
// others do for certain.
std::vector<fault_group> named_at_times(const finding &found) {
  auto groups = found.now_and_then;
  if (has_sure_address_line(groups) || has_sure_address_line(found.faults))
    std::erase_if(groups,
                  [](const auto &one) { return one.may_differ && one.name.find("-addr-") != std::string::npos; });
  return groups;
}

// What is broken for certain, perhaps, and if it comes and goes.
std::array<headline_list, 3> lists_of(const finding &found) {
  std::vector<std::string> named{found.part};
  auto sure = list_of_places(groups_that(found.faults, false), &named);
  auto unsure = list_of_places(groups_that(found.faults, true), &named);
  auto at_times = list_of_places(named_at_times(found), &named);
  return {std::move(sure), std::move(unsure), std::move(at_times)};
}

constexpr std::string_view headline_names[] = {"leaves it out", "names no place", "names it"};

}  // namespace

void take_line(row_lines *lines, size_t line, finding *found) {
  lines->used[line] = true;
  if (found->evidence.size() < evidence_kept &&
      (found->evidence.empty() || found->evidence.back().line != lines->lines[line].line))
    found->evidence.push_back(lines->lines[line]);
}

std::string_view name_of(headline_says what) {
  return headline_names[static_cast<size_t>(what)];
}

std::optional<headline_says> headline_named(std::string_view name) {
  const auto *const found = std::ranges::find(headline_names, name);
  if (found == std::end(headline_names)) return std::nullopt;
  return static_cast<headline_says>(found - headline_names);
}

std::string finding::headline() const {
  if (!known) return part + ": not known: " + what;
  const auto [sure, unsure, at_times] = lists_of(*this);
  auto text = part + ": " + what;
  if (!sure.text.empty()) text += ": " + sure.text;
  if (!unsure.text.empty()) text += (sure.text.empty() ? ": " : ", or perhaps ") + unsure.text;
  if (!at_times.text.empty())
    text += (faults.empty() ? ": if it comes and goes, " : "; if it comes and goes, also ") + at_times.text;
  return text;
}

headline_says finding::headline_on(const fault_text &fault) const {
  auto says = headline_says::leaves_out;
  for (const auto &list : lists_of(*this))
    if (std::ranges::any_of(list.groups, [&](const fault_group &group) { return group.holds(fault); }))
      says = std::max(says, list.open ? headline_says::no_place : headline_says::names);
  return says;
}

bool finding::lists(const fault_text &fault) const {
  const auto holds = [&](const fault_group &group) { return group.holds(fault); };
  return std::ranges::any_of(faults, holds) || std::ranges::any_of(now_and_then, holds);
}

std::string explanation::in_short() const {
  std::string text;
  for (const auto &one : findings)
    text += (text.empty() ? "" : "; ") + one.headline();
  return text;
}

explanation explain_run(const run_log *log, std::span<const record> records) {
  explanation all;
  if (log != nullptr) all = run_explainer(*log).explain();
  if (!records.empty()) add_recorded(log, records, &all);
  return all;
}

}  // namespace lab
