// row_lines.h: the lines of one device, and what those of each row of the program mean.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "lab/explain/explain.h"

namespace lab {

// The whole lines of one device, or of what is printed before the first row or between rows. A line that the log stops
// in is no evidence.
struct row_lines {
  std::string_view row;  // key, "startup", or "between"
  std::string part;      // "eth2"
  std::string device;    // "gige.2", "" for none
  std::vector<message> lines;
  bool failed = false;
  bool row_failed = false;  // this device or another one of the row
  std::vector<bool> used;   // which lines are of known text

  [[nodiscard]] const std::string &text(size_t line) const { return lines[line].text; }
  [[nodiscard]] size_t count() const { return lines.size(); }
};

// Each takes the lines that it knows and says what is wrong.
[[nodiscard]] std::vector<finding> explain_seeprom(row_lines *lines);
[[nodiscard]] std::vector<finding> explain_gige(row_lines *lines);
[[nodiscard]] std::vector<finding> explain_nvram(row_lines *lines);
[[nodiscard]] std::vector<finding> explain_obfl(row_lines *lines);
[[nodiscard]] std::vector<finding> explain_pcie(row_lines *lines);

// Marks a line as known and adds it to the evidence.
void take_line(row_lines *lines, size_t line, finding *found);

// The PCI functions that are reported missing only because the program took one revision of a card for another become a
// consequence of the finding that shows why. Where not all that are missing is seen, they can be that or faults.
void join_misread_revision(uint64_t change_bits, bool all_seen, std::vector<finding> *findings);

}  // namespace lab
