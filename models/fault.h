// fault.h: one fault of a memory chip or its lines, as the models take it.
#pragma once

#include <cstdint>

#include "faults/fault.h"

namespace models {

using sim::fault;
using sim::fault_id;

inline constexpr uint8_t either_level = 2;
inline constexpr uint32_t every_sector = UINT32_MAX;

// The kind of a fault by its id, its parameters by their names in the table of faults; those that its kind lacks are
// not looked at.
struct chip_fault {
  fault_id id;
  // Lines, as bits of the byte offset or of the data word.
  uint8_t line = 0;
  uint8_t other = 0;
  uint8_t wins = 0;
  bool commands = false;  // of the flash: in command and status cycles, too
  // Cells, as bits of a byte at an offset.
  uint8_t level = either_level;
  uint8_t vlevel = either_level;
  uint8_t bit = 0;
  uint8_t vbit = 0;
  uint32_t offset = 0;
  uint32_t victim = 0;
  // Operations and the query of the flash.
  uint32_t sector = every_sector;
  bool dq5 = false;
  uint16_t value = 0;
  uint32_t word = 0;
  uint32_t program = 0;  // status reads
  uint32_t erase = 2;
  // Says when the fault acts and counts where that makes a difference; must stay. Null: it always acts.
  const fault *cause = nullptr;
};

// A fault of the NVRAM or the flash as it was asked for. It must stay.
[[nodiscard]] chip_fault chip_fault_of(const fault &f);

// The same as of a fault, of a cause that may be null.
[[nodiscard]] inline bool acts(const fault *cause) {
  return cause == nullptr || cause->acts();
}
inline void count(const fault *cause) {
  if (cause != nullptr) cause->fired();
}
[[nodiscard]] inline bool strikes(const fault *cause) {
  return cause == nullptr || cause->strikes();
}

}  // namespace models
