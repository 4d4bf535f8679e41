#include "locate/identity.h"

#include <array>
#include <cstring>

#include "platform/mfgd/uspace/utils/sprom/sprom_dev.h"
#include "platform/mfgd/uspace/utils/sprom/sprom_fields.h"
#include "post/dorvan/pfm_card.h"
#include "post/dorvan/sprom_dorvan.h"

namespace locate {

const dorvan_card_t *this_card(part_result *result) {
  uint16_t index = PFM_CARD_UNKNOWN;
  const auto *const card = pfm_ask_driver(SPROM_IOC_GET_CARD_INDEX, &index) ? dorvan_card(index) : nullptr;
  if (card == nullptr) add_omission("Which card this is cannot be read, or it is not of this family.", result);
  return card;
}

std::optional<uint64_t> change_bits() {
  std::array<uint8_t, SPROM_SIZE_SUP> image{};
  if (sprom_read(&dorvan_sprom_sup, image.data()) < 0) return std::nullopt;
  uint64_t bits = 0;
  std::memcpy(&bits, &image[SPROM_OFF_HW_CHANGE_BITS], sizeof bits);
  return bits;
}

}  // namespace locate
