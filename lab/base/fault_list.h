// fault_list.h: the board's faults and their notation, under this program's own names.
#pragma once

#include "faults/fault.h"
#include "faults/text.h"

namespace lab {

using sim::fault_row;
using sim::fault_text;
using sim::parm_name;
using sim::parm_row;
using sim::parse_fault_text;
using sim::words_of;

// A whole number in C notation: decimal, hexadecimal after 0x, octal after 0.
[[nodiscard]] inline std::optional<uint64_t> parse_c_number(std::string_view text) {
  return sim::parse_number(text);
}

// The pieces between separators, empty ones included.
[[nodiscard]] std::vector<std::string_view> pieces_of(std::string_view text, char separator);

}  // namespace lab
