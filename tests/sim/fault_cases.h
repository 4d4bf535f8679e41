// fault_cases.h: whether a table of cases has every fault.
#pragma once

#include "faults/fault.h"
#include "tests/support/test.h"

struct script_case {
  const char *name;
  std::vector<const char *> with;  // options
  std::string script;
  std::vector<uint64_t> expected = {};  // afterwards, as the test has it
};

struct fault_case {
  std::string fault;
  const char *script;  // what is done, as the test has it
  uint64_t fired;
  bool plain = true;  // reads need no model
};

// Expects every fault of these parts of the fault table among the cases, or as the one that has a test of its own.
inline void expect_all(const auto &cases, std::initializer_list<sim::fault_part> parts, sim::fault_id other) {
  for (const auto &row : sim::fault_table()) {
    if (std::ranges::find(parts, row.part) == parts.end() || row.id == other) continue;
    const auto named = [&](const fault_case &c) { return (c.fault + " ").starts_with(row.name + std::string(" ")); };
    EXPECT_TRUE(std::ranges::any_of(cases, named)) << row.name;
  }
}
