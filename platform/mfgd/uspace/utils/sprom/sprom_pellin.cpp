#include "platform/mfgd/uspace/utils/sprom/sprom_pellin.h"

#include <stdlib.h>

#include <array>

#include "platform/mfgd/uspace/utils/sprom/at24c512.h"
#include "platform/mfgd/uspace/utils/sprom/pca9539.h"
#include "platform/mfgd/uspace/utils/sprom/sprom_family.h"
#include "platform/mfgd/uspace/utils/sprom/sprom_layout.h"

extern "C" {
// clang-format off
//                             path          addr  base    addr_len data_len flags
const smb_dev_t pellin_bp_dev{"/dev/i2c-1",  0x52, 0x1000, 2,       1,       0};
// clang-format on
}

namespace {

// clang-format off
// The backplane's SPROM lies in the supervisor's EEPROM.
constexpr smb_dev_t sup_dev  {"/dev/i2c-1",  0x52, 0,      2,       1,       0};
constexpr smb_dev_t lc_dev[]{
                             {"/dev/i2c-17", 0x52, 0,      2,       1,       0},
                             {"/dev/i2c-23", 0x52, 0,      2,       1,       0},
                             {"/dev/i2c-7",  0x52, 0,      2,       1,       0}};
constexpr smb_dev_t ps_dev[]{
                             {"/dev/i2c-6",  0x52, 0,      1,       1,       0},
                             {"/dev/i2c-6",  0x53, 0,      1,       1,       0}};
constexpr smb_dev_t dimm_dev[]{
                             {"/dev/i2c-0",  0x5E, 0,      1,       1,       0},
                             {"/dev/i2c-0",  0x55, 0,      1,       1,       0}};

// Expanders.
constexpr smb_dev_t gem_dev[]{
                             {"/dev/i2c-23", 0x75, 0,      1,       2,       0},   // slot 2, varnholm
                             {"/dev/i2c-7",  0x75, 0,      1,       2,       0}};  // slot 3, mirn
constexpr smb_dev_t mezz_dev {"/dev/i2c-20", 0x76, 0,      1,       2,       0};
constexpr smb_dev_t straps_pca9539_dev
                             {"/dev/i2c-8",  0x76, 0,      1,       2,       0};
constexpr smb_dev_t straps_pca8575_dev
                             {"/dev/i2c-8",  0x26, 0,      1,       2,       0};

constexpr smb_acc_t bp_acc   {&pellin_bp_dev, at24c512_rd, at24c512_wr};
constexpr smb_acc_t sup_acc  {&sup_dev,       at24c512_rd, at24c512_wr};
constexpr smb_acc_t lc_acc[]{{&lc_dev[0],     at24c512_rd, at24c512_wr},
                             {&lc_dev[1],     at24c512_rd, at24c512_wr},
                             {&lc_dev[2],     at24c512_rd, at24c512_wr}};
constexpr smb_acc_t ps_acc[]{{&ps_dev[0],     at24c512_rd, at24c512_wr},
                             {&ps_dev[1],     at24c512_rd, at24c512_wr}};
constexpr smb_acc_t dimm_acc[]{
                             {&dimm_dev[0],   at24c512_rd, at24c512_wr},
                             {&dimm_dev[1],   at24c512_rd, at24c512_wr}};
// clang-format on

constinit std::array<uint8_t, SPROM_SIZE_BP> bp_buf{};
constinit std::array<uint8_t, SPROM_SIZE_SUP> sup_buf{};
constinit std::array<std::array<uint8_t, SPROM_SIZE_PS>, 2> ps_buf{};
constinit std::array<uint8_t, 256> dimm_buf{};  // a DIMM's whole EEPROM; its image has no size

constexpr uint16_t gem_protect_pin = 0x0008;           // port 0 pin 3
constexpr uint16_t mezz_protect_pin = 0x0200;          // port 1 pin 1
constexpr uint16_t mezz_protect_pin_change0 = 0x0080;  // port 0 pin 7, with hardware change bits 0

constexpr std::array<uint16_t, 5> card_indexes{0x2AFB, 0x2AFD, 0x2AFE, 0x2AFF, 0x2B00};

constexpr sprom_family_t family{SPROM_PLATFORM_PELLIN, &straps_pca9539_dev, &straps_pca8575_dev, card_indexes};

constexpr sprom_slot_t sup_slot{1, 1};
constexpr sprom_slot_t bp_slot{0, 0};
constexpr sprom_slot_t chassis_slot{0, 0};

uint16_t mezz_pin() {
  const char *change_bits = getenv("DIAG_HW_CHANGE_BITS");
  if (change_bits != nullptr && strtoull(change_bits, nullptr, 0) == 0) return mezz_protect_pin_change0;
  return mezz_protect_pin;
}

}  // namespace

sprom_wiring_t sprom_wiring_pellin(const sprom_t *sprom) {
  if (sprom->we == velto_or_sprom_we) return {sprom_wiring_t::PORT, nullptr, 0};
  if (sprom->we == velto_mt_varnholm_sprom_we) return {sprom_wiring_t::PIN, &pca9539_mezz_acc, mezz_pin()};
  if (sprom->we == velto_mt_varnholm_gem_sprom_we) return {sprom_wiring_t::PIN, &pca9539_gem_acc[0], gem_protect_pin};
  if (sprom->we == velto_mt_mirn_gem_sprom_we) return {sprom_wiring_t::PIN, &pca9539_gem_acc[1], gem_protect_pin};
  return {};
}

extern "C" {

// clang-format off
const smb_acc_t pca9539_gem_acc[2]{
    {&gem_dev[0],  pca9539_rd, pca9539_wr},
    {&gem_dev[1],  pca9539_rd, pca9539_wr}};
const smb_acc_t pca9539_mezz_acc
    {&mezz_dev,    pca9539_rd, pca9539_wr};

constinit sprom_t pellin_sprom_bp
    {&bp_acc,      velto_or_sprom_we, velto_or_sprom_wd, "BACKPLANE",  SPROM_TYPE_BP,   0, bp_buf.data()};
constinit sprom_t pellin_sprom_sup
    {&sup_acc,     velto_or_sprom_we, velto_or_sprom_wd, "SUPERVISOR", SPROM_TYPE_SUP,  0, sup_buf.data()};
constinit sprom_t pellin_sprom_lc[3]{
    {&lc_acc[0],   velto_mt_varnholm_sprom_we,     velto_mt_varnholm_sprom_wd,     "DC 1", SPROM_TYPE_LC, 0, nullptr},
    {&lc_acc[1],   velto_mt_varnholm_gem_sprom_we, velto_mt_varnholm_gem_sprom_wd, "LC 2", SPROM_TYPE_LC, 0, nullptr},
    {&lc_acc[2],   velto_mt_mirn_gem_sprom_we,     velto_mt_mirn_gem_sprom_wd,     "LC 3", SPROM_TYPE_LC, 0, nullptr}};
constinit sprom_t pellin_sprom_ps[2]{
    {&ps_acc[0],   nullptr,           nullptr,           "PS1",        SPROM_TYPE_PS,   0, ps_buf[0].data()},
    {&ps_acc[1],   nullptr,           nullptr,           "PS2",        SPROM_TYPE_PS,   0, ps_buf[1].data()}};
constinit sprom_t pellin_sprom_dimm[2]{
    {&dimm_acc[0], nullptr,           nullptr,           "DIMM0",      SPROM_TYPE_DIMM, 0, dimm_buf.data()},
    {&dimm_acc[1], nullptr,           nullptr,           "DIMM1",      SPROM_TYPE_DIMM, 0, dimm_buf.data()}};
// clang-format on

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
