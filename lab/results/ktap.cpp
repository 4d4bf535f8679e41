#include "lab/results/device_results.h"

namespace lab {
namespace {

std::string comment(std::string_view text) {
  return "# " + std::string(text) + "\n";
}

std::string result_line(bool ok, size_t number, const std::string &name) {
  return (ok ? "ok " : "not ok ") + std::to_string(number) + " " + name;
}

std::string directive(const test_case &one) {
  switch (one.result) {
    case verdict::skip:
      return " # SKIP " + one.reason;
    case verdict::error:
      return " # ERROR " + one.reason;
    case verdict::pass:
    case verdict::fail:
      return one.reason.empty() ? "" : " # " + one.reason;
  }
  return {};
}

}  // namespace

std::string ktap(const device_results &results) {
  const bool finding = !results.run.warnings.empty();
  std::string out = "KTAP version 1\n1.." + std::to_string(case_count + (finding ? 1 : 0)) + "\n";
  out += comment("board: " + board_text(results));
  for (const std::string &note : results.notes)
    out += comment("note: " + note);
  for (const std::string &line : lines_of(results.run.messages))
    out += comment(line);
  for (size_t index = 0; index < case_count; ++index) {
    const test_case &one = results.run.cases[index];
    for (const std::string &line : lines_of(one.messages))
      out += comment(line);
    const bool ok = one.result == verdict::pass || one.result == verdict::skip;
    out += result_line(ok, index + 1, one.name() + " " + std::string(one.part())) + directive(one) + "\n";
  }
  if (finding) out += result_line(false, case_count + 1, "run") + " # ERROR " + run_finding(results) + "\n";
  return out;
}

}  // namespace lab
