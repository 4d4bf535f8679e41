// pci_list.h: the board's PCI functions, as the kernel lists them.
#pragma once

#include <string>

#include "sim/board/options.h"

namespace sim {

// The contents of /proc/bus/pci/devices of the board that `opts` asks for: a line for each function, in ascending order
// of bus, device and function, with position, ids, interrupt, seven base addresses, seven sizes and the driver's name.
std::string pci_list(const options &opts);

// Tells why the board cannot have the faults that `opts` asks of its PCI functions: "" if it can.
std::string pci_check(const options &opts);

}  // namespace sim
