#include "lab/judge.h"

#include <algorithm>
#include <array>
#include <cstdio>

#include "lab/cases.h"
#include "lab/explain_score.h"
#include "lab/fault_list.h"
#include "lab/knowledge.h"
#include "lab/records.h"
#include "lab/run_log.h"
#include "lab/text.h"

namespace lab {
namespace {

constexpr int exit_usage = 2;
constexpr int exit_not_executable = 126;
constexpr int exit_not_found = 127;
constexpr std::string_view board_prefix = "board-sim: ";

// In a run whose flash row is cut short that row tells nothing.
bool counts(const run_item &run, const test_case &one) {
  return run.mode != run_mode::cut || rows[one.row].key != "obfl";
}

std::vector<std::string> failed_devices(const run_item &run, const report &told) {
  std::vector<std::string> failed;
  for (const auto &one : told.cases)
    if (one.result == verdict::fail && counts(run, one)) failed.push_back(one.name());
  return failed;
}

// What is printed at every start and the board's own words tell nothing.
bool is_telling(const message &line) {
  constexpr std::array<std::string_view, 3> usual{"devmemfd:0x", "phys->virt: 0x", board_prefix};
  const auto stands_first = [&](std::string_view prefix) { return line.text.starts_with(prefix); };
  return std::ranges::none_of(usual, stands_first) && line.text.find_first_not_of(" \t") != std::string::npos;
}

std::string first_line(const run_item &run, const report &told) {
  const message *first = nullptr;
  const auto look = [&](const message_list &list) {
    for (const auto &line : list.kept)
      if (is_telling(line) && (first == nullptr || line.line < first->line)) first = &line;
  };
  look(told.messages);
  for (const auto &one : told.cases)
    if (counts(run, one)) look(one.messages);
  return first == nullptr ? "" : first->text;
}

// "{KEY}" becomes the fault's value, "{KEY:02X}" the same as two hexadecimal digits.
std::string fill_in(std::string_view pattern, const fault_text &fault) {
  return fill_fields(pattern, [&](std::string_view key, std::string_view form) {
    char number[24];
    (void)std::snprintf(number, sizeof number, form == "02X" ? "%02llX" : "%llu",
                        static_cast<unsigned long long>(fault.number(key)));
    return std::string(number);
  });
}

// Whether a device of those that stand for the fault reported it, none else did, and the output names it.
bool is_right(const run_item &run, const std::string &output, const std::vector<std::string> &reported) {
  if (run.fault.empty() || reported.empty()) return false;
  const auto &expected = expectation_of(run);
  const auto devices = words_of(expected.devices);
  const auto is_expected = [&](const std::string &device) {
    return std::ranges::find(devices, device) != devices.end();
  };
  return std::ranges::all_of(reported, is_expected) &&
         output.find(fill_in(expected.text, parse_fault_text(run.fault))) != std::string::npos;
}

outcome judge_report(const run_item &run, const run_result &result) {
  const bool reported = result.verdict == "failed";
  if (run.fault.empty()) return reported ? outcome::false_alarm : outcome::healthy;
  if (!reported) return outcome::missed;
  return result.right ? outcome::found : outcome::blamed;
}

// In a run whose flash row is cut short the others decide.
std::string verdict_of(const run_item &run, bool completed, const report &told, bool reported) {
  if (!completed) return "none";
  const bool passed = run.mode == run_mode::cut ? !reported : *told.passed;
  return passed && !reported ? "passed" : "failed";
}

bool was_refused(const process_result &process) {
  const bool not_run =
      process.status == exit_usage || process.status == exit_not_executable || process.status == exit_not_found;
  return process.error != 0 || (not_run && process.output.starts_with(board_prefix));
}

std::string contents_text(const std::vector<memory_change> &changes) {
  std::string text;
  for (const auto &change : changes)
    text += (text.empty() ? "" : "; ") + change.text();
  return text;
}

outcome judge_all(const run_item &run, const run_evidence &evidence, bool completed, const run_result &result) {
  const auto &process = evidence.process;
  if (was_refused(process)) return outcome::refused;
  if (process.timed_out) return outcome::hung;
  if (std::ranges::any_of(evidence.changes, [](const auto &change) { return change.beyond > 0; }))
    return outcome::damaged;
  if (process.status != 0 || !completed) return outcome::ended;
  if (!run.fault.empty() && evidence.fired.value_or(0) == 0) return outcome::not_fired;
  return judge_report(run, result);
}

}  // namespace

run_result judge(const run_item &run, const run_evidence &evidence) {
  const auto log = parse_run_log(evidence.process.output);
  const auto records = parse_records(evidence.records);
  const std::vector<record> own(records.records.begin(), records.records.end());
  const auto *const printed = log.runs.empty() ? nullptr : &log.runs.back();
  const auto told = make_report(own, printed);
  const bool completed = printed != nullptr && printed->completed && told.passed.has_value();

  run_result result;
  result.what = run;
  result.fired = evidence.fired;
  if (traits_of(parse_fault_text(run.fault).name).timed && evidence.fired.value_or(0) > 1) {
    result.fired = 1;
    result.fired_more = true;
  }
  result.reported = failed_devices(run, told);
  result.verdict = verdict_of(run, completed, told, !result.reported.empty());
  result.right = is_right(run, evidence.process.output, result.reported);
  result.line = first_line(run, told);
  if (result.line.empty() && was_refused(evidence.process)) {
    const auto &output = evidence.process.output;
    result.line = output.substr(0, output.find('\n'));
  }
  result.status = evidence.process.status;
  result.contents = contents_text(evidence.changes);
  result.seconds = evidence.process.seconds;
  result.cpu_seconds = evidence.process.cpu_seconds;
  result.end = judge_all(run, evidence, completed, result);
  result.reason = reason_of(run, result.end, !result.reported.empty());
  result.explained = explain_result(run, printed, own);
  return result;
}

}  // namespace lab
