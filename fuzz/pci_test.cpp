// The PCI row on a list of any shape. The first byte chooses the card.
#include <array>
#include <cstdio>
#include <string>

#include "fuzz/fuzz.h"
#include "fuzz/text_file.h"
#include "post/pcie.cpp"  // NOLINT(bugprone-suspicious-include): it scans once in a process, and is started again here

static uint16_t card = 0;

extern "C" {
uint32_t __wrap_pfm_get_card_index(uint16_t *card_index);
uint64_t __wrap_dorvan_post_hw_change_bits_get();

uint32_t __wrap_pfm_get_card_index(uint16_t *card_index) {
  *card_index = card;
  return 0;
}

uint64_t __wrap_dorvan_post_hw_change_bits_get() {
  return 1;
}

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size == 0) return 0;
  drop_output();
  constexpr std::array<uint16_t, 4> cards{11062, 11096, 11111, 1};
  card = cards[data[0] % cards.size()];
  set_file_text({reinterpret_cast<const char *>(data) + 1, size - 1});
  pci_scan_done = 0;
  pcie_fail_mask = 0;
  pcie_scan_pending = 1;
  uint32_t failed = 0;
  for (uint32_t device = 0; device < 7; ++device) {
    uint32_t result = 0;
    const uint32_t status = dorvan_pcie_test(0, &result, device, nullptr);
    MUST_HOLD((status == 0) == (result == post_result_of(0)));
    failed |= status;
  }
  MUST_HOLD(!close_left_file());
  MUST_HOLD((failed & 1U << 4) == 0);
  MUST_HOLD(card != 1 || failed == 0);
  MUST_HOLD(pci_scan_count <= pci_scan_list.size());
  // A function is missing where no line of the list has its position and ids.
  if (card == 1) return 0;
  const auto table = dorvan_pci_functions(*dorvan_card(card), 1);
  for (size_t row = 0; row < 6; ++row)
    MUST_HOLD((pci_find_device(&table[row]) == 0) == ((failed & 1U << dorvan_pci_device(row)) == 0));
  return 0;
}
}
