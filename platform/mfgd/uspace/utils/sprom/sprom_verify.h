// sprom_verify.h: block checks of SPROM images in host order.
//
// Each block's signature and length are compared with those of the current format and its checksum is computed again.
// Each mismatch is one line on standard output that begins with the block's label; a clean image prints nothing. The
// image is never changed, and no device is touched.
#pragma once

#include "platform/mfgd/uspace/utils/sprom/sprom.h"

extern "C" {
// Checks every block of an image, also after a bad one.
//   sprom  descriptor; only `type` is read
//   image  image in host order; must not be null if the kind can be verified (asserted)
// Returns  0        all blocks are good
//          -EINVAL  at least one block is bad
//          -ENODEV  the kind has no layout (0, DIMM, above SPROM_TYPE_FAN); nothing printed, image not looked at
[[nodiscard]] int32_t sprom_verify(const sprom_t *sprom, const void *image);

// The checks of one image kind each: 0 or -EINVAL. The image must not be null (asserted).
[[nodiscard]] int32_t sprom_verify_sup(const void *sup_sprom);
[[nodiscard]] int32_t sprom_verify_bp(const void *bp_sprom);
[[nodiscard]] int32_t sprom_verify_lc(const void *lc_sprom);
[[nodiscard]] int32_t sprom_verify_ps(const void *ps_sprom);
[[nodiscard]] int32_t sprom_verify_fan(const void *fan_sprom);

// Checks one block and prints its mismatches.
//   block      start of the block
//   label      its name in the messages
//   signature  expected
//   length     expected, bytes; the checksum runs over this length, not over the stored one
// Returns  0        good
//          -EINVAL  at least one mismatch
[[nodiscard]] int32_t sprom_verify_block(const void *block, const char *label, uint32_t signature, uint32_t length);

// The checksum of a block of `length` bytes: the sum of all bytes but the two of the checksum itself (4 and 5), which
// are read for any length. It is in the low 16 bits of the result; the high ones mean nothing.
[[nodiscard]] uint32_t diag_sprom_compute_xsum(const void *block, uint32_t length);
}
