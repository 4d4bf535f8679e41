#include "lab/report/patterns.h"

#include <algorithm>
#include <optional>

#include "lab/base/fault_list.h"

namespace lab {
namespace {

struct parameter_values {
  std::string key;
  std::vector<std::string> values;

  friend bool operator==(const parameter_values &, const parameter_values &) = default;
};

struct pattern {
  std::string head;  // options and name
  std::vector<parameter_values> parameters;
};

std::string head_of(const run_item &run, const std::string &name) {
  if (name.empty()) return "healthy board, card " + std::to_string(run.board.card) + " " + run.board.revision;
  const board_setting usual;
  std::string head;
  if (run.board.card != usual.card) head += "--card=" + std::to_string(run.board.card) + " ";
  if (run.board.revision != usual.revision) head += "--revision=" + run.board.revision + " ";
  return head + name;
}

pattern pattern_of(const run_item &run) {
  const auto fault = parse_fault_text(run.fault);
  pattern one{head_of(run, fault.name), {}};
  for (const auto &[key, value] : fault.values)
    one.parameters.push_back({key, {value}});
  return one;
}

// Whether both differ only in the values of one parameter.
bool differ_in(const pattern &a, const pattern &b, size_t at) {
  if (a.head != b.head || a.parameters.size() != b.parameters.size() || at >= a.parameters.size()) return false;
  for (size_t i = 0; i < a.parameters.size(); ++i) {
    const bool same = i == at ? a.parameters[i].key == b.parameters[i].key : a.parameters[i] == b.parameters[i];
    if (!same) return false;
  }
  return true;
}

// Joins the patterns that differ only in this parameter.
void join(size_t at, std::vector<pattern> *patterns) {
  std::vector<pattern> joined;
  for (auto &one : *patterns) {
    const auto same = std::ranges::find_if(joined, [&](const pattern &other) { return differ_in(other, one, at); });
    if (same == joined.end()) {
      joined.push_back(std::move(one));
      continue;
    }
    auto &values = same->parameters[at].values;
    values.insert(values.end(), one.parameters[at].values.begin(), one.parameters[at].values.end());
  }
  *patterns = std::move(joined);
}

// The last of the values from `first` on that count up by 1.
size_t end_of_range(const std::vector<std::string> &values, size_t first) {
  const auto start = parse_c_number(values[first]);
  size_t last = first;
  while (start && last + 1 < values.size() && parse_c_number(values[last + 1]) == *start + (last + 1 - first))
    ++last;
  return last;
}

std::string text_of_values(const std::vector<std::string> &values) {
  std::string text;
  for (size_t i = 0; i < values.size(); ++i) {
    text += (i == 0 ? "" : ",") + values[i];
    const auto last = end_of_range(values, i);
    if (last < i + 2) continue;
    text += ".." + values[last];
    i = last;
  }
  return text;
}

}  // namespace

std::vector<std::string> patterns_of(const std::vector<run_item> &runs) {
  std::vector<pattern> patterns;
  size_t most = 0;
  for (const auto &run : runs) {
    patterns.push_back(pattern_of(run));
    most = std::max(most, patterns.back().parameters.size());
  }
  for (size_t at = most; at-- > 0;)
    join(at, &patterns);
  std::vector<std::string> texts;
  for (const auto &one : patterns) {
    auto text = one.head;
    for (const auto &parameter : one.parameters)
      text += " " + parameter.key + "=" + text_of_values(parameter.values);
    // Several turns of one fault read the same.
    if (std::ranges::find(texts, text) == texts.end()) texts.push_back(std::move(text));
  }
  return texts;
}

}  // namespace lab
