// options.h: the options of a run on the simulated board.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "faults/fault.h"

namespace sim {

enum class family { dorvan, pellin, tosk };

// What busy devices (flash, EEPROM) count their busy time in.
enum class busy { polls, time };

struct options {
  sim::family family = family::dorvan;
  uint32_t card = 11062;     // card index
  uint64_t change_bits = 1;  // hardware change bits of the supervisor image; 1 is revision P1
  std::string state;         // state directory, absolute
  std::string trace;         // bus log, absolute; empty for none. With a log every device access is trapped.
  uint64_t trace_limit = 0;  // bytes that the log may have, 0 for any number
  std::string cut_audit;     // audit of power cuts, absolute; empty for none. Every write to a memory is trapped then.
  std::string occasions;     // how many occasions each fault had in each row, absolute; empty for none
  sim::busy busy = busy::polls;
  bool real_times = false;   // flash timings of the real chip instead of the scaled ones
  bool patch = true;         // device accesses may become jumps in the program's memory
  bool short_waits = false;  // /proc/cpuinfo names a clock so slow that waits end at once
  std::vector<fault> faults;

  // The first of these faults, or null.
  [[nodiscard]] const fault *find(fault_id id) const;
};

// The options of the launcher itself.
enum class action { run, help, version, list_faults };

struct command {
  sim::action action = sim::action::run;
  bool show_result = false;  // print the result records after the run
  bool estimate = false;     // show how long the run takes, and how much is left
  std::string fault_report;  // file for how often each fault fired; empty for none
  options opts;              // an empty state directory asks for a temporary one
  std::string program;       // empty for the default program
  std::vector<std::string> arguments;
};

// Parses a whole command line of board-sim, without the program's name. On failure returns nothing and says why in
// *error: unknown option, missing or bad value, unknown fault.
std::optional<command> command_parse(std::span<const std::string> args, std::string *error);

// The same, only for options of the board.
std::optional<options> options_parse(std::span<const std::string> args, std::string *error);

// Options as arguments, one per line: BOARD_SIM_ARGS passes them to the preloaded library and to ethtool.
std::string options_format(const options &opts);
std::optional<options> options_parse_lines(std::string_view lines, std::string *error);

inline constexpr const char *options_variable = "BOARD_SIM_ARGS";

// Text for --help: one paragraph for each option.
std::string options_help();

}  // namespace sim
