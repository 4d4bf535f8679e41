// lab_texts.h: the output and the records of healthy runs, and short forms of what is made of them.
#pragma once

#include <string_view>

#include "lab/run/cases.h"
#include "lab/run/records.h"
#include "lab/run/run_log.h"
#include "tests/support/text.h"

inline constexpr char full_log[] = R"(devmemfd:0x3
phys->virt: 0xf8000000-->0x7f6786400000
Starting system POST.....
P(0x1) board
  Executing Mod 1 1 SEEPROM Test: 
...done (0 seconds)
  Executing Mod 1 1 GigE Port Test: 
....done (2 seconds)
  Executing Mod 1 1 NVRAM Test: 
.done (1 seconds)
  Executing Mod 1 1 OBFL Test: 
.done (61 seconds)
  Executing Mod 1 1 PCIE Test: 
.......done (0 seconds)
  Mod 1 1 Post Completed Successfully
POST is completed
)";

inline constexpr char full_records[] =
    "0:4:0:1\n0:4:1:1\n0:5:0:1\n0:5:1:1\n0:5:2:1\n0:5:3:1\n0:8:0:1\n0:10:0:1\n"
    "0:12:0:1\n0:12:1:1\n0:12:2:1\n0:12:3:1\n0:12:4:1\n0:12:5:1\n0:12:6:1\n";

inline constexpr char short_records[] =
    "0:4:0:1\n0:4:1:1\n0:5:0:1\n0:5:1:1\n0:5:2:1\n0:5:3:1\n"
    "0:12:0:1\n0:12:1:1\n0:12:2:1\n0:12:3:1\n0:12:4:1\n0:12:5:1\n0:12:6:1\n";

// Replacements, each of the first place only.
using edits = std::vector<std::pair<std::string_view, std::string_view>>;

inline std::string edited(std::string text, const edits &changes) {
  for (const auto &[from, to] : changes) {
    const size_t at = text.find(from);
    if (at == std::string::npos) return "nothing like it: " + std::string(from);
    text.replace(at, from.size(), to);
  }
  return text;
}

// The text up to a piece of it.
inline std::string until(std::string_view text, std::string_view piece) {
  return std::string(text.substr(0, text.find(piece)));
}

// The text up to a piece of it and with it.
inline std::string through(std::string_view text, std::string_view piece) {
  return std::string(text.substr(0, text.find(piece) + piece.size()));
}

// The text from a piece of it on.
inline std::string from(std::string_view text, std::string_view piece) {
  return std::string(text.substr(text.find(piece)));
}

// "PPS PPPP P P PPPPPPP": the first letter of each verdict, row by row.
inline std::string letters(const lab::report &report) {
  std::string out;
  for (const lab::test_case &one : report.cases) {
    if (one.device == 0 && !out.empty()) out += ' ';
    out += lab::verdict_name(one.result)[0];
  }
  return out;
}

// The last run of records and log.
inline lab::report last_run(std::string_view records, std::string_view log) {
  const lab::log_file logs = lab::parse_run_log(log);
  const auto pairs = lab::pair_runs(lab::parse_records(records).records, logs.runs);
  return pairs.empty() ? lab::make_report({}, nullptr) : lab::make_report(pairs.back().records, pairs.back().log);
}
