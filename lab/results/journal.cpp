#include "lab/results/device_results.h"

namespace lab {
namespace {

// Names of the two kinds of entries in post/boot/post-boot.catalog.
constexpr char device_message[] = "eec05277b37a4bf4ad86356f00964c27";
constexpr char run_message[] = "1fd89486be9c4301bcee12a663859d61";

// syslog(3): LOG_ERR, LOG_WARNING, LOG_INFO
const char *priority_of(verdict result) {
  if (result == verdict::fail) return "3";
  return result == verdict::error ? "4" : "6";
}

std::string field(std::string_view name, std::string_view value) {
  if (value.empty()) return {};
  return std::string(name) + "=" + std::string(value) + "\n";
}

std::string entry(const device_results &results, const char *id, verdict result, const std::string &subject,
                  const std::string &why) {
  const std::string message = "POST: " + subject + ": " + std::string(verdict_name(result));
  return field("MESSAGE_ID", id) + field("PRIORITY", priority_of(result)) + field("SYSLOG_IDENTIFIER", "post") +
         field("MESSAGE", why.empty() ? message : message + ": " + why) + field("POST_RESULT", verdict_name(result)) +
         field("POST_REASON", why) + field("POST_CARD", results.board.card ? std::to_string(*results.board.card) : "") +
         field("POST_PART", results.board.part) + field("POST_SERIAL", results.board.serial) +
         field("POST_CHANGE_BITS", change_bits_text(results));
}

std::string device_entry(const device_results &results, const test_case &one) {
  const std::string why = one.result == verdict::skip ? one.reason : explanation(one);
  return entry(results, device_message, one.result, one.name() + " (" + std::string(one.part()) + ")", why) +
         field("POST_TEST", rows[one.row].key) + field("POST_DEVICE", std::to_string(one.device)) +
         field("POST_DEVICE_NAME", one.part()) + "\n";
}

std::string count_text(const report &run, verdict result, const char *what) {
  const size_t count = run.count(result);
  return count == 0 ? "" : std::string("devices ") + what + ": " + std::to_string(count);
}

std::string run_entry(const device_results &results) {
  const verdict result = run_verdict(results.run);
  // Which test a run was is known at its end.
  const std::string mode = result == verdict::error ? "" : std::string(test_kind(results.run));
  std::string why;
  for (const std::string &part : {count_text(results.run, verdict::fail, "failed"),
                                  count_text(results.run, verdict::error, "without a result"), run_finding(results)}) {
    if (!part.empty()) why += (why.empty() ? "" : "; ") + part;
  }
  return entry(results, run_message, result, mode.empty() ? "the run" : mode + " test", why) +
         field("POST_MODE", mode) + "\n";
}

}  // namespace

std::string journal_entries(const device_results &results) {
  std::string out;
  for (const test_case &one : results.run.cases)
    out += device_entry(results, one);
  return out + run_entry(results);
}

}  // namespace lab
