// fault_facts.h: what is known of each kind of fault, in one table: how a run must go to meet it, what it destroys by
// itself, which device tests it, and why the program may miss it.
#pragma once

#include <array>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "lab/base/fault_list.h"
#include "lab/campaign/outcome.h"
#include "lab/campaign/space.h"
#include "lab/run/run_log.h"
#include "post/dorvan/pcie_tbl.h"

namespace lab {

// What a fault destroys by itself, with any program.
enum class own_damage : uint8_t {
  nothing,
  lines,       // in the whole memory, the data bits numbered by line and other
  cells,       // the cells at offset and bit and at victim and vbit
  sector_bit,  // the cell at sector, offset and bit
  sector,      // the contents of one sector of the flash
};

struct memory_change;

// What a run left behind, as far as it may explain why the right device did not report the fault.
struct aftermath {
  const run_item &run;
  const sim::fault &fault;  // of the run, with the defaults of what was not given
  outcome end;
  bool noticed;        // a device failed
  const run_log *log;  // null if it printed nothing of its own
  int status;          // as of a shell: 128 and its number for a signal
  std::string_view output;
  std::span<const memory_change> changes;
};

// Why a run ends without the right device's report. It holds if the run ended so, its output holds the text, and the
// condition on what it left is met.
struct reason {
  enum endings : uint8_t {
    missed = 1,
    damaged_unseen = 2,  // every device passed
    damaged = 4,
    ended = 8,
    blamed = 16,
    not_fired = 32,
    hung = 64,
    harmless = 128,
  };

  int on;                              // the endings, or'ed
  std::string_view text;               // what the output must hold, {KEY} for a value; "" for anything
  bool (*holds)(const aftermath &at);  // null: always
  std::string_view why;
};

struct fault_facts {
  sim::fault_id id;
  run_mode mode;  // the cheapest that includes every row that it can affect
  own_damage destroys;
  std::string_view devices;  // that test what is broken, any of them: "ROW.DEVICE"; {KEY:n} for the number of a value
  std::string_view text;     // what the output must hold, {KEY} for a value; "" if the device is enough
  std::array<const reason *, 5> reasons;  // the first that holds counts; the rest is null
  std::string_view left_out = {};         // why the standard set does not run it
};

[[nodiscard]] const fault_facts &facts_of(sim::fault_id id);

// Whether a fault breaks nothing, so that POST is right to pass.
[[nodiscard]] bool is_harmless(sim::fault_id id);

// The run's fault with its defaults; nothing for a healthy board or a fault that the board would refuse.
[[nodiscard]] std::optional<sim::fault> fault_of(const run_item &run);

// The PCI functions that the program expects of a board, in the order of its card's list; none of an unknown card.
[[nodiscard]] std::span<const pci_dev_tbl_entry> expected_functions(const board_setting &board);

// Who has to report a fault.
struct expectation {
  std::vector<std::string> devices;  // any of them; none if no device tests what is broken
  std::string text;                  // what the output must hold; "" if the device is enough
};
[[nodiscard]] expectation expectation_of(const sim::fault &fault, const board_setting &board);

// "" if it is not known.
[[nodiscard]] std::string_view reason_of(const aftermath &at);

// Whether POST erases and tests this sector of the flash.
[[nodiscard]] bool touches_sector(uint64_t number);

// What no run can show, a sentence each.
[[nodiscard]] std::vector<std::string> limits_of_a_pass();

}  // namespace lab
