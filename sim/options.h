// options.h: what a run asks of the simulated board.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "sim/fault.h"

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
  sim::busy busy = busy::polls;
  bool real_times = false;  // flash timings of the real chip instead of the scaled ones
  std::vector<fault> faults;

  // The first fault of that name, or null.
  [[nodiscard]] const fault *find(std::string_view name) const;
};

// Parses the command line of board-sim up to "--" (`args` without the program's name). On failure returns nothing
// and says why in *error. The same text form, one argument a line, travels to the preloaded library in BOARD_SIM_ARGS.
std::optional<options> options_parse(std::span<const std::string> args, std::string *error);

}  // namespace sim
