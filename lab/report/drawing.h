// drawing.h: each memory with its lines, and the outcome of a fault in each of them, as pictures for a page.
#pragma once

#include "lab/base/markup.h"
#include "lab/campaign/matrix.h"

namespace lab {

// One figure for each memory with a broken line: its pins with the outcomes of both levels, and a triangle of its
// shorted pairs if most of them were run. Outcomes show as colours (classes of the page's style, "o-NAME") and as
// marks.
[[nodiscard]] markup draw_memories(const matrix &all);

}  // namespace lab
