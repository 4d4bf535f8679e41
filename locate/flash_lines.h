// flash_lines.h: which line of the flash, or pair of lines, is broken: by reads, by commands, and with consent by words
// that are written. A fault of the models is named if only it gives exactly these answers.
#pragma once

#include "locate/finding.h"
#include "locate/flash_bus.h"

namespace locate {

// Adds what it finds, and what it looked at, to *result.
//   rounds  how often to read some words again
//   write   whether two sectors may be erased, written and restored
void locate_flash_lines(flash_bus *bus, unsigned rounds, bool write, part_result *result);

}  // namespace locate
