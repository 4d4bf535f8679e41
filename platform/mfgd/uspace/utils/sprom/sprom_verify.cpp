#include "platform/mfgd/uspace/utils/sprom/sprom_verify.h"

#include <errno.h>
#include <stdio.h>

#include <numeric>
#include <span>

#include "platform/mfgd/cmn_lib/diag_util/diag_assert.h"
#include "platform/mfgd/uspace/utils/sprom/sprom_layout.h"

namespace {

int32_t verify_blocks(const void *image, std::span<const sprom_block_t> blocks) {
  int32_t result = 0;
  for (const sprom_block_t &block : blocks) {
    const auto *start = static_cast<const uint8_t *>(image) + block.offset;
    if (sprom_verify_block(start, block.label, block.signature, block.length) < 0) result = -EINVAL;
  }
  return result;
}

}  // namespace

extern "C" {

uint32_t diag_sprom_compute_xsum(const void *block, uint32_t length) {
  const std::span bytes{static_cast<const uint8_t *>(block), length};
  const uint32_t sum = std::accumulate(bytes.begin(), bytes.end(), uint32_t{0});
  return ((sum - bytes.data()[SPROM_BLK_CHECKSUM]) & 0xFFFF) - bytes.data()[SPROM_BLK_CHECKSUM + 1];
}

int32_t sprom_verify_block(const void *block, const char *label, uint32_t signature, uint32_t length) {
  const auto *bytes = static_cast<const uint8_t *>(block);
  int32_t result = 0;

  const uint32_t found_signature = sprom_get_u16(bytes + SPROM_BLK_SIGNATURE);
  if (found_signature != signature) {
    printf("%s block signature mismatch. Found 0x%04x, expected 0x%04x.\n", label, found_signature, signature);
    result = -EINVAL;
  }
  const uint32_t found_length = bytes[SPROM_BLK_LENGTH] == 0 ? 256 : bytes[SPROM_BLK_LENGTH];
  if (found_length != length) {
    printf("%s block length mismatch.    Found 0x%04x, expected 0x%04x.\n", label, found_length, length);
    result = -EINVAL;
  }
  const uint32_t found_xsum = sprom_get_u16(bytes + SPROM_BLK_CHECKSUM);
  const uint32_t xsum = diag_sprom_compute_xsum(block, length) & 0xFFFF;
  if (found_xsum != xsum) {
    printf("%s block checksum mismatch.  Found 0x%04x, expected 0x%04x.\n", label, found_xsum, xsum);
    result = -EINVAL;
  }
  return result;
}

int32_t sprom_verify_sup(const void *sup_sprom) {
  assert(sup_sprom);
  return verify_blocks(sup_sprom, sprom_blocks_sup);
}

int32_t sprom_verify_bp(const void *bp_sprom) {
  assert(bp_sprom);
  return verify_blocks(bp_sprom, sprom_blocks_bp);
}

int32_t sprom_verify_lc(const void *lc_sprom) {
  assert(lc_sprom);
  return verify_blocks(lc_sprom, sprom_blocks_lc);
}

int32_t sprom_verify_ps(const void *ps_sprom) {
  assert(ps_sprom);
  return verify_blocks(ps_sprom, sprom_blocks_ps);
}

int32_t sprom_verify_fan(const void *fan_sprom) {
  assert(fan_sprom);
  return verify_blocks(fan_sprom, sprom_blocks_fan);
}

int32_t sprom_verify(const sprom_t *sprom, const void *image) {
  switch (sprom->type) {
    case SPROM_TYPE_SUP:
      return sprom_verify_sup(image);
    case SPROM_TYPE_BP:
      return sprom_verify_bp(image);
    case SPROM_TYPE_LC:
      return sprom_verify_lc(image);
    case SPROM_TYPE_PS:
      return sprom_verify_ps(image);
    case SPROM_TYPE_FAN:
      return sprom_verify_fan(image);
    default:
      return -ENODEV;
  }
}

}  // extern "C"
