// mmap_pci_velto_or.h: from a hardware type to the physical registers of its PCI function.
//
// Everything is read from the kernel's list, /proc/bus/pci/devices; configuration space is not touched.
#pragma once

#include <stdint.h>

extern "C" {
// The PCI identity of one hardware type.
struct mmap_pci_map_t {
  uint32_t m_hwtype;  // hwtype_defs.h
  uint16_t m_vendor_id;
  uint16_t m_device_id;
  uint32_t m_num_inst;  // instances on the board
};

// First match wins.
extern const mmap_pci_map_t mmap_pci_map_cat1[5];  // boards of category 1
extern const mmap_pci_map_t mmap_pci_map[5];       // the others

// One line of the list: 17 hexadecimal columns, and a flag for the search.
struct pci_dev_line_t {
  uint32_t m_busdevfn;       // bus * 256 + device * 8 + function
  uint32_t m_vendor_device;  // vendor id * 65536 + device id
  uint32_t m_irq;
  uint32_t m_base[7];    // BAR 0 to 5 and the expansion ROM: address with the low flag bits
  uint32_t m_size[7];    // region sizes of the same
  uint32_t m_not_found;  // 1 while the search goes on, 0 once a callback has found what it looks for
};

// Looks at one line. `ctx` is the search's own. The status of the last call is the scan's.
using pci_line_cb_t = uint32_t (*)(pci_dev_line_t *line, void *ctx);

// Context of _pci_find_cb_vendor_device: what to find, and the position to search from, which the search moves on.
struct pci_find_vendor_device_t {
  uint32_t m_vendor_device;
  uint32_t *m_pci_bus;
  uint32_t *m_pci_dev;
  uint32_t *m_pci_func;
};

// Context of _pci_find_cb_base_len.
struct pci_find_base_len_t {
  uint32_t m_busdevfn;  // the function
  uint32_t m_bar;       // which BAR, 0 to 5
  uint32_t *m_base;     // receives the address without flag bits
  uint32_t *m_len;      // receives the size
};

// Whether the board is of category 1. This board family never is.
[[nodiscard]] uint32_t mmap_is_cat1();

// Finds the first function with that id at or after a position, in the list's order.
//   pci_if                        set to 0
//   pci_bus, pci_dev, pci_func    in: where to start; a function above 7 or a device above 31 carries over.
//                                 out: the function found. Device and function may have been reset when none is.
// Returns  HW_SUCCESS
//          PCI_ERR_DEVICE_NOT_FOUND  none there
//          HW_ERR_FILE_IO            the list cannot be opened
[[nodiscard]] uint32_t pci_find_by_vendor_device(uint16_t vendor, uint16_t device, uint32_t *pci_if, uint32_t *pci_bus,
                                                 uint32_t *pci_dev, uint32_t *pci_func);

// Finds the registers of instance `inst` of a hardware type.
//   bar   configuration-space offset of the base address register, 0x10 to 0x24; the low two bits do not matter
//   base  receives the physical base address
//   len   receives the region's length in bytes
// Returns  HW_SUCCESS
//          PCI_ERR_UNKNOWN_PCI_DEVICE   the type has no PCI identity
//          PCI_ERR_INST_NOT_FOUND       the board has fewer instances; a message says so
//          PCI_ERR_DEVICE_NOT_FOUND     the list has fewer; a message says so
//          PCI_ERR_64_BIT_MEMORY_SPACE  the region lies above 4 GiB; a message says so. Only *len is written.
//          HW_ERR_FILE_IO               the list cannot be opened
// On the other failures *base and *len keep their values.
[[nodiscard]] uint32_t mmap_get_map_pci(uint32_t hwtype, uint32_t inst, uint32_t bar, uint32_t *base, uint32_t *len);

// Runs `callback` over the lines of the list until it clears m_not_found. Columns that a line lacks keep what the line
// before had. Of a column above 32 bits, the low 32 are kept where long has 64 bits; elsewhere it becomes all ones.
// Returns HW_ERR_FILE_IO, PCI_ERR_DEVICE_NOT_FOUND or the last call's status.
[[nodiscard]] uint32_t _pci_scan_devices_file(pci_line_cb_t callback, void *ctx);

// Callbacks; their contexts are above.
uint32_t _pci_find_cb_vendor_device(pci_dev_line_t *line, void *ctx);
uint32_t _pci_find_cb_base_len(pci_dev_line_t *line, void *ctx);

// Reads the PCI identity of instance `inst` from the map row of its hardware type.
// Returns HW_SUCCESS, or PCI_ERR_INST_NOT_FOUND after a message.
[[nodiscard]] uint32_t _pci_get_vendor_device_id(const mmap_pci_map_t *row, uint32_t inst, uint16_t *vendor,
                                                 uint16_t *device);
}
