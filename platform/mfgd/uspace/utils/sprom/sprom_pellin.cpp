#include "platform/mfgd/uspace/utils/sprom/sprom_pellin.h"

#include <stdlib.h>

#include <array>

#include "platform/mfgd/uspace/utils/sprom/at24c512.h"
#include "platform/mfgd/uspace/utils/sprom/pca9539.h"
#include "platform/mfgd/uspace/utils/sprom/sprom_family.h"
#include "platform/mfgd/uspace/utils/sprom/sprom_layout.h"

extern "C" {
const smb_dev_t pellin_bp_dev = {
    .path = "/dev/i2c-1", .addr = 0x52, .base = 0x1000, .addr_len = 2, .data_len = 1, .flags = 0};
}

namespace {

// The backplane's SPROM lies in the supervisor's EEPROM.
constexpr smb_dev_t sup_dev = {.path = "/dev/i2c-1", .addr = 0x52, .base = 0, .addr_len = 2, .data_len = 1, .flags = 0};
constexpr smb_dev_t lc_dev[] = {
    {.path = "/dev/i2c-17", .addr = 0x52, .base = 0, .addr_len = 2, .data_len = 1, .flags = 0},
    {.path = "/dev/i2c-23", .addr = 0x52, .base = 0, .addr_len = 2, .data_len = 1, .flags = 0},
    {.path = "/dev/i2c-7", .addr = 0x52, .base = 0, .addr_len = 2, .data_len = 1, .flags = 0},
};
constexpr smb_dev_t ps_dev[] = {
    {.path = "/dev/i2c-6", .addr = 0x52, .base = 0, .addr_len = 1, .data_len = 1, .flags = 0},
    {.path = "/dev/i2c-6", .addr = 0x53, .base = 0, .addr_len = 1, .data_len = 1, .flags = 0},
};
constexpr smb_dev_t dimm_dev[] = {
    {.path = "/dev/i2c-0", .addr = 0x5E, .base = 0, .addr_len = 1, .data_len = 1, .flags = 0},
    {.path = "/dev/i2c-0", .addr = 0x55, .base = 0, .addr_len = 1, .data_len = 1, .flags = 0},
};

// Expanders.
constexpr smb_dev_t gem_dev[] = {
    {.path = "/dev/i2c-23", .addr = 0x75, .base = 0, .addr_len = 1, .data_len = 2, .flags = 0},  // slot 2, varnholm
    {.path = "/dev/i2c-7", .addr = 0x75, .base = 0, .addr_len = 1, .data_len = 2, .flags = 0},   // slot 3, mirn
};
constexpr smb_dev_t mezz_dev = {
    .path = "/dev/i2c-20", .addr = 0x76, .base = 0, .addr_len = 1, .data_len = 2, .flags = 0};
constexpr smb_dev_t straps_pca9539_dev = {
    .path = "/dev/i2c-8", .addr = 0x76, .base = 0, .addr_len = 1, .data_len = 2, .flags = 0};
constexpr smb_dev_t straps_pca8575_dev = {
    .path = "/dev/i2c-8", .addr = 0x26, .base = 0, .addr_len = 1, .data_len = 2, .flags = 0};

constexpr smb_acc_t bp_acc = {.dev = &pellin_bp_dev, .smb_rd = at24c512_rd, .smb_wr = at24c512_wr};
constexpr smb_acc_t sup_acc = {.dev = &sup_dev, .smb_rd = at24c512_rd, .smb_wr = at24c512_wr};
constexpr smb_acc_t lc_acc[] = {
    {.dev = &lc_dev[0], .smb_rd = at24c512_rd, .smb_wr = at24c512_wr},
    {.dev = &lc_dev[1], .smb_rd = at24c512_rd, .smb_wr = at24c512_wr},
    {.dev = &lc_dev[2], .smb_rd = at24c512_rd, .smb_wr = at24c512_wr},
};
constexpr smb_acc_t ps_acc[] = {
    {.dev = &ps_dev[0], .smb_rd = at24c512_rd, .smb_wr = at24c512_wr},
    {.dev = &ps_dev[1], .smb_rd = at24c512_rd, .smb_wr = at24c512_wr},
};
constexpr smb_acc_t dimm_acc[] = {
    {.dev = &dimm_dev[0], .smb_rd = at24c512_rd, .smb_wr = at24c512_wr},
    {.dev = &dimm_dev[1], .smb_rd = at24c512_rd, .smb_wr = at24c512_wr},
};

constinit std::array<uint8_t, SPROM_SIZE_BP> bp_buf{};
constinit std::array<uint8_t, SPROM_SIZE_SUP> sup_buf{};
constinit std::array<std::array<uint8_t, SPROM_SIZE_PS>, 2> ps_buf{};
constinit std::array<uint8_t, 256> dimm_buf{};  // a DIMM's whole EEPROM; its image has no size

constexpr uint16_t gem_protect_pin = 0x0008;           // port 0 pin 3
constexpr uint16_t mezz_protect_pin = 0x0200;          // port 1 pin 1
constexpr uint16_t mezz_protect_pin_change0 = 0x0080;  // port 0 pin 7, with hardware change bits 0

constexpr std::array<uint16_t, 5> card_indexes{0x2AFB, 0x2AFD, 0x2AFE, 0x2AFF, 0x2B00};

constexpr sprom_family_t family = {
    .platform = SPROM_PLATFORM_PELLIN,
    .straps_pca9539 = &straps_pca9539_dev,
    .straps_pca8575 = &straps_pca8575_dev,
    .indexes = card_indexes,
};

constexpr sprom_slot_t sup_slot = {.slot = 1, .index = 1};
constexpr sprom_slot_t bp_slot = {.slot = 0, .index = 0};
constexpr sprom_slot_t chassis_slot = {.slot = 0, .index = 0};

uint16_t mezz_pin() {
  const char *change_bits = getenv("DIAG_HW_CHANGE_BITS");
  return change_bits == nullptr ? mezz_protect_pin : sprom_mezz_pin_pellin(strtoull(change_bits, nullptr, 0));
}

}  // namespace

