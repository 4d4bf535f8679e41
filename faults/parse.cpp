// parse.cpp: the notation of faults, printed and parsed by the table's rows.
#include <algorithm>
#include <cstdio>

#include "faults/fault.h"
#include "faults/text.h"

namespace sim {

namespace {

std::vector<std::string_view> parameter_names(const fault_row &row) {
  std::vector<std::string_view> names;
  for (const auto list : {row.parms(), row.trigger_parms()})
    for (const auto &parm : list)
      names.push_back(parm_name(parm.key));
  return names;
}

std::vector<std::string_view> fault_names() {
  std::vector<std::string_view> names;
  for (const auto &row : fault_table())
    names.emplace_back(row.name);
  return names;
}

// Takes one "key=value" into *f. Returns what is wrong with it, "" for nothing.
std::string take_parm(std::string_view text, fault *f) {
  const auto equals = text.find('=');
  if (equals == std::string_view::npos) return "parameter " + quoted(text) + " is not of the form key=value";
  const auto key = text.substr(0, equals);
  const auto *const row = f->row().find(key);
  if (row == nullptr) return "no parameter " + quoted(key) + did_you_mean(key, parameter_names(f->row()));
  const auto value = row->parse(text.substr(equals + 1));
  if (!value) return "bad value in " + quoted(text) + ", allowed is " + row->allowed();
  return f->values.emplace(row->key, *value).second ? "" : "parameter " + quoted(key) + " is given twice";
}

// Why a fault with these parameters would do nothing on any board, "" if it would do something.
std::string useless(const fault &f) {
  const auto same = [&](parm a, parm b) { return f.find(b) && f.find(a) == f.find(b); };
  if (same(parm::line, parm::other)) return "a line is not shorted to itself";
  if (same(parm::offset, parm::victim) && same(parm::bit, parm::vbit)) return "a cell is not coupled with itself";
  if (f.id == fault_id::pci_wrong_id && !f.has(parm::vendor) && !f.has(parm::device))
    return "neither vendor nor device is given";
  const bool by_chance = f.row().when != fault_when::always;
  return by_chance && f.has(parm::seed) && !f.has(parm::p) ? "a seed does nothing without a chance p" : "";
}

// Takes the parameters and the defaults of what was not given. Returns what is wrong with them, "" for nothing.
std::string take_parms(std::span<const std::string_view> texts, fault *f) {
  for (const auto text : texts) {
    f->text.append(" ").append(text);
    auto wrong = take_parm(text, f);
    if (!wrong.empty()) return wrong;
  }
  auto wrong = useless(*f);
  for (const auto list : {f->row().parms(), f->row().trigger_parms()}) {
    for (const auto &parm : list) {
      if (f->find(parm.key)) continue;
      if (parm.given == parm_row::given::always) return "parameter " + quoted(parm_name(parm.key)) + " is missing";
      if (parm.given == parm_row::given::or_default) f->values.emplace(parm.key, parm.otherwise);
    }
  }
  return wrong;
}

}  // namespace

std::string_view parm_row::word(uint64_t value) const {
  std::string_view rest = words == nullptr ? "" : words;
  while (value-- > 0)
    (void)take_piece(&rest, "|");
  return take_piece(&rest, "|");
}

uint64_t parm_row::highest() const {
  if (words == nullptr) return high;
  return static_cast<uint64_t>(std::ranges::count(std::string_view(words), '|'));
}

std::string parm_row::print(uint64_t value) const {
  if (words != nullptr) return std::string(word(value));
  char text[24];
  (void)std::snprintf(text, sizeof text, hex && value > 1 ? "0x%02llX" : "%llu",
                      static_cast<unsigned long long>(value));
  return text;
}

std::optional<uint64_t> parm_row::parse(std::string_view text) const {
  if (words == nullptr) {
    const auto value = parse_number(text);
    return value && *value >= low && *value <= high ? value : std::nullopt;
  }
  for (uint64_t i = 0; !word(i).empty(); ++i)
    if (word(i) == text) return i;
  return std::nullopt;
}

std::string parm_row::allowed() const {
  return words != nullptr ? words : print(low) + ".." + print(high);
}

std::string parm_row::usage() const {
  auto text = std::string(parm_name(key)) + "=" + allowed();
  if (given == given::or_default) text += ":" + print(otherwise);
  return given == given::always ? text : "[" + text + "]";
}

std::string fault_row::usage() const {
  std::string text = name;
  for (const auto &parm : parms())
    text += " " + parm.usage();
  return text;
}

std::optional<std::string_view> fault_text::find(std::string_view key) const {
  for (const auto &[k, value] : values)
    if (k == key) return value;
  return std::nullopt;
}

uint64_t fault_text::number(std::string_view key, uint64_t otherwise) const {
  const auto value = find(key);
  return value ? parse_number(*value).value_or(otherwise) : otherwise;
}

fault_text parse_fault_text(std::string_view text) {
  fault_text fault;
  for (auto word : words_of(text)) {
    const auto key = take_piece(&word, fault.name.empty() ? "" : "=");
    if (fault.name.empty())
      fault.name = key;
    else
      fault.values.emplace_back(key, word);
  }
  return fault;
}

std::optional<fault> fault_parse(std::string_view text, std::string *error) {
  const auto parts = words_of(text);
  if (parts.empty()) {
    *error = "empty fault";
    return std::nullopt;
  }
  const auto *const row = fault_named(parts[0]);
  if (row == nullptr) {
    *error = "unknown fault " + quoted(parts[0]) + did_you_mean(parts[0], fault_names());
    return std::nullopt;
  }
  fault f{row->id, {}, row->name, {}};
  const auto wrong = take_parms(std::span(parts).subspan(1), &f);
  if (!wrong.empty()) {
    *error = "fault " + quoted(row->name) + ": " + wrong;
    return std::nullopt;
  }
  // Faults of one seed are not to act in step.
  const uint64_t seed = f.find(parm::seed).value_or(0) | static_cast<uint64_t>(f.id) << 32U;
  f.trigger = fault_trigger(f.find(parm::nth).value_or(1), f.find(parm::times).value_or(0),
                            f.find(parm::p).value_or(fault_trigger::certain), seed);
  return f;
}

}  // namespace sim
