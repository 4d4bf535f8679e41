// explain_score.h: explanations against the truth: a campaign's runs, of which the fault is known.
#pragma once

#include <span>
#include <string>
#include <vector>

#include "lab/matrix.h"
#include "lab/records.h"
#include "lab/run_log.h"

namespace lab {

// Explains one run and looks whether its fault is among the candidates.
//   log  null if the program printed nothing of its own
[[nodiscard]] run_explanation explain_result(const run_item &run, const run_log *log, std::span<const record> records);

// The detected faults whose explanation leaves them out. Memory faults that come and go do not count: the
// models take them to act in one access alone.
[[nodiscard]] std::vector<std::string> left_out_faults(const matrix &all);

// As a page in Markdown. Two campaigns of one state give the same page.
[[nodiscard]] std::string matrix_to_score(const matrix &all);

}  // namespace lab
