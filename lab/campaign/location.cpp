#include "lab/campaign/location.h"

#include <algorithm>
#include <map>
#include <nlohmann/json.hpp>
#include <set>
#include <vector>

#include "lab/base/fault_list.h"
#include "lab/base/text.h"

namespace lab {
namespace {

struct located_text {
  std::string_view name;   // in files
  std::string_view title;  // for people
};
// clang-format off
constexpr std::array<located_text, located_count> texts{{
    {"named",   "named uniquely"},
    {"among",   "among several places"},
    {"unnamed", "found, not named"},
    {"missed",  "missed"},
    {"wrong",   "wrong place named"},
    {"failed",  "no result"},
    {"clean",   "healthy, nothing found"},
}};

// Parameters that say where a fault is.
constexpr std::array place_keys{std::to_array<std::string_view>({
    "instance", "line", "other", "offset", "bit", "sector", "word", "bus", "dev", "func", "addr", "bar", "lock", "kind",
    "port", "test", "image", "block"})};
// clang-format on

// Where a fault is: what its kinds have in common, and its parameters that say where.
struct place {
  std::string part;
  std::map<std::string, std::string, std::less<>> values;

  // Whether it can be the same: a parameter that only one of them has does not count.
  [[nodiscard]] bool may_be(const place &other) const {
    return part == other.part && std::ranges::all_of(values, [&](const auto &value) {
             const auto found = other.values.find(value.first);
             return found == other.values.end() || found->second == value.second;
           });
  }
  friend auto operator<=>(const place &, const place &) = default;
};

place place_of(std::string_view text) {
  auto fault = parse_fault_text(text);
  place at{fault.name, {}};
  for (const std::string_view piece : {"-data-", "-addr-", "-cell-"})
    if (const auto found = fault.name.find(piece); found != std::string::npos) at.part.resize(found + piece.size());
  // Of two cells, the one that reads wrong.
  const bool coupled = fault.find("victim").has_value();
  for (auto &[key, value] : fault.values) {
    if (coupled && (key == "offset" || key == "bit")) continue;
    if (key == "victim" || key == "vbit") key = key == "victim" ? "offset" : "bit";
    const auto number = parse_c_number(value);
    if (std::ranges::find(place_keys, key) != place_keys.end())
      at.values[key] = number ? std::to_string(*number) : value;
  }
  // A pair of lines has no order.
  const auto line = at.values.find("line");
  const auto other = at.values.find("other");
  if (line != at.values.end() && other != at.values.end() && line->second > other->second)
    std::swap(line->second, other->second);
  return at;
}

// The sentences of a report and the places that it names.
struct answer {
  std::vector<std::string> sentences;  // those that name the right place first
  std::set<place> places;
  bool has_right = false;
};

answer read_report(const nlohmann::json &report, const std::optional<place> &truth) {
  answer read;
  for (const auto &part : report.at("parts")) {
    for (const auto &finding : part.at("findings")) {
      bool right = false;
      for (const auto &candidate : finding.at("candidates")) {
        const auto at = place_of(candidate.get<std::string>());
        right |= truth && at.may_be(*truth);
        read.places.insert(at);
      }
      const auto first = right && !read.has_right ? read.sentences.begin() : read.sentences.end();
      read.sentences.insert(first, printable(finding.at("sentence").get<std::string>()));
      read.has_right |= right;
    }
  }
  return read;
}

// A process has another number in every run.
std::string without_process_numbers(std::string text) {
  constexpr std::string_view word = "process ";
  for (auto at = text.find(word); at != std::string::npos; at = text.find(word, at + 1)) {
    const auto number = at + word.size();
    const auto end = text.find_first_not_of("0123456789", number);
    if (end != number && end != std::string::npos && text[end] == ' ') text.erase(number, end + 1 - number);
  }
  return text;
}

located judge_answer(const answer &read, bool healthy) {
  if (read.sentences.empty()) return healthy ? located::clean : located::missed;
  if (healthy) return located::wrong;
  if (read.places.empty()) return located::unnamed;
  if (!read.has_right) return located::wrong;
  return read.places.size() == 1 ? located::named : located::among;
}

}  // namespace

std::string_view name_of(located answer) {
  return texts.at(static_cast<size_t>(answer)).name;
}

std::optional<located> located_named(std::string_view name) {
  const auto *const found = std::ranges::find(texts, name, &located_text::name);
  if (found == texts.end()) return std::nullopt;
  return static_cast<located>(found - texts.begin());
}

std::string location::title() const {
  if (answer == located::among) return "among " + std::to_string(places) + " places";
  return std::string(texts.at(static_cast<size_t>(answer)).title);
}

location judge_location(const run_item &run, std::string_view report) try {
  const bool healthy = run.fault.empty();
  const auto read =
      read_report(nlohmann::json::parse(report), healthy ? std::nullopt : std::optional(place_of(run.fault)));
  const auto text = read.sentences.empty() ? "" : without_process_numbers(read.sentences.front());
  return {judge_answer(read, healthy), read.places.size(), text, ""};
} catch (const nlohmann::json::exception &) {
  return {};
}

std::string counts_text(const located_counts &counts) {
  std::string text;
  for (size_t i = 0; i < counts.size(); ++i)
    if (counts[i] > 0)
      text += (text.empty() ? "" : ", ") + std::to_string(counts[i]) + " " + std::string(texts[i].title);
  return text;
}

}  // namespace lab
