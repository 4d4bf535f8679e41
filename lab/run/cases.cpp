#include "lab/run/cases.h"

#include <algorithm>

namespace lab {
namespace {

struct decision {
  verdict result;
  std::string reason;
};

using case_records = std::array<const record *, case_count>;

case_records by_case(std::span<const record> records) {
  case_records found{};
  for (const record &one : records)
    found[one.index] = &one;
  return found;
}

bool is_nothing(size_t index) {
  return index == case_index(seeprom_test, seeprom_nothing);
}

constexpr char nothing_there[] = "there is nothing to test";
constexpr char left_out[] = "left out by the short test";
constexpr char no_record[] = "its record is missing";

// ---- from records only

bool any_record(const case_records &found, size_t first, size_t end) {
  return std::any_of(found.begin() + static_cast<std::ptrdiff_t>(first),
                     found.begin() + static_cast<std::ptrdiff_t>(end),
                     [](const record *one) { return one != nullptr; });
}

bool short_by_records(const case_records &found) {
  size_t end = 0;
  for (size_t row = 0; row < rows.size(); ++row) {
    if (!rows[row].short_skips) continue;
    end = first_case(row) + rows[row].parts.size();
    if (any_record(found, first_case(row), end)) return false;
  }
  return any_record(found, end, case_count);
}

// Whether the run has a trace of a row that the short test leaves out.
bool has_long_row(const run_log *log, const case_records &found) {
  for (size_t row = 0; row < row_count; ++row) {
    const auto end = first_case(row) + rows[row].parts.size();
    if (rows[row].short_skips &&
        (any_record(found, first_case(row), end) || (log != nullptr && log->rows[row].started)))
      return true;
  }
  return false;
}

decision decide_by_records(size_t index, const case_records &found) {
  if (found[index] != nullptr) return {found[index]->result == RECORD_PASS ? verdict::pass : verdict::fail, ""};
  if (!any_record(found, index, case_count)) return {verdict::error, "the run's records end before it"};
  if (is_nothing(index)) return {verdict::skip, nothing_there};
  if (rows[row_of_case(index)].short_skips && short_by_records(found)) return {verdict::skip, left_out};
  if (row_of_case(index) == 0 && !any_record(found, 0, rows[0].parts.size()))
    return {verdict::skip, "no record, as on a card that is not known"};
  return {verdict::error, no_record};
}

// ---- from records and log

std::string where(size_t index) {
  return "the run ended in " + std::string(rows[row_of_case(index)].key) + "." +
         std::to_string(index - first_case(row_of_case(index)));
}

std::string where_stopped(const run_log &log) {
  if (log.completed) return {};
  if (const auto index = log.stopped_at()) return where(*index);
  for (size_t row = rows.size(); row-- > 0;) {
    if (log.rows[row].started) return "the log of the run ends after the row " + std::string(rows[row].key);
  }
  return log.started ? "the run ended before the first row" : "the run ended before it had started";
}

// Whether the SEEPROM test had no identity to work with, which leaves no record.
bool card_unknown(const run_log &log, const device_log &device) {
  constexpr char no_driver[] = "Error in opening /dev/sprom for reading";
  const device_log &first_pcie = log.devices[first_case(row_count - 1)];
  return device.messages.contain(no_driver) || first_pcie.messages.contain("Invalid card detected");
}

decision decide_failed(const record *found) {
  if (found == nullptr) return {verdict::fail, no_record};
  return {verdict::fail, found->result == RECORD_PASS ? "its record says pass" : ""};
}

decision decide_unrecorded(size_t index, const run_log &log) {
  const device_log &device = log.devices[index];
  if (is_nothing(index)) return {verdict::skip, nothing_there};
  if (device.record_lost) return {verdict::error, "its record could not be written"};
  if (row_of_case(index) == 0 && card_unknown(log, device)) return {verdict::skip, "the card is not known"};
  return {verdict::error, no_record};
}

decision decide(size_t index, const record *found, const run_log &log) {
  const device_log &device = log.devices[index];
  const size_t row = row_of_case(index);
  if (rows[row].short_skips && log.short_test()) {
    if (found == nullptr) return {verdict::skip, left_out};
    return {verdict::error, "a record, although the log shows a short test"};
  }
  if (device.failed) return decide_failed(found);
  if (!device.started && !log.completed) return {verdict::error, where_stopped(log)};
  if (found != nullptr && found->result == RECORD_FAIL) return {verdict::fail, "the log has no ERROR line of it"};
  if (device.started && !device.ended) return {verdict::error, where(index)};
  if (found != nullptr) return {verdict::pass, device.started ? "" : "the log does not show it"};
  return decide_unrecorded(index, log);
}

// ---- what is wrong beside the cases

void warn_of_log(const run_log &log, report *result) {
  auto &warnings = result->warnings;
  if (!log.completed) {
    warnings.push_back(where_stopped(log));
    if (log.asserted) warnings.emplace_back("an assertion ended the run");
  }
  const bool failed = result->count(verdict::fail) > 0;
  if (log.passed == true && failed) warnings.emplace_back("the run printed Completed Successfully, but devices failed");
  if (log.passed == false && !failed) warnings.emplace_back("the run printed Failed, but no device did");
  if (log.completed && !log.passed) warnings.emplace_back("the log does not show the run's verdict");
}

void warn_of_cases(report *result) {
  for (const test_case &one : result->cases) {
    if (one.result != verdict::skip || one.reason == nothing_there || one.reason == left_out) continue;
    result->warnings.emplace_back("without a known card the rows seeprom and pcie compare nothing");
    return;
  }
}

// Lines of every start prove nothing once it has succeeded.
bool is_usual(const run_log &log, std::string_view text) {
  return log.started && (text.starts_with("devmemfd:0x") || text.starts_with("phys->virt: 0x"));
}

void add_log(const run_log &log, report *result) {
  for (size_t index = 0; index < case_count; ++index)
    result->cases[index].messages = log.devices[index].messages;
  for (size_t row = 0; row < row_count; ++row)
    result->seconds[row] = log.rows[row].seconds;
  for (const message_list *list : {&log.startup, &log.between}) {
    for (const message &one : list->kept) {
      if (!is_usual(log, one.text)) result->messages.add(one.line, one.text);
    }
    result->messages.more += list->more;
  }
  result->change_bits = log.change_bits;
  result->passed = log.passed;
}

// Whether the log's run can have written a record of the device. One that ended early has none of devices that it does
// not show: such a record is another run's.
bool can_record(const run_log &log, size_t index) {
  const device_log &device = log.devices[index];
  const size_t row = row_of_case(index);
  if (rows[row].short_skips && log.short_test()) return false;
  if (row == 0 && card_unknown(log, device)) return false;
  return !device.record_lost && (device.started || log.completed);
}

// How many of the last records are those of a log's run.
size_t records_of(const run_log &log, const std::deque<record> &records, size_t end) {
  size_t start = end;
  const auto follows = [&](size_t i) { return i + 1 == end || records[i].index < records[i + 1].index; };
  while (start > 0 && can_record(log, records[start - 1].index) && follows(start - 1))
    --start;
  return end - start;
}

}  // namespace

std::string_view verdict_name(verdict value) {
  constexpr std::array<std::string_view, 4> names = {"PASS", "FAIL", "SKIP", "ERROR"};
  return names[static_cast<size_t>(value)];
}

std::string test_case::name() const {
  return std::string(rows[row].key) + "." + std::to_string(device);
}

size_t report::count(verdict value) const {
  return static_cast<size_t>(
      std::ranges::count_if(cases, [value](const test_case &one) { return one.result == value; }));
}

bool report::clean() const {
  return count(verdict::fail) == 0 && count(verdict::error) == 0 && warnings.empty();
}

report make_report(std::span<const record> records, const run_log *log) {
  report result;
  const case_records found = by_case(records);
  for (size_t index = 0; index < case_count; ++index) {
    decision decided = log != nullptr ? decide(index, found[index], *log) : decide_by_records(index, found);
    test_case &one = result.cases[index];
    one.row = row_of_case(index);
    one.device = static_cast<int32_t>(index - first_case(one.row));
    one.result = decided.result;
    one.reason = std::move(decided.reason);
  }
  if (log != nullptr) add_log(*log, &result);
  if (log != nullptr ? log->short_test() : short_by_records(found))
    result.short_test = true;
  else if (has_long_row(log, found))
    result.short_test = false;
  if (log != nullptr) warn_of_log(*log, &result);
  warn_of_cases(&result);
  return result;
}

std::vector<run_pair> pair_runs(const std::deque<record> &records, const std::deque<run_log> &logs) {
  std::vector<run_pair> pairs;
  size_t end = records.size();
  const auto take_last = [&](size_t count, const run_log *log) {
    const auto last = records.begin() + static_cast<std::ptrdiff_t>(end);
    pairs.push_back({{last - static_cast<std::ptrdiff_t>(count), last}, log});
    end -= count;
  };
  for (size_t i = logs.size(); i-- > 0;)
    take_last(records_of(logs[i], records, end), &logs[i]);
  while (end > 0)
    take_last(end - last_run_start(records, end), nullptr);
  std::ranges::reverse(pairs);
  return pairs;
}

}  // namespace lab
