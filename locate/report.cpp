#include "locate/report.h"

#include <algorithm>
#include <nlohmann/json.hpp>

namespace locate {
namespace {

constexpr size_t most_candidates = 8;  // for people; JSON has all

const char *state_text(part_state state) {
  switch (state) {
    case part_state::good:
      return "good";
    case part_state::faulty:
      return "faulty";
    default:
      return "not tested";
  }
}

std::string joined(std::span<const std::string> texts) {
  std::string all;
  for (const auto &text : texts)
    all += (all.empty() ? "" : ", ") + text;
  return all;
}

void add_line(std::string_view head, std::string_view text, std::string *out) {
  if (!text.empty()) out->append(head).append(text).append("\n");
}

void add_finding_text(const finding &what, const board_names &names, std::string *out) {
  add_line("  ", what.sentence, out);
  for (const auto &seen : what.evidence)
    add_line("    seen: ", seen, out);
  for (const auto &place : what.places)
    if (const auto found = names.find(place); found != names.end())
      add_line("    on this board: ", place + " is " + found->second, out);
  for (const auto &fault : std::span(what.candidates).first(std::min(what.candidates.size(), most_candidates)))
    add_line("    fault: ", fault + (what.intermittent ? ", intermittent" : ""), out);
  if (what.candidates.size() > most_candidates)
    add_line("    fault: ", "or one of " + std::to_string(what.candidates.size() - most_candidates) + " more", out);
  add_line("    next: ", what.next, out);
}

void add_part_text(const part_result &part, const board_names &names, std::string *out) {
  out->append(part.part).append(": ").append(state_text(part.state));
  if (part.accesses != 0) out->append(", ").append(std::to_string(part.accesses)).append(" accesses");
  out->append("\n");
  for (const auto &what : part.findings)
    add_finding_text(what, names, out);
  if (part.findings.empty() || part.findings[0].sentence != part.reason) add_line("  ", part.reason, out);
  add_line("  looked at: ", joined(part.looked_at), out);
  add_line("  not looked at: ", joined(part.not_looked_at), out);
}

size_t count_findings(std::span<const part_result> parts) {
  size_t count = 0;
  for (const auto &part : parts)
    count += part.findings.size();
  return count;
}

}  // namespace

std::optional<board_names> parse_names(std::string_view text, std::string *error) {
  constexpr std::string_view blanks = " \t\r";
  board_names names;
  for (size_t number = 1; !text.empty(); ++number) {
    const auto end = std::min(text.find('\n'), text.size());
    auto line = text.substr(0, std::min(end, text.find('#')));
    text.remove_prefix(std::min(end + 1, text.size()));
    line.remove_prefix(std::min(line.find_first_not_of(blanks), line.size()));
    if (line.empty()) continue;
    line = line.substr(0, line.find_last_not_of(blanks) + 1);
    const auto blank = line.find_first_of(blanks);
    if (blank == std::string_view::npos) {
      *error = "line " + std::to_string(number) + ": no name after the place";
      return std::nullopt;
    }
    const auto name = line.substr(line.find_first_not_of(blanks, blank));
    if (names.emplace(line.substr(0, blank), name).second) continue;
    *error = "line " + std::to_string(number) + ": this place has a name already";
    return std::nullopt;
  }
  return names;
}

std::string report_text(std::span<const part_result> parts, const board_names &names) {
  std::string out;
  for (const auto &part : parts)
    add_part_text(part, names, &out);
  const auto count = count_findings(parts);
  const auto untested = std::ranges::count(parts, part_state::not_tested, &part_result::state);
  out += count == 0 ? "Nothing found" : std::to_string(count) + (count == 1 ? " finding" : " findings");
  if (untested != 0) out += "; " + std::to_string(untested) + (untested == 1 ? " part" : " parts") + " not tested";
  out += ".\n";
  return out;
}

std::string report_json(std::span<const part_result> parts) {
  auto list = nlohmann::ordered_json::array();
  for (const auto &part : parts) {
    auto findings = nlohmann::ordered_json::array();
    for (const auto &what : part.findings)
      findings.push_back({{"sentence", what.sentence},
                          {"evidence", what.evidence},
                          {"candidates", what.candidates},
                          {"intermittent", what.intermittent}});
    list.push_back({{"part", part.part},
                    {"state", state_text(part.state)},
                    {"reason", part.reason},
                    {"accesses", part.accesses},
                    {"findings", std::move(findings)}});
  }
  const nlohmann::ordered_json all{{"parts", std::move(list)}};
  return all.dump(2, ' ', false, nlohmann::ordered_json::error_handler_t::replace) + "\n";
}

exit_code exit_code_of(std::span<const part_result> parts) {
  if (count_findings(parts) != 0) return EXIT_FINDINGS;
  const bool all_tested = std::ranges::find(parts, part_state::not_tested, &part_result::state) == parts.end();
  return all_tested ? EXIT_NOTHING : EXIT_TROUBLE;
}

}  // namespace locate
