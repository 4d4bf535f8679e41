#include "lab/explain_group.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cstdio>
#include <map>
#include <optional>

#include "lab/text.h"

namespace lab {
namespace {

// What a parameter is where it is left out, of every kind of fault or of one.
struct default_value {
  std::string_view kind;
  std::string_view key;
  std::string_view value;
};
// clang-format off
constexpr default_value defaults[] = {
    {"",                    "wins",     "0"},
    {"",                    "commands", "0"},
    {"",                    "dq5",      "0"},
    {"",                    "code",     "1"},
    {"",                    "xor",      "0xFF"},
    {"",                    "high",     "1"},
    {"",                    "after",    "0"},
    {"",                    "program",  "0"},
    {"",                    "erase",    "2"},
    {"sprom-corrupt",       "offset",   "8"},
    {"pci-list-unreadable", "errno",    "13"},
    {"sprom-refuse",        "errno",    "22"},
    {"mem-absent",          "errno",    "2"},
    {"mem-mmap-refused",    "errno",    "1"},
    {"i2c-fail",            "errno",    "5"},
};
// clang-format on
constexpr std::string_view timing[] = {"nth", "times", "p", "seed"};

// "LOW..HIGH/STEP+DISTANCE*TIMES>>KEY" or "~KEY"; everything behind LOW may be missing.
struct number_range {
  uint64_t low = 0;
  uint64_t high = 0;
  uint64_t step = 1;
  uint64_t distance = 0;
  uint64_t times = 1;
  std::string_view later_than;  // keys, "" for none
  std::string_view beside;

  [[nodiscard]] bool holds(uint64_t number) const {
    if (number < low) return false;
    if (times > 1) number -= std::min((number - low) / distance, times - 1) * distance;
    return number <= high && (number - low) % step == 0;
  }
};

std::string number_text(uint64_t number, bool hexadecimal) {
  char text[24];
  (void)std::snprintf(text, sizeof text, hexadecimal && number > 9 ? "0x%llX" : "%llu",
                      static_cast<unsigned long long>(number));
  return text;
}

std::optional<number_range> parse_range(std::string_view piece) {
  const auto part = [&piece](std::string_view mark) -> std::optional<std::string_view> {
    const auto at = piece.rfind(mark);
    if (at == std::string_view::npos) return std::nullopt;
    const auto behind = piece.substr(at + mark.size());
    piece = piece.substr(0, at);
    return behind;
  };
  number_range range;
  range.later_than = part(">>").value_or("");
  range.beside = part("~").value_or("");
  const auto times = part("*");
  const auto distance = part("+");
  const auto step = part("/");
  const auto high = part("..");
  const auto number = [](std::optional<std::string_view> text, uint64_t otherwise) {
    return text ? parse_c_number(*text) : otherwise;
  };
  const auto low = parse_c_number(piece);
  const auto values =
      std::array{low, number(high, low.value_or(0)), number(step, 1), number(distance, 0), number(times, 1)};
  if (!std::ranges::all_of(values, [](const auto &value) { return value.has_value(); })) return std::nullopt;
  range = {*values[0], *values[1], *values[2], *values[3], *values[4], range.later_than, range.beside};
  if (range.step == 0 || range.times == 0 || (range.times > 1 && range.distance == 0)) return std::nullopt;
  return range;
}

bool list_holds(std::string_view list, std::string_view value, const fault_text &fault) {
  const auto number = parse_c_number(value);
  return std::ranges::any_of(pieces_of(list, ','), [&](std::string_view piece) {
    const auto range = parse_range(piece);
    if (!range || !number) return piece == value;
    const auto word = *number / 2;
    return range->holds(*number) && (range->later_than.empty() || word > fault.number(range->later_than) / 2) &&
           (range->beside.empty() || word == fault.number(range->beside) / 2);
  });
}

std::string_view value_of(const fault_text &fault, std::string_view key) {
  if (const auto value = fault.find(key)) return *value;
  const auto *const found = std::ranges::find_if(defaults, [&](const default_value &one) {
    return one.key == key && (one.kind.empty() || one.kind == fault.name);
  });
  return found == std::end(defaults) ? "" : found->value;
}

// Numbers that go up by one step.
struct run_of_numbers {
  uint32_t low;
  uint32_t step;
  uint32_t count;

