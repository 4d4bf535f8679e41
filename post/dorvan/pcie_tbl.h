// pcie_tbl.h: the PCI functions that the cards of the dorvan family carry, with the positions at which they must be.
#pragma once

#include <stdint.h>

#include <array>

extern "C" {
struct pci_dev_tbl_entry {
  uint8_t bus;
  uint8_t dev;
  uint8_t func;
  uint32_t vendor;
  uint32_t device;
  char description[100];
};

// cards.h says which cards they belong to.
extern const std::array<pci_dev_tbl_entry, 15> pci_dev_tbl_dorvan_a;
extern const std::array<pci_dev_tbl_entry, 20> pci_dev_tbl_dorvan_b;
extern const std::array<pci_dev_tbl_entry, 20> pci_dev_tbl_dorvan_b_p1;
extern const std::array<pci_dev_tbl_entry, 11> pci_dev_tbl_dorvan_c;
extern const std::array<pci_dev_tbl_entry, 14> pci_dev_tbl_dorvan_d;
}
