// random.h: numbers that look random and are the same in every run.
#pragma once

#include <cstdint>

namespace sim {

// The next one; any *state is a start (SplitMix64: a Weyl sequence whose bits are mixed).
inline uint64_t random_next(uint64_t *state) {
  *state += 0x9E3779B97F4A7C15U;
  uint64_t mixed = *state;
  mixed = (mixed ^ mixed >> 30U) * 0xBF58476D1CE4E5B9U;
  mixed = (mixed ^ mixed >> 27U) * 0x94D049BB133111EBU;
  return mixed ^ mixed >> 31U;
}

}  // namespace sim