  [[nodiscard]] uint32_t high() const { return low + step * (count - 1); }
  [[nodiscard]] bool same_shape(const run_of_numbers &other) const {
    return step == other.step && count == other.count;
  }
};

std::vector<run_of_numbers> runs_of(std::span<const uint32_t> numbers) {
  std::vector<run_of_numbers> runs;
  for (size_t i = 0; i < numbers.size();) {
    run_of_numbers run{numbers[i], 1, 1};
    if (i + 1 < numbers.size()) run.step = numbers[i + 1] - numbers[i];
    while (i + run.count < numbers.size() && numbers[i + run.count] == run.low + run.step * run.count)
      ++run.count;
    // Two numbers that are far apart are better taken one by one, as they may begin other runs.
    if (run.count == 2 && run.step > 2) run.count = 1;
    if (run.count == 1) run.step = 1;
    runs.push_back(run);
    i += run.count;
  }
  return runs;
}

std::string run_text(const run_of_numbers &run, bool hexadecimal) {
  auto text = number_text(run.low, hexadecimal);
  if (run.count > 1) text += ".." + number_text(run.high(), hexadecimal);
  if (run.count > 1 && run.step > 1) text += "/" + number_text(run.step, hexadecimal);
  return text;
}

// The values of a list of plain numbers.
std::vector<uint32_t> numbers_of(std::string_view list) {
  std::vector<uint32_t> numbers;
  for (const auto piece : pieces_of(list, ','))
    if (const auto range = parse_range(piece))
      for (auto number = range->low; number <= range->high; number += range->step)
        numbers.push_back(static_cast<uint32_t>(number));
  return numbers;
}

// "D3", "D4..D15", "D1, D3 and D9".
std::string lines_text(std::string_view letter, std::string_view list) {
  const auto numbers = numbers_of(list);
  const auto name = [letter](uint32_t number) { return std::string(letter) + std::to_string(number); };
  std::string text;
  for (size_t i = 0; i < numbers.size();) {
    size_t end = i + 1;
    while (end < numbers.size() && numbers[end] == numbers[end - 1] + 1)
      ++end;
    if (i > 0) text += ", ";
    text += name(numbers[i]);
    if (end > i + 1) text += (end > i + 2 ? ".." : ", ") + name(numbers[end - 1]);
    i = end;
  }
  return text;
}

// Says where and how by the values of a line fault.
void name_lines(fault_group *group) {
  const fault_text fault{group->name, group->values};
  const auto value = [&fault](std::string_view key) { return fault.find(key).value_or(""); };
  const bool address = group->name.find("-addr-") != std::string::npos;
  const std::string_view letter = address ? "A" : "D";
  const auto first = lines_text(letter, value("line"));
  const bool several = value("line").find_first_not_of("0123456789") != std::string_view::npos;
  const auto other = value("other");
  const bool to_several = other.find_first_not_of("0123456789") != std::string_view::npos;
  const std::string name = address ? "address line" : "data line";
  group->where = several ? "one of the " + name + "s " : name + (other.empty() ? " " : "s ");
  group->where += first;
  if (!other.empty()) group->where += (to_several ? " and one of " : " and ") + lines_text(letter, other);
  if (!value("level").empty()) group->how = "stuck at " + std::string(value("level"));
  if (!value("wins").empty()) group->how = "shorted, " + std::string(value("wins")) + " wins";
  if (group->how.empty()) group->how = "open";
}

bool is_of_lines(const fault_group &group) {
  return group.name.find("-data-") != std::string::npos || group.name.find("-addr-") != std::string::npos;
}

}  // namespace

fault_group line_group(std::string_view memory, const line_fault &fault) {
  const auto low = static_cast<uint32_t>(std::countr_zero(fault.bad.lines));
  const auto high = 31 - static_cast<uint32_t>(std::countl_zero(fault.bad.lines));
  const std::string level = fault.bad.high ? "1" : "0";
  auto group = group_named(std::string(memory) + (fault.address ? "-addr" : "-data"), {{"line", std::to_string(low)}});
  switch (fault.bad.kind) {
    case line_kind::stuck:
      group.name += "-stuck";
      group.values.emplace_back("level", level);
      break;
    case line_kind::shorted:
      group.name += "-short";
      group.values.emplace_back("other", std::to_string(high));
      group.values.emplace_back("wins", level);
      break;
    case line_kind::floating:
      group.name += "-floating";
      break;
  }
  name_lines(&group);
  return group;
}

void join_groups(std::string_view key, std::vector<fault_group> *groups) {
  std::map<std::string, size_t> places;
  std::vector<fault_group> joined;
  for (auto &group : *groups) {
    auto rest = group;
    std::string *list = nullptr;
    for (auto &[name, value] : rest.values)
      if (name == key) list = &value;
    if (list != nullptr) list->clear();
    const auto [at, is_new] = places.try_emplace(rest.text() + (group.contents ? " by contents" : ""), joined.size());
    if (is_new || list == nullptr) {
      at->second = joined.size();
      joined.push_back(std::move(group));
      continue;
    }
    auto &first = joined[at->second];
    for (size_t i = 0; i < first.values.size(); ++i)
      if (first.values[i].first == key) first.values[i].second += "," + group.values[i].second;
    first.count += group.count;
    first.places = first.where == group.where ? std::max(first.places, group.places) : first.places + group.places;
    if (first.where != group.where && key == "sector") first.where = "one of the sectors tested";
  }
  for (auto &group : joined) {
    for (auto &[name, value] : group.values)
      if (name == key && value.find_first_not_of("0123456789,") == std::string::npos)
        value = number_list(numbers_of(value), false);
    if (is_of_lines(group)) name_lines(&group);
  }
  *groups = std::move(joined);
}

std::string number_list(std::span<const uint32_t> numbers, bool hexadecimal) {
  const auto runs = runs_of(numbers);
  std::string text;
  for (size_t i = 0; i < runs.size();) {
    size_t end = i + 1;
    while (end < runs.size() && runs[end].same_shape(runs[i]) &&
           runs[end].low - runs[end - 1].low == runs[i + 1].low - runs[i].low)
      ++end;
    const bool repeats = end - i > 2;
    if (!text.empty()) text += ",";
    text += run_text(runs[i], hexadecimal);
    if (repeats)
      text += "+" + number_text(runs[i + 1].low - runs[i].low, hexadecimal) + "*" + number_text(end - i, false);
    i = repeats ? end : i + 1;
  }
  return text;
}

fault_group group_named(std::string name, std::vector<std::pair<std::string, std::string>> values) {
  fault_group group;
  group.name = std::move(name);
  group.values = std::move(values);
  return group;
}

std::string fault_group::text() const {
  auto all = name;
  for (const auto &[key, value] : values)
    all += " " + key + "=" + value;
  return all;
}

bool fault_group::holds(const fault_text &fault) const {
  if (fault.name != name) return false;
  const auto is_named = [&](const auto &given) {
    const bool named = std::ranges::any_of(values, [&](const auto &value) { return value.first == given.first; });
    const bool left_out = value_of({fault.name, {}}, given.first) == given.second;
    return named || left_out || std::ranges::find(timing, given.first) != std::end(timing);
  };
  return std::ranges::all_of(fault.values, is_named) && std::ranges::all_of(values, [&](const auto &value) {
           return list_holds(value.second, value_of(fault, value.first), fault);
         });
}

std::string fault_group::one(bool last) const {
  // What must lie behind another value is taken from the end, and that value from the beginning.
  const auto lies_before = [&](std::string_view key) {
    return std::ranges::any_of(values,
                               [&](const auto &value) { return value.second.ends_with(">>" + std::string(key)); });
  };
  fault_text fault{name, {}};
  for (const auto &[key, list] : values) {
    const auto pieces = pieces_of(list, ',');
    const bool from_end = list.find(">>") != std::string::npos || (last && !lies_before(key));
    const auto piece = from_end ? pieces.back() : pieces.front();
    const auto range = parse_range(piece);
    if (!range) {
      fault.values.emplace_back(key, piece);
      continue;
    }
    auto number = from_end ? range->high + (range->times - 1) * range->distance : range->low;
    if (!range->beside.empty()) number = (fault.number(range->beside) & ~uint64_t{1}) | (range->low & 1);
    fault.values.emplace_back(key, number_text(number, true));
  }
  auto all = name;
  for (const auto &[key, value] : fault.values)
    all += " " + key + "=" + value;
  return all;
}

}  // namespace lab
