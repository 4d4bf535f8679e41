#include "sim/devices/port.h"

#include <cerrno>

#include "sim/bus/trace.h"
#include "sim/bus/trap.h"
#include "sim/host/real.h"

namespace sim {

namespace {

void check(uint16_t port, unsigned width) {
  if (port != port_number || width != 32) trap_die("%u-bit access to I/O port %#x: no device answers", width, port);
}

}  // namespace

io_port::io_port(const options &opts) {
  for (const auto &f : opts.faults) {
    if (f.id == fault_id::iopl_refused) m_refusal = f.error();
    if (f.id == fault_id::port_stuck) (f.get("level") != 0 ? m_stuck_high : m_stuck_low) |= 1U << f.get("bit");
  }
}

int io_port::set_level(int wanted) {
  if (wanted < 0 || wanted > 3) return fail(EINVAL);
  if (wanted > m_level && m_refusal != 0) return fail(m_refusal);
  m_level = wanted;
  return 0;
}

uint32_t io_port::in(uint16_t port, unsigned width) const {
  check(port, width);
  const uint32_t data = pins();
  bus_passed({"port", 'r', width, port, data});
  return data;
}

void io_port::out(uint16_t port, unsigned width, uint32_t data) {
  check(port, width);
  bus_passed({"port", 'w', width, port, data});
  m_latch = data;
}

}  // namespace sim
