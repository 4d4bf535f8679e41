// explain_nvram.h: which single faults make the NVRAM test print what it printed, by a model of the memory and the
// test's own accesses.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "lab/explain_group.h"

namespace lab {

// The checks of the test, each with a line of its own.
enum class nvram_check : uint8_t { walking_one, address, alias, count, inverse };

// A failing check of one instance, as far as its lines tell.
struct nvram_failure {
  std::optional<uint32_t> instance;
  std::optional<nvram_check> check;
  std::optional<uint32_t> written;  // of an alias: the offset that was written
  std::optional<uint32_t> offset;   // in bytes
  std::optional<uint32_t> expected;
  std::optional<uint32_t> actual;
};

// What the models say to it.
struct nvram_verdict {
  bool possible = false;             // the test has such a check
  std::vector<fault_group> groups;   // the faults that make it fail so; lines before cells
  std::vector<fault_group> passing;  // those that do if they act in one access alone; no pairs of cells
};

// `instance` may be any of the three where the lines do not tell.
[[nodiscard]] nvram_verdict explain_nvram(const nvram_failure &failure);

}  // namespace lab
