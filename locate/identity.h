// identity.h: which card this is, as the probes need it.
#pragma once

#include <optional>

#include "locate/finding.h"
#include "post/dorvan/cards.h"

namespace locate {

// The card by its SPROM driver. Null if the driver does not answer, or the card is not of the family; *result has it.
[[nodiscard]] const dorvan_card_t *this_card(part_result *result);

// The hardware change bits in the supervisor's SPROM; nothing if that cannot be read.
[[nodiscard]] std::optional<uint64_t> change_bits();

}  // namespace locate
