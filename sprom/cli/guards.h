// guards.h: what a write refuses for safety's sake, unless --force is given.
#pragma once

#include <span>
#include <string>

#include "sprom/board/target.h"

namespace tool {

// Each returns false after a message; with --force, true.

// An image with bad blocks; which ones is printed in any case.
//   label  where it comes from
[[nodiscard]] bool is_accepted(const options_t &options, const std::string &label, const kind_t &kind,
                               std::span<const uint8_t> image);

// The same for all images in what is to fill a whole EEPROM. A unit may be without those that are not its own. The
// content of a SPROM without a layout cannot be checked.
[[nodiscard]] bool is_content_accepted(const options_t &options, const std::string &label, const target_t &target,
                                       std::span<const uint8_t> content);

// A unit in a fixture that holds an image of another kind than was said.
[[nodiscard]] bool is_same_kind(const options_t &options, const target_t &target, std::span<const uint8_t> before);

// A supervisor that would be another card: its card index changes, although nobody gave it by name. An old main block
// that is bad has none.
[[nodiscard]] bool is_same_card(const options_t &options, const target_t &target, std::span<const uint8_t> before,
                                std::span<const uint8_t> after);

}  // namespace tool
