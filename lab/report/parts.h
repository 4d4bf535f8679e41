// parts.h: the runs of a campaign by what is broken.
#pragma once

#include <string>
#include <vector>

#include "lab/campaign/matrix.h"

namespace lab {

// The runs of one part of the board, or of one kind of fault. Only damage may count beside another column.
struct part_counts {
  std::string title;  // of a part for people, of a kind its name
  size_t runs = 0;
  size_t right = 0;  // reported by the right device
  size_t blamed = 0;
  size_t ended = 0;
  size_t unnoticed = 0;
  size_t damaged = 0;
  located_counts located{};        // answers of post-locate
  std::vector<part_counts> kinds;  // of a part
};

// Parts and kinds in the order of the table of faults. Runs of healthy boards are in none.
[[nodiscard]] std::vector<part_counts> parts_of(const matrix &all);

}  // namespace lab
