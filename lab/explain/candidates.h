// candidates.h: many single faults in few words.
//
// A group is a kind of fault with lists of values: "nvram-cell-stuck instance=1 offset=0x10..0x1E/2,0x40 bit=3
// level=0". Each choice of one value a list is a fault as board-sim takes it. A list has numbers and words between
// commas:
//
//   5  0x10..0x1E  0x10..0x1E/2     a number, a range, one with a step
//   0x10..0x1E/2+0x40*8             a range 8 times, each 0x40 further on
//   *                               any value; where the parameter may be left out, also without it
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "lab/base/fault_list.h"
#include "models/single_faults.h"

namespace lab {

struct fault_group {
  std::string name;
  std::vector<std::pair<std::string, std::string>> values;
  std::string where = {};   // what is bad, for people: "data line D3"
  std::string how = {};     // "stuck at 0"
  bool may_differ = false;  // what the run prints also depends on something else, such as former contents
  size_t places = 1;        // that `where` stands for

  [[nodiscard]] std::string text() const;
  // Whether a fault, as board-sim takes it, is in the group. When an intermittent fault acts does not matter, nor which
  // of two shorted lines is named first.
  [[nodiscard]] bool holds(const fault_text &fault) const;
  // One of its faults: that of the last value of each list, or of the first.
  [[nodiscard]] std::string one(bool last) const;
  // How many faults it has; those that leave out a parameter do not count.
  [[nodiscard]] uint64_t count() const;
};

// The group of a pattern: "nvram-cell-coupled offset=* bit=* victim=0x10 vbit=1".
[[nodiscard]] fault_group group_of(std::string_view pattern);

// The group of one fault of a line, with where it is and how: "data line D3", "stuck at 0".
[[nodiscard]] fault_group line_group(const models::chip_fault &fault);

// Groups that differ only in one list are one. A list of lines names all of them in `where`.
[[nodiscard]] std::vector<fault_group> in_few_groups(std::span<const fault_group> groups);

// How many places the groups name: lines, pairs of lines, cells, bytes, operations.
[[nodiscard]] size_t count_places(std::span<const fault_group> groups);

// Numbers that go up as a list.
[[nodiscard]] std::string number_list(std::span<const uint32_t> numbers, bool hexadecimal);

}  // namespace lab
