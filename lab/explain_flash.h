// explain_flash.h: which single faults make the flash test print what it printed, by a model of the chip and the test's
// own accesses.
#pragma once

#include <cstdint>
#include <optional>
#include <vector>

#include "lab/explain_group.h"

namespace lab {

// What the flash test and its driver print.
enum class flash_line : uint8_t {
  gave_up,    // "Reached the max timeout and DQ5 bit is set"
  timed_out,  // "Reached the max timeout but DQ5 bit not set"
  erase_failed,
  write_failed,    // of a list of words
  restore_failed,  // of a whole sector
  mismatch,        // a word reads back as another one
};

struct flash_event {
  flash_line what;
  // Of a mismatch: address, the word written, the word read, as far as the lines tell.
  std::optional<uint32_t> address = {};
  std::optional<uint32_t> data = {};
  std::optional<uint32_t> read = {};

  friend bool operator==(const flash_event &, const flash_event &) = default;
};

// The faults that make the test print these lines: operations of the chip, then lines, then cells.
//   whole  nothing was printed behind them
[[nodiscard]] std::vector<fault_group> explain_flash(const std::vector<flash_event> &events, bool whole);

}  // namespace lab
