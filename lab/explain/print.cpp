#include "lab/explain/print.h"

#include <algorithm>
#include <nlohmann/json.hpp>
#include <span>

#include "lab/base/text.h"

namespace lab {
namespace {

using nlohmann::ordered_json;

constexpr size_t places_shown = 8;
constexpr size_t hows_shown = 3;
constexpr size_t pattern_shown = 76;
constexpr size_t notes_shown = 10;

// ---- text

std::string lines_of_run(const run_log &log) {
  if (log.first_line == 0) return "";
  const auto last = log.last_line > 0 ? std::to_string(log.last_line) : "end";
  return ", lines " + std::to_string(log.first_line) + " to " + last;
}

std::string state_of(const explained_run &run) {
  if (run.log == nullptr) return "only records";
  if (run.log->asserted) return "ended early, by an assertion";
  if (!run.log->completed) return "did not come to its end";
  return run.log->passed.value_or(false) ? "passed" : "failed";
}

std::string head_of(const explained_file &file, const explained_run &run) {
  auto text = file.name + ": run " + std::to_string(run.number);
  if (run.log != nullptr) text += lines_of_run(*run.log);
  return text + ": " + state_of(run) + "\n";
}

// What is wrong at one place.
struct bad_place {
  std::string where;
  std::vector<std::string> hows;
  std::vector<const fault_group *> groups;
};

std::vector<bad_place> places_of(const std::vector<fault_group> &groups) {
  std::vector<bad_place> places;
  for (const auto &group : groups) {
    auto same = std::ranges::find(places, group.where, &bad_place::where);
    if (same == places.end()) same = places.insert(places.end(), {group.where, {}, {}});
    if (!group.how.empty() && std::ranges::find(same->hows, group.how) == same->hows.end())
      same->hows.push_back(group.how);
    same->groups.push_back(&group);
  }
  return places;
}

std::string hows_text(const bad_place &one) {
  std::string text;
  for (size_t i = 0; i < std::min(one.hows.size(), hows_shown); ++i)
    text += (i == 0 ? ": " : "; ") + one.hows[i];
  if (one.hows.size() > hows_shown) text += "; and " + std::to_string(one.hows.size() - hows_shown) + " more";
  return text;
}

std::string groups_text(const bad_place &one, bool all) {
  std::string text;
  for (const auto *const group : one.groups) {
    const auto pattern = group->text();
    if (!all && (group != one.groups.front() || pattern.size() > pattern_shown)) continue;
    text += "      " + pattern + "\n";
  }
  return text;
}

// The groups of one kind below a title.
std::string candidates_text(std::string_view title, std::vector<fault_group> groups, bool all) {
  if (groups.empty()) return "";
  groups = in_few_groups(groups);
  const auto unsure =
      std::stable_partition(groups.begin(), groups.end(), [](const fault_group &one) { return !one.may_differ; });
  const auto places = places_of(groups);
  const auto sure = count_places(std::span(groups.begin(), unsure));
  const auto shown = all ? places.size() : std::min({places.size(), places_shown, sure > 0 ? sure : places_shown});
  std::string text = "  " + std::string(title) + ":\n";
  for (size_t i = 0; i < shown; ++i)
    text += "    " + places[i].where + hows_text(places[i]) + "\n" + groups_text(places[i], all);
  if (shown < places.size()) text += "    and " + std::to_string(places.size() - shown) + " more (--all shows them)\n";
  return text;
}

// What gives the lines for certain is first.
std::string faults_text(const finding &found, bool all) {
  auto faults = found.faults;
  const auto middle =
      std::stable_partition(faults.begin(), faults.end(), [](const fault_group &one) { return !one.may_differ; });
  const std::vector<fault_group> unsure(middle, faults.end());
  faults.erase(middle, faults.end());
  return candidates_text("Can come from", faults, all) +
         candidates_text(faults.empty() ? "Can come from, depending on the rest" : "or, depending on the rest, from",
                         unsure, all) +
         candidates_text(
             found.faults.empty() ? "If it comes and goes, it can come from" : "or, if it comes and goes, from",
             found.now_and_then, all);
}

std::string list_text(std::string_view title, const std::vector<std::string> &items) {
  std::string text;
  for (const auto &item : items)
    text += "  " + (text.empty() ? std::string(title) : std::string(title.size(), ' ')) + " " + item + "\n";
  return text;
}

std::string evidence_text(const std::vector<message> &lines) {
  std::string text;
  for (const auto &line : lines)
    text += "  line " + std::to_string(line.line) + ": " + line.text + "\n";
  return text;
}

std::string finding_text(const finding &found, bool all) {
  auto text = found.headline() + "\n" + evidence_text(found.evidence) + faults_text(found, all);
  text += list_text("To decide:", found.measures);
  text += list_text("Next:", found.next);
  if (!found.unseen.empty()) text += "  Not seen: " + found.unseen + "\n";
  return text;
}

std::string run_text(const explained_file &file, const explained_run &run, bool all) {
  auto text = head_of(file, run);
  for (const auto &found : run.what.findings)
    text += "\n" + finding_text(found, all);
  if (run.what.unknown_count > 0) {
    text += "\nNot known: " + counted(run.what.unknown_count, "line") + "\n";
    text += evidence_text(run.what.unknown);
  }
  return text;
}

std::string notes_text(const explained_file &file) {
  std::string text;
  for (const auto &note : file.notes)
    text += "Note: " + note + "\n";
  if (file.log == nullptr) return text;
  const auto &notes = file.log->notes;
  for (size_t i = 0; i < std::min(notes.size(), notes_shown); ++i) {
    const auto &[first, last, what] = notes[i];
    const std::string lines = first == last ? "line " : "lines " + std::to_string(first) + " to ";
    text += "Note: " + lines + std::to_string(last) + ": " + what + "\n";
  }
  if (file.log->note_count > notes_shown)
    text += "Note: and " + std::to_string(file.log->note_count - notes_shown) + " more\n";
  return text;
}

// ---- JSON

ordered_json lines_json(const std::vector<message> &lines) {
  auto list = ordered_json::array();
  for (const auto &line : lines)
    list.push_back({{"line", line.line}, {"text", line.text}});
  return list;
}

ordered_json fault_json(const fault_group &group) {
  return {{"pattern", group.text()},
          {"count", group.count()},
          {"where", group.where},
          {"how", group.how},
          {"may_print_other_lines", group.may_differ}};
}

ordered_json faults_json(const std::vector<fault_group> &groups) {
  auto list = ordered_json::array();
  for (const auto &group : groups)
    list.push_back(fault_json(group));
  return list;
}

ordered_json finding_json(const finding &found) {
  ordered_json value;
  value["device"] = found.device;
  value["part"] = found.part;
  value["known"] = found.known;
  value["headline"] = found.headline();
  value["what"] = found.what;
  value["evidence"] = lines_json(found.evidence);
  value["places"] = count_places(found.faults);
  value["candidates"] = faults_json(found.faults);
  value["if_it_comes_and_goes"] = faults_json(found.now_and_then);
  value["measures"] = found.measures;
  value["next"] = found.next;
  value["unseen"] = found.unseen;
  return value;
}

ordered_json run_json(const explained_run &run) {
  ordered_json value;
  value["run"] = run.number;
  value["state"] = state_of(run);
  if (run.log != nullptr) {
    value["first_line"] = run.log->first_line;
    value["last_line"] = run.log->last_line;
  }
  auto findings = ordered_json::array();
  for (const auto &found : run.what.findings)
    findings.push_back(finding_json(found));
  value["findings"] = std::move(findings);
  value["unknown_lines"] = run.what.unknown_count;
  value["unknown"] = lines_json(run.what.unknown);
  return value;
}

ordered_json file_json(const explained_file &file) {
  ordered_json value;
  value["file"] = file.name;
  auto runs = ordered_json::array();
  for (const auto &run : file.runs)
    runs.push_back(run_json(run));
  value["runs"] = std::move(runs);
  auto notes = ordered_json::array();
  for (const auto &note : file.notes)
    notes.push_back({{"text", note}});
  if (file.log != nullptr)
    for (const auto &note : file.log->notes)
      notes.push_back({{"first", note.first}, {"last", note.last}, {"text", note.text}});
  value["notes"] = std::move(notes);
  return value;
}

}  // namespace

std::string explanations_text(const std::vector<explained_file> &files, bool all) {
  std::string text;
  for (const auto &file : files) {
    for (const auto &run : file.runs)
      text += (text.empty() ? "" : "\n") + run_text(file, run, all);
    if (file.runs.empty()) text += (text.empty() ? "" : "\n") + file.name + ": no run of the program\n";
    const auto notes = notes_text(file);
    if (!notes.empty()) text += "\n" + notes;
  }
  return text;
}

std::string explanations_json(const std::vector<explained_file> &files) {
  ordered_json value;
  value["format"] = "post-explain";
  value["version"] = 1;
  auto list = ordered_json::array();
  for (const auto &file : files)
    list.push_back(file_json(file));
  value["files"] = std::move(list);
  return value.dump(1, ' ', false, ordered_json::error_handler_t::replace) + "\n";
}

}  // namespace lab
