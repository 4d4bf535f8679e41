#include "sim/devices/nvram.h"

#include <signal.h>
#include <unistd.h>

#include "sim/devices/cut_audit.h"

namespace sim {

void nvram_model::start(std::span<uint8_t> contents, unsigned instance, const options &opts, cut_audit *audit) {
  std::vector<models::chip_fault> faults;
  m_power_cut = nullptr;
  for (const auto &f : opts.faults) {
    if (f.row().part != fault_part::nvram || f.get(parm::instance) != instance) continue;
    faults.push_back(models::chip_fault_of(f));
    if (f.id == fault_id::nvram_power_cut) m_power_cut = &f;
  }
  m_ram = models::nvram(models::memory(contents), faults);
  m_audit = audit;
}

void nvram_model::write(uint32_t offset, uint16_t word, uint16_t lanes) {
  const auto w = m_ram.arrives(offset, word, lanes);
  if (m_power_cut != nullptr && m_power_cut->strikes()) {
    m_ram.tear(w, m_power_cut->get(parm::seed));
    kill(getpid(), SIGKILL);
  }
  if (m_audit != nullptr) m_audit->write(w);
  m_ram.take(w);
  if (m_audit != nullptr) m_audit->done();
}

}  // namespace sim
