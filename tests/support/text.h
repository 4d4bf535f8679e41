// text.h: texts taken apart and put together.
#pragma once

#include "tests/support/test.h"

// The pieces of a text, which end at line ends or at another separator.
inline std::vector<std::string> lines_of(const std::string &text, char separator = '\n') {
  std::vector<std::string> lines;
  std::istringstream stream(text);
  for (std::string line; std::getline(stream, line, separator);)
    lines.push_back(line);
  return lines;
}

// Does the steps of a script, "STEP = WHAT IT GIVES; ...".
inline void expect_steps(const std::string &script, const std::function<std::string(const std::string &step)> &act) {
  for (const std::string &step : lines_of(script, ';')) {
    const auto first = step.find_first_not_of(' '), equals = step.find(" =");
    EXPECT_EQ(act(step.substr(first, equals - first)), equals + 3 < step.size() ? step.substr(equals + 3) : "") << step;
  }
}

// The texts with "; " between those that are not empty.
inline std::string joined(const std::vector<std::string> &texts) {
  std::string all;
  for (const std::string &text : texts)
    if (!text.empty()) all += (all.empty() ? "" : "; ") + text;
  return all;
}

// The cycles of board-sim's log of its buses, "flash w 16 0xaaa 0xaa", a line each, without their times.
inline std::string bus_cycles(const std::string &log) {
  std::string cycles;
  for (const std::string &line : lines_of(log))
    cycles += line.substr(line.find(' ') + 1) + "\n";
  return cycles;
}
