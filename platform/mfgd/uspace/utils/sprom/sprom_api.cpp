#include "platform/mfgd/uspace/utils/sprom/sprom_api.h"

#include <errno.h>
#include <stdio.h>

#include <algorithm>
#include <array>

#include "platform/mfgd/cmn_lib/diag_util/diag_assert.h"
#include "platform/mfgd/uspace/utils/sprom/sprom_fields.h"
#include "platform/mfgd/uspace/utils/sprom/sprom_pellin.h"
#include "platform/mfgd/uspace/utils/sprom/sprom_tosk.h"

namespace {

struct family_t {
  uint32_t platform;
  sprom_t *(*init)(uint32_t slot, uint32_t index);
  int32_t (*get_slot_sup)(uint32_t *slot, uint32_t *index);
  int32_t (*get_slot_bp)(uint32_t *slot, uint32_t *index);
  int32_t (*get_slot_chassis)(uint32_t *slot, uint32_t *index);
  int32_t (*probe)(void);
};

// In the order of probing.
constexpr std::array<family_t, 2> families{{
    {
        .platform = SPROM_PLATFORM_PELLIN,
        .init = sprom_init_pellin,
        .get_slot_sup = sprom_get_slot_sup_pellin,
        .get_slot_bp = sprom_get_slot_bp_pellin,
        .get_slot_chassis = sprom_get_slot_chassis_pellin,
        .probe = sprom_platform_probe_pellin,
    },
    {
        .platform = SPROM_PLATFORM_TOSK,
        .init = sprom_init_tosk,
        .get_slot_sup = sprom_get_slot_sup_tosk,
        .get_slot_bp = sprom_get_slot_bp_tosk,
        .get_slot_chassis = sprom_get_slot_chassis_tosk,
        .probe = sprom_platform_probe_tosk,
    },
}};

const family_t *find_family(uint32_t platform) {
  const auto *family = std::ranges::find(families, platform, &family_t::platform);
  return family != families.end() ? family : nullptr;
}

bool has_card_index(uint32_t type) {
  return type == SPROM_TYPE_SUP || type == SPROM_TYPE_LC;
}

bool has_identity(uint32_t type) {
  return has_card_index(type) || type == SPROM_TYPE_BP;
}

int32_t read_field(const smb_acc_t *smb_acc, uint32_t offset, uint32_t length, void *field) {
  return smb_acc->smb_rd(smb_acc->dev, smb_acc->dev->base + offset, length, field);
}

}  // namespace

extern "C" {

sprom_t *sprom_init(uint32_t platform, uint32_t slot, uint32_t index) {
  const family_t *family = find_family(platform);
  return family != nullptr ? family->init(slot, index) : nullptr;
}

int32_t sprom_get_platform(void) {
  for (const family_t &family : families) {
    const auto platform = static_cast<int32_t>(family.platform);
    if (family.probe() == platform) return platform;
  }
  printf(" platform undefined");
  return -EINVAL;
}

int32_t sprom_get_slot_sup(uint32_t platform, uint32_t *slot, uint32_t *index) {
  const family_t *family = find_family(platform);
  return family != nullptr ? family->get_slot_sup(slot, index) : -EINVAL;
}

int32_t sprom_get_slot_bp(uint32_t platform, uint32_t *slot, uint32_t *index) {
  const family_t *family = find_family(platform);
  return family != nullptr ? family->get_slot_bp(slot, index) : -EINVAL;
}

int32_t sprom_get_slot_chassis(uint32_t platform, uint32_t *slot, uint32_t *index) {
  const family_t *family = find_family(platform);
  return family != nullptr ? family->get_slot_chassis(slot, index) : -EINVAL;
}

int32_t sprom_get_pid(const sprom_t *sprom, char *pid) {
  assert(sprom);
  if (!has_identity(sprom->type)) return -EINVAL;
  const smb_acc_t *smb_acc = sprom->smb_acc;
  assert(smb_acc);
  assert(smb_acc->smb_rd);
  assert(pid);
  return read_field(smb_acc, SPROM_OFF_PRODUCT_ID, SPROM_TEXT_LEN, pid);
}

int32_t sprom_get_sn(const sprom_t *sprom, char *sn) {
  assert(sprom);
  if (!has_identity(sprom->type)) return -EINVAL;
  const smb_acc_t *smb_acc = sprom->smb_acc;
  assert(smb_acc);
  assert(smb_acc->smb_rd);
  assert(sn);
  return read_field(smb_acc, SPROM_OFF_SERIAL_NUMBER, SPROM_TEXT_LEN, sn);
}

int32_t sprom_get_hw_change(const sprom_t *sprom, uint64_t *hw_change) {
  assert(sprom);
  if (!has_identity(sprom->type)) return -EINVAL;
  const smb_acc_t *smb_acc = sprom->smb_acc;
  assert(smb_acc);
  assert(smb_acc->smb_rd);
  const int32_t result = read_field(smb_acc, SPROM_OFF_HW_CHANGE_BITS, sizeof *hw_change, hw_change);
  if (result >= 0) *hw_change = __builtin_bswap64(*hw_change);
  return result;
}

int32_t sprom_get_card_index(const sprom_t *sprom, uint16_t *card_index) {
  assert(sprom);
  if (!has_card_index(sprom->type)) return -EINVAL;
  const smb_acc_t *smb_acc = sprom->smb_acc;
  assert(smb_acc);
  assert(smb_acc->smb_rd);
  const int32_t result = read_field(smb_acc, SPROM_OFF_CARD_INDEX, sizeof *card_index, card_index);
  if (result >= 0) *card_index = __builtin_bswap16(*card_index);
  return result;
}

}  // extern "C"
