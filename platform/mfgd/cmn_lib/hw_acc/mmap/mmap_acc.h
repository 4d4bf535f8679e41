// mmap_acc.h: access to devices mapped through /dev/mem, under locks between processes.
//
// A driver describes its device with mmap_acc_init, which fills the driver's callback block, and then calls through the
// block: m_init once, any number of accesses, each bracketed by the lock slots, m_fini last. Read and write locks are
// different files, so that readers and writers do not exclude one another.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include "platform/mfgd/cmn_lib/hw_acc/hw_acc.h"

extern "C" {
struct mmap_inst_info_t {
  uint64_t m_phys_addr;  // physical base address; the upper half is 0
  void *m_virt_addr;     // where it is mapped; valid after m_init
  int32_t m_rd_lock;     // handle of lock.h; 0 for not yet created
  int32_t m_wr_lock;     // likewise
};

// Allocated by the driver in the size that mmap_acc_sizeof gives, released by it after m_fini.
struct mmap_info_t {
  uint32_t m_num_inst;
  uint32_t m_width;                 // access width in bytes: 1, 2, 4 or 8
  uint32_t m_len;                   // bytes of each instance's mapping
  char *m_hw_name;                  // the callback block's m_name
  mmap_inst_info_t m_inst_info[1];  // m_num_inst of them
};

extern int32_t devmemfd;  // descriptor of /dev/mem, shared by all mappings; negative while it is not open

// Size in bytes of the info record of a device with `n` instances.
[[nodiscard]] uint32_t mmap_acc_sizeof(uint32_t n);

// Describes a device and fills its callback block. Maps nothing; m_virt_addr and the lock fields are left to m_init.
//   info       record to fill
//   hw_name    device name; only the first 31 characters count
//   num_inst   number of instances, at least 1
//   base_addr  their physical base addresses
//   len        bytes to map of each instance, not 0
//   width      bytes of one access: 1, 2, 4 or 8
//   cb         block to fill
// Returns HW_SUCCESS. Bad arguments fail a standard assertion.
[[nodiscard]] uint32_t mmap_acc_init(mmap_info_t *info, const char *hw_name, uint32_t num_inst,
                                     const uint32_t *base_addr, uint32_t len, uint32_t width, hw_acc_cb_t *cb);

// Maps a physical range, shared, for reading and writing. Opens /dev/mem where that has not been done yet.
//   phys_addr  physical address, a multiple of the page size; its low 32 bits are mapped
//   len        bytes, in the low 32 bits
//   pLogAddr   receives the mapped address; all ones when the mapping fails
// Returns  HW_SUCCESS
//          MMAP_ERR_DEV_MEM  the address is not page-aligned, or /dev/mem cannot be opened
//          MMAP_ERR_MMAP     the mapping failed; /dev/mem is closed
// Prints a line in each case.
[[nodiscard]] uint32_t mmap_map_addr(uint64_t phys_addr, uint64_t len, void **pLogAddr);

// Stores the mapped address of instance `inst`, which must exist (asserted), in *virt_addr. Returns HW_SUCCESS.
uint32_t mmap_get_virt_addr(uint32_t inst, void **virt_addr, const mmap_info_t *info);

// The slots. `parm` is the mmap_info_t.

// Maps every instance, in order. Returns HW_SUCCESS, or the first failure's status after its report: the instances
// before it stay mapped.
[[nodiscard]] uint32_t _mmap_init(void *parm);

// Unmaps every instance, in order, and destroys its locks. Returns HW_SUCCESS, or MMAP_ERR_MUNMAP after a message: the
// instances from the failing one on stay as they were. /dev/mem stays open.
uint32_t _mmap_fini(void *parm);

// Take the instance's read or write lock, however long another process holds it; the first time, the lock is created,
// which must succeed (asserted, after a message). Return HW_SUCCESS.
uint32_t _mmap_rd_lk_acq(uint32_t inst, void *parm);
uint32_t _mmap_wr_lk_acq(uint32_t inst, void *parm);

// Drop the lock, which must have been created (asserted). Return HW_SUCCESS.
uint32_t _mmap_rd_lk_rel(uint32_t inst, void *parm);
uint32_t _mmap_wr_lk_rel(uint32_t inst, void *parm);

// Read one item of 8, 16, 32 or 64 bits into *data, zero-extended, and fence the load. Return HW_SUCCESS. Instance and
// offset are not checked. 64 bits are two 32-bit loads, low word first; the result is the low word.
uint32_t _mmap_rd8(uint32_t inst, uint32_t offset, uint32_t *data, void *parm);
uint32_t _mmap_rd16(uint32_t inst, uint32_t offset, uint32_t *data, void *parm);
uint32_t _mmap_rd32(uint32_t inst, uint32_t offset, uint32_t *data, void *parm);
uint32_t _mmap_rd64(uint32_t inst, uint32_t offset, uint32_t *data, void *parm);

// Write the low 8, 16 or 32 bits of `data`, or `data` and a high word of 0, and fence the store. Otherwise as the
// reads.
uint32_t _mmap_wr8(uint32_t inst, uint32_t offset, uint32_t data, void *parm);
uint32_t _mmap_wr16(uint32_t inst, uint32_t offset, uint32_t data, void *parm);
uint32_t _mmap_wr32(uint32_t inst, uint32_t offset, uint32_t data, void *parm);
uint32_t _mmap_wr64(uint32_t inst, uint32_t offset, uint32_t data, void *parm);
}

static_assert(sizeof(void *) != 4 || (offsetof(mmap_info_t, m_inst_info) == 16 && sizeof(mmap_inst_info_t) == 20));
