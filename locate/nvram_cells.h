// nvram_cells.h: which cells of an NVRAM are bad, and which cells disturb them.
//
// A march over all words, with what is there as its zeros and the inverse as its ones, finds the cells that fail: March
// SS (Hamdioui, van de Goor, Rodgers: "March SS", MTDT 2002), 22 accesses a word and 4 more, for single cells and pairs
// in two words; then a tour through four patterns and their inverses within each word, 144 accesses, for pairs in one.
// What disturbs a failing cell is found by halves: half of the words do what may disturb, and the cell is looked at. A
// list of accesses to the two words then distinguishes the kinds of fault, by the models.
#pragma once

#include "locate/device.h"
#include "locate/finding.h"
#include "locate/journal.h"

namespace locate {

// Measures the cells of an open memory with good lines and adds what is found to *result. The contents are in the
// journal meanwhile, which must be open, and in their places afterwards. Signals must be held; one that waits ends it.
// Returns the numbers of the words that failed.
std::vector<uint32_t> locate_cells(word_bus *ram, unsigned instance, const settings &how, journal *kept,
                                   part_result *result);

}  // namespace locate
