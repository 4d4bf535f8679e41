#include "locate/line_finding.h"

#include <algorithm>
#include <bit>

namespace locate {
namespace {

using line_faults = std::span<const models::single_line_fault *const>;

std::vector<std::string> lines_of(const models::single_line_fault &fault) {
  std::vector<std::string> names;
  for (uint32_t rest = fault.bad.lines; rest != 0; rest &= rest - 1)
    names.push_back((fault.address ? "A" : "D") + std::to_string(std::countr_zero(rest)));
  return names;
}

// "address line A9", "data lines D3 and D4"
std::string place_text(const models::single_line_fault &fault) {
  const auto lines = lines_of(fault);
  const std::string bus = fault.address ? "address line" : "data line";
  return lines.size() == 1 ? bus + " " + lines[0] : bus + "s " + lines[0] + " and " + lines[1];
}

// How one place is bad, as far as all of the faults agree.
std::string how_text(line_faults faults) {
  const auto &bad = faults[0]->bad;
  const bool same_kind = std::ranges::all_of(faults, [&](const auto *fault) { return fault->bad.kind == bad.kind; });
  const bool same_level = std::ranges::all_of(faults, [&](const auto *fault) { return fault->bad.high == bad.high; });
  const std::string level = bad.high ? "1" : "0";
  if (!same_kind) return "is stuck or open";
  switch (bad.kind) {
    case models::line_kind::floating:
      return "is open";
    case models::line_kind::shorted:
      return "are shorted; " + (same_level ? level + " wins" : "no access shows which level wins");
    default:
      return "is stuck" + (same_level ? " at " + level : "; no access shows at which level");
  }
}

std::string next_text(const models::single_line_fault &fault) {
  const auto lines = lines_of(fault);
  if (lines.size() == 2)
    return "measure the resistance between " + lines[0] + " and " + lines[1] +
           " with the power off; look for solder "
           "between neighbouring pins";
  return "measure " + lines[0] + " from the bridge to the chip, and against supply and ground, with the power off";
}

std::string sentence_of(const memory_name &of, line_faults faults) {
  constexpr size_t most_named = 8;
  std::vector<std::string> places;
  for (const auto *fault : faults)
    if (auto place = place_text(*fault); std::ranges::find(places, place) == places.end())
      places.push_back(std::move(place));
  if (places.size() == 1) {
    auto text = places[0] + " of " + of.sentence + " " + how_text(faults) + ".";
    text[0] = static_cast<char>(text[0] - 'a' + 'A');
    return text;
  }
  std::string text = "One of " + std::to_string(places.size()) + " places of " + of.sentence + " is bad: ";
  for (size_t i = 0; i < std::min(places.size(), most_named); ++i)
    text += (i == 0 ? "" : "; ") + places[i];
  return text + (places.size() > most_named ? "; and others." : ".");
}

}  // namespace

bool is_one_place(line_faults faults) {
  return std::ranges::all_of(faults, [&](const auto *fault) {
    const auto &first = *faults[0];
    const bool same_lines = fault->address == first.address && fault->bad.lines == first.bad.lines;
    const bool same_level = fault->address || fault->bad.high == first.bad.high;
    return same_lines && fault->bad.kind == first.bad.kind && same_level;
  });
}

finding line_finding(const memory_name &of, line_faults faults) {
  finding what{.sentence = sentence_of(of, faults), .next = next_text(*faults[0])};
  for (const auto *fault : faults) {
    what.candidates.push_back(models::notation(fault->fault, of.instance));
    for (const auto &line : lines_of(*fault)) {
      auto place = of.part + "." + line;
      if (std::ranges::find(what.places, place) == what.places.end()) what.places.push_back(std::move(place));
    }
  }
  return what;
}

}  // namespace locate
