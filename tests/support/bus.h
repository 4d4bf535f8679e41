// bus.h: what passed on the board's buses, in the words of board-sim's log: "flash w 16 0xaaa 0xaa".
#pragma once

#include <sstream>
#include <string>
#include <string_view>

// The cycles of a log, a line each, without their times.
//   device  of this device alone, such as "flash" or "i2c-1:52"; "" for all
inline std::string bus_cycles(const std::string &log, std::string_view device = "") {
  std::string cycles;
  std::istringstream lines(log);
  for (std::string line; std::getline(lines, line);) {
    const auto cycle = line.substr(line.find(' ') + 1) + "\n";
    if (device.empty() || cycle.starts_with(std::string(device) + " ")) cycles += cycle;
  }
  return cycles;
}

// Cycles to compare with, as a test writes them: a line each, indented as the test likes, blank lines left out.
inline std::string cycles(const std::string &text) {
  std::string list;
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);)
    if (const auto start = line.find_first_not_of(' '); start != std::string::npos) list += line.substr(start) + "\n";
  return list;
}
