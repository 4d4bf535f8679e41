// trap.h: device accesses by way of the processor's faults. A load or store to memory without access rights raises
// SIGSEGV, and so does an I/O instruction of an ordinary process. The handler decodes that one instruction. If it can,
// it patches the move, so that this and all later accesses do without a signal (patch.h). Else it asks the device and
// puts the result into the interrupted registers; the kernel goes on after the instruction.
#pragma once

#include <ucontext.h>

#include <cstddef>
#include <cstdint>

#include "sim/bus/decode.h"

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

// Installs the handler and unblocks its signal for this thread. A handler that was there already, now or at a later
// call, gets the faults that do not concern a device.
//   may_patch  whether moves may be patched
void trap_install(cpu_bus *bus, bool may_patch);

// Puts the earlier handler back, if ours is in place. Patched moves stay jumps, which no device answers.
void trap_remove();

// Decodes the instruction that a signal interrupted and fetches its registers. Returns false if it is no move.
[[nodiscard]] bool decode_interrupted(const ucontext_t &context, cpu_regs *regs, insn *i);

// Ends the run with a message of the printf form on standard error, which may be used inside the handler.
[[noreturn]] void trap_die(const char *format, ...) __attribute__((format(printf, 1, 2)));

}  // namespace sim
