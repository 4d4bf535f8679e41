// fake_os.h: the operating system's side of the hardware access library, in place of the C library's entry points:
// a PCI device list of the test's own, and a /dev/mem over ordinary memory that holds every 32-bit physical address.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

struct fake_os_t {
  std::optional<std::string> pci_devices;  // contents of /proc/bus/pci/devices; none: it cannot be opened
  int pci_opened = 0;                      // how often it was asked for
  bool devmem_absent = false;
  bool devmem_read_only = false;  // mapping it for writing fails
  std::vector<int> devmem_flags;  // of each open
};

extern fake_os_t fake_os;

// Physical memory as the devices see it.
uint32_t phys_read(uint64_t address, unsigned bytes);
void phys_write(uint64_t address, unsigned bytes, uint32_t value);
