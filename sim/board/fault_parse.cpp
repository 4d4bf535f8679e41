// fault_parse.cpp: what the command line asks for, against the table of faults.
#include <algorithm>
#include <vector>

#include "sim/board/fault.h"
#include "sim/host/text.h"

namespace sim {

namespace {

// One parameter of a row, taken apart: "key=LOW..HIGH", "[key=LOW..HIGH:DEFAULT]" or "key=word|word".
struct parm_spec {
  std::string_view key;
  std::vector<std::string_view> words;  // empty for a number
  uint64_t low = 0;
  uint64_t high = 0;
  bool optional = false;
  std::optional<uint64_t> otherwise;
  std::string_view values;  // as the table has them, for messages
};

std::vector<std::string_view> split(std::string_view text, std::string_view separators) {
  std::vector<std::string_view> parts;
  while (true) {
    const auto start = text.find_first_not_of(separators);
    if (start == std::string_view::npos) return parts;
    text.remove_prefix(start);
    const auto end = std::min(text.find_first_of(separators), text.size());
    parts.push_back(text.substr(0, end));
    text.remove_prefix(end);
  }
}

parm_spec parm_of(std::string_view text) {
  parm_spec spec;
  if (text.starts_with('[')) {
    spec.optional = true;
    text = text.substr(1, text.size() - 2);
  }
  const auto equals = text.find('=');
  spec.key = text.substr(0, equals);
  spec.values = text.substr(equals + 1);
  const auto dots = spec.values.find("..");
  if (dots == std::string_view::npos) {
    spec.words = split(spec.values, "|");
    return spec;
  }
  const auto colon = spec.values.find(':');
  if (colon != std::string_view::npos) {
    spec.otherwise = parse_number(spec.values.substr(colon + 1));
    spec.values = spec.values.substr(0, colon);
  }
  spec.low = parse_number(spec.values.substr(0, dots)).value_or(0);
  spec.high = parse_number(spec.values.substr(dots + 2)).value_or(0);
  return spec;
}

std::optional<fault_parm> parm_value(const parm_spec &spec, std::string_view text) {
  for (size_t i = 0; i < spec.words.size(); ++i)
    if (spec.words[i] == text) return fault_parm{i, spec.words[i]};
  const auto value = spec.words.empty() ? parse_number(text) : std::nullopt;
  if (!value || *value < spec.low || *value > spec.high) return std::nullopt;
  return fault_parm{*value, ""};
}

const fault_row *row_of(std::string_view name) {
  for (const auto &row : fault_table())
    if (name == row.name) return &row;
  return nullptr;
}

// Takes one "key=value" into *f. Returns what is wrong with it, "" for nothing.
std::string parm_take(std::string_view text, const std::vector<parm_spec> &specs, fault *f) {
  const auto equals = text.find('=');
  if (equals == std::string_view::npos) return "parameter " + quoted(text) + " is not of the form key=value";
  const auto key = text.substr(0, equals);
  for (const auto &spec : specs) {
    if (spec.key != key) continue;
    const auto value = parm_value(spec, text.substr(equals + 1));
    if (!value) return "bad value in " + quoted(text) + ", allowed is " + std::string(spec.values);
    if (!f->parms.emplace(key, *value).second) return "parameter " + quoted(key) + " is given twice";
    return "";
  }
  return "no parameter " + quoted(key);
}

// Why a fault with these parameters would do nothing, "" if it would do something.
std::string useless(const fault &f) {
  const auto same = [&](std::string_view a, std::string_view b) { return f.has(b) && f.get(a) == f.get(b); };
  if (same("line", "other")) return "a line is not shorted to itself";
  if (same("offset", "victim") && same("bit", "vbit")) return "a cell is not coupled with itself";
  if (f.id == fault_id::pci_wrong_id && !f.has("vendor") && !f.has("device"))
    return "neither vendor nor device is given";
  const bool by_chance = f.row().when != fault_when::always;
  return by_chance && f.has("seed") && !f.has("p") ? "a seed does nothing without a chance p" : "";
}

// Takes the parameters and the defaults of what was not given. Returns what is wrong with them, "" for nothing.
std::string take_parms(std::span<const std::string_view> texts, fault *f) {
  std::vector<parm_spec> specs;
  for (const char *const parms : {f->row().parms, fault_parms(f->row().when)})
    for (const auto spec : split(parms, " "))
      specs.push_back(parm_of(spec));
  for (const auto text : texts) {
    f->text.append(" ").append(text);
    auto wrong = parm_take(text, specs, f);
    if (!wrong.empty()) return wrong;
  }
  auto wrong = useless(*f);
  for (const auto &spec : specs) {
    if (f->has(spec.key)) continue;
    if (spec.otherwise) f->parms.emplace(spec.key, fault_parm{*spec.otherwise, ""});
    if (!spec.optional) return "parameter " + quoted(spec.key) + " is missing";
  }
  return wrong;
}

}  // namespace

std::optional<fault> fault_parse(std::string_view text, std::string *error) {
  const auto parts = split(text, " \t\n");
  if (parts.empty()) {
    *error = "empty fault";
    return std::nullopt;
  }
  const auto *const row = row_of(parts[0]);
  if (row == nullptr) {
    *error = "unknown fault " + quoted(parts[0]);
    return std::nullopt;
  }
  fault f{row->id, {}, row->name, {}};
  const auto wrong = take_parms(std::span(parts).subspan(1), &f);
  if (!wrong.empty()) {
    *error = "fault " + quoted(row->name) + ": " + wrong;
    return std::nullopt;
  }
  // Faults of one seed are not to act in step.
  const uint64_t seed = f.get("seed") | static_cast<uint64_t>(f.id) << 32U;
  f.trigger = fault_trigger(f.get("nth", 1), f.get("times"), f.get("p", fault_trigger::certain), seed);
  return f;
}

}  // namespace sim
