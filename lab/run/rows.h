// rows.h: the rows of the program's test table, as its output and its records name them.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string_view>

namespace lab {

// One row: a test and its devices, numbered from 0.
struct row_info {
  int32_t test_id;                          // of ERROR lines and records
  std::string_view key;                     // short name of this project's tools
  std::string_view title;                   // in the progress line
  bool short_skips;                         // the short test leaves the row out
  std::span<const std::string_view> parts;  // what each device number means
};

// The row of the device that records nothing: it tests nothing.
inline constexpr int32_t seeprom_test = 4;
inline constexpr int32_t seeprom_nothing = 2;

inline constexpr size_t row_count = 5;
inline constexpr size_t case_count = 16;  // devices of all rows

// In the order of a run.
extern const std::array<row_info, row_count> rows;

// Index of a row in `rows`, by test id.
[[nodiscard]] std::optional<size_t> row_of_test(int64_t test_id);

// Index of a device among those of all rows, in the order of a run, 0 to case_count - 1. Nothing if there is no such
// device.
[[nodiscard]] std::optional<size_t> case_index(int64_t test_id, int64_t device);

// The same of the first device of a row.
[[nodiscard]] size_t first_case(size_t row);

// Index of the row that a device belongs to, by the device's index.
[[nodiscard]] size_t row_of_case(size_t index);

}  // namespace lab
