#include <array>
#include <ctime>
#include <nlohmann/json.hpp>

#include "lab/results/device_results.h"

namespace lab {
namespace {

using json = nlohmann::ordered_json;

constexpr char supervisor_id[] = "supervisor";
constexpr char tool_id[] = "post-results";

// UTC, as RFC 3339 writes it.
std::string time_text(int64_t seconds) {
  const auto time = static_cast<time_t>(seconds);
  tm fields{};
  std::array<char, 64> text{};
  if (gmtime_r(&time, &fields) == nullptr) return "1970-01-01T00:00:00Z";
  (void)strftime(text.data(), text.size(), "%Y-%m-%dT%H:%M:%SZ", &fields);
  return text.data();
}

// Lines with the numbers and times that all of them carry.
class artifact_lines {
 public:
  explicit artifact_lines(int64_t start) : m_now(start) {}

  void add(const char *kind, json body) {
    json line{{kind, std::move(body)}, {"sequenceNumber", m_next++}, {"timestamp", time_text(m_now)}};
    m_out += line.dump() + "\n";
  }
  void run(const char *kind, json body) { add("testRunArtifact", json::object({{kind, std::move(body)}})); }
  void step(std::string_view key, const char *kind, json body) {
    add("testStepArtifact", json::object({{"testStepId", key}, {kind, std::move(body)}}));
  }
  void pass_time(int32_t seconds) { m_now += seconds; }
  [[nodiscard]] std::string text() && { return std::move(m_out); }

 private:
  std::string m_out;
  int64_t m_now;
  uint64_t m_next = 0;
};

json log_line(const char *severity, const std::string &text) {
  return {{"severity", severity}, {"message", text}};
}

json hardware(const device_results &results) {
  json info{{"hardwareInfoId", supervisor_id}, {"name", "supervisor"}, {"partType", "supervisor"}};
  if (results.board.card) info["version"] = "card " + std::to_string(*results.board.card);
  if (!results.board.part.empty()) info["partNumber"] = results.board.part;
  if (!results.board.serial.empty()) info["serialNumber"] = results.board.serial;
  const std::string bits = change_bits_text(results);
  if (!bits.empty()) info["revision"] = bits;
  return info;
}

json run_start(const device_results &results) {
  const json tool{{"softwareInfoId", tool_id},
                  {"name", tool_id},
                  {"version", results.tool_version},
                  {"softwareType", "APPLICATION"}};
  const json dut{{"dutInfoId", results.board.serial.empty() ? supervisor_id : results.board.serial},
                 {"name", "supervisor board"},
                 {"softwareInfos", json::array({tool})},
                 {"hardwareInfos", json::array({hardware(results)})}};
  auto parameters = json::object();
  if (results.run.short_test) parameters["shortTest"] = *results.run.short_test;
  // Neither the records nor the output say which version of the program ran.
  return {{"name", "post"},
          {"version", "unknown"},
          {"commandLine", results.run.short_test == true ? "post -s" : "post"},
          {"parameters", parameters},
          {"dutInfo", dut}};
}

// The word after a case's name in the verdict of its diagnosis and in the symptom of its error.
const char *word_of(verdict result) {
  constexpr std::array<const char *, 4> words = {"-pass", "-fail", "-skip", "-error"};
  return words[static_cast<size_t>(result)];
}

json diagnosis(const test_case &one) {
  constexpr std::array<const char *, 4> types = {"PASS", "FAIL", "UNKNOWN", "UNKNOWN"};
  json body{{"verdict", one.name() + word_of(one.result)}, {"type", types[static_cast<size_t>(one.result)]}};
  if (!one.reason.empty()) body["message"] = one.reason;
  body["hardwareInfoId"] = supervisor_id;
  body["subcomponent"] = json::object({{"name", one.part()}});
  return body;
}

void add_case(const test_case &one, artifact_lines *lines) {
  const std::string_view step = rows[one.row].key;
  for (const std::string &text : lines_of(one.messages))
    lines->step(step, "log", log_line(one.result == verdict::fail ? "ERROR" : "INFO", text));
  if (one.result == verdict::error) {
    lines->step(step, "error", {{"symptom", one.name() + word_of(one.result)}, {"message", one.reason}});
    return;
  }
  lines->step(step, "diagnosis", diagnosis(one));
}

const char *status_of(std::span<const test_case> cases) {
  bool all_skipped = true;
  for (const test_case &one : cases) {
    if (one.result == verdict::error) return "ERROR";
    all_skipped &= one.result == verdict::skip;
  }
  return all_skipped ? "SKIP" : "COMPLETE";
}

void add_row(const device_results &results, size_t row, artifact_lines *lines) {
  const std::span<const test_case> cases =
      std::span(results.run.cases).subspan(first_case(row), rows[row].parts.size());
  lines->step(rows[row].key, "testStepStart", json::object({{"name", rows[row].title}}));
  lines->pass_time(seconds_of(results.run, row));
  for (const test_case &one : cases)
    add_case(one, lines);
  if (results.run.seconds[row])
    lines->step(rows[row].key, "measurement",
                {{"name", "duration"}, {"value", *results.run.seconds[row]}, {"unit", "s"}});
  lines->step(rows[row].key, "testStepEnd", json::object({{"status", status_of(cases)}}));
}

// A run without a proper end has no result.
json run_end(const report &run) {
  const verdict result = run_verdict(run);
  if (result == verdict::error) return {{"status", "ERROR"}, {"result", "NOT_APPLICABLE"}};
  return {{"status", "COMPLETE"}, {"result", verdict_name(result)}};
}

int64_t seconds_of_all(const report &run) {
  int64_t sum = 0;
  for (size_t row = 0; row < row_count; ++row)
    sum += seconds_of(run, row);
  return sum;
}

}  // namespace

std::string ocp_lines(const device_results &results) {
  artifact_lines lines(results.ended - seconds_of_all(results.run));
  lines.add("schemaVersion", {{"major", 2}, {"minor", 0}});
  lines.run("testRunStart", run_start(results));
  for (const std::string &note : results.notes)
    lines.run("log", log_line("WARNING", note));
  for (const std::string &text : lines_of(results.run.messages))
    lines.run("log", log_line("INFO", text));
  for (size_t row = 0; row < row_count; ++row)
    add_row(results, row, &lines);
  if (!results.run.warnings.empty()) lines.run("error", {{"symptom", "run-error"}, {"message", run_finding(results)}});
  lines.run("testRunEnd", run_end(results.run));
  return std::move(lines).text();
}

}  // namespace lab
