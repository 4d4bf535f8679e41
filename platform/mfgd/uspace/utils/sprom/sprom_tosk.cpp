#include "platform/mfgd/uspace/utils/sprom/sprom_tosk.h"

#include <array>

#include "platform/mfgd/uspace/utils/sprom/at24c512.h"
#include "platform/mfgd/uspace/utils/sprom/pca9539.h"
#include "platform/mfgd/uspace/utils/sprom/sprom_family.h"
#include "platform/mfgd/uspace/utils/sprom/sprom_layout.h"

extern "C" {
// clang-format off
//                           path         addr  base    addr_len data_len flags
const smb_dev_t tosk_bp_dev{"/dev/i2c-1", 0x52, 0x1000, 2,       1,       0};
// clang-format on
}

namespace {

// clang-format off
// The backplane's SPROM lies in the supervisor's EEPROM.
constexpr smb_dev_t sup_dev {"/dev/i2c-1", 0x52, 0,      2,       1,       0};
constexpr smb_dev_t lc_dev  {"/dev/i2c-7", 0x52, 0,      2,       1,       0};
constexpr smb_dev_t ps_dev[]{
                            {"/dev/i2c-6", 0x52, 0,      1,       1,       0},
                            {"/dev/i2c-6", 0x53, 0,      1,       1,       0}};
constexpr smb_dev_t dimm_dev[]{
                            {"/dev/i2c-0", 0x5E, 0,      1,       1,       0},
                            {"/dev/i2c-0", 0x55, 0,      1,       1,       0}};

// Expanders.
constexpr smb_dev_t gem_dev {"/dev/i2c-7", 0x75, 0,      1,       2,       0};  // slot 2, quellrim
constexpr smb_dev_t straps_pca9539_dev
                            {"/dev/i2c-8", 0x76, 0,      1,       2,       0};
constexpr smb_dev_t straps_pca8575_dev
                            {"/dev/i2c-8", 0x26, 0,      1,       2,       0};

constexpr smb_acc_t bp_acc  {&tosk_bp_dev, at24c512_rd, at24c512_wr};
constexpr smb_acc_t sup_acc {&sup_dev,     at24c512_rd, at24c512_wr};
constexpr smb_acc_t lc_acc  {&lc_dev,      at24c512_rd, at24c512_wr};
constexpr smb_acc_t ps_acc[]{
                            {&ps_dev[0],   at24c512_rd, at24c512_wr},
                            {&ps_dev[1],   at24c512_rd, at24c512_wr}};
constexpr smb_acc_t dimm_acc[]{
                            {&dimm_dev[0], at24c512_rd, at24c512_wr},
                            {&dimm_dev[1], at24c512_rd, at24c512_wr}};
constexpr smb_acc_t pca9539_gem_acc
                            {&gem_dev,     pca9539_rd,  pca9539_wr};
// clang-format on

constinit std::array<uint8_t, SPROM_SIZE_BP> bp_buf{};
constinit std::array<uint8_t, SPROM_SIZE_SUP> sup_buf{};
constinit std::array<std::array<uint8_t, SPROM_SIZE_PS>, 2> ps_buf{};
constinit std::array<uint8_t, 256> dimm_buf{};  // a DIMM's whole EEPROM; its image has no size

constexpr uint16_t gem_protect_pin = 0x0008;  // port 0 pin 3

constexpr std::array<uint16_t, 1> card_indexes{0x2AFC};

constexpr sprom_family_t family{SPROM_PLATFORM_TOSK, &straps_pca9539_dev, &straps_pca8575_dev, card_indexes};

constexpr sprom_slot_t sup_slot{1, 1};
constexpr sprom_slot_t bp_slot{0, 0};
constexpr sprom_slot_t chassis_slot{0, 0};

}  // namespace

sprom_wiring_t sprom_wiring_tosk(const sprom_t *sprom) {
  if (sprom->we == sprom_we_tosk) return {sprom_wiring_t::PORT, nullptr, 0};
  if (sprom->we == velto_quellrim_gem_sprom_we) return {sprom_wiring_t::PIN, &pca9539_gem_acc, gem_protect_pin};
  return {};
}

extern "C" {

// clang-format off
constinit sprom_t tosk_sprom_bp
    {&bp_acc,      sprom_we_tosk, sprom_wd_tosk, "BACKPLANE",  SPROM_TYPE_BP,   0, bp_buf.data()};
constinit sprom_t tosk_sprom_sup
    {&sup_acc,     sprom_we_tosk, sprom_wd_tosk, "SUPERVISOR", SPROM_TYPE_SUP,  0, sup_buf.data()};
constinit sprom_t tosk_sprom_lc[1]{
    {&lc_acc,      velto_quellrim_gem_sprom_we, velto_quellrim_gem_sprom_wd, "LC 2", SPROM_TYPE_LC, 0, nullptr}};
constinit sprom_t tosk_sprom_ps[2]{
    {&ps_acc[0],   nullptr,       nullptr,       "PS1",        SPROM_TYPE_PS,   0, ps_buf[0].data()},
    {&ps_acc[1],   nullptr,       nullptr,       "PS2",        SPROM_TYPE_PS,   0, ps_buf[1].data()}};
constinit sprom_t tosk_sprom_dimm[2]{
    {&dimm_acc[0], nullptr,       nullptr,       "DIMM0",      SPROM_TYPE_DIMM, 0, dimm_buf.data()},
    {&dimm_acc[1], nullptr,       nullptr,       "DIMM1",      SPROM_TYPE_DIMM, 0, dimm_buf.data()}};
// clang-format on

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
