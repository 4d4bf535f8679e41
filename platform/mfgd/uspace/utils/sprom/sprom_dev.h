// sprom_dev.h: SPROM access through a descriptor: byte ranges, and whole images in host order.
//
// Negative results of the device are handed on unchanged; nothing is printed or retried. No locks: the caches and the
// write protection of the descriptors belong to one thread.
#pragma once

#include "platform/mfgd/uspace/utils/sprom/sprom.h"

extern "C" {
// Reads `length` bytes at image offset `offset`, as they are on the device.
// Returns the result of the access record's smb_rd.
[[nodiscard]] int32_t diag_sprom_rd(const sprom_t *sprom, uint32_t offset, uint32_t length, void *buf);

// Writes `length` bytes at image offset `offset`, as they will be on the device: lifts the write protection before
// and restores it afterwards, also after a failed write. The hooks' results are not examined, so that a protection that
// could not be lifted shows only when the SPROM is read back.
// Returns the result of the access record's smb_wr.
[[nodiscard]] int32_t diag_sprom_wr(const sprom_t *sprom, uint32_t offset, uint32_t length, const void *buf);

// Reads the whole image in host order; it is not verified. A descriptor with a cache reads the device once and serves
// the cache from then on, until the next successful sprom_write.
//   image  sprom_get_size bytes. After a failed read it is untouched if the descriptor has a cache, otherwise
//   undefined.
// Returns  0        read
//          -EINVAL  the kind has no image size; no device access
//          <  0     the first negative result
[[nodiscard]] int32_t sprom_read(sprom_t *sprom, void *image);

// Writes the whole image and drops the descriptor's cache. A failed write leaves `valid` as it was.
//   image  sprom_get_size bytes in host order; left in device order by the call
// Returns  0        written
//          -EINVAL  the kind has no image size; no device access, image untouched
//          <  0     the first negative result
[[nodiscard]] int32_t sprom_write(sprom_t *sprom, void *image);

// The image size in bytes, or -EINVAL for a kind without one (fan, DIMM, unknown).
[[nodiscard]] int32_t sprom_get_size(const sprom_t *sprom);

// The descriptor's label.
const char *sprom_get_name(const sprom_t *sprom);
}
