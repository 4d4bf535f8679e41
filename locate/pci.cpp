// pci.cpp: the kernel's list of PCI functions against what the card has.
#include <algorithm>
#include <array>
#include <span>

#include "locate/device.h"
#include "locate/identity.h"
#include "locate/parts.h"

namespace locate {
namespace {

struct function_row {
  uint8_t bus;
  uint8_t dev;
  uint8_t func;
  uint16_t vendor;
  uint16_t device;
  const char *what;

  [[nodiscard]] uint32_t position() const { return uint32_t{bus} << 8U | uint32_t{dev} << 3U | func; }
  [[nodiscard]] uint32_t ids() const { return uint32_t{vendor} << 16U | device; }
};

// clang-format off
// The processor's chipset, as on every card. POST does not look at it.
constexpr std::array chipset{std::to_array<function_row>({
    // bus  dev   func vendor  device  what
    {0x00, 0x00, 0, 0x8086, 0x25D4, "memory controller"},
    {0x00, 0x02, 0, 0x8086, 0x25E2, "PCI Express port 2"},
    {0x00, 0x03, 0, 0x8086, 0x25E3, "PCI Express port 3"},
    {0x00, 0x08, 0, 0x8086, 0x1A38, "DMA engine"},
    {0x00, 0x10, 0, 0x8086, 0x25F0, "front-side bus registers"},
    {0x00, 0x1D, 0, 0x8086, 0x2688, "USB controller"},
    {0x00, 0x1D, 7, 0x8086, 0x268C, "USB 2 controller"},
    {0x00, 0x1E, 0, 0x8086, 0x244E, "PCI bridge"},
    {0x00, 0x1F, 0, 0x8086, 0x2670, "LPC bridge"},
    {0x00, 0x1F, 2, 0x8086, 0x2681, "SATA controller"},
    {0x00, 0x1F, 3, 0x8086, 0x269B, "SMBus controller"},
})};

// What a card has besides the functions that POST looks for.
constexpr std::array further_a{std::to_array<function_row>({
    {0x01, 0x00, 0, 0x8086, 0x0434, "Ethernet controller, its first function"},
    {0x16, 0x00, 0, 0x10B5, 0x9030, "local-bus bridge"},
})};
// clang-format on

std::vector<function_row> functions_of(const dorvan_card_t &card, uint64_t bits) {
  std::vector<function_row> all(chipset.begin(), chipset.end());
  for (const auto &row : dorvan_pci_functions(card, bits))
    all.push_back({row.bus, row.dev, row.func, static_cast<uint16_t>(row.vendor), static_cast<uint16_t>(row.device),
                   row.description});
  if (card.pci_p1.data() == pci_dev_tbl_dorvan_a.data()) all.insert(all.end(), further_a.begin(), further_a.end());
  return all;
}

std::string position_text(uint32_t position) {
  char text[40];
  (void)std::snprintf(text, sizeof text, "bus=0x%02X dev=%u func=%u", position >> 8U & 0xFFU, position >> 3U & 31U,
                      position & 7U);
  return text;
}

// As lspci writes it: a name without blanks.
std::string place_text(uint32_t position) {
  char text[40];
  (void)std::snprintf(text, sizeof text, "pci.%02x:%02x.%u", position >> 8U & 0xFFU, position >> 3U & 31U,
                      position & 7U);
  return text;
}

std::string ids_text(uint32_t ids) {
  return hex(ids >> 16U, 4) + ":" + hex(ids & 0xFFFFU, 4);
}

void check_function(const function_row &row, std::span<const pci_dev_line_t> lines, part_result *result) {
  const auto found = std::ranges::find(lines, row.position(), &pci_dev_line_t::m_busdevfn);
  const auto at = position_text(row.position());
  finding what{.places = {place_text(row.position())}};
  if (found == lines.end()) {
    what.sentence = std::string("PCI function missing: ") + row.what + ", " + at + ".";
    what.evidence = {"no function is listed there, ids " + ids_text(row.ids()) + " are expected"};
    what.candidates = {"pci-missing " + at};
    what.next = "check supply, reset and clock of the device, and the ports above it";
  } else if (found->m_vendor_device != row.ids()) {
    what.sentence = std::string("Wrong PCI function instead of ") + row.what + ", " + at + ".";
    what.evidence = {"ids " + ids_text(found->m_vendor_device) + ", expected " + ids_text(row.ids())};
    what.candidates = {"pci-wrong-id " + at + " vendor=" + hex(found->m_vendor_device >> 16U, 4) +
                       " device=" + hex(found->m_vendor_device & 0xFFFFU, 4)};
    what.next = "check which device is fitted, and its configuration EEPROM";
  } else {
    return;
  }
  add_finding(std::move(what), result);
}

}  // namespace

part_result probe_pci(const settings & /*how*/) {
  part_result result;
  std::vector<pci_dev_line_t> lines;
  if (!list_functions(&lines, &result)) return result;
  result.accesses = lines.size();
  const auto *const card = this_card(&result);
  if (card == nullptr) return result;
  const auto bits = change_bits();
  if (!bits) {
    add_omission("The hardware change bits cannot be read from the supervisor's SPROM.", &result);
    return result;
  }
  const auto expected = functions_of(*card, *bits);
  for (const auto &row : expected)
    check_function(row, lines, &result);
  result.looked_at = {std::to_string(expected.size()) + " functions of card " + std::to_string(card->card_index)};
  if (dorvan_pci_functions(*card, *bits).empty()) {
    result.not_looked_at = {"the card's own functions, which are not known for this revision"};
    return result;
  }
  for (const auto &line : lines) {
    if (std::ranges::find(expected, line.m_busdevfn, &function_row::position) != expected.end()) continue;
    add_finding({.sentence = "PCI function that this card does not have: " + position_text(line.m_busdevfn) + ".",
                 .evidence = {"ids " + ids_text(line.m_vendor_device)},
                 .next = "check the card index in the SPROM, and what is plugged in",
                 .places = {place_text(line.m_busdevfn)}},
                &result);
  }
  return result;
}

}  // namespace locate
