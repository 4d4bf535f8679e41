// pcie.h: every PCI function that the card should carry, at its bus position.
//
// Detects functions that the kernel's list lacks at their place, or has with other ids.
// Does not detect additional functions, slow or narrow links, or functions that answer and do not work. A missing
// function after the sixth of its table is printed and fails no device. Without a list, a known card or a known
// revision everything passes.
#pragma once

#include <stdint.h>

#include "post/dorvan/pcie_tbl.h"

extern "C" {
// Hands out one bit of the comparison's outcome; a PostTestFn. The first call of the run compares. Devices 0 to 3 are
// table rows 0 to 3, devices 5 and 6 rows 4 and 5; device 4 has no row.
// Returns 0, or the device's bit.
uint32_t dorvan_pcie_test(uint32_t reserved, uint32_t *result, uint32_t device, uint32_t *scratch);

// Compares the card's table with the scanned functions and prints a line for each one missing.
//   fail_mask  gets the bits of missing rows set, bit i for rows 0 to 3, bit i + 1 for the others
// Returns 0 when nothing is missing or the board revision has no table, 1 when something is or the card is unknown,
// or the non-zero result of the scan or of the card index read.
[[nodiscard]] int32_t pciscan_test(uint32_t *fail_mask);

// Reads /proc/bus/pci/devices, once a run; the first 150 lines.
// Returns 0, or -1 with a message when the list cannot be opened.
[[nodiscard]] int32_t pci_scan_devices();

// Returns 0 when the row's function was scanned with the row's ids, else -1.
[[nodiscard]] int32_t pci_find_device(const pci_dev_tbl_entry *row);

// Prints the scanned functions; for use from a debugger. Returns the scan's result.
int32_t pci_dump_devices();
}
