// sheet.h: the results of one run in the forms that people and machines read. All forms tell the same of each case.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "lab/cases.h"
#include "lab/identity.h"

namespace lab {

struct sheet {
  report run;
  board_identity board;
  int64_t ended = 0;               // when the run did, in seconds since 1970
  std::vector<std::string> notes;  // what a reader should know, but no finding
  std::string tool_version;
};

// What stands beside the cases for the run as a whole where it has findings of its own, named "run": always an ERROR.
[[nodiscard]] std::string run_finding(const sheet &results);

// "card 11062, part SUP-DORVAN, serial SIM00000001, change bits 0x1", as much of it as is known.
[[nodiscard]] std::string board_text(const sheet &results);
// The change bits as the run printed them, else as the SPROM holds them, "" if neither is known.
[[nodiscard]] std::string change_bits_text(const sheet &results);

// The lines of a message list with what was left out.
[[nodiscard]] std::vector<std::string> lines_of(const message_list &messages);

// Whole seconds of a row, 0 if they are not known.
[[nodiscard]] int32_t seconds_of(const report &run, size_t row);

[[nodiscard]] std::string table(const sheet &results);
// Test results of the Open Compute Project's test and validation output, version 2.0: a line of JSON each.
[[nodiscard]] std::string ocp_lines(const sheet &results);
[[nodiscard]] std::string junit_xml(const sheet &results);
// Kernel test anything protocol, version 1. Nothing from a file stands outside of its comments.
[[nodiscard]] std::string ktap(const sheet &results);

}  // namespace lab
