// Records and logs of runs in any shape, through the readers and into every form. The first byte says where the
// records end and the log begins, in sixteenths, and the form.
#include <algorithm>
#include <array>
#include <sstream>
#include <string>

#include "fuzz/fuzz.h"
#include "lab/results/device_results.h"
#include "lab/run/cases.h"
#include "lab/run/records.h"
#include "lab/run/run_log.h"

namespace {

size_t lines_of(std::string_view text) {
  const auto ends = static_cast<size_t>(std::ranges::count(text, '\n'));
  return ends + (text.empty() || text.ends_with('\n') ? 0 : 1);
}

lab::record_list read_records(const std::string &text) {
  auto list = lab::parse_records(text);
  std::istringstream in(text);
  const auto streamed = lab::parse_records(in);
  MUST_HOLD(streamed.record_count == list.record_count && streamed.bad_count == list.bad_count);
  // A last line without its end may be a record and a bad line.
  MUST_HOLD(list.record_count + list.bad_count <= lines_of(text) + 1);
  size_t line = 0;
  for (const lab::record &one : list.records) {
    MUST_HOLD(one.line > line && one.index < lab::case_count);
    MUST_HOLD(one.result == lab::RECORD_PASS || one.result == lab::RECORD_FAIL);
    line = one.line;
  }
  return list;
}

lab::log_file read_log(const std::string &text) {
  auto log = lab::parse_run_log(text);
  std::istringstream in(text);
  const auto streamed = lab::parse_run_log(in);
  MUST_HOLD(streamed.run_count == log.run_count && streamed.note_count == log.note_count &&
            streamed.lines == log.lines);
  size_t line = 0;
  for (const lab::run_log &run : log.runs) {
    // The next run may begin where one ends.
    MUST_HOLD(run.first_line >= line && run.first_line != 0 && run.last_line >= run.first_line &&
              run.last_line <= log.lines);
    MUST_HOLD(!run.stopped_at() || *run.stopped_at() < lab::case_count);
    line = run.last_line;
  }
  return log;
}

void report(const lab::run_pair &pair, size_t form) {
  lab::device_results results;
  results.run = lab::make_report(pair.records, pair.log);
  size_t cases = 0;
  for (const auto value : {lab::verdict::pass, lab::verdict::fail, lab::verdict::skip, lab::verdict::error})
    cases += results.run.count(value);
  MUST_HOLD(cases == lab::case_count);
  MUST_HOLD(!results.run.clean() ||
            results.run.count(lab::verdict::fail) + results.run.count(lab::verdict::error) == 0);
  constexpr std::array forms{lab::table, lab::ocp_lines, lab::junit_text, lab::ktap};
  MUST_HOLD(!forms[form % forms.size()](results).empty());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size == 0) return 0;
  const std::string text(reinterpret_cast<const char *>(data) + 1, size - 1);
  const size_t split = text.size() * (data[0] % 17U) / 16;
  const auto records = read_records(text.substr(0, split));
  const auto log = read_log(text.substr(split));
  const auto runs = lab::pair_runs(records.records, log.runs);
  if (!runs.empty()) report(runs.back(), data[0] / 17U);
  return 0;
}
