// nvram_faults.h: which single faults make POST's NVRAM test print what it printed.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "lab/explain/candidates.h"

namespace lab {

// A failing check of one instance, as far as its lines show it. Offsets in bytes.
struct nvram_failure {
  std::optional<uint32_t> instance;
  std::optional<uint32_t> check;    // index of the line that names it
  std::optional<uint32_t> written;  // the write that changed another word
  std::optional<uint32_t> offset;
  std::optional<uint32_t> expected;
  std::optional<uint32_t> actual;

  // Whether another one can be the same: they differ in nothing that both show. The instance does not matter.
  [[nodiscard]] bool fits(const nvram_failure &other) const;
  // "count: wrote 0x091c at 0x1236, read 0x0918"
  [[nodiscard]] std::string text() const;
};

enum class nvram_line : uint8_t { other, mismatch, check };

// Adds what a line shows to a failure. A mismatch comes first, the check that it failed after it.
[[nodiscard]] nvram_line read_nvram_line(std::string_view line, nvram_failure *failure);

struct nvram_verdict {
  bool possible = false;                  // the test can print this
  std::vector<fault_group> faults;        // that print it each time
  std::vector<fault_group> now_and_then;  // that do if they act in some accesses only
};

// Of a failure without a mismatch nothing is said. `instance` may be any of the three if the lines do not show it.
[[nodiscard]] nvram_verdict explain_nvram(const nvram_failure &failure);

}  // namespace lab
