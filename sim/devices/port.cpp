// port.cpp: I/O port 0x50C.
#include "sim/devices/port.h"

#include <cerrno>

#include "sim/bus/trace.h"
#include "sim/bus/trap.h"
#include "sim/host/real.h"

namespace sim {

namespace {

constinit uint32_t latch = port_initial;
constinit uint32_t stuck_high = 0;
constinit uint32_t stuck_low = 0;
constinit int refusal = 0;  // errno of iopl, 0 for none
constinit int level = 0;

uint32_t pins() {
  return (latch | stuck_high) & ~stuck_low;
}

void check(uint16_t port, unsigned width) {
  if (port != port_number || width != 32) trap_die("%u-bit access to I/O port %#x: no device answers", width, port);
}

}  // namespace

void port_start(const options &opts) {
  latch = port_initial;
  stuck_high = stuck_low = 0;
  refusal = level = 0;
  for (const auto &f : opts.faults) {
    if (f.id == fault_id::iopl_refused) refusal = f.error();
    if (f.id == fault_id::port_stuck) (f.get("level") != 0 ? stuck_high : stuck_low) |= 1U << f.get("bit");
  }
}

bool port_allowed() {
  return level == 3;
}

uint32_t port_in(uint16_t port, unsigned width) {
  check(port, width);
  const uint32_t data = pins();
  trace_access("port", 'r', width, port, data);
  return data;
}

void port_out(uint16_t port, unsigned width, uint32_t data) {
  check(port, width);
  trace_access("port", 'w', width, port, data);
  latch = data;
}

int port_set_level(int wanted) {
  if (wanted < 0 || wanted > 3) return fail(EINVAL);
  if (wanted > level && refusal != 0) return fail(refusal);
  level = wanted;
  return 0;
}

bool port_write_protected() {
  return (pins() & port_protect_bit) != 0;
}

}  // namespace sim
