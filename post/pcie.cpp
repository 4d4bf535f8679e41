#include "post/pcie.h"

#include <stdio.h>
#include <string.h>

#include <algorithm>
#include <array>
#include <span>

#include "platform/mfgd/cmn_lib/diag_util/owner.h"
#include "post/dorvan/cards.h"
#include "post/dorvan/pfm_card.h"
#include "post/hw_change_bits.h"
#include "post/post_tbl.h"

namespace {

struct pci_scan_entry {
  uint8_t bus;
  uint8_t dev;
  uint8_t func;
  uint32_t vendor;
  uint32_t device;
  uint32_t base[2];  // the line's first two base addresses
};

constinit std::array<pci_scan_entry, 150> pci_scan_list{};
constinit uint32_t pci_scan_count = 0;
constinit int32_t pci_scan_done = 0;

constinit uint32_t pcie_fail_mask = 0;
constinit int32_t pcie_scan_pending = 1;

std::span<const pci_scan_entry> scanned() {
  return std::span(pci_scan_list).first(pci_scan_count);
}

// What a short or foreign line does not give is 0.
pci_scan_entry parse_line(const char *line) {
  unsigned position = 0;
  unsigned irq = 0;
  pci_scan_entry entry{};
  (void)sscanf(line, "%4x %4x%4x %x %x %x ", &position, &entry.vendor, &entry.device, &irq, &entry.base[0],
               &entry.base[1]);
  entry.bus = static_cast<uint8_t>(position >> 8);
  entry.dev = (position >> 3) & 0x1F;
  entry.func = position & 7;
  return entry;
}

void report_missing(const pci_dev_tbl_entry &row) {
  printf(
      "## %s: PCI device - %s\n"
      "           (bus:%02X, dev:%02X, func:%02X, vendId:%04X, devId:%04X)\n",
      "Failed", row.description, row.bus, row.dev, row.func, row.vendor, row.device);
}

void report_detection() {
  puts("## Info : Based on P0 board detection.");
}

}  // namespace

uint32_t dorvan_pcie_test(uint32_t /*reserved*/, uint32_t *result, uint32_t device, uint32_t * /*scratch*/) {
  if (pcie_scan_pending != 0) {
    (void)pciscan_test(&pcie_fail_mask);
    pcie_scan_pending = 0;
  }
  const uint32_t status = pcie_fail_mask & (1U << (device % 32));
  *result = post_result_of(status);
  return status;
}

int32_t pciscan_test(uint32_t *fail_mask) {
  uint16_t card_index = PFM_CARD_UNKNOWN;
  if (const int32_t status = pci_scan_devices(); status != 0) return status;
  if (const uint32_t status = pfm_get_card_index(&card_index); status != 0) return static_cast<int32_t>(status);

  const uint64_t change_bits = dorvan_post_hw_change_bits_get();
  const dorvan_card_t *const card = dorvan_card(card_index);
  if (card == nullptr) {
    puts("Invalid card detected");
    report_detection();
    return 1;
  }
  const auto table = dorvan_pci_functions(*card, change_bits);
  bool failed = false;
  for (size_t i = 0; i < table.size(); ++i) {
    if (pci_find_device(&table[i]) == 0) continue;
    if (!failed) putchar('\n');  // ends the line of the progress dots
    failed = true;
    report_missing(table[i]);
    *fail_mask |= 1U << dorvan_pci_device(i);
  }
  if (!failed) return 0;
  report_detection();
  return 1;
}

int32_t pci_scan_devices() {
  if (pci_scan_done != 0) return 0;
  pci_scan_list.fill({});
  const file_ptr list(fopen("/proc/bus/pci/devices", "r"));
  if (!list) {
    puts("Unable to open /proc/bus/pci/devices");
    return -1;
  }
  char line[1023];  // longer lines come in pieces
  uint32_t count = 0;
  while (count < pci_scan_list.size() && fgets(line, sizeof line, list.get()) != nullptr) {
    pci_scan_list[count++] = parse_line(line);
  }
  pci_scan_count = count;
  pci_scan_done = 1;
  return 0;
}

int32_t pci_find_device(const pci_dev_tbl_entry *row) {
  const bool found = std::ranges::any_of(scanned(), [row](const pci_scan_entry &e) {
    return e.bus == row->bus && e.dev == row->dev && e.func == row->func && e.vendor == row->vendor &&
           e.device == row->device;
  });
  return found ? 0 : -1;
}

int32_t pci_dump_devices() {
  const int32_t status = pci_scan_devices();
  if (status != 0) return status;
  puts("## Info  : Dumping PCI devices");
  puts("    Bus  Dev  Func  VendorID  DeviceID");
  puts("    ===  ===  ====  ========  ========");
  int index = 0;
  for (const pci_scan_entry &e : scanned()) {
    printf("%2d. %02X   %02X   %02X    %04X      %04X\n", index++, e.bus, e.dev, e.func, e.vendor, e.device);
  }
  return status;
}
