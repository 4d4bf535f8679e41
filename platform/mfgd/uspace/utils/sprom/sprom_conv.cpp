#include "platform/mfgd/uspace/utils/sprom/sprom_conv.h"

#include <errno.h>

#include <algorithm>

#include "platform/mfgd/uspace/utils/sprom/sprom_fields.h"

namespace {

int32_t convert(const sprom_t *sprom, void *image) {
  const auto fields = sprom_fields(sprom->type);
  if (fields.empty()) return -EINVAL;
  if (image == nullptr) return 0;
  for (const sprom_field_t &field : fields) {
    if (field.type != SPROM_FIELD_NUMBER) continue;
    auto *number = static_cast<uint8_t *>(image) + field.offset;
    std::reverse(number, number + field.width);
  }
  return 0;
}

}  // namespace

extern "C" {

int32_t sprom_ntoh(const sprom_t *sprom, void *image) {
  return convert(sprom, image);
}

int32_t sprom_hton(const sprom_t *sprom, void *image) {
  return convert(sprom, image);
}

}  // extern "C"
