// device_results.h: the results of one run's devices, in the forms that people and machines read. All forms report the
// same for each case.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "lab/results/identity.h"
#include "lab/run/cases.h"

namespace lab {

struct device_results {
  report run;
  board_identity board;
  int64_t ended = 0;               // when the run did, in seconds since 1970
  std::vector<std::string> notes;  // what a reader should know, but no finding
  std::string tool_version;
};

// An extra case for the run as a whole if it has findings of its own, named "run": always an ERROR.
[[nodiscard]] std::string run_finding(const device_results &results);

// "card 11062, part SUP-DORVAN, serial SIM00000001, change bits 0x1", as much of it as is known.
[[nodiscard]] std::string board_text(const device_results &results);
// The change bits as the run printed them, else as the SPROM holds them, "" if neither is known.
[[nodiscard]] std::string change_bits_text(const device_results &results);

// PASS if the run is clean, FAIL if devices failed and all else is known, else ERROR: it has no result.
[[nodiscard]] verdict run_verdict(const report &run);

// The lines of a message list with what was left out.
[[nodiscard]] std::vector<std::string> lines_of(const message_list &messages);

// "short", "full", or "not known" where no row of the run was seen.
[[nodiscard]] std::string_view test_kind(const report &run);

// What a failed case, or one without a result, says: its first line, its reason, or both. "" for others.
[[nodiscard]] std::string explanation(const test_case &one);

// Whole seconds of a row, 0 if they are not known.
[[nodiscard]] int32_t seconds_of(const report &run, size_t row);

[[nodiscard]] std::string table(const device_results &results);
// Test results of the Open Compute Project's test and validation output, version 2.0: a line of JSON each.
[[nodiscard]] std::string ocp_lines(const device_results &results);
[[nodiscard]] std::string junit_text(const device_results &results);
// Kernel test anything protocol, version 1. Text from files is only in its comments.
[[nodiscard]] std::string ktap(const device_results &results);
// Text of Prometheus, for a file that the node exporter's text-file collector reads.
[[nodiscard]] std::string prometheus(const device_results &results);
// Entries for the systemd journal: "FIELD=value" lines, an empty line after each entry. An entry for each device, and
// one for the run.
[[nodiscard]] std::string journal_entries(const device_results &results);

}  // namespace lab
