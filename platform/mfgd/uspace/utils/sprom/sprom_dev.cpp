#include "platform/mfgd/uspace/utils/sprom/sprom_dev.h"

#include <errno.h>
#include <string.h>

#include "platform/mfgd/uspace/utils/sprom/sprom_conv.h"
#include "platform/mfgd/uspace/utils/sprom/sprom_layout.h"

namespace {

// Reads the device to `image` and converts it.
int32_t read_image(const sprom_t *sprom, uint32_t size, void *image) {
  const int32_t result = diag_sprom_rd(sprom, 0, size, image);
  if (result < 0) return result;
  return sprom_ntoh(sprom, image);
}

}  // namespace

extern "C" {

int32_t diag_sprom_rd(const sprom_t *sprom, uint32_t offset, uint32_t length, void *buf) {
  const smb_acc_t *acc = sprom->smb_acc;
  return acc->smb_rd(acc->dev, offset + acc->dev->base, length, buf);
}

int32_t diag_sprom_wr(const sprom_t *sprom, uint32_t offset, uint32_t length, const void *buf) {
  const smb_acc_t *acc = sprom->smb_acc;
  if (sprom->we != nullptr) (void)sprom->we();
  const int32_t result = acc->smb_wr(acc->dev, offset + acc->dev->base, length, buf);
  if (sprom->wd != nullptr) (void)sprom->wd();
  return result;
}

int32_t sprom_read(sprom_t *sprom, void *image) {
  const int32_t size = sprom_get_size(sprom);
  if (size < 0) return size;
  if (sprom->buf == nullptr) return read_image(sprom, static_cast<uint32_t>(size), image);

  if (sprom->valid == 0) {
    const int32_t result = read_image(sprom, static_cast<uint32_t>(size), sprom->buf);
    if (result < 0) return result;
    sprom->valid = 1;
  }
  memcpy(image, sprom->buf, static_cast<size_t>(size));
  return 0;
}

int32_t sprom_write(sprom_t *sprom, void *image) {
  const int32_t size = sprom_get_size(sprom);
  if (size < 0) return size;
  int32_t result = sprom_hton(sprom, image);
  if (result < 0) return result;
  result = diag_sprom_wr(sprom, 0, static_cast<uint32_t>(size), image);
  if (result < 0) return result;
  sprom->valid = 0;
  return 0;
}

int32_t sprom_get_size(const sprom_t *sprom) {
  switch (sprom->type) {
    case SPROM_TYPE_SUP:
      return SPROM_SIZE_SUP;
    case SPROM_TYPE_BP:
      return SPROM_SIZE_BP;
    case SPROM_TYPE_LC:
      return SPROM_SIZE_LC;
    case SPROM_TYPE_PS:
      return SPROM_SIZE_PS;
    default:
      return -EINVAL;
  }
}

const char *sprom_get_name(const sprom_t *sprom) {
  return sprom->name;
}

}  // extern "C"
