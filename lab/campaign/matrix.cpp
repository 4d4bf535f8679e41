#include "lab/campaign/matrix.h"

#include <algorithm>
#include <cmath>
#include <map>
#include <set>

#include "lab/base/fault_list.h"

namespace lab {
namespace {

std::string result_text(const run_result &run) {
  auto text = title_of(run);
  for (const auto &device : run.reported)
    text += (&device == &run.reported.front() ? " (" : ", ") + device;
  return run.reported.empty() ? text : text + ")";
}

// Whether the fault is a candidate, one of how many, and what the headline says of it.
std::string named(const run_explanation &explained) {
  if (!explained.listed) return "no candidate";
  return "one of " + std::to_string(explained.places) + " places, and the headline " +
         std::string(name_of(explained.headline));
}

void compare(const run_result &before, const run_result &now, std::vector<std::string> *changes) {
  const auto add = [&](const std::string &was, const std::string &is, const std::string &what = "") {
    if (was != is) changes->push_back(now.what.key() + ": " + what + "was " + was + ", is " + is);
  };
  const auto shown = [](const std::string &text) { return text.empty() ? "nothing" : "\"" + text + "\""; };
  add(result_text(before), result_text(now));
  add(shown(before.contents), shown(now.contents), "changed contents: ");
  add(shown(before.line), shown(now.line), "first line: ");
  if (before.explained && now.explained) add(named(*before.explained), named(*now.explained));
  if (before.located && now.located) add(before.located->title(), now.located->title(), "post-locate: ");
}

}  // namespace

bool is_accounted_for(const run_result &run, std::string_view space) {
  if (is_misplaced(run)) return false;
  if (run.end == outcome::found || run.end == outcome::healthy || run.end == outcome::harmless) return true;
  if (run.end == outcome::not_fired && (space == "cells" || parse_fault_text(run.what.fault).find("p"))) return true;
  if (space == "transients") return run.end != outcome::refused;  // their rates are the result
  return run.end != outcome::refused && run.end != outcome::false_alarm && !run.reason.empty();
}

bool is_misplaced(const run_result &run) {
  return run.located && (run.located->answer == located::wrong || run.located->answer == located::failed);
}

bool is_unnoticed(const run_result &run) {
  return run.verdict == "passed" && (run.end == outcome::missed || run.end == outcome::damaged);
}

std::string title_of(const run_result &run) {
  const std::string title(text_of(run.end).title);
  return run.end == outcome::damaged && is_unnoticed(run) ? title + ", unnoticed" : title;
}

std::string style_class(const run_result &run) {
  return "o-" + std::string(text_of(is_unnoticed(run) ? outcome::missed : run.end).name);
}

std::string mark_of(const run_result &run) {
  const std::string mark(text_of(run.end).mark);
  return run.right && run.end != outcome::found ? std::string(text_of(outcome::found).mark) + mark : mark;
}

void matrix::forget_times() {
  times.reset();
  origin = {origin.tool, origin.program, origin.word_bits, "", "", "", ""};
}

outcome_counts count_outcomes(const std::vector<run_result> &runs) {
  outcome_counts counts{};
  for (const auto &run : runs)
    ++counts.at(static_cast<size_t>(run.end));
  return counts;
}

located_counts count_located(const std::vector<run_result> &runs) {
  located_counts counts{};
  for (const auto &run : runs)
    if (run.located) ++counts.at(static_cast<size_t>(run.located->answer));
  return counts;
}

interval interval_of(size_t count, size_t of) {
  constexpr double z = 1.959964;  // 95 % of the normal distribution lie within so many deviations
  const auto n = static_cast<double>(of);
  const double rest = std::pow(0.025, 1 / n);  // above this rate, all of n are likely enough
  if (count == 0) return {0, 1 - rest};
  if (count == of) return {rest, 1};
  const double rate = static_cast<double>(count) / n;
  const double middle = rate + z * z / (2 * n);
  const double half = z * std::sqrt(rate * (1 - rate) / n + z * z / (4 * n * n));
  const double scale = 1 + z * z / n;
  return {std::max(0.0, (middle - half) / scale), std::min(1.0, (middle + half) / scale)};
}

std::vector<stratum_class> strata_of(const matrix &all) {
  std::map<std::string, std::map<std::string, size_t>> strata;
  std::set<std::string> titles;
  for (const auto &run : all.runs) {
    if (run.what.stratum.empty()) continue;
    ++strata[run.what.stratum][title_of(run)];
    titles.insert(title_of(run));
  }
  std::vector<stratum_class> classes;
  for (auto &[stratum, counts] : strata) {
    size_t of = 0;
    for (const auto &[title, count] : counts)
      of += count;
    for (const auto &title : titles)
      classes.push_back({stratum, title, counts[title], of});
  }
  return classes;
}

std::vector<repeated_fault> rates(const matrix &all) {
  std::vector<repeated_fault> list;
  double seconds = 0;
  for (const auto &run : all.runs) {
    if (run.what.repeat == 0) {
      list.push_back({run.what});
      seconds = 0;
    }
    if (list.empty()) continue;
    auto &fault = list.back();
    ++fault.runs;
    seconds += run.seconds;
    if (run.fired.value_or(0) > 0) ++fault.fired;
    if (!run.right || fault.found++ > 0) continue;
    fault.first_found = fault.runs;
    fault.seconds_to_found = seconds;
  }
  return list;
}

std::vector<std::string> changes_since(const matrix &former, const matrix &now) {
  std::multimap<std::string, const run_result *> before;  // somebody may ask for a fault twice
  for (const auto &run : former.runs)
    before.emplace(run.what.key(), &run);
  const bool same_space = former.space == now.space && !former.part && !now.part;
  std::vector<std::string> changes;
  for (const auto &run : now.runs) {
    const auto [found, end] = before.equal_range(run.what.key());
    if (found == end) {
      if (same_space) changes.push_back(run.what.key() + ": new, " + result_text(run));
      continue;
    }
    compare(*found->second, run, &changes);
    before.erase(found);
  }
  std::set<const run_result *> left;
  for (const auto &[key, run] : before)
    left.insert(run);
  for (const auto &run : former.runs)
    if (same_space && left.contains(&run)) changes.push_back(run.what.key() + ": not run, was " + result_text(run));
  return changes;
}

}  // namespace lab
