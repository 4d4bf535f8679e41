// hw_acc_p.h: the driver template. Each driver includes it and so has its own copy of the flag and the steps.
//
// A driver initialises its block with hw_acc_init, sets _hw_acc_init, and from then on touches the device through the
// other steps alone; before that each of them fails a standard assertion.
#pragma once

#include <stdint.h>

#include "platform/mfgd/cmn_lib/diag_util/diag_assert.h"
#include "platform/mfgd/cmn_lib/diag_util/diag_dbg.h"
#include "platform/mfgd/cmn_lib/hw_acc/hw_acc.h"
#include "platform/mfgd/cmn_lib/hw_acc/hw_err.h"

// 1 once the device is usable; set by the driver.
static constinit int32_t _hw_acc_init = 0;

// Says that an instance's region has no size, which the mapping layer does not accept.
//   op   operation of the driver that found out
//   bar  configuration-space offset of the base address register behind which the region lies
static inline void hw_acc_report_no_size(const char *op, const char *dev_name, uint32_t inst, uint32_t bar) {
  diag_dbg_print(DIAG_LVL_ERR, "%s(): ERROR: %s%u: no size in base address register 0x%x\n", op, dev_name, inst, bar);
}

// Makes the device accessible where the block has a slot for that.
// Returns HW_SUCCESS or the slot's status, which was reported. Asserts that the block can read and write.
[[nodiscard]] static inline uint32_t hw_acc_init(hw_acc_cb_t *cb) {
  if (cb->m_init != nullptr) {
    const uint32_t rc = DIAG_CALL("cb->m_init( cb->m_parm)", cb->m_init(cb->m_parm));
    if (rc != HW_SUCCESS) return rc;
  }
  assert(cb->m_rd);
  assert(cb->m_wr);
  return HW_SUCCESS;
}

// Reads one item at byte `offset` of `inst` into *data. Returns the slot's status.
[[nodiscard]] static inline uint32_t hw_acc_rd(const hw_acc_cb_t *cb, uint32_t inst, uint32_t offset, uint32_t *data) {
  assert(_hw_acc_init);
  return cb->m_rd(inst, offset, data, cb->m_parm);
}

// Writes one item at byte `offset` of `inst`. Returns the slot's status.
[[nodiscard]] static inline uint32_t hw_acc_wr(const hw_acc_cb_t *cb, uint32_t inst, uint32_t offset, uint32_t data) {
  assert(_hw_acc_init);
  return cb->m_wr(inst, offset, data, cb->m_parm);
}

// The lock steps do nothing where the block has no such lock. What the slot returns does not matter: an access method
// that cannot lock does not come back from its slot.
static inline void hw_acc_rd_lk_acq(const hw_acc_cb_t *cb, uint32_t inst) {
  assert(_hw_acc_init);
  if (cb->m_rd_lk_acq != nullptr) (void)cb->m_rd_lk_acq(inst, cb->m_parm);
}

static inline void hw_acc_rd_lk_rel(const hw_acc_cb_t *cb, uint32_t inst) {
  assert(_hw_acc_init);
  if (cb->m_rd_lk_rel != nullptr) (void)cb->m_rd_lk_rel(inst, cb->m_parm);
}

static inline void hw_acc_wr_lk_acq(const hw_acc_cb_t *cb, uint32_t inst) {
  assert(_hw_acc_init);
  if (cb->m_wr_lk_acq != nullptr) (void)cb->m_wr_lk_acq(inst, cb->m_parm);
}

static inline void hw_acc_wr_lk_rel(const hw_acc_cb_t *cb, uint32_t inst) {
  assert(_hw_acc_init);
  if (cb->m_wr_lk_rel != nullptr) (void)cb->m_wr_lk_rel(inst, cb->m_parm);
}

// Undoes hw_acc_init where the block has a slot for that; its status does not matter, the slot has reported it.
static inline void hw_acc_fini(const hw_acc_cb_t *cb) {
  assert(_hw_acc_init);
  if (cb->m_fini != nullptr) (void)cb->m_fini(cb->m_parm);
}
