// change_bits.h: the board's hardware change bits, by which the mezzanine's SPROM has one protect pin or another.
#pragma once

#include "sprom/base/options.h"
#include "sprom/base/output.h"
#include "sprom/board/board.h"

namespace tool {

// Makes sure that the library means the pin that protects the SPROM. It goes by the environment (DIAG_HW_CHANGE_BITS):
// where that says nothing, it is set for this process from the supervisor's image, and with what it says the image must
// agree. A SPROM with a single pin needs neither.
//   doubt  otherwise, why the pin is not known
// Returns EXIT_OK, EXIT_FAILED, or EXIT_BUSY where another process has the supervisor's EEPROM.
[[nodiscard]] exit_code settle_protect_pin(const options_t &options, const entry_t &entry, std::string &doubt);

// As settle_protect_pin for somebody about to drive the pin: --force takes the pin that the environment means. Anything
// else is a message that begins with `what`.
[[nodiscard]] exit_code check_protect_pin(const options_t &options, const entry_t &entry, const char *what);

}  // namespace tool
