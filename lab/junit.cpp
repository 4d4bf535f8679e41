#include "lab/sheet.h"
#include "lab/text.h"

namespace lab {
namespace {

std::string attribute(std::string_view name, std::string_view value) {
  return " " + std::string(name) + "=\"" + escape_markup(value) + "\"";
}

std::string attribute(std::string_view name, size_t value) {
  return attribute(name, std::to_string(value));
}

struct counters {
  size_t tests = 0;
  size_t failures = 0;
  size_t errors = 0;
  size_t skipped = 0;
  int64_t seconds = 0;

  void add(verdict result) {
    ++tests;
    failures += result == verdict::fail ? 1 : 0;
    errors += result == verdict::error ? 1 : 0;
    skipped += result == verdict::skip ? 1 : 0;
  }
  [[nodiscard]] std::string attributes() const {
    return attribute("tests", tests) + attribute("failures", failures) + attribute("errors", errors) +
           attribute("skipped", skipped) + attribute("time", std::to_string(seconds));
  }
};

std::string text_of(const message_list &messages) {
  std::string out;
  for (const std::string &line : lines_of(messages))
    out += escape_markup(line) + "\n";
  return out;
}

std::string output_of(const message_list &messages) {
  if (messages.kept.empty()) return {};
  return "      <system-out>" + text_of(messages) + "</system-out>\n";
}

std::string outcome_of(const test_case &one) {
  switch (one.result) {
    case verdict::pass:
      return {};
    case verdict::fail: {
      const std::string said = one.messages.kept.empty() ? "failed" : one.messages.kept.front().text;
      return "      <failure" + attribute("message", one.reason.empty() ? said : said + "; " + one.reason) +
             attribute("type", "FAIL") + "/>\n";
    }
    case verdict::skip:
      return "      <skipped" + attribute("message", one.reason) + "/>\n";
    case verdict::error:
      return "      <error" + attribute("message", one.reason) + attribute("type", "ERROR") + "/>\n";
  }
  return {};
}

// A row's seconds are those of its devices together: only a device alone in its row has a time of its own.
std::string case_xml(const sheet &results, const test_case &one) {
  std::string out = "    <testcase" + attribute("classname", "post." + std::string(rows[one.row].key)) +
                    attribute("name", one.name() + " " + std::string(one.part()));
  if (rows[one.row].parts.size() == 1 && results.run.seconds[one.row])
    out += attribute("time", std::to_string(seconds_of(results.run, one.row)));
  const std::string body = outcome_of(one) + output_of(one.messages);
  return out + (body.empty() ? "/>\n" : ">\n" + body + "    </testcase>\n");
}

std::string property(std::string_view name, std::string_view value) {
  if (value.empty()) return {};
  return "      <property" + attribute("name", name) + attribute("value", value) + "/>\n";
}

std::string properties(const sheet &results) {
  std::string out = property("card", results.board.card ? std::to_string(*results.board.card) : "") +
                    property("part", results.board.part) + property("serial", results.board.serial) +
                    property("change_bits", change_bits_text(results)) +
                    property("test", results.run.short_test ? "short" : "full");
  return "    <properties>\n" + out + "    </properties>\n";
}

std::string row_xml(const sheet &results, size_t row, counters *all) {
  counters own;
  own.seconds = seconds_of(results.run, row);
  std::string cases;
  for (size_t i = 0; i < rows[row].parts.size(); ++i) {
    const test_case &one = results.run.cases[first_place(row) + i];
    own.add(one.result);
    all->add(one.result);
    cases += case_xml(results, one);
  }
  all->seconds += own.seconds;
  return "  <testsuite" + attribute("name", rows[row].key) + own.attributes() + ">\n" + properties(results) + cases +
         "  </testsuite>\n";
}

std::string notes_of(const sheet &results) {
  std::string out;
  for (const std::string &note : results.notes)
    out += escape_markup("note: " + note) + "\n";
  return out.empty() ? out : "    <system-err>" + out + "</system-err>\n";
}

// The run as a whole, where there is something to say of it.
std::string run_xml(const sheet &results, counters *all) {
  const bool finding = !results.run.warnings.empty();
  if (!finding && results.notes.empty() && results.run.messages.kept.empty()) return {};
  counters own;
  std::string body;
  if (finding) {
    own.add(verdict::error);
    all->add(verdict::error);
    body = "    <testcase classname=\"post\" name=\"run\">\n      <error" + attribute("message", run_finding(results)) +
           attribute("type", "ERROR") + "/>\n    </testcase>\n";
  }
  if (!results.run.messages.kept.empty())
    body += "    <system-out>" + text_of(results.run.messages) + "</system-out>\n";
  return "  <testsuite name=\"run\"" + own.attributes() + ">\n" + body + notes_of(results) + "  </testsuite>\n";
}

}  // namespace

std::string junit_xml(const sheet &results) {
  counters all;
  std::string suites;
  for (size_t row = 0; row < row_count; ++row)
    suites += row_xml(results, row, &all);
  suites += run_xml(results, &all);
  return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<testsuites name=\"post\"" + all.attributes() + ">\n" + suites +
         "</testsuites>\n";
}

}  // namespace lab
