// Registers of hardware types in a text instead of /proc/bus/pci/devices. The first two bytes choose what is looked
// for.
#include "fuzz/fuzz.h"
#include "fuzz/text_file.h"
#include "platform/mfgd/cmn_lib/hw_acc/mmap/mmap_pci_velto_or.h"

namespace {

constexpr uint32_t untouched = 0x5A5A5A5A;

void look_up_registers(uint32_t hwtype, uint32_t inst, uint32_t bar) {
  uint32_t base = untouched;
  uint32_t len = untouched;
  const uint32_t status = mmap_get_map_pci(hwtype, inst, bar, &base, &len);
  MUST_HOLD(status == 0 || base == untouched);
}

// A function that is found is on the first bus of the search or on a later one. In a list out of order, a function of a
// later bus lets the search go on from the first device of any bus.
void search_from(uint32_t bus, uint32_t dev, uint32_t func) {
  uint32_t pci_if = untouched;
  uint32_t to[] = {bus, dev, func};
  if (pci_find_by_vendor_device(0x8086, 0x105E, &pci_if, &to[0], &to[1], &to[2]) != 0) return;
  MUST_HOLD(pci_if == 0);
  MUST_HOLD(to[1] < 32 && to[2] < 8);
  MUST_HOLD(to[0] >= bus);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size < 2) return 0;
  drop_output();
  set_file_text({reinterpret_cast<const char *>(data) + 2, size - 2});
  for (const mmap_pci_map_t &row : mmap_pci_map)
    look_up_registers(row.m_hwtype, data[0] & 3U, 0x10 + (data[1] % 6U) * 4);
  search_from(data[0], data[1] >> 3, data[1] & 7U);
  MUST_HOLD(!close_left_file());
  return 0;
}
