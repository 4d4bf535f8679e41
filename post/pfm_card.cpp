#include "post/pfm_card.h"

#include <fcntl.h>
#include <stdio.h>
#include <sys/ioctl.h>

#include "platform/mfgd/cmn_lib/diag_util/owner.h"

namespace {

constexpr char sprom_device[] = "/dev/sprom";

struct platform_row {
  uint16_t card_index;
  uint32_t platform_type;
};

// clang-format off
constexpr platform_row platform_tbl[] = {
    {PFM_CARD_11061, 14},
    {PFM_CARD_11062, 16},
    {PFM_CARD_11079, 18},
    {PFM_CARD_11080, 20},
    {PFM_CARD_11096, 22},
    {PFM_CARD_11099, 24},
    {PFM_CARD_11111, 16},
};
// clang-format on

// `what` names the answer in the message.
uint32_t ask(uint32_t request, const char *what, uint16_t *answer) {
  sprom_ioctl_req req{3, 0, 0, 0, 4, 0, 0, answer, 0};
  const unique_fd fd(open(sprom_device, O_RDWR));
  if (!fd) {
    printf("Error in opening %s for reading. Default %s to %d\n", sprom_device, what, *answer);
    return 1;
  }
  (void)ioctl(fd.get(), request, &req);
  return 0;
}

}  // namespace

uint32_t pfm_get_card_index(uint16_t *card_index) {
  return ask(SPROM_IOC_GET_CARD_INDEX, "card_index", card_index);
}

uint32_t pfm_get_hw_changes_bits(uint16_t *hw_changes) {
  return ask(SPROM_IOC_GET_HW_CHANGES, "hw_changes_bits", hw_changes);
}

uint32_t pfm_get_sprom_platform_type(uint16_t card_index) {
  for (const platform_row &row : platform_tbl) {
    if (row.card_index == card_index) return row.platform_type;
  }
  return PFM_PLATFORM_UNKNOWN;
}
