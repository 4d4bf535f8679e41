// explain_readers.h: what the lines of each row of the program say.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "lab/explain.h"

namespace lab {

// The lines of one device, or of what is printed before the first row or between rows.
struct device_lines {
  std::string_view row;  // key, or "startup"
  std::string part;      // "eth2"
  std::string device;    // "gige.2", "" for none
  const message_list *messages = nullptr;
  bool failed = false;
  bool row_failed = false;  // this device or another one of the row
  bool whole = false;       // nothing is missing at the end
  std::vector<bool> used;   // which lines are of known text

  [[nodiscard]] const std::string &text(size_t line) const { return messages->kept[line].text; }
  [[nodiscard]] size_t count() const { return messages->kept.size(); }
};

// Each takes the lines that it knows and says what is wrong.
[[nodiscard]] std::vector<finding> read_seeprom(device_lines *lines);
[[nodiscard]] std::vector<finding> read_gige(device_lines *lines);
[[nodiscard]] std::vector<finding> read_nvram(device_lines *lines);
[[nodiscard]] std::vector<finding> read_obfl(device_lines *lines);
[[nodiscard]] std::vector<finding> read_pcie(device_lines *lines);

// Marks a line as known and adds it to the evidence.
void take_line(device_lines *lines, size_t line, finding *found);

}  // namespace lab
