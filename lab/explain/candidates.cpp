#include "lab/explain/candidates.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <map>
#include <optional>
#include <set>

#include "lab/base/text.h"

namespace lab {
namespace {

constexpr std::string_view timing[] = {"nth", "times", "p", "seed"};

// "LOW..HIGH/STEP+DISTANCE*TIMES"; everything after LOW may be missing.
struct number_range {
  uint64_t low = 0;
  uint64_t high = 0;
  uint64_t step = 1;
  uint64_t distance = 0;
  uint64_t times = 1;

  [[nodiscard]] uint64_t count() const { return ((high - low) / step + 1) * times; }
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
  const number_range range{*values[0], *values[1], *values[2], *values[3], *values[4]};
  if (range.high < range.low || range.step == 0 || range.times == 0 || (range.times > 1 && range.distance == 0))
    return std::nullopt;
  return range;
}

bool list_holds(std::string_view list, std::string_view value) {
  const auto number = parse_c_number(value);
  return std::ranges::any_of(pieces_of(list, ','), [&](std::string_view piece) {
    const auto range = parse_range(piece);
    return piece == "*" || (range && number ? range->holds(*number) : piece == value);
  });
}

const parm_row *parameter_of(std::string_view kind, std::string_view key) {
  const auto *const row = sim::fault_named(kind);
  return row == nullptr ? nullptr : row->find(key);
}

// A parameter as it was asked for, or else its default, "" for none.
std::string value_of(const fault_text &fault, std::string_view key) {
  if (const auto value = fault.find(key)) return std::string(*value);
  const auto *const parameter = parameter_of(fault.name, key);
  const bool has_default = parameter != nullptr && parameter->given == parm_row::given::or_default;
  return has_default ? parameter->print(parameter->otherwise) : "";
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
    if (run.count == 2 && run.step > 1) run.count = 1;
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
  const auto is_list = [](std::string_view list) {
    return list.find_first_not_of("0123456789") != std::string_view::npos;
  };
  auto line = value("line");
  auto other = value("other");
  if (is_list(line) && !is_list(other) && !other.empty()) std::swap(line, other);
  const std::string name = address ? "address line" : "data line";
  group->where = is_list(line) ? "one of the " + name + "s " : name + (other.empty() ? " " : "s ");
  group->where += lines_text(letter, line);
  if (!other.empty()) group->where += (is_list(other) ? " and one of " : " and ") + lines_text(letter, other);
  if (!value("level").empty()) group->how = "stuck at " + std::string(value("level"));
  if (!value("wins").empty()) group->how = "shorted, " + std::string(value("wins")) + " wins";
  if (group->how.empty()) group->how = "open";
}

// Joins the groups that differ only in the list of this key, and in where they are.
void join_groups(std::string_view key, std::vector<fault_group> *groups) {
  std::map<std::string, size_t> found;
  std::vector<fault_group> joined;
  std::set<size_t> some;  // of them, with more than one value
  for (auto &group : *groups) {
    auto rest = group;
    std::string *list = nullptr;
    for (auto &[name, value] : rest.values)
      if (name == key) list = &value;
    if (list != nullptr) list->clear();
    const auto [at, is_new] = found.try_emplace(rest.text() + (group.may_differ ? "?" : ""), joined.size());
    if (is_new || list == nullptr) {
      at->second = joined.size();
      joined.push_back(std::move(group));
      continue;
    }
    auto &first = joined[at->second];
    for (size_t i = 0; i < first.values.size(); ++i)
      if (first.values[i].first == key) first.values[i].second += "," + group.values[i].second;
    some.insert(at->second);
  }
  for (const auto at : some) {
    for (auto &[name, value] : joined[at].values)
      if (name == key) value = number_list(numbers_of(value), false);
    name_lines(&joined[at]);
  }
  *groups = std::move(joined);
}

// The fault with the names of two shorted lines exchanged.
fault_text exchanged(fault_text fault) {
  const auto value = [&fault](std::string_view key) {
    return std::ranges::find(fault.values, key, &std::pair<std::string, std::string>::first);
  };
  const auto line = value("line");
  const auto other = value("other");
  if (line != fault.values.end() && other != fault.values.end()) std::swap(line->second, other->second);
  return fault;
}

}  // namespace

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
  const auto has_values = [&](const fault_text &one) {
    return std::ranges::all_of(values, [&](const auto &value) {
      const bool when = std::ranges::find(timing, value.first) != std::end(timing);
      return when || list_holds(value.second, value_of(one, value.first));
    });
  };
  return std::ranges::all_of(fault.values, is_named) && (has_values(fault) || has_values(exchanged(fault)));
}

std::string fault_group::one(bool last) const {
  auto all = name;
  for (const auto &[key, list] : values) {
    const auto *const parameter = parameter_of(name, key);
    const auto pieces = pieces_of(list, ',');
    const auto piece = last ? pieces.back() : pieces.front();
    std::string value(piece);
    if (piece == "*") {
      if (parameter == nullptr || parameter->given != parm_row::given::always) continue;
      value = parameter->print(last ? parameter->highest() : parameter->low);
    } else if (const auto range = parse_range(piece)) {
      value = number_text(last ? range->high + (range->times - 1) * range->distance : range->low, true);
    }
    all += " " + key + "=" + value;
  }
  return all;
}

uint64_t fault_group::count() const {
  uint64_t all = 1;
  for (const auto &[key, list] : values) {
    const auto *const parameter = parameter_of(name, key);
    uint64_t some = 0;
    for (const auto piece : pieces_of(list, ',')) {
      const auto range = parse_range(piece);
      const bool any = piece == "*" && parameter != nullptr;
      some += any ? parameter->highest() - parameter->low + 1 : range ? range->count() : 1;
    }
    all *= some;
  }
  return all;
}

fault_group group_of(std::string_view pattern) {
  auto fault = parse_fault_text(pattern);
  return {std::move(fault.name), std::move(fault.values)};
}

fault_group line_group(const models::chip_fault &fault) {
  auto group = group_of(models::notation(fault));
  name_lines(&group);
  return group;
}

std::vector<fault_group> in_few_groups(std::span<const fault_group> groups) {
  std::vector<fault_group> few(groups.begin(), groups.end());
  for (const auto *const key : {"other", "line"})
    join_groups(key, &few);
  return few;
}

size_t count_places(std::span<const fault_group> groups) {
  std::map<std::string_view, size_t> places;
  for (const auto &group : groups)
    places[group.where] = std::max(places[group.where], group.places);
  size_t sum = 0;
  for (const auto &[where, count] : places)
    sum += count;
  return sum;
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

}  // namespace lab
