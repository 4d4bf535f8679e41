// identity.h: which board it was, from its supervisor's SPROM as `sprom show --json` prints it.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace lab {

struct board_identity {
  std::string part;    // product id
  std::string serial;  // serial number
  std::optional<uint64_t> card;
  std::optional<uint64_t> change_bits;
  bool good = false;  // all blocks of the image are

  [[nodiscard]] bool known() const { return !part.empty() || !serial.empty() || card.has_value(); }
};

// Reads the JSON of a supervisor's SPROM. On failure returns nothing and says why in *error.
[[nodiscard]] std::optional<board_identity> parse_identity(std::string_view json, std::string *error);

}  // namespace lab
