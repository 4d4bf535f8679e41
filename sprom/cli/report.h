// report.h: what several commands report alike.
#pragma once

#include <nlohmann/json.hpp>

#include "sprom/base/output.h"
#include "sprom/board/target.h"

namespace tool {

// Name, slot, index, kind and size of a target; a file has no slot.
json_t identity_of(const target_t &target);

// The same with the path of its bus and its address, which a file has not.
json_t place_of(const target_t &target);

// The fields in which two images of a target differ, its place in a whole EEPROM, and there a last element for what is
// outside the images: field, offset, bytes_different, and both values.
json_t changes_json(const target_t &target, std::span<const uint8_t> from, std::span<const uint8_t> to);

// The same as lines for people.
std::vector<std::string> change_lines(const target_t &target, std::span<const uint8_t> from,
                                      std::span<const uint8_t> to);

}  // namespace tool
