// explain_flash_cells.h: single bad cells of the flash, and pairs of them, that make the flash test print what it
// printed.
#pragma once

#include <vector>

#include "lab/explain_flash.h"

namespace lab {

// Adds the faults of cells. Arguments as of explain_flash.
void explain_flash_cells(const std::vector<flash_event> &events, bool whole, std::vector<fault_group> *groups);

// Whether a run that prints `printed` can have left `events`.
[[nodiscard]] bool flash_events_fit(const std::vector<flash_event> &printed, const std::vector<flash_event> &events,
                                    bool whole);

}  // namespace lab