sprom_wiring_t sprom_wiring_pellin(const sprom_t *sprom) {
  if (sprom->we == velto_or_sprom_we) return {.by = sprom_wiring_t::PORT, .expander = nullptr, .pin = 0};
  if (sprom->we == velto_mt_varnholm_sprom_we)
    return {.by = sprom_wiring_t::PIN, .expander = &pca9539_mezz_acc, .pin = mezz_pin()};
  if (sprom->we == velto_mt_varnholm_gem_sprom_we)
    return {.by = sprom_wiring_t::PIN, .expander = &pca9539_gem_acc[0], .pin = gem_protect_pin};
  if (sprom->we == velto_mt_mirn_gem_sprom_we)
    return {.by = sprom_wiring_t::PIN, .expander = &pca9539_gem_acc[1], .pin = gem_protect_pin};
  return {};
}

uint16_t sprom_mezz_pin_pellin(uint64_t change_bits) {
  return change_bits == 0 ? mezz_protect_pin_change0 : mezz_protect_pin;
}

extern "C" {

const smb_acc_t pca9539_gem_acc[2] = {
    {.dev = &gem_dev[0], .smb_rd = pca9539_rd, .smb_wr = pca9539_wr},
    {.dev = &gem_dev[1], .smb_rd = pca9539_rd, .smb_wr = pca9539_wr},
};
const smb_acc_t pca9539_mezz_acc = {.dev = &mezz_dev, .smb_rd = pca9539_rd, .smb_wr = pca9539_wr};

constinit sprom_t pellin_sprom_bp = {
    .smb_acc = &bp_acc,
    .we = velto_or_sprom_we,
    .wd = velto_or_sprom_wd,
    .name = "BACKPLANE",
    .type = SPROM_TYPE_BP,
    .valid = 0,
    .buf = bp_buf.data(),
};
constinit sprom_t pellin_sprom_sup = {
    .smb_acc = &sup_acc,
    .we = velto_or_sprom_we,
    .wd = velto_or_sprom_wd,
    .name = "SUPERVISOR",
    .type = SPROM_TYPE_SUP,
    .valid = 0,
    .buf = sup_buf.data(),
};
constinit sprom_t pellin_sprom_lc[3] = {
    {
        .smb_acc = &lc_acc[0],
        .we = velto_mt_varnholm_sprom_we,
        .wd = velto_mt_varnholm_sprom_wd,
        .name = "DC 1",
        .type = SPROM_TYPE_LC,
        .valid = 0,
        .buf = nullptr,
    },
    {
        .smb_acc = &lc_acc[1],
        .we = velto_mt_varnholm_gem_sprom_we,
        .wd = velto_mt_varnholm_gem_sprom_wd,
        .name = "LC 2",
        .type = SPROM_TYPE_LC,
        .valid = 0,
        .buf = nullptr,
    },
    {
        .smb_acc = &lc_acc[2],
        .we = velto_mt_mirn_gem_sprom_we,
        .wd = velto_mt_mirn_gem_sprom_wd,
        .name = "LC 3",
        .type = SPROM_TYPE_LC,
        .valid = 0,
        .buf = nullptr,
    },
};
constinit sprom_t pellin_sprom_ps[2] = {
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
constinit sprom_t pellin_sprom_dimm[2] = {
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

sprom_t *sprom_init_pellin(uint32_t slot, uint32_t index) {
  if (slot == 0 && index == 0) return &pellin_sprom_bp;
  if (slot == 0 && index <= 2) return &pellin_sprom_ps[index - 1];
  if (slot == 1 && index == 1) return &pellin_sprom_sup;
  if (slot == 1 && index == 2) return &pellin_sprom_lc[0];
  if (slot == 2 || slot == 3) return &pellin_sprom_lc[slot - 1];
  return nullptr;
}

int32_t sprom_get_slot_sup_pellin(uint32_t *slot, uint32_t *index) {
  return sprom_slot_answer(sup_slot, slot, index);
}

int32_t sprom_get_slot_bp_pellin(uint32_t *slot, uint32_t *index) {
  return sprom_slot_answer(bp_slot, slot, index);
}

int32_t sprom_get_slot_chassis_pellin(uint32_t *slot, uint32_t *index) {
  return sprom_slot_answer(chassis_slot, slot, index);
}

int32_t sprom_platform_probe_pellin(void) {
  return sprom_family_probe(family, sprom_init_pellin(sup_slot.slot, sup_slot.index));
}

int32_t velto_or_sprom_we(void) {
  sprom_port_protect(false);
  return 0;
}

int32_t velto_or_sprom_wd(void) {
  sprom_port_protect(true);
  return 0;
}

int32_t velto_mt_varnholm_sprom_we(void) {
  return sprom_pin_protect_off(pca9539_mezz_acc, mezz_pin());
}

int32_t velto_mt_varnholm_sprom_wd(void) {
  return sprom_pin_protect_on(pca9539_mezz_acc, mezz_pin());
}

int32_t velto_mt_varnholm_gem_sprom_we(void) {
  return sprom_pin_protect_off(pca9539_gem_acc[0], gem_protect_pin);
}

int32_t velto_mt_varnholm_gem_sprom_wd(void) {
  return sprom_pin_protect_on(pca9539_gem_acc[0], gem_protect_pin);
}

int32_t velto_mt_mirn_gem_sprom_we(void) {
  return sprom_pin_protect_off(pca9539_gem_acc[1], gem_protect_pin);
}

int32_t velto_mt_mirn_gem_sprom_wd(void) {
  return sprom_pin_protect_on(pca9539_gem_acc[1], gem_protect_pin);
}

}  // extern "C"
