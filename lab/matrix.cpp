#include "lab/matrix.h"

#include <algorithm>
#include <cmath>
#include <nlohmann/json.hpp>

namespace lab {
namespace {

using nlohmann::ordered_json;

constexpr const char *format_name = "post-campaign";
constexpr int format_version = 1;

// JSON cannot hold bytes that are no UTF-8; what is printed is escaped before it comes here.
std::string dump(const ordered_json &value) {
  return value.dump(-1, ' ', false, ordered_json::error_handler_t::replace);
}

double rounded(double seconds) {
  return std::round(seconds * 1000) / 1000;
}

ordered_json to_json(const run_result &run, bool times) {
  ordered_json value;
  value["fault"] = run.what.fault;
  value["card"] = run.what.board.card;
  value["revision"] = run.what.board.revision;
  value["mode"] = name_of(run.what.mode);
  value["repeat"] = run.what.repeat;
  value["outcome"] = text_of(run.end).name;
  value["fired"] = run.fired ? ordered_json(*run.fired) : ordered_json(nullptr);
  value["fired_more"] = run.fired_more;
  value["verdict"] = run.verdict;
  value["reported"] = run.reported;
  value["right_device"] = run.right;
  value["line"] = run.line;
  value["status"] = run.status;
  value["contents"] = run.contents;
  value["reason"] = run.reason;
  if (run.explained) {
    value["explanation"] = run.explained->text;
    value["listed"] = run.explained->listed;
    value["places"] = run.explained->places;
    value["sure_places"] = run.explained->sure_places;
    value["line_places"] = run.explained->line_places;
  }
  if (!times) return value;
  value["seconds"] = rounded(run.seconds);
  value["cpu_seconds"] = rounded(run.cpu_seconds);
  return value;
}

run_result from_json(const ordered_json &value) {
  run_result run;
  run.what.fault = value.at("fault").get<std::string>();
  run.what.board.card = value.at("card").get<uint32_t>();
  run.what.board.revision = value.at("revision").get<std::string>();
  const auto mode = mode_named(value.at("mode").get<std::string>());
  const auto end = outcome_named(value.at("outcome").get<std::string>());
  if (!mode || !end) throw std::invalid_argument("no such mode or outcome");
  run.what.mode = *mode;
  run.end = *end;
  run.what.repeat = value.at("repeat").get<uint32_t>();
  if (!value.at("fired").is_null()) run.fired = value.at("fired").get<uint64_t>();
  run.fired_more = value.at("fired_more").get<bool>();
  run.verdict = value.at("verdict").get<std::string>();
  run.reported = value.at("reported").get<std::vector<std::string>>();
  run.right = value.at("right_device").get<bool>();
  run.line = value.at("line").get<std::string>();
  run.status = value.at("status").get<int>();
  run.contents = value.at("contents").get<std::string>();
  run.reason = value.at("reason").get<std::string>();
  if (value.contains("explanation"))
    run.explained = run_explanation{value["explanation"].get<std::string>(), value.at("listed").get<bool>(),
                                    value.at("places").get<uint64_t>(), value.at("sure_places").get<uint64_t>(),
                                    value.at("line_places").get<uint64_t>()};
  run.seconds = value.value("seconds", 0.0);
  run.cpu_seconds = value.value("cpu_seconds", 0.0);
  return run;
}

ordered_json summary_of(const std::vector<run_result> &runs) {
  ordered_json summary;
  const auto counts = count_outcomes(runs);
  for (size_t i = 0; i < outcome_count; ++i)
    summary[std::string(outcome_texts[i].name)] = counts[i];
  summary["reported_by_right_device"] = std::ranges::count_if(runs, &run_result::right);
  summary["unnoticed"] = std::ranges::count_if(runs, is_unnoticed);
  summary["runs"] = runs.size();
  return summary;
}

ordered_json rates_of(const matrix &all) {
  auto list = ordered_json::array();
  for (const auto &rate : rates(all)) {
    ordered_json value;
    value["fault"] = rate.what.key();
    value["runs"] = rate.runs;
    value["fired"] = rate.fired;
    value["found"] = rate.found;
    if (rate.fired > 0) {
      const auto range = wilson(rate.found, rate.fired);
      value["rate_low"] = rounded(range.low);
      value["rate_high"] = rounded(range.high);
    }
    value["first_found_in_run"] = rate.first_found ? ordered_json(*rate.first_found) : ordered_json(nullptr);
    if (all.times && rate.seconds_to_found) value["seconds_to_found"] = rounded(*rate.seconds_to_found);
    list.push_back(value);
  }
  return list;
}

std::string head_of(const matrix &all) {
  ordered_json head;
  head["format"] = format_name;
  head["version"] = format_version;
  head["space"] = all.space;
  head["description"] = all.description;
  head["repeats"] = all.repeats;
  head["summary"] = summary_of(all.runs);
  if (all.repeats > 1) head["rates"] = rates_of(all);
  auto left_out = ordered_json::array();
  for (const auto &[fault, reason] : all.left_out)
    left_out.push_back({{"fault", fault}, {"reason", reason}});
  head["left_out"] = left_out;
  if (all.times) {
    head["times"] = {{"elapsed", rounded(all.times->elapsed)},
                     {"run_cpu", rounded(all.times->run_cpu)},
                     {"other_cpu", rounded(all.times->other_cpu)},
                     {"jobs", all.times->jobs}};
  }
  return head.dump(2, ' ', false, ordered_json::error_handler_t::replace);
}

matrix read_matrix(const ordered_json &value) {
  if (value.at("format") != format_name || value.at("version") != format_version)
    throw std::invalid_argument("no matrix of this program");
  matrix all;
  all.space = value.at("space").get<std::string>();
  all.description = value.at("description").get<std::string>();
  all.repeats = value.at("repeats").get<uint32_t>();
  for (const auto &kind : value.at("left_out"))
    all.left_out.emplace_back(kind.at("fault").get<std::string>(), kind.at("reason").get<std::string>());
  for (const auto &run : value.at("runs"))
    all.runs.push_back(from_json(run));
  if (const auto times = value.find("times"); times != value.end())
    all.times = campaign_times{times->at("elapsed").get<double>(), times->at("run_cpu").get<double>(),
                               times->at("other_cpu").get<double>(), times->at("jobs").get<unsigned>()};
  return all;
}

std::string told(const run_result &run) {
  auto text = title_of(run);
  for (const auto &device : run.reported)
    text += (&device == &run.reported.front() ? " (" : ", ") + device;
  return run.reported.empty() ? text : text + ")";
}

// Whether the fault is a candidate, and one of how many.
std::string named(const run_explanation &explained) {
  return explained.listed ? "one of " + std::to_string(explained.places) + " places" : "no candidate";
}

void compare(const run_result &before, const run_result &now, std::vector<std::string> *changes) {
  const auto add = [&](const std::string &was, const std::string &is) {
    if (was != is) changes->push_back(now.what.key() + ": was " + was + ", is " + is);
  };
  add(told(before), told(now));
  if (before.explained && now.explained) add(named(*before.explained), named(*now.explained));
}

}  // namespace

bool is_accounted_for(const run_result &run, std::string_view space) {
  if (run.end == outcome::found || run.end == outcome::healthy) return true;
  if (run.end == outcome::not_fired) return space == "cells" || parse_fault_text(run.what.fault).find("p").has_value();
  const bool can_be_known = run.end == outcome::missed || run.end == outcome::blamed || run.end == outcome::ended ||
                            run.end == outcome::damaged || run.end == outcome::hung;
  return can_be_known && !run.reason.empty();
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

outcome_counts count_outcomes(const std::vector<run_result> &runs) {
  outcome_counts counts{};
  for (const auto &run : runs)
    ++counts.at(static_cast<size_t>(run.end));
  return counts;
}

interval wilson(size_t count, size_t of) {
  constexpr double z = 1.959964;  // 95 % of the normal distribution lie within so many deviations
  const auto n = static_cast<double>(of);
  const double rate = static_cast<double>(count) / n;
  const double middle = rate + z * z / (2 * n);
  const double half = z * std::sqrt(rate * (1 - rate) / n + z * z / (4 * n * n));
  const double scale = 1 + z * z / n;
  return {std::max(0.0, (middle - half) / scale), std::min(1.0, (middle + half) / scale)};
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

std::string run_to_json(const run_result &run, bool times) {
  return dump(to_json(run, times));
}

std::string matrix_to_json(const matrix &all) {
  auto text = head_of(all);
  text.resize(text.rfind('\n'));
  text += ",\n  \"runs\": [";
  for (const auto &run : all.runs)
    text += (&run == &all.runs.front() ? "\n    " : ",\n    ") + run_to_json(run, all.times.has_value());
  return text + "\n  ]\n}\n";
}

std::optional<matrix> matrix_from_json(std::string_view text, std::string *error) try {
  return read_matrix(ordered_json::parse(text));
} catch (const std::exception &wrong) {
  *error = wrong.what();
  return std::nullopt;
}

std::optional<run_result> run_from_json(std::string_view text, std::string *error) try {
  return from_json(ordered_json::parse(text));
} catch (const std::exception &wrong) {
  *error = wrong.what();
  return std::nullopt;
}

std::vector<std::string> changes_since(const matrix &former, const matrix &now) {
  std::map<std::string, const run_result *> before;
  for (const auto &run : former.runs)
    before.emplace(run.what.key(), &run);
  const bool same_space = former.space == now.space;
  std::vector<std::string> changes;
  for (const auto &run : now.runs) {
    const auto found = before.find(run.what.key());
    if (found == before.end()) {
      if (same_space) changes.push_back(run.what.key() + ": new, " + told(run));
      continue;
    }
    compare(*found->second, run, &changes);
    before.erase(found);
  }
  for (const auto &run : former.runs)
    if (same_space && before.contains(run.what.key()))
      changes.push_back(run.what.key() + ": not run, was " + told(run));
  return changes;
}

}  // namespace lab
