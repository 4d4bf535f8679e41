// pci_list.h: the board's PCI functions, as the kernel lists them.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "sim/options.h"

namespace sim {

struct pci_function {
  uint8_t bus;
  uint8_t dev;
  uint8_t func;
  uint16_t vendor;
  uint16_t device;
  const char *driver;  // "" for none
};

// All functions of the board that `opts` asks for, faults included, in ascending order of bus, device and function.
// An unknown card has those of card 11062.
std::vector<pci_function> pci_functions(const options &opts);

// The contents of /proc/bus/pci/devices: a line for each function with position, ids, interrupt, seven base
// addresses, seven sizes and the driver's name.
std::string pci_list(const options &opts);

// Tells why the board cannot have the faults that `opts` asks of its PCI functions: "" if it can.
std::string pci_check(const options &opts);

}  // namespace sim
