// print.h: explanations as text and as JSON.
#pragma once

#include <string>
#include <vector>

#include "lab/explain/explain.h"
#include "lab/run/run_log.h"

namespace lab {

// One run of a file.
struct explained_run {
  size_t number = 0;             // in the file, from 1
  const run_log *log = nullptr;  // null if there are only records
  explanation what;
};

struct explained_file {
  std::string name;
  std::vector<explained_run> runs;
  const log_file *log = nullptr;
  std::vector<std::string> notes;  // of the records
};

// For people.
//   all  every candidate with all its values
[[nodiscard]] std::string explanations_text(const std::vector<explained_file> &files, bool all);
// For machines, with every candidate.
[[nodiscard]] std::string explanations_json(const std::vector<explained_file> &files);

}  // namespace lab
