#include "lab/report/junit_matrix.h"

#include <algorithm>

#include "lab/base/junit.h"

namespace lab {
namespace {

using ending = junit_case::ending;

ending ending_of(const run_result &run, const matrix &all) {
  if (run.end == outcome::found || run.end == outcome::healthy) return ending::pass;
  if (is_accounted_for(run, all.space)) return ending::skipped;
  const bool proves_nothing = run.end == outcome::hung || run.end == outcome::not_fired || run.end == outcome::refused;
  return proves_nothing ? ending::error : ending::failure;
}

junit_case case_of(const run_result &run, const matrix &all) {
  junit_case made{"campaign." + kind_of(run.what),    run.what.key(), {}, ending_of(run, all), title_of(run),
                  std::string(text_of(run.end).name), run.line};
  if (all.times) made.seconds = run.seconds;
  if (!run.reason.empty()) made.message += ": " + run.reason;
  if (!run.contents.empty()) made.message += "; " + run.contents;
  if (run.explained && !run.explained->text.empty())
    made.output += (made.output.empty() ? "" : "\n") + run.explained->text;
  if (run.located)
    made.output +=
        (made.output.empty() ? "" : "\n") + ("post-locate: " + run.located->title() + ". ") + run.located->text;
  return made;
}

// "NAME ARCHITECTURE" is one machine.
std::string host_of(const std::string &machine) {
  const auto blank = machine.find(' ');
  return blank == std::string::npos ? "" : machine.substr(0, blank);
}

}  // namespace

std::string matrix_to_junit(const matrix &all) {
  std::vector<junit_suite> suites;
  for (const auto &run : all.runs) {
    const auto kind = kind_of(run.what);
    auto suite = std::ranges::find(suites, kind, &junit_suite::name);
    if (suite == suites.end()) {
      suite = suites.emplace(suites.end());
      suite->name = kind;
    }
    suite->cases.push_back(case_of(run, all));
    if (all.times) suite->seconds = suite->seconds.value_or(0) + run.seconds;
  }
  for (auto &suite : suites) {
    suite.properties = all.origin.properties();
    suite.timestamp = all.origin.date;
    suite.hostname = host_of(all.origin.machine);
  }
  return junit_xml("post-campaign " + all.space, suites);
}

}  // namespace lab
