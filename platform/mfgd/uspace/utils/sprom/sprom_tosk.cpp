#include "platform/mfgd/uspace/utils/sprom/sprom_tosk.h"

#include <array>

#include "platform/mfgd/uspace/utils/sprom/at24c512.h"
#include "platform/mfgd/uspace/utils/sprom/pca9539.h"
#include "platform/mfgd/uspace/utils/sprom/sprom_family.h"
#include "platform/mfgd/uspace/utils/sprom/sprom_layout.h"

extern "C" {
const smb_dev_t tosk_bp_dev = {
    .path = "/dev/i2c-1", .addr = 0x52, .base = 0x1000, .addr_len = 2, .data_len = 1, .flags = 0};
}

namespace {

// The backplane's SPROM lies in the supervisor's EEPROM.
constexpr smb_dev_t sup_dev = {.path = "/dev/i2c-1", .addr = 0x52, .base = 0, .addr_len = 2, .data_len = 1, .flags = 0};
constexpr smb_dev_t lc_dev = {.path = "/dev/i2c-7", .addr = 0x52, .base = 0, .addr_len = 2, .data_len = 1, .flags = 0};
constexpr smb_dev_t ps_dev[] = {
    {.path = "/dev/i2c-6", .addr = 0x52, .base = 0, .addr_len = 1, .data_len = 1, .flags = 0},
    {.path = "/dev/i2c-6", .addr = 0x53, .base = 0, .addr_len = 1, .data_len = 1, .flags = 0},
};
constexpr smb_dev_t dimm_dev[] = {
    {.path = "/dev/i2c-0", .addr = 0x5E, .base = 0, .addr_len = 1, .data_len = 1, .flags = 0},
    {.path = "/dev/i2c-0", .addr = 0x55, .base = 0, .addr_len = 1, .data_len = 1, .flags = 0},
};

// Expanders.
constexpr smb_dev_t gem_dev = {
    .path = "/dev/i2c-7", .addr = 0x75, .base = 0, .addr_len = 1, .data_len = 2, .flags = 0};  // slot 2, quellrim
constexpr smb_dev_t straps_pca9539_dev = {
    .path = "/dev/i2c-8", .addr = 0x76, .base = 0, .addr_len = 1, .data_len = 2, .flags = 0};
constexpr smb_dev_t straps_pca8575_dev = {
    .path = "/dev/i2c-8", .addr = 0x26, .base = 0, .addr_len = 1, .data_len = 2, .flags = 0};

constexpr smb_acc_t bp_acc = {.dev = &tosk_bp_dev, .smb_rd = at24c512_rd, .smb_wr = at24c512_wr};
constexpr smb_acc_t sup_acc = {.dev = &sup_dev, .smb_rd = at24c512_rd, .smb_wr = at24c512_wr};
constexpr smb_acc_t lc_acc = {.dev = &lc_dev, .smb_rd = at24c512_rd, .smb_wr = at24c512_wr};
constexpr smb_acc_t ps_acc[] = {
    {.dev = &ps_dev[0], .smb_rd = at24c512_rd, .smb_wr = at24c512_wr},
    {.dev = &ps_dev[1], .smb_rd = at24c512_rd, .smb_wr = at24c512_wr},
};
constexpr smb_acc_t dimm_acc[] = {
    {.dev = &dimm_dev[0], .smb_rd = at24c512_rd, .smb_wr = at24c512_wr},
    {.dev = &dimm_dev[1], .smb_rd = at24c512_rd, .smb_wr = at24c512_wr},
};
constexpr smb_acc_t pca9539_gem_acc = {.dev = &gem_dev, .smb_rd = pca9539_rd, .smb_wr = pca9539_wr};

constinit std::array<uint8_t, SPROM_SIZE_BP> bp_buf{};
constinit std::array<uint8_t, SPROM_SIZE_SUP> sup_buf{};
constinit std::array<std::array<uint8_t, SPROM_SIZE_PS>, 2> ps_buf{};
constinit std::array<uint8_t, 256> dimm_buf{};  // a DIMM's whole EEPROM; its image has no size

constexpr uint16_t gem_protect_pin = 0x0008;  // port 0 pin 3

constexpr std::array<uint16_t, 1> card_indexes{0x2AFC};

constexpr sprom_family_t family = {
    .platform = SPROM_PLATFORM_TOSK,
    .straps_pca9539 = &straps_pca9539_dev,
    .straps_pca8575 = &straps_pca8575_dev,
    .indexes = card_indexes,
};

constexpr sprom_slot_t sup_slot = {.slot = 1, .index = 1};
constexpr sprom_slot_t bp_slot = {.slot = 0, .index = 0};
constexpr sprom_slot_t chassis_slot = {.slot = 0, .index = 0};

}  // namespace

