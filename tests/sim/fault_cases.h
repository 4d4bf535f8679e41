// fault_cases.h: whether a table of cases has every fault.
#pragma once

#include "faults/fault.h"
#include "tests/support/test.h"

// Expects every fault of these parts of the fault table among the cases, or as the one that has a test of its own.
inline void expect_all(const auto &cases, std::initializer_list<sim::fault_part> parts, sim::fault_id other) {
  for (const auto &row : sim::fault_table()) {
    if (std::ranges::find(parts, row.part) == parts.end() || row.id == other) continue;
    const auto named = [&](const auto &c) {
      return (std::string(c.fault) + " ").starts_with(row.name + std::string(" "));
    };
    EXPECT_TRUE(std::ranges::any_of(cases, named)) << row.name;
  }
}
