#include "lab/fault_list.h"

#include <algorithm>

#include "lab/text.h"

namespace lab {
namespace {

std::optional<fault_parameter> parse_parameter(std::string_view text) {
  fault_parameter parameter;
  if (text.starts_with('[')) {
    if (!text.ends_with(']')) return std::nullopt;
    parameter.optional = true;
    text = text.substr(1, text.size() - 2);
  }
  const auto equals = text.find('=');
  if (equals == std::string_view::npos || equals == 0) return std::nullopt;
  parameter.key = text.substr(0, equals);
  auto values = text.substr(equals + 1);
  const auto dots = values.find("..");
  if (dots == std::string_view::npos) {
    for (const auto word : pieces_of(values, '|'))
      parameter.words.emplace_back(word);
    return parameter;
  }
  const auto colon = values.find(':');
  if (colon != std::string_view::npos) {
    parameter.otherwise = values.substr(colon + 1);
    values = values.substr(0, colon);
  }
  parameter.low = parse_c_number(values.substr(0, dots)).value_or(0);
  parameter.high = parse_c_number(values.substr(dots + 2)).value_or(0);
  return parameter;
}

std::optional<fault_kind> parse_kind(std::string_view line) {
  const auto words = words_of(line);
  if (words.empty() || line.starts_with(' ')) return std::nullopt;
  fault_kind kind{std::string(words[0]), {}, ""};
  for (size_t i = 1; i < words.size(); ++i) {
    auto parameter = parse_parameter(words[i]);
    if (!parameter) return std::nullopt;
    kind.parameters.push_back(std::move(*parameter));
  }
  return kind;
}

}  // namespace

const fault_parameter *fault_kind::find(std::string_view key) const {
  const auto found = std::ranges::find(parameters, key, &fault_parameter::key);
  return found == parameters.end() ? nullptr : &*found;
}

const fault_kind *fault_list::find(std::string_view name) const {
  const auto found = std::ranges::find(kinds, name, &fault_kind::name);
  return found == kinds.end() ? nullptr : &*found;
}

std::optional<fault_list> parse_fault_list(std::string_view text, std::string *error) {
  fault_list list;
  size_t number = 0;
  for (const auto line : pieces_of(text, '\n')) {
    ++number;
    if (line.empty()) continue;
    if (line.starts_with("    ") && !list.kinds.empty()) {
      list.kinds.back().what = line.substr(4);
      continue;
    }
    auto kind = parse_kind(line);
    if (!kind) {
      *error = "line " + std::to_string(number) + " of the list of faults is not understood: " + std::string(line);
      return std::nullopt;
    }
    list.kinds.push_back(std::move(*kind));
  }
  if (list.kinds.empty()) *error = "the list of faults is empty";
  return list.kinds.empty() ? std::nullopt : std::optional(std::move(list));
}

std::optional<std::string_view> fault_text::find(std::string_view key) const {
  for (const auto &[k, value] : values)
    if (k == key) return value;
  return std::nullopt;
}

uint64_t fault_text::number(std::string_view key, uint64_t otherwise) const {
  const auto value = find(key);
  return value ? parse_c_number(*value).value_or(otherwise) : otherwise;
}

fault_text parse_fault_text(std::string_view text) {
  fault_text fault;
  for (const auto word : words_of(text)) {
    if (fault.name.empty()) {
      fault.name = word;
      continue;
    }
    const auto equals = std::min(word.find('='), word.size());
    fault.values.emplace_back(word.substr(0, equals), word.substr(std::min(equals + 1, word.size())));
  }
  return fault;
}

std::optional<uint64_t> parse_c_number(std::string_view text) {
  int base = 10;
  if (take(&text, "0x") || take(&text, "0X"))
    base = 16;
  else if (text.size() > 1 && text.starts_with('0'))
    base = 8;
  const auto number = take_number<uint64_t>(&text, base);
  return text.empty() ? number : std::nullopt;
}

std::vector<std::string_view> words_of(std::string_view text) {
  std::vector<std::string_view> words;
  while (true) {
    const auto start = text.find_first_not_of(" \t\r\n");
    if (start == std::string_view::npos) return words;
    text.remove_prefix(start);
    const auto end = std::min(text.find_first_of(" \t\r\n"), text.size());
    words.push_back(text.substr(0, end));
    text.remove_prefix(end);
  }
}

std::vector<std::string_view> pieces_of(std::string_view text, char separator) {
  std::vector<std::string_view> pieces;
  while (true) {
    const auto end = text.find(separator);
    pieces.push_back(text.substr(0, end));
    if (end == std::string_view::npos) return pieces;
    text.remove_prefix(end + 1);
  }
}

}  // namespace lab
