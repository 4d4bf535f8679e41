#include "platform/mfgd/cmn_lib/hw_acc/mmap/mmap_acc.h"

#include <emmintrin.h>
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/mman.h>
#include <unistd.h>

#include "platform/mfgd/cmn_lib/diag_util/diag_assert.h"
#include "platform/mfgd/cmn_lib/diag_util/diag_dbg.h"
#include "platform/mfgd/cmn_lib/diag_util/lock.h"
#include "platform/mfgd/cmn_lib/hw_acc/hw_err.h"

constinit int32_t devmemfd = -1;

namespace {

// Synchronous writes, by the bit that older headers call O_SYNC: with it the kernel maps device memory uncached.
constexpr int devmem_flags = O_RDWR | O_DSYNC;
static_assert(devmem_flags == 0x1002);

// Physical addresses above 2 GiB are file offsets in every word size.
static_assert(sizeof(off_t) == 8);

mmap_info_t *info_of(void *parm) {
  return static_cast<mmap_info_t *>(parm);
}

template <typename T>
volatile T *item(uint32_t inst, uint32_t offset, void *parm) {
  const auto base = reinterpret_cast<uintptr_t>(info_of(parm)->m_inst_info[inst].m_virt_addr);
  return reinterpret_cast<volatile T *>(base + offset);
}

template <typename T>
uint32_t rd(uint32_t inst, uint32_t offset, uint32_t *data, void *parm) {
  *data = *item<T>(inst, offset, parm);
  _mm_lfence();
  return HW_SUCCESS;
}

template <typename T>
uint32_t wr(uint32_t inst, uint32_t offset, uint32_t data, void *parm) {
  *item<T>(inst, offset, parm) = static_cast<T>(data);
  _mm_sfence();
  return HW_SUCCESS;
}

unsigned long printable(const void *addr) {
  return reinterpret_cast<unsigned long>(addr);
}

void destroy_lock(int32_t *lock) {
  if (*lock != 0) (void)lock_destroy(*lock);
  *lock = 0;
}

enum class lock_kind_t { rd, wr };

// The process ends where the lock cannot be created.
int32_t create_lock(const mmap_info_t *info, uint32_t inst, lock_kind_t kind) {
  static constinit char name[256] = {};
  const char *const suffix = kind == lock_kind_t::rd ? "read" : "write";
  (void)snprintf(name, sizeof name - 1, "%s%01u-%s", info->m_hw_name, inst, suffix);
  name[sizeof name - 1] = '\0';
  const int32_t lock = lock_create(name);
  if (lock < 0) diag_dbg_print(DIAG_LVL_ERR, "lock_create(\"%s\") failed\n", name);
  return lock;
}

}  // namespace

