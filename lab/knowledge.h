// knowledge.h: what is known of the faults, as tables: how a run must go to meet them, what they destroy by
// themselves, which device stands for them, and why the program misses what it misses.
#pragma once

#include <cstdint>
#include <span>
#include <string_view>
#include <vector>

#include "lab/outcome.h"
#include "lab/space.h"

namespace lab {

// A condition on runs: "NAME key=values ...". The name may hold wildcards as of the shell. Values are separated by
// commas: words, numbers in C notation, ranges LOW..HIGH. The keys card, revision and mode tell of the run. A run
// fits if its fault gives every key one of the values.
[[nodiscard]] bool fits(const run_item &run, std::string_view pattern);

// What a fault destroys by itself, whatever a program does.
enum class spoil : uint8_t {
  nothing,
  lines,       // in the whole memory, the data bits numbered by line and other
  cells,       // the cells at offset and bit and at victim and vbit
  sector_bit,  // the cell at sector, offset and bit
  sector,      // whatever one sector of the flash holds
};

struct fault_traits {
  std::string_view name;  // may hold wildcards; first match wins
  run_mode mode;
  spoil spoils;
  bool timed = false;  // how often it fires depends on how fast the machine is
};
[[nodiscard]] const fault_traits &traits_of(std::string_view name);

// Who has to report a fault.
struct expectation {
  std::string_view pattern;  // first match wins
  std::string_view devices;  // "ROW.DEVICE ...", "" if no device stands for what is broken
  std::string_view text;     // what the output must hold, {KEY} standing for a value; "" if the device alone tells
};
[[nodiscard]] const expectation &expectation_of(const run_item &run);

// Why a run ends as it does, if not with the right device's report. "" if that is not known.
//   noticed  whether any device failed
[[nodiscard]] std::string_view reason_of(const run_item &run, outcome end, bool noticed);

struct reason_row {
  std::string_view pattern;  // first match wins
  outcome end;
  std::string_view reason;
  bool noticed = true;  // of damage: false for that with which every device passes
};
[[nodiscard]] std::span<const reason_row> reason_rows();

// What no run can show, a sentence each.
[[nodiscard]] std::span<const std::string_view> limits_of_a_pass();

}  // namespace lab
