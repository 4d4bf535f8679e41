#include "sprom/cli/report.h"

#include <algorithm>

namespace tool {
namespace {

// The bytes of an EEPROM, those of its images made alike.
image_t outside_images(const target_t &target, std::span<const uint8_t> bytes) {
  image_t rest{bytes.begin(), bytes.end()};
  for (const image_place_t &place : target.images())
    std::fill_n(rest.begin() + static_cast<std::ptrdiff_t>(place.base), place.kind->size, uint8_t{0});
  return rest;
}

difference_t outside_difference(const target_t &target, std::span<const uint8_t> from, std::span<const uint8_t> to) {
  if (!target.is_raw) return {0, 0};
  return difference(outside_images(target, from), outside_images(target, to));
}

}  // namespace

json_t identity_of(const target_t &target) {
  json_t slot;  // null
  json_t index;
  if (target.entry && target.entry->slot) slot = *target.entry->slot;
  if (target.entry && target.entry->index) index = *target.entry->index;
  const bool is_known = target.kind != &unknown_kind;
  const bool has_size = target.kind->has_layout() || target.is_raw;
  return {{"name", json_text(target.name())},
          {"slot", slot},
          {"index", index},
          {"kind", is_known ? json_t(target.kind->name) : json_t(nullptr)},
          {"size", has_size ? json_t(target.size()) : json_t(nullptr)}};
}

json_t place_of(const target_t &target) {
  json_t json = identity_of(target);
  json["bus"] = target.entry ? json_t(target.entry->dev().path) : json_t(nullptr);
  json["address"] = target.entry ? json_t(target.entry->dev().addr) : json_t(nullptr);
  return json;
}

json_t changes_json(const target_t &target, std::span<const uint8_t> from, std::span<const uint8_t> to) {
  json_t changes = json_t::array();
  for (const image_place_t &place : target.images()) {
    const auto before = place.in(from);
    const auto after = place.in(to);
    for (const field_t *field : changed_fields(*place.kind, before, after))
      changes.push_back({{"kind", place.kind->name},
                         {"field", field->name},
                         {"offset", place.base + field->offset},
                         {"bytes_different", difference(field_bytes(*field, before), field_bytes(*field, after)).count},
                         {"from", json_text(exact_value_of(*field, before))},
                         {"to", json_text(exact_value_of(*field, after))}});
  }
  const auto [count, first] = outside_difference(target, from, to);
  if (count != 0)
    changes.push_back({{"kind", nullptr},
                       {"field", nullptr},
                       {"offset", first},
                       {"bytes_different", count},
                       {"from", nullptr},
                       {"to", nullptr}});
  return changes;
}

std::vector<std::string> change_lines(const target_t &target, std::span<const uint8_t> from,
                                      std::span<const uint8_t> to) {
  if (!target.is_raw) return changes(*target.kind, from, to);
  std::vector<std::string> lines;
  for (const image_place_t &place : target.images()) {
    for (const std::string &line : changes(*place.kind, place.in(from), place.in(to)))
      lines.push_back(std::string{place.kind->title} + ": " + line);
  }
  const auto [count, first] = outside_difference(target, from, to);
  if (count != 0)
    lines.push_back("outside the images: " + std::to_string(count) + " bytes differ, the first at offset " +
                    std::to_string(first));
  return lines;
}

}  // namespace tool
