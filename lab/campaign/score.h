// score.h: compares explanations with the truth: the fault of each run of a campaign is known.
#pragma once

#include <span>
#include <string>
#include <vector>

#include "lab/campaign/matrix.h"
#include "lab/run/records.h"
#include "lab/run/run_log.h"

namespace lab {

// Explains one run and looks whether its fault is among the candidates, and whether the headline allows it.
//   log  null if the program printed nothing of its own
[[nodiscard]] run_explanation explain_result(const run_item &run, const run_log *log, std::span<const record> records);

// The detected faults whose explanation lacks them, or whose headline leaves them out.
[[nodiscard]] std::vector<std::string> left_out_faults(const matrix &all);

// As a page in Markdown. Two campaigns of one state give the same page.
[[nodiscard]] std::string matrix_to_score(const matrix &all);

}  // namespace lab
