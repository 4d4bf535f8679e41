// space.h: fault spaces: which faults on which boards, each of them one run.
//
// A space is written as patterns, one per line: options, then a fault whose values may denote several values.
//
//   nvram-data-stuck instance=* line=* level=*       every value of the parameter's range or words
//   nvram-data-short instance=0 line=* other=*>line  every value above that of another parameter
//   flash-cell-stuck offset=0,0x80..0x9F/2 bit=3     lists, ranges, ranges with a step
//   --card=11079 ethtool-fail port=eth1 test=*       options: --card, --revision, --mode
//   pci-missing function=*                           every function of the board's PCI list
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "lab/base/fault_list.h"

namespace lab {

// How the program runs. What the short test leaves out, NVRAM and flash, needs a full one. Most of a full run's time
// goes into the flash, so a fault that is none of the flash's runs without that row: an erase that never ends stops it
// in its first sector. What it reports then is left out of the account.
enum class run_mode : uint8_t { short_test, no_flash, full };

// "short", "no-flash" or "full".
[[nodiscard]] std::string_view name_of(run_mode mode);
[[nodiscard]] std::optional<run_mode> mode_named(std::string_view name);

struct board_setting {
  uint32_t card = 11062;
  std::string revision = "P1";

  friend bool operator==(const board_setting &, const board_setting &) = default;
};

// Every board that the program knows, in the order in which healthy runs take them.
[[nodiscard]] std::vector<board_setting> all_boards();

// One run.
struct run_item {
  std::string fault;  // empty: a healthy board
  board_setting board;
  run_mode mode = run_mode::short_test;
  uint32_t repeat = 0;       // which of several runs of the same
  std::string stratum = {};  // of a drawn one: which part of all accesses it represents

  // Identifies it among others: "FAULT --card=... --revision=... --mode=..."
  [[nodiscard]] std::string key() const;
};

// The kind of fault, "healthy" for none; the fault for people, with its turn.
[[nodiscard]] std::string kind_of(const run_item &run);
[[nodiscard]] std::string name_of(const run_item &run);
// The options of board-sim for the run; the same as a line for a shell, which repeats it.
//   true_waits  for a program that measures
[[nodiscard]] std::vector<std::string> board_options(const run_item &run, bool true_waits = false);
[[nodiscard]] std::string shell_line(const run_item &run);
// Seconds that a run in this mode costs on a usual machine.
[[nodiscard]] double expected_seconds(run_mode mode);

struct pci_position {
  unsigned bus;
  unsigned dev;
  unsigned func;
};

// The occasions that a fault has in one row of a full run, by their numbers.
struct occasion_range {
  std::string row;    // its title; "" before the first row
  std::string fault;  // without nth and times
  uint64_t first;
  uint64_t last;
};

struct space_source {
  std::span<const fault_row> faults = sim::fault_table();
  // The functions in a healthy board's PCI list.
  std::function<std::vector<pci_position>(const board_setting &)> functions;
  // The occasions of faults that never act, in a run of a healthy board; empty if it failed.
  std::function<std::vector<occasion_range>(const std::vector<std::string> &faults)> occasions;
};

// What holds for a pattern that does not say otherwise. Without a mode each fault has that of its kind.
struct space_defaults {
  board_setting board;
  std::optional<run_mode> mode;
};

// The runs of one pattern, in the order of its values, the last parameter changing fastest.
// On failure returns nothing and says why in *error.
[[nodiscard]] std::optional<std::vector<run_item>> expand(std::string_view pattern, const space_defaults &defaults,
                                                          const space_source &source, std::string *error);

// A fault space as a whole.
struct fault_space {
  std::string name;         // "standard", "lines", "cells", "drawn", "transients", "healthy" or "own"
  std::string description;  // one sentence
  std::vector<run_item> runs;
};

// The built-in spaces. Each returns nothing and says why in *error if the list of faults lacks what it needs.
[[nodiscard]] std::optional<fault_space> standard_space(const space_source &source, std::string *error);
[[nodiscard]] std::optional<fault_space> lines_space(const space_source &source, std::string *error);
// `samples` different random faults, over all kinds in turn; the same seed gives the same ones: cells of NVRAM and
// flash, or faults of any kind on any board, none of which is in the standard space.
enum class drawn : uint8_t { cells, any };
[[nodiscard]] std::optional<fault_space> drawn_space(drawn what, uint64_t samples, uint64_t seed,
                                                     const space_source &source, std::string *error);
// Faults that strike once in a run: one access gets one line wrong, or one transaction fails. The strata are the
// memories in each row of the test; each gets `samples` different ones of all its accesses and lines, or all if there
// are fewer.
[[nodiscard]] std::optional<fault_space> transients_space(uint64_t samples, uint64_t seed, const space_source &source,
                                                          std::string *error);
// `count` runs of healthy boards, over all cards and revisions in turn.
[[nodiscard]] fault_space healthy_space(uint64_t count, std::optional<run_mode> mode);

// Gives every run `count` turns. Intermittent faults that happen by chance get a seed of their own each time.
void repeat_runs(fault_space *space, uint32_t count);

// A kind of fault that the standard space leaves out, and why.
struct left_out_kind {
  std::string_view name;
  std::string_view reason;
};
[[nodiscard]] std::vector<left_out_kind> left_out_kinds();

}  // namespace lab
