#include "platform/mfgd/uspace/utils/sprom/sprom_conv.h"

#include <errno.h>

#include <algorithm>
#include <array>
#include <span>

#include "platform/mfgd/uspace/utils/sprom/sprom_layout.h"

namespace {

// `count` numbers of `width` bytes side by side.
struct run_t {
  uint16_t offset;
  uint8_t width;
  uint8_t count;
};

// clang-format off
constexpr std::array<run_t, 4> common_fields{{
    // offset width count
    {     0,     2,    1},  // signature
    {     4,     2,    1},  // checksum
    {     6,     2,    4},
    {   114,     2,   13},
}};
// Main and extra sensor block of a supervisor.
constexpr std::array<run_t, 10> sup_fields{{
    {   160,     2,    1},  // signature
    {   164,     2,    1},  // checksum
    {   166,     8,    1},
    {   174,     8,    1},  // hardware change bits
    {   182,     2,    1},  // card index
    {   190,     2,    1},
    {   240,     2,    1},
    {   258,     2,    2},
    {   263,     2,    1},  // signature
    {   267,     2,    1},  // checksum
}};
// A line card's main block is laid out as a supervisor's, with which its image ends.
constexpr std::span<const run_t> lc_fields = std::span{sup_fields}.first<8>();
// Main, WWN and License block of a backplane.
constexpr std::array<run_t, 10> bp_fields{{
    {   160,     2,    1},  // signature
    {   164,     2,    1},  // checksum
    {   166,     8,    1},
    {   174,     8,    1},  // hardware change bits
    {   182,     2,    1},
    {   190,     2,    4},
    {   199,     2,    1},  // signature
    {   203,     2,    1},  // checksum
    {   455,     2,    1},  // signature
    {   459,     2,    1},  // checksum
}};
constexpr std::array<run_t, 4> ps_fields{{
    {   160,     2,    1},  // signature
    {   164,     2,    1},  // checksum
    {   166,     8,    1},
    {   174,     2,    3},
}};
constexpr std::array<run_t, 4> fan_fields{{
    {   160,     2,    1},  // signature
    {   164,     2,    1},  // checksum
    {   166,     8,    2},
    {   182,     2,    2},
}};
// clang-format on

// Indexed by image kind; empty where there is no layout.
constexpr std::array<std::span<const run_t>, SPROM_TYPE_FAN + 1> kind_fields{
    {{}, sup_fields, bp_fields, lc_fields, ps_fields, {}, fan_fields}};

void exchange(std::span<const run_t> fields, uint8_t *image) {
  for (const run_t &run : fields) {
    for (uint8_t *number = image + run.offset; number != image + run.offset + run.width * run.count;
         number += run.width) {
      std::reverse(number, number + run.width);
    }
  }
}

int32_t convert(const sprom_t *sprom, void *image) {
  if (sprom->type >= kind_fields.size() || kind_fields[sprom->type].empty()) return -EINVAL;
  if (image == nullptr) return 0;
  exchange(common_fields, static_cast<uint8_t *>(image));
  exchange(kind_fields[sprom->type], static_cast<uint8_t *>(image));
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
