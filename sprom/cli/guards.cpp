#include "sprom/cli/guards.h"

#include <stdio.h>

#include <algorithm>

namespace tool {
namespace {

const field_t &index_field() {
  return *sprom_find_field(SPROM_TYPE_SUP, "card_index");
}

unsigned index_in(std::span<const uint8_t> image) {
  return static_cast<unsigned>(number_of(field_bytes(index_field(), image)));
}

}  // namespace

bool is_accepted(const options_t &options, const std::string &label, const kind_t &kind,
                 std::span<const uint8_t> image) {
  const verdict_t verdict = verify_image(kind, image);
  if (verdict.is_good) return true;
  (void)fflush(stdout);
  (void)fputs(verdict.lines.c_str(), stderr);
  if (options.has(OPT_FORCE)) return true;
  complain("%s: a bad image; nothing is written without --force", label.c_str());
  return false;
}

bool is_content_accepted(const options_t &options, const std::string &label, const target_t &target,
                         std::span<const uint8_t> content) {
  const auto images = target.images();
  for (const image_place_t &place : images) {
    const bool may_be_blank = is_unit(*target.entry) && place.kind != target.kind;
    if (may_be_blank && is_blank(place.in(content))) continue;
    if (!is_accepted(options, label, *place.kind, place.in(content))) return false;
  }
  if (!images.empty() || options.has(OPT_FORCE)) return true;
  complain("%s: what a %s holds cannot be checked; nothing is written without --force", label.c_str(),
           target.kind->title);
  return false;
}

bool is_same_kind(const options_t &options, const target_t &target, std::span<const uint8_t> before) {
  if (!target.entry || !is_unit(*target.entry) || options.has(OPT_FORCE)) return true;
  const size_t start = target.is_raw ? target.kind->base : 0;
  const kind_t *found = kind_by_signature(before.subspan(start));
  if (found == nullptr || found == target.kind) return true;
  complain("%s: not written: it holds a %s image; --force writes it all the same", target.label().c_str(),
           found->title);
  return false;
}

bool is_same_card(const options_t &options, const target_t &target, std::span<const uint8_t> before,
                  std::span<const uint8_t> after) {
  const kind_t &supervisor = *kind_by_type(SPROM_TYPE_SUP);
  const auto is_index = [&](const auto &given) { return field_by_name(supervisor, given.first) == &index_field(); };
  if (!target.entry || options.has(OPT_FORCE) || std::ranges::any_of(options.fields, is_index)) return true;
  for (const image_place_t &place : target.images()) {
    if (place.kind != &supervisor) continue;
    const auto old_image = place.in(before);
    const auto new_image = place.in(after);
    if (index_in(old_image) == index_in(new_image)) continue;
    if (!verify_block(supervisor, supervisor.blocks()[1], old_image).is_good) continue;
    complain("%s: not written: the image is of card index %u, the SPROM of %u; --force writes it all the same",
             target.label().c_str(), index_in(new_image), index_in(old_image));
    return false;
  }
  return true;
}

}  // namespace tool
