// explain_group.h: many single faults in few words.
//
// A group is a kind of fault with lists of values: "nvram-cell-stuck instance=1 offset=0x10..0x1E/2,0x40 bit=3
// level=0". Each choice of one value a list is a fault as board-sim takes it. A list has numbers and words between
// commas:
//
//   5  0x10..0x1E  0x10..0x1E/2     a number, a range, one with a step
//   0x10..0x1E/2+0x40*8             a range 8 times, each 0x40 further on
//   0x10..0xFF>>offset              of a range what lies in a later 16-bit word than the value of another key,
//   0x10..0xFF~offset               in the same word
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "lab/explain_faults.h"
#include "lab/fault_list.h"

namespace lab {

struct fault_group {
  std::string name;
  std::vector<std::pair<std::string, std::string>> values;
  uint64_t count = 1;     // of faults
  uint64_t places = 1;    // of what is bad: lines, pairs of lines, cells that read wrong
  std::string where;      // what is bad, for people: "data line D3"
  std::string how;        // "stuck at 0"
  bool contents = false;  // what the run prints depends on what the memory held before

  [[nodiscard]] std::string text() const;
  // Whether a fault, as board-sim takes it, is in the group. When an intermittent fault acts does not matter.
  [[nodiscard]] bool holds(const fault_text &fault) const;
  // One of its faults: that of the last value of each list, or of the first.
  [[nodiscard]] std::string one(bool last) const;
};

// A group without its texts.
[[nodiscard]] fault_group group_named(std::string name, std::vector<std::pair<std::string, std::string>> values);

// Puts groups together that differ in the list of this key alone, but for where they are. A list of lines names all of
// them in `where`.
void join_groups(std::string_view key, std::vector<fault_group> *groups);

// The group of one line fault: "nvram-data-stuck line=3 level=0".
//   memory  "nvram" or "flash"
[[nodiscard]] fault_group line_group(std::string_view memory, const line_fault &fault);

// Numbers that go up as a list.
[[nodiscard]] std::string number_list(std::span<const uint32_t> numbers, bool hexadecimal);

}  // namespace lab
