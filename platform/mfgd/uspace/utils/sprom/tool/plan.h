// plan.h: in which order the bytes of an image are written.
//
// A write can be cut at any byte, with the byte in the cell torn to anything. What stands there then must be the old
// image, the new one, or one that verification refuses. So every block that changes is first made invalid, by a
// checksum that no sum of its bytes reaches, and the checksums come last:
//
//   marks      FF into the checksum's high byte of each block in which more than the checksum changes
//   bodies     every byte that differs
//   checksums  each byte that differs or is the mark
//
// While one mark stands the image as a whole is refused, so that old and new blocks are never taken for one image. A
// torn byte of a checksum fits its block only if it is the right one.
#pragma once

#include <stdint.h>

#include <span>
#include <vector>

#include "platform/mfgd/uspace/utils/sprom/tool/fields.h"

namespace tool {

struct write_step_t {
  uint16_t offset;  // from the image's start
  uint8_t value;
};

// The steps from one image to another of the same kind; bytes that are right already are left alone but for the mark.
std::vector<write_step_t> plan_write(const kind_t &kind, std::span<const uint8_t> from, std::span<const uint8_t> to);

}  // namespace tool
