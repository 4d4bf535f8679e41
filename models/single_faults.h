// single_faults.h: every single fault of a memory's lines and every kind of bad cell, one by one. What a run printed or
// a memory answered is compared with each of them.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "models/fault.h"
#include "models/lines.h"

namespace models {

enum class memory_kind : uint8_t { nvram, flash };

// ---- lines

struct single_line_fault {
  chip_fault fault;
  bool address;  // lines of the address bus, else of the data bus
  bad_lines bad;
};

// Every single fault of address lines first_line..last_line and of 16 data lines: stuck, shorted, and data lines
// floating. The plainer ones first.
[[nodiscard]] std::vector<single_line_fault> line_faults(memory_kind memory, unsigned first_line, unsigned last_line);

// ---- cells

// A fault of the table with one choice of its levels.
struct cell_variant {
  fault_id id;
  uint8_t level = either_level;
  uint8_t vlevel = either_level;
  bool two_cells = false;
  std::string_view what = {};  // for people, of the cell that reads wrong

  [[nodiscard]] std::string_view name() const;
};

[[nodiscard]] std::vector<cell_variant> cell_variants(memory_kind memory);

// ---- notation

// The fault as it is asked for: "nvram-addr-short instance=0 line=9 other=10 wins=0". Of the parameters that may be
// left out, it has `wins` and those that differ from their defaults. sim::fault_parse takes it.
//   instance  of the NVRAM; ignored for other parts
[[nodiscard]] std::string notation(const chip_fault &fault, unsigned instance = 0);

}  // namespace models
