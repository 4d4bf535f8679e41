// nvram_answers.h: which single faults make an NVRAM give exactly the answers that it gave.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

#include "models/single_faults.h"

namespace models {

// An access as the bus saw it: the word that was written, or the one that was read.
struct nvram_access {
  uint32_t offset;  // in bytes, even
  uint16_t word;
  bool write;
  bool operator==(const nvram_access &) const = default;
};

// Whether a memory with this fault, which always acts, gives these answers, for some former contents. Null: a healthy
// memory.
[[nodiscard]] bool gives(const single_line_fault *fault, std::span<const nvram_access> log);

// Unlike answers that must be former contents.
struct former_answers {
  size_t count = 0;
  size_t doubtful = 0;  // answers that nearly are what was written there, or are what was written elsewhere
};

// The same of a fault that may act in any of the accesses; nothing if it does not give these answers. Believes too much
// rather than too little.
[[nodiscard]] std::optional<former_answers> may_give(const single_line_fault &fault, std::span<const nvram_access> log);

// Whether a memory with this bad cell gives these answers, for some levels that the fault's cells had before. The first
// access to each word is a write.
[[nodiscard]] bool cell_gives(const chip_fault &fault, std::span<const nvram_access> log);

}  // namespace models
