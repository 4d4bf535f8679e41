#include "sprom/image/image_file.h"

#include <algorithm>
#include <array>

#include "sprom/base/file.h"
#include "sprom/base/output.h"

namespace tool {
namespace {

// Longer than every image and every EEPROM, so that one read detects an over-long file.
constexpr size_t file_limit = 65537;

// Of the EEPROMs with two address bytes and with one.
constexpr std::array<size_t, 2> device_sizes{65536, 256};
// Where the boards' EEPROMs have their images.
constexpr std::array<size_t, 2> image_bases{0, 0x1000};

bool is_device_size(size_t size) {
  return std::ranges::find(device_sizes, size) != device_sizes.end();
}

std::vector<image_place_t> images_in(std::span<const uint8_t> device) {
  const size_t longest = std::ranges::max(all_kinds(), {}, &kind_t::size).size;
  std::vector<image_place_t> images;
  for (const size_t base : image_bases) {
    if (base >= device.size()) continue;
    const auto bytes = device.subspan(base, std::min(longest, device.size() - base));
    const kind_t *kind = kind_by_signature(bytes);
    if (kind != nullptr && kind->size <= bytes.size()) {
      images.push_back({kind, base});
    } else if (!is_blank(bytes)) {
      images.push_back({&unknown_kind, base});
    }
  }
  return images;
}

// Keeps the images of one kind; if there is none, what may be one.
void keep_only(const kind_t &wanted, size_t device_size, std::vector<image_place_t> &images) {
  const bool is_known = std::ranges::find(images, &wanted, &image_place_t::kind) != images.end();
  for (image_place_t &place : images) {
    const bool may_be = place.kind == &unknown_kind && place.base == wanted.base && device_size == wanted.chip;
    if (!is_known && may_be) place.kind = &wanted;
  }
  std::erase_if(images, [&](const image_place_t &place) { return place.kind != &wanted; });
}

// Why the content is no image of the kind, or of any.
void complain_of_size(const std::string &name, const image_t &content, const kind_t *wanted) {
  const kind_t *const by_size = kind_by_size(content.size());
  const kind_t *kind = wanted != nullptr ? wanted : kind_by_signature(content);
  const std::string size = (content.size() == file_limit ? "more than " : "") +
                           std::to_string(std::min(content.size(), file_limit - 1)) + " bytes";
  if (kind == nullptr) {
    complain("%s: %s: no kind of image has this size", name.c_str(), size.c_str());
  } else if (by_size != nullptr) {
    complain("%s: %s: this is a %s image, not a %s image", name.c_str(), size.c_str(), by_size->title, kind->title);
  } else {
    complain("%s: %s, but a %s image has %u: the file is %s", name.c_str(), size.c_str(), kind->title, kind->size,
             content.size() < kind->size ? "truncated" : "too long");
  }
}

}  // namespace

bool is_blank(std::span<const uint8_t> bytes) {
  return std::ranges::all_of(bytes, [](uint8_t byte) { return byte == 0xFF; }) ||
         std::ranges::all_of(bytes, [](uint8_t byte) { return byte == 0; });
}

std::string image_file_t::unknown_text(size_t base) const {
  const auto from = [&](size_t offset) { return std::span{content}.subspan(base + offset, 2); };
  const size_t main = sprom_blocks(SPROM_TYPE_SUP)[1].offset;  // of every kind
  return "neither blank nor an image of a known kind: its first signature is 0x" + hex_bytes(from(0), "") +
         ", that of its main block 0x" + hex_bytes(from(main), "");
}

std::optional<image_file_t> load_image_file(const std::string &path, const kind_t *wanted) {
  image_file_t file;
  const std::string name = file_label(path);
  if (const int error = read_file(path, file_limit, file.content); error != 0) {
    complain("%s: cannot read: %s", name.c_str(), error_text(error).c_str());
    return std::nullopt;
  }
  const kind_t *const by_size = kind_by_size(file.content.size());
  if (by_size != nullptr && (wanted == nullptr || wanted == by_size)) {
    file.images.push_back({by_size, 0});
    return file;
  }
  if (!is_device_size(file.content.size())) {
    complain_of_size(name, file.content, wanted);
    return std::nullopt;
  }
  file.images = images_in(file.content);
  if (wanted != nullptr) keep_only(*wanted, file.content.size(), file.images);
  if (!file.images.empty()) return file;
  complain("%s: no %s%simage in this dump of an EEPROM", name.c_str(), wanted != nullptr ? wanted->title : "",
           wanted != nullptr ? " " : "");
  return std::nullopt;
}

}  // namespace tool
