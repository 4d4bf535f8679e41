// line_finding.h: bad lines of a memory in words.
#pragma once

#include <span>
#include <string>

#include "locate/finding.h"
#include "models/single_faults.h"

namespace locate {

// A memory as sentences and places name it.
struct memory_name {
  std::string sentence;   // "NVRAM 0"
  std::string part;       // "nvram0"
  unsigned instance = 0;  // of the faults' notation
};

// The finding of faults that give the same answers: one place, or one of several. The caller adds the evidence. Both
// levels of a stuck address line are one place: the line selects the same words in either case, and no access shows
// which half of them it is.
//   faults  at least one
[[nodiscard]] finding line_finding(const memory_name &of, std::span<const models::single_line_fault *const> faults);

// Whether all of these faults are of the same lines.
[[nodiscard]] bool is_one_place(std::span<const models::single_line_fault *const> faults);

}  // namespace locate
