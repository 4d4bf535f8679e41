#include "sprom/board/board.h"

#include <ctype.h>
#include <stddef.h>
#include <stdio.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <span>

#include "platform/mfgd/uspace/utils/sprom/at24c512.h"
#include "platform/mfgd/uspace/utils/sprom/sprom_api.h"
#include "platform/mfgd/uspace/utils/sprom/sprom_pellin.h"
#include "platform/mfgd/uspace/utils/sprom/sprom_tosk.h"
#include "platform/mfgd/uspace/utils/sprom/sse_dev.h"
#include "post/dorvan/cards.h"
#include "post/dorvan/pfm_card.h"
#include "post/dorvan/sprom_dorvan.h"
#include "sprom/base/output.h"

namespace tool {

namespace {

// A SPROM's address; without an index every index of the slot denotes it.
struct place_t {
  uint32_t slot;
  std::optional<uint32_t> index;
};

}  // namespace

struct family_t {
  const char *name;
  sprom_t *(*init)(uint32_t slot, uint32_t index);
  std::span<const place_t> places;
  std::span<sprom_t> dimms;
  sprom_wiring_t (*wiring)(const sprom_t *sprom);
  std::optional<int32_t> platform;  // as sprom_get_platform returns it
};

namespace {

// clang-format off
constexpr std::array<place_t, 2> dorvan_places{{{0, 0}, {1, 1}}};
constexpr std::array<place_t, 7> pellin_places{{{0, 0}, {0, 1}, {0, 2}, {1, 1}, {1, 2}, {2, {}}, {3, {}}}};
constexpr std::array<place_t, 5> tosk_places  {{{0, 0}, {0, 1}, {0, 2}, {1, 1}, {2, {}}}};
// clang-format on

sprom_t *init_dorvan(uint32_t slot, uint32_t index) {
  constexpr uint32_t any_platform = 0;
  return sprom_init_dorvan(any_platform, slot, index);
}
sprom_wiring_t wiring_dorvan(const sprom_t *) {
  return {};
}
sprom_t *init_pellin(uint32_t slot, uint32_t index) {
  return sprom_init(SPROM_PLATFORM_PELLIN, slot, index);
}
sprom_t *init_tosk(uint32_t slot, uint32_t index) {
  return sprom_init(SPROM_PLATFORM_TOSK, slot, index);
}

// clang-format off
const std::array<family_t, 3> families{{
    // name     init         places         DIMMs              protection           platform
    {"dorvan", init_dorvan, dorvan_places, {},                wiring_dorvan,       std::nullopt},
    {"pellin", init_pellin, pellin_places, pellin_sprom_dimm, sprom_wiring_pellin, SPROM_PLATFORM_PELLIN},
    {"tosk",   init_tosk,   tosk_places,   tosk_sprom_dimm,   sprom_wiring_tosk,   SPROM_PLATFORM_TOSK},
}};
// clang-format on

// Of units in fixtures.
sprom_t *init_none(uint32_t, uint32_t) {
  return nullptr;
}
const family_t no_family{"fixture", init_none, {}, {}, wiring_dorvan, std::nullopt};

constinit smb_dev_t unit_dev{};
constexpr smb_acc_t unit_acc{&unit_dev, at24c512_rd, at24c512_wr};
constinit sprom_t unit_sprom{};

bool is_dorvan() {
  uint16_t card_index = PFM_CARD_UNKNOWN;
  return pfm_ask_driver(SPROM_IOC_GET_CARD_INDEX, &card_index) && dorvan_card(card_index) != nullptr;
}

bool same_name(std::string_view a, std::string_view b) {
  const auto folded = [](std::string_view text) {
    std::string result;
    for (const char c : text) {
      if (c != ' ') result += static_cast<char>(tolower(static_cast<unsigned char>(c)));
    }
    return result;
  };
  return folded(a) == folded(b);
}

// "SLOT,INDEX", both decimal.
std::optional<std::pair<uint32_t, uint32_t>> parse_place(std::string_view text) {
  const char *const end = text.data() + text.size();
  uint32_t slot = 0;
  uint32_t index = 0;
  const auto first = std::from_chars(text.data(), end, slot);
  if (first.ec != std::errc{} || first.ptr == end || *first.ptr != ',') return std::nullopt;
  const auto second = std::from_chars(first.ptr + 1, end, index);
  if (second.ec != std::errc{} || second.ptr != end) return std::nullopt;
  return std::pair{slot, index};
}

bool is_same_chip(const smb_dev_t &a, const smb_dev_t &b) {
  return a.addr == b.addr && std::string_view{a.path} == b.path;
}

bool has_same_identity(std::span<const sse_row_t> rows, const smb_dev_t &a, const smb_dev_t &b) {
  const sse_identity_t *identity = sse_identity_of(rows, &a);
  const sse_identity_t *other = sse_identity_of(rows, &b);
  return identity != nullptr && other != nullptr && *identity == *other;
}

// The SPROMs of the family whose `device` is another chip than the entry's, with the same identity.
template <typename F>
std::string confusable_with(const entry_t &entry, std::span<const sse_row_t> rows, F device) {
  std::string names;
  const smb_dev_t *own = device(entry);
  if (own == nullptr) return names;
  for (const entry_t &other : family_sproms(*entry.family)) {
    const smb_dev_t *dev = device(other);
    if (dev == nullptr || is_same_chip(*own, *dev) || !has_same_identity(rows, *own, *dev)) continue;
    names += (names.empty() ? "" : ", ") + std::string{other.sprom->name};
  }
  return names;
}

}  // namespace

const family_t *family_by_name(std::string_view name) {
  const auto *family = std::ranges::find_if(families, [=](const family_t &f) { return same_name(name, f.name); });
  return family == families.end() ? nullptr : family;
}

const family_t *family_of_driver() {
  return is_dorvan() ? family_by_name("dorvan") : nullptr;
}

const smb_dev_t &probed_device() {
  return *pellin_sprom_sup.smb_acc->dev;  // of every family that is probed
}

const family_t *family_of_probe(std::string &report) {
  int32_t platform = 0;
  report = captured([&] { platform = sprom_get_platform(); });
  constexpr std::string_view undefined = " platform undefined";  // what the result says, too
  if (report.ends_with(undefined)) report.resize(report.size() - undefined.size());
  const auto *family = std::ranges::find(families, std::optional{platform}, &family_t::platform);
  return family == families.end() ? nullptr : family;
}

const char *family_name(const family_t &family) {
  return family.name;
}

std::string family_names(std::string_view separator) {
  std::string names;
  for (const family_t &family : families) {
    if (!names.empty()) names += separator;
    names += family.name;
  }
  return names;
}

std::vector<entry_t> family_sproms(const family_t &family) {
  std::vector<entry_t> entries;
  for (const place_t &place : family.places) {
    entries.push_back({&family, family.init(place.slot, place.index.value_or(0)), place.slot, place.index});
  }
  for (sprom_t &dimm : family.dimms)
    entries.push_back({&family, &dimm, std::nullopt, std::nullopt});
  return entries;
}

std::optional<entry_t> find_sprom(const family_t &family, std::string_view name) {
  if (const auto place = parse_place(name)) {
    sprom_t *sprom = family.init(place->first, place->second);
    if (sprom == nullptr) return std::nullopt;
    return entry_t{&family, sprom, place->first, place->second};
  }
  for (const entry_t &entry : family_sproms(family)) {
    if (same_name(name, entry.sprom->name)) return entry;
  }
  return std::nullopt;
}

bool is_sprom_name(std::string_view name) {
  const auto knows = [=](const family_t &family) { return find_sprom(family, name).has_value(); };
  return parse_place(name).has_value() || std::ranges::any_of(families, knows);
}

entry_t unit_entry(uint32_t bus, uint32_t addr, const kind_t &kind) {
  unit_dev = {
      .path = "", .addr = addr, .base = kind.base, .addr_len = kind.chip > 0x100 ? 2U : 1U, .data_len = 1, .flags = 0};
  (void)snprintf(unit_dev.path, sizeof unit_dev.path, "/dev/i2c-%u", bus);
  unit_sprom = {.smb_acc = &unit_acc,
                .we = nullptr,
                .wd = nullptr,
                .name = kind.title,
                .type = kind.type,
                .valid = 0,
                .buf = nullptr};
  return {&no_family, &unit_sprom, std::nullopt, std::nullopt};
}

bool is_unit(const entry_t &entry) {
  return entry.family == &no_family;
}

std::vector<image_place_t> chip_images(const entry_t &entry) {
  std::vector<image_place_t> images;
  const auto add = [&](uint32_t type, uint32_t base) {
    const kind_t *kind = kind_by_type(type);
    if (kind->has_layout()) images.push_back({kind, base});
  };
  for (const entry_t &other : family_sproms(*entry.family)) {
    if (is_same_chip(entry.dev(), other.dev())) add(other.sprom->type, other.dev().base);
  }
  const uint32_t type = entry.sprom->type;
  if (is_unit(entry)) add(type, entry.dev().base);
  // Supervisor and backplane share a chip.
  if (is_unit(entry) && type == SPROM_TYPE_SUP) add(SPROM_TYPE_BP, kind_by_type(SPROM_TYPE_BP)->base);
  if (is_unit(entry) && type == SPROM_TYPE_BP) add(SPROM_TYPE_SUP, kind_by_type(SPROM_TYPE_SUP)->base);
  std::ranges::sort(images, {}, &image_place_t::base);
  return images;
}

sprom_wiring_t wiring_of(const entry_t &entry) {
  return entry.family->wiring(entry.sprom);
}

std::string device_text(const char *path, uint32_t addr) {
  std::array<char, 12> number;
  (void)snprintf(number.data(), number.size(), ":0x%02x", addr);
  return std::string{path} + number.data();
}

std::string device_text(const smb_dev_t &dev) {
  return device_text(dev.path, dev.addr);
}

std::string place_text(const entry_t &entry) {
  std::string text;
  if (entry.slot) text = "slot " + std::to_string(*entry.slot);
  if (entry.slot && entry.index) text += ", index " + std::to_string(*entry.index);
  return text;
}

std::string label_of(const entry_t &entry) {
  std::string place = place_text(entry);
  if (!place.empty()) place += ", ";
  return std::string{entry.sprom->name} + " (" + place + device_text(entry.dev()) + ")";
}

hazard reading_hazard(const entry_t &entry, std::string &others) {
  others = confusable_with(entry, sse_eeproms, [](const entry_t &e) { return &e.dev(); });
  if (entry.dev().addr_len == 1) return hazard::one_byte;
  return others.empty() ? hazard::none : hazard::shared;
}

hazard expander_hazard(const entry_t &entry, std::string &others) {
  others = confusable_with(entry, sse_pca9539s, [](const entry_t &e) {
    const sprom_wiring_t wiring = wiring_of(e);
    return wiring.by == sprom_wiring_t::PIN ? wiring.expander->dev : nullptr;
  });
  return others.empty() ? hazard::none : hazard::shared;
}

hazard writing_hazard(const entry_t &entry, std::string &others) {
  const hazard found = reading_hazard(entry, others);
  return found != hazard::none ? found : expander_hazard(entry, others);
}

}  // namespace tool
