#include "sim/board/pci_list.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <optional>
#include <span>
#include <string_view>
#include <vector>

#include "platform/mfgd/hw_acc/switch_asic.h"
#include "sim/bus/layout.h"

namespace sim {

namespace {

enum : uint16_t {
  intel = 0x8086,
  plx = 0x10B5,
  marvell = 0x11AB,
  asic = SWITCH_ASIC_VENDOR_ID,
  plx_9030 = 0x9030,
};

struct pci_function {
  uint8_t bus;
  uint8_t dev;
  uint8_t func;
  uint16_t vendor;
  uint16_t device;
  const char *driver;  // "" for none
};

// clang-format off
// The processor's chipset, on every card.
constexpr std::array chipset{std::to_array<pci_function>({
    // bus   dev   func  vendor  device  driver
    {0x00, 0x00, 0x00, intel,   0x25D4, ""},
    {0x00, 0x02, 0x00, intel,   0x25E2, "pcieport"},
    {0x00, 0x03, 0x00, intel,   0x25E3, "pcieport"},
    {0x00, 0x08, 0x00, intel,   0x1A38, ""},
    {0x00, 0x10, 0x00, intel,   0x25F0, ""},
    {0x00, 0x1D, 0x00, intel,   0x2688, "uhci_hcd"},
    {0x00, 0x1D, 0x07, intel,   0x268C, "ehci-pci"},
    {0x00, 0x1E, 0x00, intel,   0x244E, ""},
    {0x00, 0x1F, 0x00, intel,   0x2670, "lpc_ich"},
    {0x00, 0x1F, 0x02, intel,   0x2681, "ahci"},
    {0x00, 0x1F, 0x03, intel,   0x269B, "i801_smbus"},
})};

constexpr std::array card_a{std::to_array<pci_function>({
    {0x01, 0x00, 0x00, intel,   0x0434, ""},
    {0x01, 0x00, 0x01, intel,   0x0438, "igb"},
    {0x01, 0x00, 0x02, intel,   0x0438, "igb"},
    {0x01, 0x00, 0x03, intel,   0x0436, "igb"},
    {0x01, 0x00, 0x04, intel,   0x0436, "igb"},
    {0x02, 0x00, 0x00, intel,   0x1521, "igb"},
    {0x02, 0x00, 0x01, intel,   0x1521, "igb"},
    {0x16, 0x00, 0x00, plx,     plx_9030, ""},
    {0x17, 0x00, 0x00, marvell, 0x8000, ""},
    {0x1A, 0x00, 0x00, asic,    0x00BE, ""},
    {0x1B, 0x00, 0x00, asic,    0x0078, ""},
    {0x1C, 0x00, 0x00, asic,    0x00BE, ""},
    {0x1D, 0x00, 0x00, asic,    0x00BE, ""},
    {0x1E, 0x00, 0x00, asic,    0x00BE, ""},
    {0x1F, 0x00, 0x00, asic,    0x00BE, ""},
    {0x20, 0x00, 0x00, asic,    0x00BE, ""},
    {0x21, 0x00, 0x00, marvell, 0x8000, ""},
})};

// The two revisions differ in the Ethernet controllers, at 02:00.0 and 2C:00.0.
constexpr std::array card_b_p1{std::to_array<pci_function>({
    {0x02, 0x00, 0x00, intel,   0x1521, "igb"},
    {0x03, 0x00, 0x00, plx,     0x8608, "pcieport"},
    {0x04, 0x01, 0x00, plx,     0x8608, "pcieport"},
    {0x05, 0x00, 0x00, asic,    0x0078, ""},
    {0x06, 0x00, 0x00, plx,     0x8618, "pcieport"},
    {0x07, 0x01, 0x00, plx,     0x8618, "pcieport"},
    {0x17, 0x00, 0x00, asic,    0x0078, ""},
    {0x18, 0x00, 0x00, plx,     0x8618, "pcieport"},
    {0x19, 0x01, 0x00, plx,     0x8618, "pcieport"},
    {0x29, 0x00, 0x00, asic,    0x0078, ""},
    {0x2A, 0x00, 0x00, asic,    0x0078, ""},
    {0x2B, 0x00, 0x00, asic,    0x0077, ""},
    {0x2C, 0x00, 0x00, intel,   0x1523, "igb"},
    {0x2E, 0x00, 0x00, plx,     plx_9030, ""},
    {0x2F, 0x00, 0x00, plx,     0x8618, "pcieport"},
    {0x30, 0x01, 0x00, plx,     0x8618, "pcieport"},
    {0x40, 0x00, 0x00, plx,     0x8618, "pcieport"},
    {0x41, 0x01, 0x00, plx,     0x8618, "pcieport"},
    {0x51, 0x00, 0x00, plx,     0x8618, "pcieport"},
    {0x52, 0x01, 0x00, plx,     0x8618, "pcieport"},
})};

constexpr std::array card_c{std::to_array<pci_function>({
    {0x02, 0x00, 0x00, intel,   0x1521, "igb"},
    {0x04, 0x00, 0x00, intel,   0x1523, "igb"},
    {0x06, 0x00, 0x00, plx,     plx_9030, ""},
    {0x07, 0x00, 0x00, plx,     0x8608, "pcieport"},
    {0x08, 0x01, 0x00, plx,     0x8608, "pcieport"},
    {0x09, 0x00, 0x00, asic,    0x0077, ""},
    {0x0A, 0x00, 0x00, asic,    0x0078, ""},
    {0x0B, 0x00, 0x00, asic,    0x0077, ""},
    {0x0C, 0x00, 0x00, asic,    0x0077, ""},
    {0x0D, 0x00, 0x00, asic,    0x0077, ""},
    {0x0E, 0x00, 0x00, asic,    0x0077, ""},
})};

constexpr std::array card_d{std::to_array<pci_function>({
    {0x02, 0x00, 0x00, intel,   0x1521, "igb"},
    {0x03, 0x00, 0x00, asic,    0x00BE, ""},
    {0x04, 0x00, 0x00, intel,   0x1523, "igb"},
    {0x05, 0x00, 0x00, plx,     0x8112, ""},
    {0x06, 0x00, 0x00, plx,     plx_9030, ""},
    {0x07, 0x00, 0x00, plx,     0x8608, "pcieport"},
    {0x08, 0x01, 0x00, plx,     0x8608, "pcieport"},
    {0x09, 0x00, 0x00, asic,    0x00BE, ""},
    {0x0A, 0x00, 0x00, asic,    0x0078, ""},
    {0x0B, 0x00, 0x00, asic,    0x00BE, ""},
    {0x0C, 0x00, 0x00, asic,    0x00BE, ""},
    {0x0D, 0x00, 0x00, asic,    0x00BE, ""},
    {0x0E, 0x00, 0x00, asic,    0x00BE, ""},
    {0x0F, 0x00, 0x00, asic,    0x00BE, ""},
})};

struct card_row {
  uint32_t card;
  std::span<const pci_function> functions;
};

constexpr std::array card_rows{std::to_array<card_row>({
    {11061, card_a},
    {11062, card_b_p1},
    {11079, card_c},
    {11080, card_c},
    {11096, card_d},
    {11099, card_a},
    {11111, card_b_p1},
})};
// clang-format on

// An unknown card has the functions of card 11062.
std::span<const pci_function> card_functions(const options &opts) {
  for (const auto &row : card_rows)
    if (row.card == opts.card) return row.functions;
  return card_b_p1;
}

constexpr uint32_t position(const pci_function &f) {
  return uint32_t{f.bus} << 8 | uint32_t{f.dev} << 3 | uint32_t{f.func};
}

bool is_at(const pci_function &f, const fault &at) {
  return f.bus == at.get(parm::bus) && f.dev == at.get(parm::dev) && f.func == at.get(parm::func);
}

uint32_t ids_of(const pci_function &f) {
  return uint32_t{f.vendor} << 16 | f.device;
}

uint32_t wrong_ids(const pci_function &f, const fault &fault) {
  return static_cast<uint32_t>(fault.get(parm::vendor, f.vendor) << 16 | fault.get(parm::device, f.device));
}

// All functions in ascending order of their position.
std::vector<pci_function> healthy_functions(const options &opts) {
  std::vector<pci_function> list(chipset.begin(), chipset.end());
  const auto card = card_functions(opts);
  list.insert(list.end(), card.begin(), card.end());
  if (card.data() == card_b_p1.data() && opts.change_bits == 0) {
    for (auto &f : list) {
      if (f.vendor == intel && f.device == 0x1521) f.device = 0x10A7;
      if (f.vendor == intel && f.device == 0x1523) f.device = 0x10A9;
    }
  }
  std::ranges::sort(list, {}, position);
  return list;
}

// The seven resources of a function: six base addresses and the expansion ROM.
struct resources {
  std::array<uint64_t, 7> base{};
  std::array<uint64_t, 7> size{};
};

enum : uint64_t { bar_io = 1, bar_64bit = 4, bar_flags = 15 };

resources healthy_bridge() {
  resources r;
  // Its own registers, once in memory and once in I/O space.
  r.base[0] = 0xF3FFF000;
  r.base[1] = 0xE000 | bar_io;
  r.size[0] = r.size[1] = 0x80;
  for (const auto &w : windows) {
    const auto bar = (w.bar - 0x10) / 4;
    r.base[bar] = w.base;
    r.size[bar] = w.length;
  }
  return r;
}

resources bridge_resources(const options &opts) {
  auto r = healthy_bridge();
  for (const auto &f : opts.faults) {
    const auto bar = static_cast<size_t>(f.find(parm::bar).value_or(0));
    if (f.id == fault_id::bar_missing) r.base[bar] = r.size[bar] = 0;
    if (f.id == fault_id::bar_io) r.base[bar] = (r.base[bar] & ~uint64_t{bar_flags}) | bar_io;
    if (f.id != fault_id::bar_64bit) continue;
    r.base[bar] = (r.base[bar] & ~uint64_t{bar_flags}) | bar_64bit;
    r.base[bar + 1] = f.get(parm::high);
  }
  return r;
}

// Resources that are in the list for completeness: registers in memory, one region for each function.
resources plain_resources(const pci_function &f) {
  resources r;
  if (f.driver == std::string_view("pcieport") || f.bus == 0) return r;
  r.base[0] = 0xD0000000 + position(f) * 0x1000;
  r.size[0] = 0x1000;
  return r;
}

uint32_t interrupt(const pci_function &f) {
  const unsigned line = unsigned{f.bus} + f.dev + f.func;
  return f.driver[0] == '\0' ? 0 : 16 + line % 8;
}

// The line of a function. What answers with wrong ids still has its own resources.
std::string list_line(const options &opts, const pci_function &f) {
  const auto r = f.vendor == plx && f.device == plx_9030 ? bridge_resources(opts) : plain_resources(f);
  uint32_t ids = ids_of(f);
  for (const auto &fault : opts.faults)
    if (fault.id == fault_id::pci_wrong_id && is_at(f, fault)) ids = wrong_ids(f, fault);
  char text[64];
  (void)std::snprintf(text, sizeof(text), "%04x\t%08x\t%x", position(f), ids, interrupt(f));
  std::string line = text;
  for (const auto &column : {r.base, r.size}) {
    for (const auto value : column) {
      (void)std::snprintf(text, sizeof(text), "\t%16llx", static_cast<unsigned long long>(value));
      line += text;
    }
  }
  return line + "\t" + f.driver + "\n";
}

bool is_missing(const options &opts, const pci_function &f) {
  return std::ranges::any_of(opts.faults,
                             [&](const fault &fault) { return fault.id == fault_id::pci_missing && is_at(f, fault); });
}

std::optional<pci_function> function_of(const options &opts, const fault &fault) {
  const auto list = healthy_functions(opts);
  const auto found = std::ranges::find_if(list, [&](const auto &f) { return is_at(f, fault); });
  return found == list.end() ? std::nullopt : std::optional(*found);
}

// clang-format off
constexpr std::array pci_need_rows{std::to_array<need_row>({
    {fault_need::pci_function, [](const options &opts, const fault &f) { return function_of(opts, f).has_value(); },
     "the board has no such PCI function"},
    {fault_need::other_ids,    [](const options &opts, const fault &f) {
       const auto at = function_of(opts, f);
       return at && wrong_ids(*at, f) != ids_of(*at);
     },
     "the function has these ids anyway"},
    {fault_need::memory_bar,   [](const options &, const fault &f) {
       return (healthy_bridge().base[static_cast<size_t>(f.get(parm::bar))] & bar_io) == 0;
     },
     "this register maps I/O space anyway"},
})};
// clang-format on

}  // namespace

std::vector<uint32_t> known_cards() {
  std::vector<uint32_t> cards;
  cards.reserve(card_rows.size());
  for (const auto &row : card_rows)
    cards.push_back(row.card);
  return cards;
}

std::string pci_list(const options &opts) {
  std::string list;
  for (const auto &f : healthy_functions(opts))
    if (!is_missing(opts, f)) list += list_line(opts, f);
  return list;
}

std::span<const need_row> pci_needs() {
  return pci_need_rows;
}

}  // namespace sim
