// report.h: the results of the probes, for people and for machines.
#pragma once

#include <map>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "locate/finding.h"

namespace locate {

// Names that a board has for places: "nvram0.A9" is "U12 pin 24, net LA9". One a line in a file: the place, blanks, the
// rest of the line; '#' begins a comment.
using board_names = std::map<std::string, std::string, std::less<>>;

// Nothing, and what is wrong with the line in *error, if it is no table of names.
[[nodiscard]] std::optional<board_names> parse_names(std::string_view text, std::string *error);

// Sentences, each with its evidence and what to measure next.
[[nodiscard]] std::string report_text(std::span<const part_result> parts, const board_names &names);

// One object with all parts; see post-locate(1).
[[nodiscard]] std::string report_json(std::span<const part_result> parts);

enum exit_code : int {
  EXIT_NOTHING = 0,
  EXIT_FINDINGS = 1,
  EXIT_TROUBLE = 2,  // also where nothing is found, but not all could be tested that was asked for
};

[[nodiscard]] exit_code exit_code_of(std::span<const part_result> parts);

}  // namespace locate
