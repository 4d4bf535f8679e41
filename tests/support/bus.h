// bus.h: what passed on the board's buses, in the words of board-sim's log: "flash w 16 0xaaa 0xaa".
#pragma once

#include "tests/support/test.h"

// The cycles of a log, a line each, without their times.
inline std::string bus_cycles(const std::string &log) {
  std::string cycles;
  std::istringstream lines(log);
  for (std::string line; std::getline(lines, line);)
    cycles += line.substr(line.find(' ') + 1) + "\n";
  return cycles;
}
