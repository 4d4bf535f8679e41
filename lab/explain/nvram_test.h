// nvram_test.h: POST's own NVRAM test on a modelled memory: the product's code, with this room's driver below it.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "models/nvram.h"

namespace lab {

inline constexpr uint32_t nvram_bytes = 0x8000;

// An access of the test to the word at an even offset.
struct nvram_access {
  uint32_t offset;
  bool write;
  uint16_t value;  // written, or given
};

// What the memory holds before the test: the fill in every word, and all bits of the words of a mask.
struct nvram_contents {
  uint16_t fill = 0;
  // Up to two words that differ.
  struct word {
    uint32_t offset;
    uint16_t value;
  };
  std::span<const word> words = {};
};

// What is wrong with the memory.
struct nvram_defect {
  const models::chip_fault *fault = nullptr;  // null: none
  bool silent = false;                        // nothing answers: reads give ones
  // The read with this number, from 0, gives its value with these bits inverted.
  size_t bad_read = SIZE_MAX;
  uint16_t inverted = 0;
};

// Runs the test on one memory, which it takes for instance 0.
//   record  receives every access; null for none
// Returns what it prints. Nothing of it goes to standard output. Any number of threads may run it.
[[nodiscard]] std::string run_nvram_test(const nvram_defect &defect, const nvram_contents &contents,
                                         std::vector<nvram_access> *record = nullptr);

}  // namespace lab
