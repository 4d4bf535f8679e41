#include "post/seeprom.h"

#include <errno.h>
#include <stdio.h>

#include "platform/mfgd/cmn_lib/diag_util/owner.h"
#include "platform/mfgd/uspace/utils/sprom/sprom_dev.h"
#include "platform/mfgd/uspace/utils/sprom/sprom_verify.h"
#include "post/dorvan/pfm_card.h"
#include "post/dorvan/sprom_dorvan.h"

namespace {

constexpr uint32_t status_wrong_kind = 2;

struct seeprom_row {
  uint32_t slot;
  uint32_t index;
  uint32_t type;
};

// By device number.
constexpr seeprom_row seeprom_tbl[] = {
    {1, 1, SPROM_TYPE_SUP},
    {0, 0, SPROM_TYPE_BP},
};

}  // namespace

uint32_t dorvan_brd_seeprom_test(uint32_t /*reserved*/, uint32_t *result, uint32_t device, uint32_t * /*scratch*/) {
  *result = POST_RESULT_NONE;
  uint16_t card_index = PFM_CARD_UNKNOWN;
  if (pfm_get_card_index(&card_index) != 0) return 0;
  const uint32_t platform_type = pfm_get_sprom_platform_type(card_index);
  if (platform_type == PFM_PLATFORM_UNKNOWN) return 0;
  if (device >= std::size(seeprom_tbl)) return 0;

  *result = POST_RESULT_FAIL;
  const seeprom_row &row = seeprom_tbl[device];
  sprom_t *sprom = sprom_init_dorvan(platform_type, row.slot, row.index);
  if (sprom->type != row.type) {
    (void)fputs("Err: Sprom type does not match\n", stderr);
    return status_wrong_kind;
  }
  const auto image = malloc_array<uint8_t>(static_cast<size_t>(sprom_get_size(sprom)));
  if (!image) return static_cast<uint32_t>(-ENOMEM);
  const int32_t read = sprom_read(sprom, image.get());
  if (read < 0) return static_cast<uint32_t>(read);

  const int32_t verdict = sprom_verify(sprom, image.get());
  if (verdict >= 0) *result = POST_RESULT_PASS;
  return static_cast<uint32_t>(verdict);
}
