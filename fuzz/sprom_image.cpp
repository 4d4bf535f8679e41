// SPROM images of any bytes through checks and conversions. The first byte chooses the kind.
#include <cerrno>
#include <cstring>
#include <vector>

#include "fuzz/fuzz.h"
#include "platform/mfgd/uspace/utils/sprom/sprom_conv.h"
#include "platform/mfgd/uspace/utils/sprom/sprom_layout.h"
#include "platform/mfgd/uspace/utils/sprom/sprom_verify.h"

namespace {

size_t size_of(uint32_t type) {
  const auto blocks = sprom_blocks(type);
  return blocks.empty() ? 0 : size_t{blocks.back().offset} + blocks.back().length;
}

// Puts the checksums of an image in host order right, so that what follows them is reached.
void seal(uint32_t type, std::vector<uint8_t> *image) {
  for (const sprom_block_t &block : sprom_blocks(type)) {
    uint8_t *const start = image->data() + block.offset;
    const auto sum = static_cast<uint16_t>(diag_sprom_compute_xsum(start, block.length));
    std::memcpy(start + SPROM_BLK_CHECKSUM, &sum, sizeof sum);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size == 0) return 0;
  drop_output();
  const uint32_t type = data[0] % 8;
  const sprom_t sprom{nullptr, nullptr, nullptr, "", type, 0, nullptr};
  // No byte more than the kind has, so that the sanitizer sees what reads beyond.
  std::vector<uint8_t> image(data + 1, data + size);
  image.resize(size_of(type));
  const std::vector<uint8_t> read = image;
  if (image.empty()) {
    MUST_HOLD(sprom_ntoh(&sprom, nullptr) == -EINVAL && sprom_verify(&sprom, nullptr) == -ENODEV);
    return 0;
  }

  MUST_HOLD(sprom_ntoh(&sprom, image.data()) == 0);
  std::vector<uint8_t> back = image;
  MUST_HOLD(sprom_hton(&sprom, back.data()) == 0);
  MUST_HOLD(back == read);

  if (data[0] >= 0x80) seal(type, &image);
  const std::vector<uint8_t> checked = image;
  const int32_t verdict = sprom_verify(&sprom, image.data());
  MUST_HOLD(verdict == 0 || verdict == -EINVAL);
  MUST_HOLD(image == checked);
  seal(type, &image);
  MUST_HOLD(verdict != 0 || image == checked);  // what passes has the right checksums
  return 0;
}
