// flash_commands.h: what the chip's command decoder sees of the lines, with the contents untouched.
//
// Three questions. The query and the autoselect codes are words that the sheet gives, for any contents of the array.
// The write buffer takes words of one page only, and aborts ("Write Buffer Programming"): so the chip compares two
// addresses. Words of all ones are loaded, and no confirmation is ever sent: nothing can be programmed.
#pragma once

#include "locate/flash_answers.h"

namespace locate {

// What the write buffer makes of a pair of addresses.
enum pair_answer : uint16_t { one_page = 1, two_pages = 2, no_answer = 3 };

// Asks everything, or until the chip does not take a reset. Where the chip does, it reads its array afterwards.
[[nodiscard]] flash_answers ask_commands(flash_bus *bus);

}  // namespace locate
