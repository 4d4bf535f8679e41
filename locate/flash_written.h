// flash_written.h: what only written words show of the flash's lines: data lines of a blank chip, lines after the
// command decoder.
//
// A fault of lines may lead a write into another sector, where nobody could undo it. So the steps come in an order in
// which each excludes what would harm the next: the lowest word of the chip is where lines are shorted, all levels
// being alike, and no erase of its sector goes astray. Then, where no line is shorted so that low wins, the highest
// word. Then more words.
#pragma once

#include <array>
#include <span>

#include "locate/flash_answers.h"

namespace locate {

struct written_step {
  uint32_t offset;  // of the first word; all are in one page
  std::span<const uint16_t> words;
};

[[nodiscard]] std::span<const written_step> written_steps();

struct restoring {
  size_t lost = 0;    // words that do not read back as they were, after several tries
  size_t failed = 0;  // erases and programs
};

// Saves the sector, erases it, writes the words, reads them and what has an address that differs from the first in one
// line, and restores the sector. An answer without an array is that of an operation, 1 if it succeeded.
//   how  receives how that went; null: the contents are not worth saving
[[nodiscard]] flash_answers ask_written(flash_bus *bus, const written_step &step, restoring *how);

}  // namespace locate
