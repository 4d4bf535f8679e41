// fault_counts.h: how often each fault fired, over all processes of a run.
#pragma once

#include <span>
#include <string>

#include "sim/base/options.h"

namespace sim {

// One counter for each fault, in the file "faults" of the state directory. The counts outlive the program that counts,
// however it ends.
class fault_counts {
 public:
  fault_counts() = default;
  fault_counts(const fault_counts &) = delete;
  fault_counts &operator=(const fault_counts &) = delete;
  ~fault_counts();

  // Lets the faults of `opts` count in the file of opts->state, which is made if it does not exist, for as long as this
  // object lives. Without faults there is no file. Returns false and says why in *error when it cannot be used.
  bool open(options *opts, std::string *error);

  // Begins at 0 again: for the first process of a run.
  static void forget(const options &opts);

 private:
  std::span<std::byte> m_mapped;
};

// A line for each fault of `opts`, in the order of the options: count, tab, the fault as given.
std::string fault_report(const options &opts);

// A line for each fault of `opts` that had occasions in this process so far: row, tab, their number, tab, the fault.
std::string occasions_report(const options &opts, const std::string &row);

}  // namespace sim
