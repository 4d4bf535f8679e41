#include "lab/base/junit.h"

#include "lab/results/device_results.h"

namespace lab {
namespace {

std::string text_of(const message_list &messages) {
  std::string out;
  for (const std::string &line : lines_of(messages))
    out += line + "\n";
  return out;
}

// A row's seconds are those of its devices together: only the single device of a row has a time of its own.
junit_case case_of(const device_results &results, const test_case &one) {
  constexpr std::array endings{junit_case::ending::pass, junit_case::ending::failure, junit_case::ending::skipped,
                               junit_case::ending::error};
  junit_case made{"post." + std::string(rows[one.row].key),
                  one.name() + " " + std::string(one.part()),
                  {},
                  endings[static_cast<size_t>(one.result)],
                  one.result == verdict::skip ? one.reason : explanation(one),
                  std::string(verdict_name(one.result)),
                  text_of(one.messages)};
  if (rows[one.row].parts.size() == 1 && results.run.seconds[one.row]) made.seconds = seconds_of(results.run, one.row);
  return made;
}

junit_suite suite_of(const device_results &results, size_t row) {
  junit_suite suite;
  suite.name = rows[row].key;
  if (results.run.seconds[row]) suite.seconds = seconds_of(results.run, row);
  suite.properties = {{"card", results.board.card ? std::to_string(*results.board.card) : ""},
                      {"part", results.board.part},
                      {"serial", results.board.serial},
                      {"change_bits", change_bits_text(results)},
                      {"test", std::string(test_kind(results.run))}};
  for (size_t i = 0; i < rows[row].parts.size(); ++i)
    suite.cases.push_back(case_of(results, results.run.cases[first_case(row) + i]));
  return suite;
}

// The run as a whole.
junit_suite run_suite(const device_results &results) {
  junit_suite suite;
  suite.name = "run";
  suite.output = text_of(results.run.messages);
  if (!results.run.warnings.empty())
    suite.cases.push_back({"post", "run", {}, junit_case::ending::error, run_finding(results), "ERROR", ""});
  for (const std::string &note : results.notes)
    suite.errors += "note: " + note + "\n";
  return suite;
}

}  // namespace

std::string junit_text(const device_results &results) {
  std::vector<junit_suite> suites;
  for (size_t row = 0; row < row_count; ++row)
    suites.push_back(suite_of(results, row));
  auto whole = run_suite(results);
  if (!whole.cases.empty() || !whole.output.empty() || !whole.errors.empty()) suites.push_back(std::move(whole));
  return junit_xml("post", suites);
}

}  // namespace lab
