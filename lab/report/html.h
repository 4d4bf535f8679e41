// html.h: a campaign as one page for a browser.
#pragma once

#include <string>
#include <vector>

#include "lab/campaign/matrix.h"

namespace lab {

// The page needs nothing but itself, and is whole without script; with it the matrix has filters.
//   changes  since a former matrix
[[nodiscard]] std::string matrix_to_html(const matrix &all, const std::vector<std::string> &changes = {});

}  // namespace lab
