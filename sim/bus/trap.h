// trap.h: device accesses by way of the processor's faults. A load or store to memory without access rights raises
// SIGSEGV, and so does an I/O instruction of an ordinary process. The handler decodes that one instruction, asks the
// device, puts the result into the interrupted registers and goes on behind it.
#pragma once

#include <cstddef>
#include <cstdint>

namespace sim {

// The bus that the handler works on. All widths are 8, 16 or 32 bits; 64-bit accesses come as two of 32, the lower
// half first, as on a 32-bit bus.
struct trap_bus {
  // Whether [address, address + bytes) belongs to a device and may be written, or read.
  bool (*covers)(uintptr_t address, size_t bytes, bool write);
  uint32_t (*read)(uintptr_t address, unsigned width);
  void (*write)(uintptr_t address, unsigned width, uint32_t data);

  // Whether the process has the privilege to use I/O ports.
  bool (*port_allowed)();
  uint32_t (*port_in)(uint16_t port, unsigned width);
  void (*port_out)(uint16_t port, unsigned width, uint32_t data);
};

// Puts the handler in place, keeping the one before for faults that meet no device. Later calls only change the bus.
void trap_install(const trap_bus &bus);

// Puts the earlier handler back.
void trap_remove();

// Ends the run with a message of the printf form on standard error, which may be used inside the handler.
[[noreturn]] void trap_die(const char *format, ...) __attribute__((format(printf, 1, 2)));

}  // namespace sim
