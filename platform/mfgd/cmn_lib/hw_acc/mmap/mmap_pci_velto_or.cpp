#include "platform/mfgd/cmn_lib/hw_acc/mmap/mmap_pci_velto_or.h"

#include <stdio.h>

#include <algorithm>
#include <span>

#include "platform/mfgd/cmn_lib/diag_util/diag_assert.h"
#include "platform/mfgd/cmn_lib/diag_util/diag_dbg.h"
#include "platform/mfgd/cmn_lib/diag_util/owner.h"
#include "platform/mfgd/cmn_lib/hw_acc/hw_err.h"
#include "platform/mfgd/hw_acc/hwtype_defs.h"
#include "platform/mfgd/hw_acc/switch_asic.h"

extern "C" {

// clang-format off
const mmap_pci_map_t mmap_pci_map_cat1[5] = {
    // hardware type           vendor                 device  instances
    {HWTYPE_INTEL_MAC_82571,   0x8086,                0x105E,  5},
    {HWTYPE_SYS_WL_SMBUS,      0x8086,                0x269B,  1},
    {HWTYPE_TESSARYN,          SWITCH_ASIC_VENDOR_ID, 0x0078,  1},
    {HWTYPE_LORWEN,            SWITCH_ASIC_VENDOR_ID, 0x00BE, 14},
    {HWTYPE_PLX_PCI,           0x10B5,                0x9030,  1},
};

const mmap_pci_map_t mmap_pci_map[5] = {
    // hardware type           vendor                 device  instances
    {HWTYPE_INTEL_MAC_82571,   0x8086,                0x105E,  5},
    {HWTYPE_SYS_WL_SMBUS,      0x8086,                0x269B,  1},
    {HWTYPE_TESSARYN,          SWITCH_ASIC_VENDOR_ID, 0x0078,  1},
    {HWTYPE_LORWEN,            SWITCH_ASIC_VENDOR_ID, 0x00BE, 14},
    {HWTYPE_PLX_PCI,           0x10B5,                0x9030,  1},
};
// clang-format on

}  // extern "C"

namespace {

constexpr char devices_path[] = "/proc/bus/pci/devices";
constexpr int line_size = 1024;
constexpr int read_size = line_size - 1;

// Low bits of a BAR (PCI Local Bus Specification 3.0, section 6.2.5.1).
enum : uint32_t {
  BAR_IO = 0x1,             // I/O space
  BAR_64_BIT = 0x4,         // memory space: 64-bit address, with the next BAR as its upper half
  BAR_IO_FLAGS = 0x3,       // bits of an I/O BAR that are no address
  BAR_MEMORY_FLAGS = 0x7F,  // the bridge's smallest memory region, its registers, has 128 bytes
};

struct position_t {
  uint32_t m_bus;
  uint32_t m_dev;
  uint32_t m_func;
};

position_t position_of(uint32_t busdevfn) {
  return {.m_bus = busdevfn >> 8, .m_dev = (busdevfn >> 3) & 0x1F, .m_func = busdevfn & 7};
}

// Parsing stops at the first column that is no number; what a wide column makes is the C library's choice.
void parse_line(const char *text, pci_dev_line_t *line) {
  auto &base = line->m_base;
  auto &size = line->m_size;
  (void)sscanf(text, "%x %x %x %x %x %x %x %x %x %x %x %x %x %x %x %x %x ", &line->m_busdevfn, &line->m_vendor_device,
               &line->m_irq, &base[0], &base[1], &base[2], &base[3], &base[4], &base[5], &base[6], &size[0], &size[1],
               &size[2], &size[3], &size[4], &size[5], &size[6]);
}

const mmap_pci_map_t *find_row(uint32_t hwtype) {
  const std::span<const mmap_pci_map_t> table = mmap_is_cat1() != 0 ? mmap_pci_map_cat1 : mmap_pci_map;
  const auto row = std::ranges::find(table, hwtype, &mmap_pci_map_t::m_hwtype);
  return row != table.end() ? &*row : nullptr;
}

// The position of instance `inst`, counted in the list's order.
uint32_t find_instance(uint16_t vendor, uint16_t device, uint32_t inst, position_t *found) {
  position_t from = {};
  for (uint32_t i = 0; i <= inst; ++i) {
    uint32_t pci_if = 0;
    const uint32_t rc = pci_find_by_vendor_device(vendor, device, &pci_if, &from.m_bus, &from.m_dev, &from.m_func);
    if (rc != HW_SUCCESS) return rc;
    *found = from;
    ++from.m_func;
  }
  return HW_SUCCESS;
}

}  // namespace

