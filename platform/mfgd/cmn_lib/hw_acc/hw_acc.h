// hw_acc.h: the callback block through which every driver reaches its device.
#pragma once

#include <stddef.h>
#include <stdint.h>

extern "C" {
// Slots of the block. Each is given the block's m_parm as its last argument and returns a status of hw_err.h.
//   inst    instance of the device
//   offset  byte offset within the instance
using hw_acc_rd_t = uint32_t (*)(uint32_t inst, uint32_t offset, uint32_t *data, void *parm);
using hw_acc_wr_t = uint32_t (*)(uint32_t inst, uint32_t offset, uint32_t data, void *parm);
using hw_acc_ctl_t = uint32_t (*)(void *parm);
using hw_acc_lk_t = uint32_t (*)(uint32_t inst, void *parm);

// One device. Owned by its driver, filled by the access method. Only m_rd and m_wr must be there: an access method
// that needs no set-up or no locks leaves the other slots null.
struct hw_acc_cb_t {
  char m_name[32];          // device name, NUL-terminated; also the stem of the lock names
  hw_acc_rd_t m_rd;         // reads one item of the access width
  hw_acc_wr_t m_wr;         // writes one
  hw_acc_ctl_t m_init;      // makes every instance accessible
  hw_acc_ctl_t m_fini;      // undoes m_init and destroys the locks
  hw_acc_lk_t m_rd_lk_acq;  // takes the instance's read lock
  hw_acc_lk_t m_rd_lk_rel;  // drops it
  hw_acc_lk_t m_wr_lk_acq;  // takes the instance's write lock
  hw_acc_lk_t m_wr_lk_rel;  // drops it
  void *m_parm;             // the access method's own context
};
}

static_assert(offsetof(hw_acc_cb_t, m_rd) == 32);
static_assert(offsetof(hw_acc_cb_t, m_parm) == 32 + 8 * sizeof(void *));
static_assert(sizeof(hw_acc_cb_t) == 32 + 9 * sizeof(void *));
