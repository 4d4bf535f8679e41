#include "lab/campaign/judge.h"

#include <algorithm>
#include <array>
#include <cstdio>

#include "lab/base/text.h"
#include "lab/campaign/fault_facts.h"
#include "lab/campaign/score.h"
#include "lab/run/cases.h"
#include "lab/run/records.h"
#include "lab/run/run_log.h"

namespace lab {
namespace {

constexpr int exit_usage = 2;
constexpr int exit_not_executable = 126;
constexpr int exit_not_found = 127;
constexpr std::string_view board_prefix = "board-sim: ";

// In a run whose flash row is cut short, that row proves nothing.
bool counts(const run_item &run, const test_case &one) {
  return run.mode != run_mode::no_flash || rows[one.row].key != "obfl";
}

std::vector<std::string> failed_devices(const run_item &run, const report &told) {
  std::vector<std::string> failed;
  for (const auto &one : told.cases)
    if (one.result == verdict::fail && counts(run, one)) failed.push_back(one.name());
  return failed;
}

// Lines of every start and the board's own messages prove nothing.
bool is_telling(const message &line) {
  constexpr std::array<std::string_view, 3> usual{"devmemfd:0x", "phys->virt: 0x", board_prefix};
  const auto begins_line = [&](std::string_view prefix) { return line.text.starts_with(prefix); };
  return std::ranges::none_of(usual, begins_line) && line.text.find_first_not_of(" \t") != std::string::npos;
}

// An assertion begins with its place in the sources, which differs by how they were compiled and moves with every edit.
std::string without_place(const std::string &text) {
  const auto assertion = text.find(": Assertion `");
  if (assertion == std::string::npos || assertion == 0) return text;
  const auto place_end = text.rfind(": ", assertion - 1);
  return place_end == std::string::npos ? text : text.substr(place_end + 2);
}

// The first line that reports a failure.
std::string first_line(const run_item &run, const report &told) {
  const message *first = nullptr;
  const auto look = [&](const message_list &list) {
    for (const auto &line : list.kept)
      if (is_telling(line) && (first == nullptr || line.line < first->line)) first = &line;
  };
  look(told.messages);
  for (const auto &one : told.cases)
    if (counts(run, one)) look(one.messages);
  return first == nullptr ? "" : without_place(first->text);
}

// Whether one of the right devices reported the fault, no other did, and the output names it.
bool is_right(const run_item &run, const sim::fault *fault, const std::string &output,
              const std::vector<std::string> &reported) {
  if (fault == nullptr || reported.empty()) return false;
  const auto expected = expectation_of(*fault, run.board);
  const auto is_expected = [&](const std::string &device) {
    return std::ranges::find(expected.devices, device) != expected.devices.end();
  };
  return std::ranges::all_of(reported, is_expected) && output.find(expected.text) != std::string::npos;
}

outcome judge_report(const sim::fault *fault, const run_result &result) {
  const bool reported = result.verdict == "failed";
  if (result.what.fault.empty()) return reported ? outcome::false_alarm : outcome::healthy;
  if (fault != nullptr && is_harmless(fault->id)) return reported ? outcome::false_alarm : outcome::harmless;
  if (!reported) return outcome::missed;
  return result.right ? outcome::found : outcome::blamed;
}

// In a run whose flash row is cut short the others decide.
std::string verdict_of(const run_item &run, bool completed, const report &told, bool reported) {
  if (!completed) return "none";
  const bool passed = run.mode == run_mode::no_flash ? !reported : *told.passed;
  return passed && !reported ? "passed" : "failed";
}

bool was_refused(const process_result &process) {
  const bool not_run =
      process.status == exit_usage || process.status == exit_not_executable || process.status == exit_not_found;
  return process.error != 0 || (not_run && process.output.starts_with(board_prefix));
}

outcome judge_all(const sim::fault *fault, const run_evidence &evidence, bool completed, const run_result &result) {
  const auto &process = evidence.process;
  if (was_refused(process)) return outcome::refused;
  if (process.timed_out) return outcome::hung;
  if (std::ranges::any_of(evidence.changes, [](const auto &change) { return change.beyond > 0; }))
    return outcome::damaged;
  if (process.status != 0 || !completed) return outcome::ended;
  if (!result.what.fault.empty() && evidence.fired.value_or(0) == 0) return outcome::not_fired;
  return judge_report(fault, result);
}

}  // namespace

run_result judge(const run_item &run, const run_evidence &evidence) {
  const auto log = parse_run_log(evidence.process.output);
  const auto records = parse_records(evidence.records);
  const std::vector<record> own(records.records.begin(), records.records.end());
  const auto *const printed = log.runs.empty() ? nullptr : &log.runs.back();
  const auto told = make_report(own, printed);
  const bool completed = printed != nullptr && printed->completed && told.passed.has_value();

  const auto parsed = fault_of(run);
  const auto *const fault = parsed ? &*parsed : nullptr;

  run_result result;
  result.what = run;
  result.fired = evidence.fired;
  // Asked again until the time is over: how often depends on the machine's speed.
  if (fault != nullptr && fault->id == sim::fault_id::i2c_absent && evidence.fired.value_or(0) > 1) {
    result.fired = 1;
    result.fired_more = true;
  }
  result.reported = failed_devices(run, told);
  result.verdict = verdict_of(run, completed, told, !result.reported.empty());
  result.right = is_right(run, fault, evidence.process.output, result.reported);
  result.line = first_line(run, told);
  if (result.line.empty() && was_refused(evidence.process)) {
    const auto &output = evidence.process.output;
    result.line = printable(output.substr(0, output.find('\n')));
  }
  result.status = evidence.process.status;
  result.contents = contents_text(evidence.changes);
  result.seconds = evidence.process.seconds;
  result.cpu_seconds = evidence.process.cpu_seconds;
  result.end = judge_all(fault, evidence, completed, result);
  if (fault != nullptr)
    result.reason = reason_of({run, *fault, result.end, !result.reported.empty(), printed, result.status,
                               evidence.process.output, evidence.changes});
  result.explained = explain_result(run, printed, own);
  return result;
}

}  // namespace lab
