#include "tests/unit/fake_acc.h"

#include <cstdio>
#include <cstring>

#include "platform/mfgd/cmn_lib/diag_util/spin.h"
#include "platform/mfgd/cmn_lib/hw_acc/hw_err.h"
#include "platform/mfgd/cmn_lib/hw_acc/mmap/mmap_acc.h"
#include "platform/mfgd/cmn_lib/hw_acc/mmap/mmap_pci_velto_or.h"
#include "platform/mfgd/hw_acc/hwtype_defs.h"

fake_acc_t fake_acc;

namespace {

template <typename... Values>
void note(const char *fmt, Values... values) {
  if (!fake_acc.logging) return;
  char text[128];
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
#pragma GCC diagnostic ignored "-Wformat-security"
  (void)snprintf(text, sizeof text, fmt, values...);
#pragma GCC diagnostic pop
  fake_acc.log.emplace_back(text);
}

uint32_t rd(uint32_t inst, uint32_t offset, uint32_t *data, void * /*parm*/) {
  // The upper half is noise, as a wider access method might leave it.
  *data = 0xDEAD0000 | (fake_acc.device != nullptr ? fake_acc.device->read(inst, offset) : 0U);
  note("r%u %x=%x", inst, offset, *data & 0xFFFF);
  return fake_acc.access_status;
}

uint32_t wr(uint32_t inst, uint32_t offset, uint32_t data, void * /*parm*/) {
  note("w%u %x=%x", inst, offset, data);
  if (fake_acc.device != nullptr) fake_acc.device->write(inst, offset, static_cast<uint16_t>(data));
  return fake_acc.access_status;
}

uint32_t init(void * /*parm*/) {
  note("init");
  return fake_acc.init_status;
}

uint32_t fini(void * /*parm*/) {
  note("fini");
  return MMAP_ERR_MUNMAP;
}

// Locks report failure: no driver may care.
template <char op, char kind>
uint32_t lock(uint32_t inst, void * /*parm*/) {
  note("%c%c%u", op, kind, inst);
  return HW_ERR_READ_LOCK_ACQ;
}

}  // namespace

std::string log_text() {
  std::string text;
  for (const std::string &event : fake_acc.log)
    text += event + "\n";
  return text;
}

std::vector<std::string> cycles() {
  std::vector<std::string> result = fake_acc.log;
  std::erase_if(result, [](const std::string &event) { return event[0] == '+' || event[0] == '-'; });
  return result;
}

extern "C" {

uint32_t mmap_acc_sizeof(uint32_t n) {
  return 16 + n;
}

uint32_t mmap_acc_init(mmap_info_t *info, const char *hw_name, uint32_t num_inst, const uint32_t *base_addr,
                       uint32_t len, uint32_t width, hw_acc_cb_t *cb) {
  char bases[64] = "";
  for (uint32_t i = 0; i < num_inst; ++i)
    (void)snprintf(bases + strlen(bases), sizeof bases - strlen(bases), " 0x%x", base_addr[i]);
  note("map %s %u x %u 0x%x @%s", hw_name, num_inst, width, len, static_cast<const char *>(bases));
  *cb = {};
  (void)snprintf(cb->m_name, sizeof cb->m_name, "%s", hw_name);
  cb->m_parm = info;
  if (!fake_acc.without_read) cb->m_rd = rd;
  if (!fake_acc.without_write) cb->m_wr = wr;
  if (!fake_acc.without_init) cb->m_init = init;
  if (!fake_acc.without_init) cb->m_fini = fini;
  if (fake_acc.without_locks) return fake_acc.describe_status;
  cb->m_rd_lk_acq = lock<'+', 'r'>;
  cb->m_rd_lk_rel = lock<'-', 'r'>;
  cb->m_wr_lk_acq = lock<'+', 'w'>;
  cb->m_wr_lk_rel = lock<'-', 'w'>;
  return fake_acc.describe_status;
}

uint32_t mmap_get_map_pci(uint32_t hwtype, uint32_t inst, uint32_t bar, uint32_t *base, uint32_t *len) {
  note("pci 0x%x", bar);
  const auto found = fake_acc.bars.find(bar);
  if (hwtype != HWTYPE_PLX_PCI || inst != 0 || found == fake_acc.bars.end()) return PCI_ERR_DEVICE_NOT_FOUND;
  if (found->second.status != HW_SUCCESS) return found->second.status;
  *base = found->second.base;
  *len = found->second.len;
  return HW_SUCCESS;
}

void diag_spin_usec(uint32_t usec) {
  note("wait %u", usec);
}
}
