// Values of SPROM fields as the command line shows and takes them. The first two bytes choose kind and field; of the
// rest, the value ends at the first line end and the image follows.
#include <algorithm>
#include <string>
#include <vector>

#include "fuzz/fuzz.h"
#include "sprom/image/fields.h"

namespace {

using image_t = std::vector<uint8_t>;

// What is refused changes nothing, what is taken changes this field alone and is shown as the same value.
void try_value(const tool::field_t &field, const std::string &value, const image_t &image,
               std::string (*parse)(const tool::field_t &, std::string_view, std::span<uint8_t>),
               std::string (*show)(const tool::field_t &, std::span<const uint8_t>)) {
  image_t changed = image;
  if (!parse(field, value, changed).empty()) {
    MUST_HOLD(changed == image);
    return;
  }
  for (size_t at = 0; at < image.size(); ++at)
    MUST_HOLD(changed[at] == image[at] || (at >= field.offset && at < size_t{field.offset} + field.width));
  const std::string shown = show(field, changed);
  image_t again = image;
  MUST_HOLD(parse(field, shown, again).empty());
  MUST_HOLD(show(field, again) == shown);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size < 2) return 0;
  const auto kinds = tool::all_kinds();
  const tool::kind_t &kind = kinds[data[0] % kinds.size()];
  if (kind.size == 0) return 0;
  const tool::field_t &field = kind.fields()[data[1] % kind.fields().size()];
  const auto *const end = std::find(data + 2, data + size, '\n');
  const std::string value(data + 2, end);
  image_t image(end == data + size ? end : end + 1, data + size);
  image.resize(kind.size);

  try_value(field, value, image, tool::parse_value, tool::value_of);
  try_value(field, value, image, tool::parse_exact_value, tool::exact_value_of);
  // What is shown of any image is taken.
  try_value(field, tool::value_of(field, image), image, tool::parse_value, tool::value_of);
  MUST_HOLD(tool::parse_value(field, tool::value_of(field, image), image).empty());
  MUST_HOLD(tool::field_by_name(kind, field.name) == &field);
  (void)tool::field_by_name(kind, value);
  (void)tool::kind_by_name(value);
  (void)tool::kind_by_signature(image);
  return 0;
}
