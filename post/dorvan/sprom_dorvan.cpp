#include "post/dorvan/sprom_dorvan.h"

#include <array>

#include "platform/mfgd/uspace/utils/sprom/at24c512.h"
#include "platform/mfgd/uspace/utils/sprom/sprom_layout.h"

// clang-format off
const smb_dev_t dorvan_sup_dev = {.path = "/dev/i2c-1", .addr = 0x52, .base = 0,      .addr_len = 2, .data_len = 1, .flags = 0};
const smb_dev_t dorvan_bp_dev  = {.path = "/dev/i2c-1", .addr = 0x52, .base = 0x1000, .addr_len = 2, .data_len = 1, .flags = 0};

static constexpr smb_acc_t dorvan_sup_acc = {.dev = &dorvan_sup_dev, .smb_rd = at24c512_rd, .smb_wr = at24c512_wr};
static constexpr smb_acc_t dorvan_bp_acc  = {.dev = &dorvan_bp_dev,  .smb_rd = at24c512_rd, .smb_wr = at24c512_wr};
// clang-format on

static constinit std::array<uint8_t, SPROM_SIZE_SUP> dorvan_sup_buf{};
static constinit std::array<uint8_t, SPROM_SIZE_BP> dorvan_bp_buf{};

constinit sprom_t dorvan_sprom_sup = {
    .smb_acc = &dorvan_sup_acc,
    .we = velto_dorvan_sprom_we,
    .wd = velto_dorvan_sprom_wd,
    .name = "SUPERVISOR",
    .type = SPROM_TYPE_SUP,
    .valid = 0,
    .buf = dorvan_sup_buf.data(),
};

constinit sprom_t dorvan_sprom_bp = {
    .smb_acc = &dorvan_bp_acc,
    .we = velto_dorvan_sprom_we,
    .wd = velto_dorvan_sprom_wd,
    .name = "BACKPLANE",
    .type = SPROM_TYPE_BP,
    .valid = 0,
    .buf = dorvan_bp_buf.data(),
};

int32_t velto_dorvan_sprom_we(void) {
  return 0;
}

int32_t velto_dorvan_sprom_wd(void) {
  return 0;
}

sprom_t *sprom_init_dorvan(uint32_t /*platform_type*/, uint32_t slot, uint32_t index) {
  if (slot == 1 && index == 1) return &dorvan_sprom_sup;
  if (slot == 0 && index == 0) return &dorvan_sprom_bp;
  return nullptr;
}
