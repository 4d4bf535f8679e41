// pci_list.h: the board's PCI functions, as the kernel lists them.
#pragma once

#include <span>
#include <string>
#include <vector>

#include "sim/base/needs.h"

namespace sim {

// The contents of /proc/bus/pci/devices of the board that `opts` asks for: a line for each function, in ascending order
// of bus, device and function, with position, ids, interrupt, seven base addresses, seven sizes and the driver's name.
std::string pci_list(const options &opts);

// The card indices of the family dorvan whose functions are known.
std::vector<uint32_t> known_cards();

// What faults may need of the PCI list.
std::span<const need_row> pci_needs();

}  // namespace sim
