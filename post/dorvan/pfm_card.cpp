#include "post/dorvan/pfm_card.h"

#include <fcntl.h>
#include <stdio.h>
#include <sys/ioctl.h>

#include "platform/mfgd/cmn_lib/diag_util/owner.h"
#include "post/dorvan/cards.h"

namespace {

constexpr char sprom_device[] = "/dev/sprom";

// Asks the SPROM kernel driver; `what` names the answer in the message.
uint32_t query_driver(uint32_t request, const char *what, uint16_t *answer) {
  if (pfm_ask_driver(request, answer)) return 0;
  printf("Error in opening %s for reading. Default %s to %d\n", sprom_device, what, *answer);
  return 1;
}

}  // namespace

bool pfm_ask_driver(uint32_t request, uint16_t *answer) {
  sprom_ioctl_req req{3, 0, 0, 0, 4, 0, 0, answer, 0};
  const unique_fd fd(open(sprom_device, O_RDWR));
  if (!fd) return false;
  (void)ioctl(fd.get(), request, &req);
  return true;
}

uint32_t pfm_get_card_index(uint16_t *card_index) {
  return query_driver(SPROM_IOC_GET_CARD_INDEX, "card_index", card_index);
}

uint32_t pfm_get_hw_changes_bits(uint16_t *hw_changes) {
  return query_driver(SPROM_IOC_GET_HW_CHANGES, "hw_changes_bits", hw_changes);
}

uint32_t pfm_get_sprom_platform_type(uint16_t card_index) {
  const dorvan_card_t *const card = dorvan_card(card_index);
  return card != nullptr ? card->platform_type : PFM_PLATFORM_UNKNOWN;
}