extern "C" {

uint32_t mmap_is_cat1() {
  return 0;
}

uint32_t _pci_scan_devices_file(pci_line_cb_t callback, void *ctx) {
  const file_ptr file(fopen(devices_path, "r"));
  if (!file) return HW_ERR_FILE_IO;
  pci_dev_line_t line = {};
  line.m_not_found = 1;
  uint32_t rc = HW_SUCCESS;
  char text[line_size];
  while (line.m_not_found != 0 && fgets(text, read_size, file.get()) != nullptr) {
    parse_line(text, &line);
    rc = callback(&line, ctx);
  }
  return line.m_not_found != 0 ? PCI_ERR_DEVICE_NOT_FOUND : rc;
}

uint32_t _pci_find_cb_vendor_device(pci_dev_line_t *line, void *ctx) {
  const auto &find = *static_cast<const pci_find_vendor_device_t *>(ctx);
  const position_t here = position_of(line->m_busdevfn);
  line->m_not_found = 1;
  if (here.m_bus < *find.m_pci_bus) return HW_SUCCESS;
  if (here.m_bus > *find.m_pci_bus) {
    *find.m_pci_dev = 0;
    *find.m_pci_func = 0;
  }
  if (here.m_dev < *find.m_pci_dev) return HW_SUCCESS;
  if (here.m_dev > *find.m_pci_dev) *find.m_pci_func = 0;
  if (here.m_func < *find.m_pci_func) return HW_SUCCESS;
  if (line->m_vendor_device != find.m_vendor_device) return HW_SUCCESS;
  *find.m_pci_bus = here.m_bus;
  *find.m_pci_dev = here.m_dev;
  *find.m_pci_func = here.m_func;
  line->m_not_found = 0;
  return HW_SUCCESS;
}

uint32_t _pci_find_cb_base_len(pci_dev_line_t *line, void *ctx) {
  const auto &find = *static_cast<const pci_find_base_len_t *>(ctx);
  line->m_not_found = 1;
  if (line->m_busdevfn != find.m_busdevfn) return HW_SUCCESS;
  line->m_not_found = 0;
  *find.m_len = line->m_size[find.m_bar];
  const uint32_t value = line->m_base[find.m_bar];
  if ((value & BAR_IO) != 0) {
    *find.m_base = value & ~BAR_IO_FLAGS;
    return HW_SUCCESS;
  }
  if (find.m_bar % 2 == 0 && (value & BAR_64_BIT) != 0 && line->m_base[find.m_bar + 1] != 0) {
    const position_t here = position_of(line->m_busdevfn);
    diag_dbg_print(DIAG_LVL_ERR, "%s(): ERROR: PCI BAR %u is a 64-bit memory space for 0x%x:0x%x:0x%x\n", __func__,
                   find.m_bar, here.m_bus, here.m_dev, here.m_func);
    return PCI_ERR_64_BIT_MEMORY_SPACE;
  }
  *find.m_base = value & ~BAR_MEMORY_FLAGS;
  return HW_SUCCESS;
}

uint32_t pci_find_by_vendor_device(uint16_t vendor, uint16_t device, uint32_t *pci_if, uint32_t *pci_bus,
                                   uint32_t *pci_dev, uint32_t *pci_func) {
  assert(pci_if && pci_bus && pci_dev && pci_func);
  if (*pci_func > 7) {
    *pci_func = 0;
    ++*pci_dev;
  }
  if (*pci_dev > 31) {
    *pci_dev = 0;
    ++*pci_bus;
  }
  if (*pci_bus > 255) return PCI_ERR_DEVICE_NOT_FOUND;
  *pci_if = 0;
  pci_find_vendor_device_t find = {
      .m_vendor_device = uint32_t{vendor} << 16 | device,
      .m_pci_bus = pci_bus,
      .m_pci_dev = pci_dev,
      .m_pci_func = pci_func,
  };
  return _pci_scan_devices_file(_pci_find_cb_vendor_device, &find);
}

uint32_t _pci_get_vendor_device_id(const mmap_pci_map_t *row, uint32_t inst, uint16_t *vendor, uint16_t *device) {
  if (inst < row->m_num_inst) {
    *vendor = row->m_vendor_id;
    *device = row->m_device_id;
    return HW_SUCCESS;
  }
  diag_dbg_print(DIAG_LVL_ERR,
                 "%s(): ERROR: Unable to find memory map for hardware type %u(%s         - %s), inst: %u\n", __func__,
                 row->m_hwtype, hwtype_to_str(row->m_hwtype), hwtype_desc(row->m_hwtype), inst);
  return PCI_ERR_INST_NOT_FOUND;
}

uint32_t mmap_get_map_pci(uint32_t hwtype, uint32_t inst, uint32_t bar, uint32_t *base, uint32_t *len) {
  DIAG_STD_ASSERT_AS(hwtype < HWTYPE_MAX, "(id >= HWTYPE_NULL) && (id < HWTYPE_MAX)");
  assert(base && len);
  bar -= bar % 4;
  assert((bar >= 0x10) && (bar <= 0x24));
  const mmap_pci_map_t *const row = find_row(hwtype);
  if (row == nullptr) return PCI_ERR_UNKNOWN_PCI_DEVICE;
  uint16_t vendor = 0;
  uint16_t device = 0;
  uint32_t rc = _pci_get_vendor_device_id(row, inst, &vendor, &device);
  if (rc != HW_SUCCESS) return rc;
  position_t at = {};
  rc = find_instance(vendor, device, inst, &at);
  if (rc == PCI_ERR_DEVICE_NOT_FOUND)
    diag_dbg_print(DIAG_LVL_ERR, "%s(): The device could not be found for vendorID: %d deviceID: %d instance: %d.\n",
                   __func__, vendor, device, inst);
  if (rc != HW_SUCCESS) return rc;
  pci_find_base_len_t find = {
      .m_busdevfn = at.m_bus * 256 + ((at.m_dev * 8) & 0xFF) + (at.m_func & 7),
      .m_bar = (bar - 0x10) / 4,
      .m_base = base,
      .m_len = len,
  };
  return _pci_scan_devices_file(_pci_find_cb_base_len, &find);
}

}  // extern "C"
