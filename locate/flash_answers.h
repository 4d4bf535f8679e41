// flash_answers.h: what a chip answered to a probe, and what the model of a chip with a fault would have.
#pragma once

#include <cstdint>
#include <functional>
#include <vector>

#include "locate/flash_bus.h"

namespace locate {

// What one access gave, or what several did together.
struct flash_answer {
  uint32_t offset = 0;
  uint16_t array = 0;  // what the array gave there before; no_array if that does not matter
  uint16_t got = 0;
};
using flash_answers = std::vector<flash_answer>;
inline constexpr uint16_t no_array = 0xFFFF;

using flash_probe = std::function<flash_answers(flash_bus *bus)>;

// What the model of a chip with this fault answers; null for a healthy chip.
[[nodiscard]] flash_answers foretell(const flash_probe &probe, const models::chip_fault *fault);

// Whether the answers are those that were foretold: where the model's chip gave its array, this one must have, too.
[[nodiscard]] bool agree(const flash_answers &seen, const flash_answers &foretold);

}  // namespace locate
