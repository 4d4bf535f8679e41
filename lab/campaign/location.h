// location.h: which place post-locate names for the fault of a run, compared with the truth.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "lab/campaign/space.h"

namespace lab {

enum class located : uint8_t {
  named,    // one place, the right one
  among,    // the right place is one of several
  unnamed,  // found, but no place is named
  missed,   // nothing found
  wrong,    // only other places are named, or any on a healthy board
  failed,   // the program came to no result
  clean,    // nothing found on a healthy board
};
inline constexpr size_t located_count = 7;

// What post-locate makes of a board.
struct location {
  located answer = located::failed;
  uint64_t places = 0;   // that it names
  std::string text;      // its sentence, of several the first that names the right place
  std::string contents;  // what of EEPROM, NVRAM and flash differs after its run, "" if all is as before

  // "named uniquely", "among 3 places"
  [[nodiscard]] std::string title() const;
};

[[nodiscard]] std::string_view name_of(located answer);
[[nodiscard]] std::optional<located> located_named(std::string_view name);

// Compares a report with the fault of the run. Names are compared by place: a line, a pair of lines, the cell that
// reads wrong, or where the fault's parameters put it. How it is broken, such as the level, does not count.
//   report  JSON of post-locate, "" if there is none
[[nodiscard]] location judge_location(const run_item &run, std::string_view report);

using located_counts = std::array<size_t, located_count>;
// "12 named uniquely, 3 among several places", "" for none.
[[nodiscard]] std::string counts_text(const located_counts &counts);

}  // namespace lab
