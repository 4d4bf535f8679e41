// matrix_file.h: a matrix in a file, as JSON.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "lab/campaign/matrix.h"

namespace lab {

// A run on a line. Without times two campaigns of one state are equal byte for byte.
[[nodiscard]] std::string matrix_to_json(const matrix &all);
[[nodiscard]] std::string run_to_json(const run_result &run, bool times);
// A file may come from anywhere. On failure both return nothing and say why in *error.
[[nodiscard]] std::optional<matrix> matrix_from_json(std::string_view text, std::string *error);
[[nodiscard]] std::optional<run_result> run_from_json(std::string_view text, std::string *error);

}  // namespace lab