extern "C" {

uint32_t mmap_acc_sizeof(uint32_t n) {
  return static_cast<uint32_t>(offsetof(mmap_info_t, m_inst_info) + n * sizeof(mmap_inst_info_t));
}

uint32_t mmap_acc_init(mmap_info_t *info, const char *hw_name, uint32_t num_inst, const uint32_t *base_addr,
                       uint32_t len, uint32_t width, hw_acc_cb_t *cb) {
  assert(info);
  assert(hw_name);
  assert(num_inst);
  assert(base_addr);
  assert(len);
  assert((width == 1) || (width == 2) || (width == 4) || (width == 8));
  assert(cb);
  info->m_num_inst = num_inst;
  info->m_width = width;
  info->m_len = len;
  info->m_hw_name = cb->m_name;
  for (uint32_t i = 0; i < num_inst; ++i)
    info->m_inst_info[i].m_phys_addr = base_addr[i];

  *cb = {};
  cb->m_init = _mmap_init;
  cb->m_fini = _mmap_fini;
  cb->m_rd_lk_acq = _mmap_rd_lk_acq;
  cb->m_rd_lk_rel = _mmap_rd_lk_rel;
  cb->m_wr_lk_acq = _mmap_wr_lk_acq;
  cb->m_wr_lk_rel = _mmap_wr_lk_rel;
  cb->m_parm = info;
  // clang-format off
  switch (width) {
    case 1:  cb->m_rd = _mmap_rd8;   cb->m_wr = _mmap_wr8;   break;
    case 2:  cb->m_rd = _mmap_rd16;  cb->m_wr = _mmap_wr16;  break;
    case 4:  cb->m_rd = _mmap_rd32;  cb->m_wr = _mmap_wr32;  break;
    default: cb->m_rd = _mmap_rd64;  cb->m_wr = _mmap_wr64;  break;
  }
  // clang-format on
  (void)snprintf(cb->m_name, sizeof cb->m_name, "%s", hw_name);
  return HW_SUCCESS;
}

uint32_t mmap_map_addr(uint64_t phys_addr, uint64_t len, void **pLogAddr) {
  assert(pLogAddr);
  const unsigned long long phys = phys_addr;
  if (phys % static_cast<unsigned long long>(getpagesize()) != 0) {
    diag_dbg_print(DIAG_LVL_ERR, "%s():physAddr %llx not aligned at page boundary\n", __func__, phys);
    return MMAP_ERR_DEV_MEM;
  }
  if (devmemfd < 0) {
    devmemfd = open("/dev/mem", devmem_flags);
    if (devmemfd < 0) {
      diag_dbg_print(DIAG_LVL_INFO, "%s(): failed to open /dev/mem. Errno %d:%s", __func__, errno, strerror(errno));
      return MMAP_ERR_DEV_MEM;
    }
  }
  diag_dbg_print(DIAG_LVL_INFO, "devmemfd:0x%x\n", static_cast<uint32_t>(devmemfd));
  *pLogAddr = mmap(nullptr, static_cast<uint32_t>(len), PROT_READ | PROT_WRITE, MAP_SHARED, devmemfd,
                   static_cast<off_t>(static_cast<uint32_t>(phys_addr)));
  if (*pLogAddr == MAP_FAILED) {
    const int error = errno;
    (void)close(devmemfd);
    devmemfd = -1;
    diag_dbg_print(DIAG_LVL_ERR, "%s(): mmap() failed. Errno %d:%s", __func__, error, strerror(error));
    return MMAP_ERR_MMAP;
  }
  diag_dbg_print(DIAG_LVL_INFO, "phys->virt: 0x%llx-->0x%lx\n", phys, printable(*pLogAddr));
  return HW_SUCCESS;
}

uint32_t mmap_get_virt_addr(uint32_t inst, void **virt_addr, const mmap_info_t *info) {
  assert(inst < info->m_num_inst);
  void *const addr = info->m_inst_info[inst].m_virt_addr;
  diag_dbg_print(DIAG_LVL_DEBUG, "%s_%d: virt_addr=%lx\n", info->m_hw_name, inst, printable(addr));
  *virt_addr = addr;
  return HW_SUCCESS;
}

uint32_t _mmap_init(void *parm) {
  mmap_info_t *const info = info_of(parm);
  for (uint32_t i = 0; i < info->m_num_inst; ++i) {
    mmap_inst_info_t &inst = info->m_inst_info[i];
    const uint32_t rc =
        DIAG_CALL("mmap_map_addr( info->m_inst_info[i].m_phys_addr, info->m_len, &info->m_inst_info[i].m_virt_addr)",
                  mmap_map_addr(inst.m_phys_addr, info->m_len, &inst.m_virt_addr));
    if (rc != HW_SUCCESS) return rc;
    inst.m_rd_lock = 0;
    inst.m_wr_lock = 0;
  }
  return HW_SUCCESS;
}

uint32_t _mmap_fini(void *parm) {
  mmap_info_t *const info = info_of(parm);
  for (uint32_t i = 0; i < info->m_num_inst; ++i) {
    mmap_inst_info_t &inst = info->m_inst_info[i];
    if (munmap(inst.m_virt_addr, info->m_len) != 0) {
      diag_dbg_print(DIAG_LVL_ERR, "%s(): munmap(addr=%08lx, size=%08x) failed. Errno %d:%s", __func__,
                     printable(inst.m_virt_addr), info->m_len, errno, strerror(errno));
      return MMAP_ERR_MUNMAP;
    }
    destroy_lock(&inst.m_rd_lock);
    destroy_lock(&inst.m_wr_lock);
  }
  return HW_SUCCESS;
}

uint32_t _mmap_rd_lk_acq(uint32_t inst, void *parm) {
  mmap_info_t *const info = info_of(parm);
  int32_t &lock = info->m_inst_info[inst].m_rd_lock;
  if (lock == 0) {
    const int32_t created = create_lock(info, inst, lock_kind_t::rd);
    if (created < 0) assert((0));
    lock = created;
  }
  (void)lock_get_rd_lockw(lock);
  return HW_SUCCESS;
}

uint32_t _mmap_wr_lk_acq(uint32_t inst, void *parm) {
  mmap_info_t *const info = info_of(parm);
  int32_t &lock = info->m_inst_info[inst].m_wr_lock;
  if (lock == 0) {
    const int32_t created = create_lock(info, inst, lock_kind_t::wr);
    if (created < 0) assert((0));
    lock = created;
  }
  (void)lock_get_wr_lockw(lock);
  return HW_SUCCESS;
}

uint32_t _mmap_rd_lk_rel(uint32_t inst, void *parm) {
  const mmap_info_t *const info = info_of(parm);
  assert(info->m_inst_info[inst].m_rd_lock);
  (void)lock_drop_rd_lock(info->m_inst_info[inst].m_rd_lock);
  return HW_SUCCESS;
}

uint32_t _mmap_wr_lk_rel(uint32_t inst, void *parm) {
  const mmap_info_t *const info = info_of(parm);
  assert(info->m_inst_info[inst].m_wr_lock);
  (void)lock_drop_wr_lock(info->m_inst_info[inst].m_wr_lock);
  return HW_SUCCESS;
}

uint32_t _mmap_rd8(uint32_t inst, uint32_t offset, uint32_t *data, void *parm) {
  return rd<uint8_t>(inst, offset, data, parm);
}

uint32_t _mmap_rd16(uint32_t inst, uint32_t offset, uint32_t *data, void *parm) {
  return rd<uint16_t>(inst, offset, data, parm);
}

uint32_t _mmap_rd32(uint32_t inst, uint32_t offset, uint32_t *data, void *parm) {
  return rd<uint32_t>(inst, offset, data, parm);
}

uint32_t _mmap_rd64(uint32_t inst, uint32_t offset, uint32_t *data, void *parm) {
  const volatile uint32_t *const words = item<uint32_t>(inst, offset, parm);
  *data = words[0];
  (void)words[1];
  _mm_lfence();
  return HW_SUCCESS;
}

uint32_t _mmap_wr8(uint32_t inst, uint32_t offset, uint32_t data, void *parm) {
  return wr<uint8_t>(inst, offset, data, parm);
}

uint32_t _mmap_wr16(uint32_t inst, uint32_t offset, uint32_t data, void *parm) {
  return wr<uint16_t>(inst, offset, data, parm);
}

uint32_t _mmap_wr32(uint32_t inst, uint32_t offset, uint32_t data, void *parm) {
  return wr<uint32_t>(inst, offset, data, parm);
}

uint32_t _mmap_wr64(uint32_t inst, uint32_t offset, uint32_t data, void *parm) {
  volatile uint32_t *const words = item<uint32_t>(inst, offset, parm);
  words[0] = data;
  words[1] = 0;
  _mm_sfence();
  return HW_SUCCESS;
}

}  // extern "C"
