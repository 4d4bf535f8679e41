// space.h: fault spaces: which faults on which boards, each of them one run.
//
// A space is written as patterns, one a line: options, then a fault whose values may stand for several.
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

#include "lab/fault_list.h"

namespace lab {

// How the program runs. What the short test leaves out, NVRAM and flash, needs a full one. Most of a full run's time
// goes into the flash, so a fault that is none of the flash's runs with the flash row cut short, by an erase that
// never ends in the first sector; what that row reports then is left out of the account.
enum class run_mode : uint8_t { brief, cut, full };

// "short", "cut" or "full".
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
  run_mode mode = run_mode::brief;
  uint32_t repeat = 0;  // which of several runs of the same

  // What tells it from others: "FAULT --card=... --revision=... --mode=..."
  [[nodiscard]] std::string key() const;
};

struct pci_position {
  unsigned bus;
  unsigned dev;
  unsigned func;
};

struct space_source {
  fault_list faults;
  // The functions in a healthy board's PCI list.
  std::function<std::vector<pci_position>(const board_setting &)> functions;
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
  std::string name;         // "standard", "lines", "cells", "healthy" or "own"
  std::string description;  // one sentence
  std::vector<run_item> runs;
};

// The built-in spaces. Each returns nothing and says why in *error if the list of faults lacks what it needs.
[[nodiscard]] std::optional<fault_space> standard_space(const space_source &source, std::string *error);
[[nodiscard]] std::optional<fault_space> lines_space(const space_source &source, std::string *error);
// `samples` random cells, over all kinds of cell faults in turn; the same seed gives the same ones.
[[nodiscard]] std::optional<fault_space> cells_space(uint64_t samples, uint64_t seed, const space_source &source,
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
