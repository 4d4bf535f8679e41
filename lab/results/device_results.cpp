#include "lab/results/device_results.h"

#include <algorithm>

#include "lab/base/text.h"

namespace lab {
namespace {

// The run counts as a case where it has findings of its own.
std::string counts(const report &run) {
  const auto errors = run.count(verdict::error) + (run.warnings.empty() ? 0 : 1);
  return std::to_string(run.count(verdict::pass)) + " passed, " + std::to_string(run.count(verdict::fail)) +
         " failed, " + std::to_string(run.count(verdict::skip)) + " skipped, " + std::to_string(errors) + " errors\n";
}

std::string indented(const message_list &messages) {
  std::string out;
  for (const std::string &line : lines_of(messages))
    out += "    " + line + "\n";
  return out;
}

std::string row_times(const report &run) {
  std::string out;
  for (size_t row = 0; row < row_count; ++row) {
    if (!run.seconds[row]) continue;
    out += out.empty() ? "Seconds: " : ", ";
    out += std::string(rows[row].key) + " " + std::to_string(*run.seconds[row]);
  }
  return out.empty() ? out : out + "\n";
}

std::string run_text(const report &run) {
  std::string out = "kind of test not known";
  if (run.short_test) out = std::string(test_kind(run)) + " test";
  if (run.passed) out += *run.passed ? ", printed Completed Successfully" : ", printed Failed";
  return out;
}

}  // namespace

std::string run_finding(const device_results &results) {
  std::string out;
  for (const std::string &warning : results.run.warnings)
    out += (out.empty() ? "" : "; ") + warning;
  return out;
}

verdict run_verdict(const report &run) {
  if (run.clean()) return verdict::pass;
  return run.count(verdict::error) == 0 && run.warnings.empty() ? verdict::fail : verdict::error;
}

std::string explanation(const test_case &one) {
  if (one.result == verdict::pass || one.result == verdict::skip) return {};
  if (one.result == verdict::error) return one.reason;
  const std::string said = one.messages.kept.empty() ? "failed" : one.messages.kept.front().text;
  return one.reason.empty() ? said : said + "; " + one.reason;
}

std::string change_bits_text(const device_results &results) {
  const auto bits = results.run.change_bits ? results.run.change_bits : results.board.change_bits;
  return bits ? hex(*bits) : "";
}

std::string board_text(const device_results &results) {
  std::string out;
  const auto add = [&out](const std::string &name, const std::string &value) {
    if (!value.empty()) out += (out.empty() ? "" : ", ") + name + " " + value;
  };
  if (results.board.card) add("card", std::to_string(*results.board.card));
  add("part", results.board.part);
  add("serial", results.board.serial);
  add("change bits", change_bits_text(results));
  return out.empty() ? "not known" : out;
}

std::vector<std::string> lines_of(const message_list &messages) {
  std::vector<std::string> lines;
  for (const message &one : messages.kept)
    lines.push_back(one.text);
  if (messages.more > 0) lines.push_back("(" + std::to_string(messages.more) + " more lines)");
  return lines;
}

std::string_view test_kind(const report &run) {
  if (!run.short_test) return "not known";
  return *run.short_test ? "short" : "full";
}

int32_t seconds_of(const report &run, size_t row) {
  return std::max(run.seconds[row].value_or(0), 0);
}

std::string table(const device_results &results) {
  std::string out = "Board: " + board_text(results) + "\nRun:   " + run_text(results.run) + "\n\n";
  std::vector<std::vector<std::string>> cells = {{"CASE", "DEVICE", "RESULT", "REASON"}};
  for (const test_case &one : results.run.cases)
    cells.push_back({one.name(), std::string(one.part()), std::string(verdict_name(one.result)), one.reason});
  if (!results.run.warnings.empty()) cells.push_back({"run", "", "ERROR", run_finding(results)});
  out += columns(cells) + "\n";

  for (const test_case &one : results.run.cases) {
    if (!one.messages.kept.empty()) out += one.name() + " printed:\n" + indented(one.messages);
  }
  if (!results.run.messages.kept.empty()) out += "Outside of the tests:\n" + indented(results.run.messages);
  out += counts(results.run) + row_times(results.run);
  for (const std::string &note : results.notes)
    out += "Note: " + note + "\n";
  return out;
}

}  // namespace lab