sprom_wiring_t sprom_wiring_tosk(const sprom_t *sprom) {
  if (sprom->we == sprom_we_tosk) return {.by = sprom_wiring_t::PORT, .expander = nullptr, .pin = 0};
  if (sprom->we == velto_quellrim_gem_sprom_we)
    return {.by = sprom_wiring_t::PIN, .expander = &pca9539_gem_acc, .pin = gem_protect_pin};
  return {};
}

extern "C" {

constinit sprom_t tosk_sprom_bp = {
    .smb_acc = &bp_acc,
    .we = sprom_we_tosk,
    .wd = sprom_wd_tosk,
    .name = "BACKPLANE",
    .type = SPROM_TYPE_BP,
    .valid = 0,
    .buf = bp_buf.data(),
};
constinit sprom_t tosk_sprom_sup = {
    .smb_acc = &sup_acc,
    .we = sprom_we_tosk,
    .wd = sprom_wd_tosk,
    .name = "SUPERVISOR",
    .type = SPROM_TYPE_SUP,
    .valid = 0,
    .buf = sup_buf.data(),
};
constinit sprom_t tosk_sprom_lc[1] = {
    {
        .smb_acc = &lc_acc,
        .we = velto_quellrim_gem_sprom_we,
        .wd = velto_quellrim_gem_sprom_wd,
        .name = "LC 2",
        .type = SPROM_TYPE_LC,
        .valid = 0,
        .buf = nullptr,
    },
};
constinit sprom_t tosk_sprom_ps[2] = {
    {
        .smb_acc = &ps_acc[0],
        .we = nullptr,
        .wd = nullptr,
        .name = "PS1",
        .type = SPROM_TYPE_PS,
        .valid = 0,
        .buf = ps_buf[0].data(),
    },
    {
        .smb_acc = &ps_acc[1],
        .we = nullptr,
        .wd = nullptr,
        .name = "PS2",
        .type = SPROM_TYPE_PS,
        .valid = 0,
        .buf = ps_buf[1].data(),
    },
};
constinit sprom_t tosk_sprom_dimm[2] = {
    {
        .smb_acc = &dimm_acc[0],
        .we = nullptr,
        .wd = nullptr,
        .name = "DIMM0",
        .type = SPROM_TYPE_DIMM,
        .valid = 0,
        .buf = dimm_buf.data(),
    },
    {
        .smb_acc = &dimm_acc[1],
        .we = nullptr,
        .wd = nullptr,
        .name = "DIMM1",
        .type = SPROM_TYPE_DIMM,
        .valid = 0,
        .buf = dimm_buf.data(),
    },
};

sprom_t *sprom_init_tosk(uint32_t slot, uint32_t index) {
  if (slot == 0 && index == 0) return &tosk_sprom_bp;
  if (slot == 0 && index <= 2) return &tosk_sprom_ps[index - 1];
  if (slot == 1 && index == 1) return &tosk_sprom_sup;
  if (slot == 2) return &tosk_sprom_lc[0];
  return nullptr;
}

int32_t sprom_get_slot_sup_tosk(uint32_t *slot, uint32_t *index) {
  return sprom_slot_answer(sup_slot, slot, index);
}

int32_t sprom_get_slot_bp_tosk(uint32_t *slot, uint32_t *index) {
  return sprom_slot_answer(bp_slot, slot, index);
}

int32_t sprom_get_slot_chassis_tosk(uint32_t *slot, uint32_t *index) {
  return sprom_slot_answer(chassis_slot, slot, index);
}

int32_t sprom_platform_probe_tosk(void) {
  return sprom_family_probe(family, sprom_init_tosk(sup_slot.slot, sup_slot.index));
}

int32_t sprom_we_tosk(void) {
  sprom_port_protect(false);
  return 0;
}

int32_t sprom_wd_tosk(void) {
  sprom_port_protect(true);
  return 0;
}

int32_t velto_quellrim_gem_sprom_we(void) {
  return sprom_pin_protect_off(pca9539_gem_acc, gem_protect_pin);
}

int32_t velto_quellrim_gem_sprom_wd(void) {
  return sprom_pin_protect_on(pca9539_gem_acc, gem_protect_pin);
}

}  // extern "C"
