// patterns.h: many runs in few words.
#pragma once

#include <string>
#include <vector>

#include "lab/campaign/space.h"

namespace lab {

// The runs as patterns of a fault space, which denote exactly these: "flash-addr-stuck line=17..25 level=0,1", with
// the card and the revision in front where they are not the usual ones.
[[nodiscard]] std::vector<std::string> patterns_of(const std::vector<run_item> &runs);

}  // namespace lab
