// fake_acc.h: an access method of the test's own. It fills a driver's callback block as the mapping layer does, logs
// every lock, bus cycle and wait in one list, and lets a device model answer. The PCI lookup and the busy wait are
// stand-ins, too: time passes by call.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

// What sits on the bus.
class bus_device {
 public:
  virtual ~bus_device() = default;
  virtual uint16_t read(uint32_t inst, uint32_t offset) = 0;
  virtual void write(uint32_t inst, uint32_t offset, uint16_t data) = 0;
};

struct region {
  uint32_t status;
  uint32_t base;
  uint32_t len;
};

struct fake_acc_t {
  bus_device *device = nullptr;
  std::map<uint32_t, region> bars;  // by configuration-space offset; others are not found
  uint32_t describe_status = 0;     // of mmap_acc_init
  uint32_t init_status = 0;         // of m_init
  uint32_t access_status = 0;       // of m_rd and m_wr
  bool without_locks = false;
  bool without_read = false;
  bool without_write = false;
  bool without_init = false;
  bool logging = true;
  // One event each: "pci 0x18", "map OBFL_Flash 1 x 2 0x4000000 @ 0xf8000000", "init", "fini", "+r0", "-r0", "+w0",
  // "-w0" for the locks of instance 0, "r0 aaa=f0" and "w0 aaa=f0" for its cycles, "wait 512".
  std::vector<std::string> log;
};

extern fake_acc_t fake_acc;

// The log as lines, and the log with the cycles alone.
std::string log_text();
std::vector<std::string> cycles();
