// trap.h: device accesses by way of the processor's faults. A load or store to memory without access rights raises
// SIGSEGV, and so does an I/O instruction of an ordinary process. The handler decodes that one instruction, asks the
// device, puts the result into the interrupted registers and goes on behind it.
#pragma once

#include <cstddef>
#include <cstdint>

namespace sim {

// What the processor's accesses reach.
class cpu_bus {
 public:
  cpu_bus() = default;
  cpu_bus(const cpu_bus &) = delete;
  cpu_bus &operator=(const cpu_bus &) = delete;
  virtual ~cpu_bus() = default;

  // Whether a device is mapped at the address.
  [[nodiscard]] virtual bool holds(uintptr_t address) = 0;

  // One load or store of 8, 16, 32 or 64 bits. Returns false, with nothing done, where no device is mapped for it.
  [[nodiscard]] virtual bool load(uintptr_t address, unsigned width, uint64_t *data) = 0;
  [[nodiscard]] virtual bool store(uintptr_t address, unsigned width, uint64_t data) = 0;

  // Whether the process has the privilege to use I/O ports; in and out of 8, 16 or 32 bits.
  [[nodiscard]] virtual bool port_allowed() = 0;
  [[nodiscard]] virtual uint32_t port_in(uint16_t port, unsigned width) = 0;
  virtual void port_out(uint16_t port, unsigned width, uint32_t data) = 0;
};

// Puts the handler in place and lets this thread take its signal. A handler that is there already, now or at a later
// call, gets the faults that meet no device.
void trap_install(cpu_bus *bus);

// Puts the earlier handler back, if ours is in place.
void trap_remove();

// Ends the run with a message of the printf form on standard error, which may be used inside the handler.
[[noreturn]] void trap_die(const char *format, ...) __attribute__((format(printf, 1, 2)));

}  // namespace sim
