// cards.h: the supervisor cards of the dorvan family, with everything that tests and tools need to know about each.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include <algorithm>
#include <span>

#include "post/dorvan/pcie_tbl.h"

struct dorvan_card_t {
  uint16_t card_index;                           // as the SPROM kernel driver returns it
  uint32_t platform_type;                        // of its SPROMs
  uint32_t nvram_instances;                      // tested ones, from instance 0 on
  std::span<const int> untested_ports;           // n means eth<n>
  std::span<const pci_dev_tbl_entry> pci_p0;     // with hardware change bits 0: before revision P1
  std::span<const pci_dev_tbl_entry> pci_p1;     // with 1 or 2: revision P1
  std::span<const pci_dev_tbl_entry> pci_later;  // with others; none: nothing is compared
};

inline constexpr int dorvan_eth1_eth2[] = {1, 2};

// clang-format off
inline constexpr dorvan_card_t dorvan_cards[] = {
    //       plat- NVRAMs untested          PCI functions
    // index form  tested ports             before P1             P1                       later
    {  11061, 14,  1,     {},               pci_dev_tbl_dorvan_a, pci_dev_tbl_dorvan_a,    pci_dev_tbl_dorvan_a},
    {  11062, 16,  3,     dorvan_eth1_eth2, pci_dev_tbl_dorvan_b, pci_dev_tbl_dorvan_b_p1, {}},
    {  11079, 18,  3,     {},               pci_dev_tbl_dorvan_c, pci_dev_tbl_dorvan_c,    pci_dev_tbl_dorvan_c},
    {  11080, 20,  3,     {},               pci_dev_tbl_dorvan_c, pci_dev_tbl_dorvan_c,    pci_dev_tbl_dorvan_c},
    {  11096, 22,  1,     {},               pci_dev_tbl_dorvan_d, pci_dev_tbl_dorvan_d,    pci_dev_tbl_dorvan_d},
    {  11099, 24,  3,     {},               pci_dev_tbl_dorvan_a, pci_dev_tbl_dorvan_a,    pci_dev_tbl_dorvan_a},
    {  11111, 16,  3,     dorvan_eth1_eth2, pci_dev_tbl_dorvan_b, pci_dev_tbl_dorvan_b_p1, {}},
};
// clang-format on

static_assert(std::ranges::adjacent_find(dorvan_cards, std::ranges::greater_equal{}, &dorvan_card_t::card_index) ==
              std::ranges::end(dorvan_cards));

// The card with an index, null where the family has none.
[[nodiscard]] constexpr const dorvan_card_t *dorvan_card(uint16_t card_index) {
  const auto *const card = std::ranges::find(dorvan_cards, card_index, &dorvan_card_t::card_index);
  return card != std::ranges::end(dorvan_cards) ? card : nullptr;
}

// The PCI functions that a card with these hardware change bits must have; none where that is not known.
[[nodiscard]] constexpr std::span<const pci_dev_tbl_entry> dorvan_pci_functions(const dorvan_card_t &card,
                                                                                uint64_t change_bits) {
  if (change_bits == 0) return card.pci_p0;
  return change_bits <= 2 ? card.pci_p1 : card.pci_later;
}

// The device of the PCIe test that fails with a row of these functions; the test has devices 0 to 6. None fails
// device 4.
[[nodiscard]] constexpr uint32_t dorvan_pci_device(size_t row) {
  return static_cast<uint32_t>((row < 4 ? row : row + 1) % 32);
}
