// coverage.h: what a PASS of the self-test is worth, as a page of Markdown.
#pragma once

#include <string>

#include "lab/campaign/matrix.h"

namespace lab {

// What the program finds, by what is broken; what it does not, each with its reason; what no run can show. Two
// campaigns of one state give the same page.
[[nodiscard]] std::string matrix_to_coverage(const matrix &all);

}  // namespace lab
