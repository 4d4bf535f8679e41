// parts.h: the parts of the board and their probes.
#pragma once

#include <array>
#include <string>
#include <string_view>

#include "locate/finding.h"
#include "locate/settings.h"

namespace locate {

// A probe distinguishes the faults of its part with few accesses, and leaves the part as it was.
[[nodiscard]] part_result probe_nvram(unsigned instance, const settings &how);
[[nodiscard]] part_result probe_flash(const settings &how);
[[nodiscard]] part_result probe_sproms(const settings &how);
[[nodiscard]] part_result probe_ethernet(const settings &how);
[[nodiscard]] part_result probe_pci(const settings &how);
[[nodiscard]] part_result probe_system(const settings &how);

// Restores what earlier runs that ended early have left in their journals. Returns whether all words have their
// contents again; *text has what it did, a line for each memory.
[[nodiscard]] bool restore_interrupted(const settings &how, std::string *text);

struct part_row {
  std::string_view name;
  part_result (*probe)(const settings &how);
};

// In the order in which they are probed and reported. First what POST's start-up needs: later probes wait for locks.
// clang-format off
inline constexpr std::array all_parts{std::to_array<part_row>({
    {"system",   probe_system},
    {"nvram0",   [](const settings &how) { return probe_nvram(0, how); }},
    {"nvram1",   [](const settings &how) { return probe_nvram(1, how); }},
    {"nvram2",   [](const settings &how) { return probe_nvram(2, how); }},
    {"flash",    probe_flash},
    {"sproms",   probe_sproms},
    {"ethernet", probe_ethernet},
    {"pci",      probe_pci},
})};
// clang-format on

}  // namespace locate
