#include "platform/mfgd/cmn_lib/hw_acc/obfl/obfl_acc.h"

#include <math.h>
#include <stdlib.h>

#include <algorithm>

#include "platform/mfgd/cmn_lib/diag_util/diag_dbg.h"
#include "platform/mfgd/cmn_lib/diag_util/spin.h"
#include "platform/mfgd/cmn_lib/hw_acc/hw_acc_p.h"
#include "platform/mfgd/cmn_lib/hw_acc/mmap/mmap_acc.h"
#include "platform/mfgd/cmn_lib/hw_acc/mmap/mmap_pci_velto_or.h"
#include "platform/mfgd/hw_acc/hwtype_defs.h"

static constinit hw_acc_cb_t dev = {};
static constinit mmap_info_t *mmap_info = nullptr;
static constinit int32_t obfl_initialised = 0;

namespace {

constexpr uint32_t obfl_bar = 0x24;

// Command cycles (Spansion S29GL-N data sheet, "Command Definitions", word mode). Offsets are in bytes: the sheet's
// word addresses times 2.
enum : uint32_t {
  UNLOCK_1 = 0xAAA,
  UNLOCK_2 = 0x554,
  CFI_ENTRY = 0x0AA,
};

enum : uint16_t {
  CMD_UNLOCK_1 = 0x00AA,
  CMD_UNLOCK_2 = 0x0055,
  CMD_ERASE_SETUP = 0x0080,
  CMD_SECTOR_ERASE = 0x0030,
  CMD_WRITE_BUFFER = 0x0025,
  CMD_WRITE_CONFIRM = 0x0029,
  CMD_CFI_QUERY = 0x0098,
  CMD_RESET = 0x00F0,
};

// Byte offsets of query words (JEDEC JESD68.01, "System Interface Information"); each holds an exponent of 2.
enum : uint32_t {
  CFI_TYP_WR = 0x40,     // µs
  CFI_TYP_ERASE = 0x42,  // ms
  CFI_MAX_WR = 0x48,     // times the typical one
  CFI_MAX_ERASE = 0x4A,  // times the typical one
};

// Status bits (Spansion S29GL-N data sheet, "Write Operation Status").
enum : uint16_t {
  DQ2 = 1 << 2,  // toggles on reads inside a sector that is being erased
  DQ5 = 1 << 5,  // the flash has exceeded its own time limit
  DQ6 = 1 << 6,  // toggles on every read while an operation runs
};

uint16_t read_word(const hw_acc_cb_t &cb, uint32_t inst, uint32_t offset) {
  uint32_t value = 0;
  (void)hw_acc_rd(&cb, inst, offset, &value);
  return static_cast<uint16_t>(value);
}

// Two exponents of the query table.
struct cfi_pair_t {
  uint16_t m_typ;
  uint16_t m_max;
};

cfi_pair_t read_cfi(uint32_t inst, uint32_t typ_offset, uint32_t max_offset) {
  cfi_pair_t pair = {};
  (void)_obfl_wr(inst, CFI_ENTRY, CMD_CFI_QUERY);
  _obfl_rd(inst, typ_offset, &pair.m_typ);
  _obfl_rd(inst, max_offset, &pair.m_max);
  (void)_obfl_wr(inst, UNLOCK_1, CMD_RESET);
  return pair;
}

// The low 32 bits of a time. A power of two has none of them set from 2^32 on.
uint32_t time_of(double power_of_two) {
  constexpr double limit = 4294967296.0;
  return power_of_two < limit ? static_cast<uint32_t>(power_of_two) : 0;
}

void unlock(uint32_t inst) {
  (void)_obfl_wr(inst, UNLOCK_1, CMD_UNLOCK_1);
  (void)_obfl_wr(inst, UNLOCK_2, CMD_UNLOCK_2);
}

// How to poll: how many times, and how long before each.
struct polls_t {
  uint32_t m_count;
  uint32_t m_usec;
};

// typ and max in units of `unit` microseconds.
constexpr polls_t polls_of(uint32_t typ, uint32_t max, uint32_t unit, uint32_t fallback_us) {
  if (typ == 0 || typ > UINT32_MAX / unit) return {.m_count = 1, .m_usec = fallback_us};
  return {.m_count = std::max(max / typ, 1U), .m_usec = typ * unit};
}

// Polls until `running` bits no longer toggle, all of them.
uint32_t wait_ready(uint32_t inst, obfl_addr_t addr, polls_t polls, uint16_t running) {
  uint16_t status = 0;
  for (uint32_t i = 0; i < polls.m_count; ++i) {
    diag_spin_usec(polls.m_usec);
    uint16_t before = 0;
    _obfl_rd(inst, addr.addr, &before);
    _obfl_rd(inst, addr.addr, &status);
    if (((before ^ status) & running) != running) return HW_SUCCESS;
  }
  if ((status & DQ5) != 0)
    diag_dbg_print(DIAG_LVL_INFO, "Reached the max timeout and DQ5 bit is set\n");
  else
    diag_dbg_print(DIAG_LVL_INFO, "Reached the max timeout but DQ5 bit not set\n");
  return HW_ERR_TIMEOUT;
}

bool same_page(obfl_addr_t a, obfl_addr_t b) {
  return a.pw.sector == b.pw.sector && a.pw.page == b.pw.page;
}

}  // namespace

