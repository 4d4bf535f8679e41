#include "platform/mfgd/cmn_lib/hw_acc/nvram/nvram_acc_velto.h"

#include <stdlib.h>

#include <algorithm>
#include <array>

#include "platform/mfgd/cmn_lib/diag_util/diag_assert.h"
#include "platform/mfgd/cmn_lib/diag_util/diag_dbg.h"
#include "platform/mfgd/cmn_lib/hw_acc/hw_acc_p.h"
#include "platform/mfgd/cmn_lib/hw_acc/mmap/mmap_acc.h"
#include "platform/mfgd/cmn_lib/hw_acc/mmap/mmap_pci_velto_or.h"
#include "platform/mfgd/hw_acc/hwtype_defs.h"

static constinit hw_acc_cb_t dev = {};
static constinit mmap_info_t *mmap_info = nullptr;
static constinit int32_t nvram_initialised = 0;

namespace {

constexpr uint32_t nvram_width = 2;

// Configuration-space offsets of the base address registers, by instance.
constexpr uint32_t nvram_bars[RTC_NVRAM_INST_MAX] = {0x18, 0x1C, 0x20};

struct regions_t {
  uint32_t m_addr[RTC_NVRAM_INST_MAX];
  std::array<uint32_t, RTC_NVRAM_INST_MAX> m_len;
};

// Looks up every region and returns the first failure.
uint32_t find_regions(regions_t *regions) {
  uint32_t failed = HW_SUCCESS;
  for (uint32_t i = 0; i < RTC_NVRAM_INST_MAX; ++i) {
    const uint32_t rc = mmap_get_map_pci(HWTYPE_PLX_PCI, 0, nvram_bars[i], &regions->m_addr[i], &regions->m_len[i]);
    if (failed == HW_SUCCESS) failed = rc;
  }
  return failed;
}

// The largest length serves all regions; 0 where one of them, which is reported, has none.
uint32_t common_length(const regions_t &regions, const char *op) {
  for (uint32_t i = 0; i < RTC_NVRAM_INST_MAX; ++i) {
    if (regions.m_len[i] != 0) continue;
    hw_acc_report_no_size(op, RTC_NVRAM_DEV_NAME, i, nvram_bars[i]);
    return 0;
  }
  return std::ranges::max(regions.m_len);
}

}  // namespace

extern "C" {

uint32_t nvram_sw_init() {
  regions_t regions = {};
  const uint32_t found = find_regions(&regions);
  if (nvram_initialised != 0) return HW_SUCCESS;
  uint32_t rc = DIAG_CALL_STATUS("mmap_get_map_pci( HWTYPE_PLX_PCI, 0, bar, &addr, &len)", found);
  if (rc != HW_SUCCESS) return rc;
  const uint32_t len = common_length(regions, __func__);
  if (mmap_info == nullptr) mmap_info = static_cast<mmap_info_t *>(malloc(mmap_acc_sizeof(RTC_NVRAM_INST_MAX)));
  if (mmap_info == nullptr) return HW_ERR_MALLOC;
  rc = DIAG_CALL(
      "mmap_acc_init( mmap_info, RTC_NVRAM_DEV_NAME, Inst, addr, len, 2, dev)",
      mmap_acc_init(mmap_info, RTC_NVRAM_DEV_NAME, RTC_NVRAM_INST_MAX, regions.m_addr, len, nvram_width, &dev));
  if (rc != HW_SUCCESS) return rc;
  rc = DIAG_CALL("hw_acc_init( dev)", hw_acc_init(&dev));
  if (rc != HW_SUCCESS) return rc;
  _hw_acc_init = 1;
  nvram_initialised = 1;
  return HW_SUCCESS;
}

uint32_t nvram_libinit() {
  const uint32_t rc = DIAG_CALL("nvram_sw_init()", nvram_sw_init());
  assert(rc == HW_SUCCESS);
  return HW_SUCCESS;
}

uint32_t _nvram_rd(uint32_t Inst, uint32_t offset, uint32_t *val) {
  return DIAG_CALL("hw_acc_rd( dev, Inst, offset, val)", hw_acc_rd(&dev, Inst, offset, val));
}

uint32_t nvram_rd(uint32_t Inst, uint32_t offset, uint16_t *val) {
  uint32_t tmp = 0;
  hw_acc_rd_lk_acq(&dev, Inst);
  const uint32_t rc = DIAG_CALL("_nvram_rd(Inst, offset, &tmp)", _nvram_rd(Inst, offset, &tmp));
  *val = static_cast<uint16_t>(tmp);
  hw_acc_rd_lk_rel(&dev, Inst);
  return rc;
}

uint32_t _nvram_wr(uint32_t Inst, uint32_t offset, uint16_t val) {
  return DIAG_CALL("hw_acc_wr( dev, Inst, offset, val)", hw_acc_wr(&dev, Inst, offset, val));
}

uint32_t nvram_wr(uint32_t Inst, uint32_t offset, uint16_t val) {
  hw_acc_wr_lk_acq(&dev, Inst);
  const uint32_t rc = DIAG_CALL("_nvram_wr(Inst, offset, val)", _nvram_wr(Inst, offset, val));
  hw_acc_wr_lk_rel(&dev, Inst);
  return rc;
}

uint32_t nvram_sw_finish() {
  hw_acc_fini(&dev);
  free(mmap_info);
  mmap_info = nullptr;
  return HW_SUCCESS;
}

}  // extern "C"
