// plan.h: in which order the bytes of an image, or of an EEPROM with several, are written.
//
// A write can be cut at any byte, with the byte in the cell torn to anything. The contents then must be the old
// image, the new one, or one that verification refuses. So every block that changes is first made invalid, by a
// checksum that no sum of its bytes reaches, and the checksums come last:
//
//   marks      FF into the checksum's high byte of each block that changes, unless that is one byte of its checksum and
//              nothing else changes
//   bodies     every byte that differs, outside the images, too
//   checksums  each byte that differs or is the mark, the mark last
//
// While a mark is set the whole image is refused, so that old and new blocks are never taken for one image, even if
// the checksums of one are wrong. A torn byte of a right checksum fits its block only if it is the right one.
#pragma once

#include <stdint.h>

#include <span>
#include <vector>

#include "sprom/image/fields.h"

namespace tool {

struct write_step_t {
  uint16_t offset;  // from the start of what is written
  uint8_t value;
};

// Where an image is in what is written, or in a file.
struct image_place_t {
  const kind_t *kind;  // or &unknown_kind
  size_t base;

  std::span<const uint8_t> in(std::span<const uint8_t> bytes) const { return bytes.subspan(base, kind->size); }
};

// The steps from some bytes to others, as many, with images of known kinds in them. Bytes that are right already are
// not changed except for the mark.
std::vector<write_step_t> plan_write(std::span<const image_place_t> images, std::span<const uint8_t> from,
                                     std::span<const uint8_t> to);

}  // namespace tool
