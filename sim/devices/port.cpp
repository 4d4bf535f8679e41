#include "sim/devices/port.h"

#include <cerrno>
#include <vector>

#include "sim/base/real.h"
#include "sim/bus/trace.h"
#include "sim/bus/trap.h"

namespace sim {

namespace {

void check(uint16_t port, unsigned width) {
  if (port != port_number || width != 32) trap_die("%u-bit access to I/O port %#x: no device answers", width, port);
}

}  // namespace

io_port::io_port(const options &opts) : m_refusal(opts.find(fault_id::iopl_refused)) {
  for (const auto &f : opts.faults)
    if (f.id == fault_id::port_stuck) m_stuck.push_back(&f);
}

uint32_t io_port::pins(uint32_t seen) const {
  uint32_t now = *m_latch;
  for (const auto *const f : m_stuck) {
    const uint32_t bit = 1U << f->get(parm::bit);
    const uint32_t wrong = f->get(parm::level) != 0 ? now | bit : now & ~bit;
    if (((wrong ^ now) & seen) != 0 && f->strikes()) now = wrong;
  }
  return now;
}

int io_port::set_level(int wanted) {
  if (wanted < 0 || wanted > 3) return fail(EINVAL);
  if (wanted > m_level && m_refusal != nullptr && m_refusal->strikes()) return fail(m_refusal->error());
  m_level = wanted;
  return 0;
}

uint32_t io_port::in(uint16_t port, unsigned width) const {
  check(port, width);
  const uint32_t data = pins(~0U);
  bus_passed({"port", 'r', width, port, data});
  return data;
}

void io_port::out(uint16_t port, unsigned width, uint32_t data) {
  check(port, width);
  bus_passed({"port", 'w', width, port, data});
  *m_latch = data;
}

}  // namespace sim
