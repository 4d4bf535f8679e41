// protection.h: the write protection of a SPROM, as the chip's pin has it.
#pragma once

#include <string>

#include "sprom/board/board.h"

namespace tool {

enum class protect_state {
  none,     // the board has none for this SPROM
  on,       //
  off,      //
  absent,   // nothing answers for the module that has the pin
  unknown,  // it cannot be looked at
};

struct protection_t {
  protect_state state;
  int32_t error;  // of absent and unknown, a negative errno value
};

// Looks at port or pin.
protection_t protection_of(const entry_t &entry);

// What protects the SPROM, for messages: "bit 27 of I/O port 0x50c", "pin 3 of /dev/i2c-7:0x75"; "" for nothing.
std::string protector_text(const entry_t &entry);

// Switches the protection on, and looks whether it is. Returns false after a message.
[[nodiscard]] bool restore_protection(const entry_t &entry);

}  // namespace tool
