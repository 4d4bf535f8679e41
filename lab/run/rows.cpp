#include "lab/run/rows.h"

#include <algorithm>

namespace lab {
namespace {

// clang-format off
constexpr std::string_view seeprom_parts[] = {"supervisor SPROM", "backplane SPROM", "no SPROM"};
constexpr std::string_view gige_parts[]    = {"eth0", "eth1", "eth2", "eth5"};
constexpr std::string_view nvram_parts[]   = {"NVRAM"};
constexpr std::string_view obfl_parts[]    = {"OBFL flash"};
constexpr std::string_view pcie_parts[]    = {"function 0", "function 1", "function 2", "function 3",
                                              "no function", "function 4", "function 5"};
// clang-format on

}  // namespace

// clang-format off
constexpr std::array<row_info, row_count> rows = {{
    // id, key,       title,                    short skips, devices
    {   4, "seeprom", "Mod 1 1 SEEPROM Test",   false,       seeprom_parts},
    {   5, "gige",    "Mod 1 1 GigE Port Test", false,       gige_parts},
    {   8, "nvram",   "Mod 1 1 NVRAM Test",     true,        nvram_parts},
    {  10, "obfl",    "Mod 1 1 OBFL Test",      true,        obfl_parts},
    {  12, "pcie",    "Mod 1 1 PCIE Test",      false,       pcie_parts},
}};
// clang-format on

namespace {

consteval size_t count_devices() {
  size_t count = 0;
  for (const row_info &row : rows)
    count += row.parts.size();
  return count;
}
static_assert(count_devices() == case_count);

}  // namespace

std::optional<size_t> row_of_test(int64_t test_id) {
  const auto *const found = std::ranges::find(rows, test_id, &row_info::test_id);
  if (found == rows.end()) return std::nullopt;
  return static_cast<size_t>(found - rows.begin());
}

std::optional<size_t> case_index(int64_t test_id, int64_t device) {
  const auto row = row_of_test(test_id);
  if (!row || device < 0 || device >= static_cast<int64_t>(rows[*row].parts.size())) return std::nullopt;
  return first_case(*row) + static_cast<size_t>(device);
}

size_t first_case(size_t row) {
  size_t index = 0;
  for (size_t i = 0; i < row; ++i)
    index += rows[i].parts.size();
  return index;
}

size_t row_of_case(size_t index) {
  size_t row = row_count - 1;
  while (first_case(row) > index)
    --row;
  return row;
}

}  // namespace lab
