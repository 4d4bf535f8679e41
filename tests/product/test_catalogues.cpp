// Tables of constants: status codes, hardware types, interface types, PCI functions and the cards that carry them.
#include "platform/mfgd/cmn_lib/hw_acc/hw_err.h"
#include "platform/mfgd/cmn_lib/hw_acc/mmap/mmap_pci_velto_or.h"
#include "platform/mfgd/hw_acc/hwtype_defs.h"
#include "platform/mfgd/hw_acc/intf_type_defs.h"
#include "post/dorvan/cards.h"
#include "post/dorvan/pfm_card.h"
#include "tests/support/host.h"

namespace {

using lookup = const char *(*)(uint32_t);

// Every value below `end` that has a name.
std::string names(lookup name, lookup desc, uint32_t end) {
  std::string text;
  for (uint32_t value = 0; value < end; ++value)
    if (*name(value) != '\0') text += format("%u %s: %s\n", value, name(value), desc(value));
  return text;
}

std::string functions(std::span<const pci_dev_tbl_entry> table) {
  std::string text;
  for (const auto &row : table)
    text += format("%d:%d.%d %x:%x %s\n", row.bus, row.dev, row.func, row.vendor, row.device, row.description);
  return text;
}

std::string instances(std::span<const mmap_pci_map_t> map) {
  std::string text;
  for (const auto &row : map)
    text += format("%u %x:%x * %u\n", row.m_hwtype, row.m_vendor_id, row.m_device_id, row.m_num_inst);
  return text;
}

// With how many functions are compared by hardware change bits, and the first of them.
std::string cards() {
  std::string text;
  for (const auto &card : dorvan_cards) {
    text += format("%u %u %u", card.card_index, pfm_get_sprom_platform_type(card.card_index), card.nvram_instances);
    for (const int port : card.untested_ports)
      text += format(" eth%d", port);
    for (const uint64_t bits : {0U, 2U, 3U}) {
      const auto compared = dorvan_pci_functions(card, bits);
      text += format(", %zu %s", compared.size(), compared.empty() ? "" : compared.front().description);
    }
    text += "\n";
  }
  return text;
}

// FNV-1a, 32 bits.
uint32_t digest(const std::string &text) {
  uint32_t hash = 0x811C9DC5;
  for (const char c : text)
    hash = (hash ^ static_cast<uint8_t>(c)) * 0x01000193;
  return hash;
}

// A digest stands for all rows of a table: whoever changes one on purpose compares what is printed then.
TEST(catalogues, keep_every_row) {
  const std::pair<uint32_t, std::string> cases[] = {
      {0x9F75BFA5, names(hw_err_to_str, hw_err_get_desc, 0x20000)},  // codes have more than 16 bits
      {0xB6C6B615, names(hwtype_to_str, hwtype_desc, 154)},
      {0x1BB8E4EB, names(intf_type_to_str, intf_type_desc, 76)},
      {0x9AB9CBF0, functions(pci_dev_tbl_dorvan_a)},
      {0x3AB59067, functions(pci_dev_tbl_dorvan_b)},
      {0xB486CFE5, functions(pci_dev_tbl_dorvan_b_p1)},
      {0x619BE958, functions(pci_dev_tbl_dorvan_c)},
      {0x40E15675, functions(pci_dev_tbl_dorvan_d)},
      {0x0D267345, instances(mmap_pci_map)},
      {0x0D267345, instances(mmap_pci_map_cat1)},
      {0xA6DD6FA3, cards()},
  };
  for (const auto &[expected, all] : cases)
    EXPECT_EQ(digest(all), expected) << all;
  EXPECT_STREQ(hw_err_get_desc(293), "") << "in no catalogue";
  for (const uint16_t unknown : {uint16_t{0}, uint16_t{11060}, uint16_t{PFM_CARD_UNKNOWN}})
    EXPECT_EQ(pfm_get_sprom_platform_type(unknown), PFM_PLATFORM_UNKNOWN);
}

TEST(catalogues, assert_on_values_without_a_row) {
  const std::string hw = "(id >= 0) && (id < __n_hwtype_entries)";
  const std::string intf = "(id >= 0) && (id < __n_intf_type_entries)";
  expect_assertion([] { (void)hwtype_to_str(154); }, "hw_acc/hwtype_defs.h", "hwtype_to_str", hw);
  expect_assertion([] { (void)hwtype_desc(0xFFFFFFFF); }, "hw_acc/hwtype_defs.h", "hwtype_desc", hw);
  expect_assertion([] { (void)intf_type_desc(76); }, "hw_acc/intf_type_defs.h", "intf_type_desc", intf);
}

}  // namespace