extern "C" {

uint32_t obfl_sw_init() {
  if (obfl_initialised != 0) return HW_SUCCESS;
  uint32_t addr = 0;
  uint32_t len = 0;
  uint32_t rc = DIAG_CALL_STATUS("mmap_get_map_pci( HWTYPE_PLX_PCI, 0, bar, &addr, &len)",
                                 mmap_get_map_pci(HWTYPE_PLX_PCI, 0, obfl_bar, &addr, &len));
  if (rc != HW_SUCCESS) return rc;
  if (len == 0) hw_acc_report_no_size(__func__, OBFL_FLASH_DEV_NAME, 0, obfl_bar);
  if (mmap_info == nullptr) mmap_info = static_cast<mmap_info_t *>(malloc(mmap_acc_sizeof(OBFL_INST_MAX)));
  if (mmap_info == nullptr) return HW_ERR_MALLOC;
  rc = DIAG_CALL("mmap_acc_init( mmap_info, OBFL_FLASH_DEV_NAME, OBFL_INST_MAX, &addr, len, OBFL_WORD_SIZE, dev)",
                 mmap_acc_init(mmap_info, OBFL_FLASH_DEV_NAME, OBFL_INST_MAX, &addr, len, OBFL_WORD_SIZE, &dev));
  if (rc != HW_SUCCESS) return rc;
  rc = DIAG_CALL("hw_acc_init( dev)", hw_acc_init(&dev));
  if (rc != HW_SUCCESS) return rc;
  _hw_acc_init = 1;
  obfl_initialised = 1;
  return HW_SUCCESS;
}

uint32_t obfl_libinit() {
  const uint32_t rc = DIAG_CALL("obfl_sw_init()", obfl_sw_init());
  DIAG_ASSERT(rc == HW_SUCCESS);
  return HW_SUCCESS;
}

uint32_t obfl_sw_finish() {
  hw_acc_fini(&dev);
  free(mmap_info);
  mmap_info = nullptr;
  return HW_SUCCESS;
}

uint32_t _obfl_wr(uint32_t inst, uint32_t offset, uint16_t data) {
  return hw_acc_wr(&dev, inst, offset, data);
}

void _obfl_rd(uint32_t inst, uint32_t offset, uint16_t *data) {
  *data = read_word(dev, inst, offset);
}

obfl_timeout_t get_timeout_val(uint32_t inst) {
  const cfi_pair_t wr = read_cfi(inst, CFI_TYP_WR, CFI_MAX_WR);
  const cfi_pair_t erase = read_cfi(inst, CFI_TYP_ERASE, CFI_MAX_ERASE);
  return {
      .typ_erase_ms = time_of(pow(2.0, erase.m_typ)),
      .max_erase_ms = time_of(pow(2.0, erase.m_max) * pow(2.0, erase.m_typ)),
      .typ_wr_us = time_of(pow(2.0, wr.m_typ)),
      .max_wr_us = time_of(pow(2.0, wr.m_typ) * pow(2.0, wr.m_max)),
  };
}

obfl_addr_t obfl_get_sector_addr(obfl_addr_t addr) {
  DIAG_ASSERT(addr.so.mbz == 0);
  DIAG_ASSERT(addr.pw.wr.mbz == 0);
  addr.so.offset = 0;
  return addr;
}

uint32_t _obfl_erase_wait(uint32_t inst, obfl_addr_t addr, obfl_timeout_t timeout) {
  const polls_t polls = polls_of(timeout.typ_erase_ms, timeout.max_erase_ms, 1000, OBFL_ERASE_FALLBACK_US);
  return wait_ready(inst, addr, polls, DQ6 | DQ2);
}

uint32_t _obfl_write_wait(uint32_t inst, obfl_addr_t addr, obfl_timeout_t timeout) {
  const polls_t polls = polls_of(timeout.typ_wr_us, timeout.max_wr_us, 1, OBFL_WRITE_FALLBACK_US);
  return wait_ready(inst, addr, polls, DQ6);
}

uint32_t obfl_sector_erase(uint32_t inst, obfl_addr_t sector_addr, obfl_timeout_t timeout) {
  DIAG_ASSERT(inst < OBFL_INST_MAX);
  DIAG_ASSERT(sector_addr.so.mbz == 0);
  DIAG_ASSERT(sector_addr.so.offset == 0);
  hw_acc_wr_lk_acq(&dev, 0);
  unlock(inst);
  (void)_obfl_wr(inst, UNLOCK_1, CMD_ERASE_SETUP);
  unlock(inst);
  (void)_obfl_wr(inst, sector_addr.addr, CMD_SECTOR_ERASE);
  const uint32_t rc = _obfl_erase_wait(inst, sector_addr, timeout);
  hw_acc_wr_lk_rel(&dev, 0);
  return rc;
}

uint32_t _obfl_wr_page(uint32_t inst, obfl_addr_t sector_addr, const obfl_addr_t *wr_addr, const uint16_t *wr_data,
                       uint32_t word_count, obfl_timeout_t timeout) {
  DIAG_ASSERT_AS(word_count <= OBFL_PAGE_WORDS, "word_count <= (OBFL_WRITE_PAGE_SIZE/OBFL_WORD_SIZE)");
  if (word_count == 0) return HW_SUCCESS;
  hw_acc_wr_lk_acq(&dev, inst);
  unlock(inst);
  (void)_obfl_wr(inst, sector_addr.addr, CMD_WRITE_BUFFER);
  (void)_obfl_wr(inst, sector_addr.addr, static_cast<uint16_t>(word_count - 1));
  for (uint32_t i = 0; i < word_count; ++i)
    (void)_obfl_wr(inst, wr_addr[i].addr, wr_data[i]);
  (void)_obfl_wr(inst, sector_addr.addr, CMD_WRITE_CONFIRM);
  const uint32_t rc = _obfl_write_wait(inst, wr_addr[word_count - 1], timeout);
  hw_acc_wr_lk_rel(&dev, inst);
  return rc;
}

uint32_t obfl_sector_wr(uint32_t inst, obfl_addr_t sector_addr, const uint16_t *src, obfl_timeout_t timeout) {
  DIAG_ASSERT(inst < OBFL_INST_MAX);
  DIAG_ASSERT(sector_addr.so.mbz == 0);
  DIAG_ASSERT(sector_addr.so.offset == 0);
  for (uint32_t page = 0; page < OBFL_SECTOR_PAGES; ++page) {
    obfl_addr_t addr[OBFL_PAGE_WORDS];
    for (uint32_t word = 0; word < OBFL_PAGE_WORDS; ++word)
      addr[word].addr = sector_addr.addr + page * OBFL_WRITE_PAGE_SIZE + word * OBFL_WORD_SIZE;
    const uint32_t rc = _obfl_wr_page(0, sector_addr, addr, src + page * OBFL_PAGE_WORDS, OBFL_PAGE_WORDS, timeout);
    if (rc != HW_SUCCESS) return rc;
  }
  return HW_SUCCESS;
}

void obfl_sector_rd(uint32_t inst, obfl_addr_t sector_addr, uint16_t *dst) {
  DIAG_ASSERT(inst < OBFL_INST_MAX);
  DIAG_ASSERT(sector_addr.so.mbz == 0);
  DIAG_ASSERT(sector_addr.so.offset == 0);
  hw_acc_rd_lk_acq(&dev, 0);
  // A copy stays in registers, where dev itself might change with every call.
  const hw_acc_cb_t cb = dev;
  for (uint32_t k = 0; k < OBFL_SECTOR_WORDS; ++k)
    dst[k] = read_word(cb, inst, sector_addr.addr + k * OBFL_WORD_SIZE);
  hw_acc_rd_lk_rel(&dev, 0);
}

uint32_t obfl_wr_array(uint32_t inst, uint32_t n_cpt, const obfl_addr_t *wr_addr, const uint16_t *wr_data,
                       obfl_timeout_t timeout) {
  DIAG_ASSERT(n_cpt && wr_addr && wr_data);
  // The open group is what lies from entry `first` on.
  const auto program = [&](uint32_t first, uint32_t end) {
    return _obfl_wr_page(inst, obfl_get_sector_addr(wr_addr[first]), &wr_addr[first], &wr_data[first], end - first,
                         timeout);
  };
  uint32_t first = 0;
  for (uint32_t i = 0; i < n_cpt; ++i) {
    const obfl_addr_t next_addr = wr_addr[i];
    DIAG_ASSERT(next_addr.so.mbz == 0);
    DIAG_ASSERT(next_addr.pw.wr.mbz == 0);
    if (same_page(next_addr, wr_addr[first])) continue;
    const uint32_t rc = program(first, i);
    if (rc != HW_SUCCESS) return rc;
    first = i;
  }
  return program(first, n_cpt);
}

void obfl_rd_array(uint32_t inst, uint32_t count, const obfl_addr_t *rd_addr, uint16_t *rd_data) {
  DIAG_ASSERT(inst < OBFL_INST_MAX);
  hw_acc_rd_lk_acq(&dev, 0);
  for (uint32_t i = 0; i < count; ++i) {
    DIAG_ASSERT(rd_addr[i].so.mbz == 0);
    DIAG_ASSERT(rd_addr[i].pw.wr.mbz == 0);
    _obfl_rd(inst, rd_addr[i].addr, &rd_data[i]);
  }
  hw_acc_rd_lk_rel(&dev, 0);
}

uint32_t obfl_wr_word(uint32_t inst, obfl_addr_t wr_addr, uint16_t wr_data, obfl_timeout_t timeout) {
  return obfl_wr_array(inst, 1, &wr_addr, &wr_data, timeout);
}

void obfl_rd_word(uint32_t inst, obfl_addr_t rd_addr, uint16_t *rd_data) {
  obfl_rd_array(inst, 1, &rd_addr, rd_data);
}

}  // extern "C"
