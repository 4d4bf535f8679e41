// trunc32.h: guarded conversion of a floating-point count.
#pragma once

#include <stdint.h>

// The low 32 bits of `value` truncated toward zero to a signed 64-bit integer. Not-a-number, the infinities and
// whatever else lies outside the 64-bit range give 0; a negative value in range gives its two's complement.
[[nodiscard]] constexpr uint32_t trunc32(double value) noexcept {
  constexpr double limit = 9223372036854775808.0;  // 2^63
  if (!(value > -limit && value < limit)) return 0;
  return static_cast<uint32_t>(static_cast<int64_t>(value));
}
