// nvram_lines.h: which line of an NVRAM is broken, from rounds of 60 accesses.
//
// The words at {0, 2, 4, 8 ... 2^14} get tags that are unlike; then all are read. A stuck line brings the tag of its
// word to word 0, two shorted lines bring theirs to one word, and a bad data line spoils its bit. What each single
// fault answers comes from the models; the faults that answer exactly so are named.
#pragma once

#include <optional>

#include "locate/device.h"
#include "locate/finding.h"
#include "locate/journal.h"

namespace locate {

// One bit of one word is bad, as far as the lines' test shows.
struct seen_cell {
  uint32_t offset;  // of its word
  finding what;
};

// Measures the lines of an open memory and adds what is found to *result. Restores the words, as far as the fault lets
// them through, and names those that it may have changed.
// Signals must be held; one that waits ends the rounds.
//   rounds        how often at least to measure, from 1; more where answers differ or no line explains them
//   kept          where the words are written down meanwhile
//   cell          null, or receives a bad cell that *result then does not get: the cells' test shows its kind
// Returns whether the lines are good.
bool locate_lines(word_bus *ram, unsigned instance, unsigned rounds, journal *kept, part_result *result,
                  std::optional<seen_cell> *cell);

}  // namespace locate
