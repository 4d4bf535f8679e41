// junit_matrix.h: a campaign as JUnit XML, a suite for each kind of fault and a case for each run.
#pragma once

#include <string>

#include "lab/campaign/matrix.h"

namespace lab {

// A run that is found by the right device, or healthy, passes. One that ends otherwise for a known reason is skipped
// with it; anything else is a failure, or an error if the run proves nothing about the program.
[[nodiscard]] std::string matrix_to_junit(const matrix &all);

}  // namespace lab
