#include "lab/junit_matrix.h"

#include <algorithm>
#include <cstdio>

#include "lab/markup.h"
#include "lab/text.h"

namespace lab {
namespace {

struct suite {
  std::string kind;
  std::vector<const run_result *> runs;
};

struct counters {
  size_t tests = 0;
  size_t failures = 0;
  size_t errors = 0;
  size_t skipped = 0;
  double seconds = 0;
};

enum class case_result { pass, skip, failure, error };

case_result result_of(const run_result &run, const matrix &all) {
  if (run.end == outcome::found || run.end == outcome::healthy) return case_result::pass;
  if (is_accounted_for(run, all.space)) return case_result::skip;
  const bool tells_nothing = run.end == outcome::hung || run.end == outcome::not_fired || run.end == outcome::refused;
  return tells_nothing ? case_result::error : case_result::failure;
}

std::vector<suite> suites_of(const matrix &all) {
  std::vector<suite> suites;
  for (const auto &run : all.runs) {
    const auto kind = run.what.fault.empty() ? "healthy" : run.what.fault.substr(0, run.what.fault.find(' '));
    auto found = std::ranges::find(suites, kind, &suite::kind);
    if (found == suites.end()) found = suites.insert(suites.end(), {kind, {}});
    found->runs.push_back(&run);
  }
  return suites;
}

counters count(const std::vector<const run_result *> &runs, const matrix &all) {
  counters sum;
  for (const auto *const run : runs) {
    ++sum.tests;
    sum.seconds += run->seconds;
    const auto result = result_of(*run, all);
    if (result == case_result::skip) ++sum.skipped;
    if (result == case_result::failure) ++sum.failures;
    if (result == case_result::error) ++sum.errors;
  }
  return sum;
}

std::string seconds_attribute(double seconds, bool times) {
  char text[32];
  (void)std::snprintf(text, sizeof text, " time=\"%.3f\"", seconds);
  return times ? text : " time=\"0\"";
}

std::string attributes(const counters &all, bool times) {
  return " tests=\"" + std::to_string(all.tests) + "\" failures=\"" + std::to_string(all.failures) + "\" errors=\"" +
         std::to_string(all.errors) + "\" skipped=\"" + std::to_string(all.skipped) + "\"" +
         seconds_attribute(all.seconds, times);
}

std::string output_of(const run_result &run) {
  auto text = run.line;
  if (run.explained && !run.explained->text.empty()) text += (text.empty() ? "" : "\n") + run.explained->text;
  return text;
}

std::string case_body(const run_result &run, const matrix &all) {
  auto message = title_of(run);
  if (!run.reason.empty()) message += ": " + run.reason;
  if (!run.contents.empty()) message += "; " + run.contents;
  switch (result_of(run, all)) {
    case case_result::pass:
      return output_of(run).empty() ? "" : element("system-out", escape_markup(output_of(run)));
    case case_result::skip:
      return element("skipped", {{"message", message}});
    case case_result::failure:
      return element("failure", {{"message", message}, {"type", text_of(run.end).name}}, escape_markup(output_of(run)));
    case case_result::error:
      return element("error", {{"message", message}, {"type", text_of(run.end).name}}, escape_markup(output_of(run)));
  }
  return "";
}

std::string case_xml(const std::string &kind, const run_result &run, const matrix &all) {
  return "    <testcase classname=\"campaign." + escape_markup(kind) + "\" name=\"" + escape_markup(run.what.key()) +
         "\"" + seconds_attribute(run.seconds, all.times.has_value()) + ">" + case_body(run, all) + "</testcase>\n";
}

}  // namespace

std::string matrix_to_junit(const matrix &all) {
  const bool times = all.times.has_value();
  std::vector<const run_result *> every;
  std::string xml;
  for (const auto &one : suites_of(all)) {
    xml += "  <testsuite name=\"" + escape_markup(one.kind) + "\"" + attributes(count(one.runs, all), times) + ">\n";
    for (const auto *const run : one.runs)
      xml += case_xml(one.kind, *run, all);
    xml += "  </testsuite>\n";
    every.insert(every.end(), one.runs.begin(), one.runs.end());
  }
  return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<testsuites name=\"post-campaign " + escape_markup(all.space) +
         "\"" + attributes(count(every, all), times) + ">\n" + xml + "</testsuites>\n";
}

}  // namespace lab
