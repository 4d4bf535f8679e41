#include "post/hw_change_bits.h"

#include <stdio.h>
#include <string.h>

#include "platform/mfgd/cmn_lib/diag_util/owner.h"
#include "platform/mfgd/uspace/utils/sprom/sprom_dev.h"
#include "platform/mfgd/uspace/utils/sprom/sprom_fields.h"
#include "post/dorvan/pfm_card.h"
#include "post/dorvan/sprom_dorvan.h"

namespace {

enum : uint64_t { REVISION_P1 = 1 };

constinit uint64_t post_hw_change_bits = 0;

}  // namespace

void post_read_hw_change_bits() {
  uint16_t card_index = PFM_CARD_UNKNOWN;
  if (pfm_get_card_index(&card_index) != 0) return;
  const uint32_t platform_type = pfm_get_sprom_platform_type(card_index);
  if (platform_type == PFM_PLATFORM_UNKNOWN) return;

  sprom_t *sprom = sprom_init_dorvan(platform_type, 1, 1);
  if (sprom == nullptr) {
    puts("err: could not init sup sprom, defaulting to KVR P1");
    post_hw_change_bits = REVISION_P1;
    return;
  }
  const auto image = malloc_array<uint8_t>(static_cast<size_t>(sprom_get_size(sprom)));
  if (!image) return;
  if (sprom_read(sprom, image.get()) < 0) {
    puts("err: could not read sup sprom, defaulting to KVR P1");
    post_hw_change_bits = REVISION_P1;
    return;
  }
  memcpy(&post_hw_change_bits, &image[SPROM_OFF_HW_CHANGE_BITS], sizeof post_hw_change_bits);
}

uint64_t dorvan_post_hw_change_bits_get() {
  return post_hw_change_bits;
}
