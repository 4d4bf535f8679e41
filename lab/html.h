// html.h: a campaign as one page for a browser.
#pragma once

#include <string>

#include "lab/matrix.h"

namespace lab {

// The page needs nothing but itself, and is whole without script; with it the matrix has filters.
[[nodiscard]] std::string matrix_to_html(const matrix &all);

}  // namespace lab
