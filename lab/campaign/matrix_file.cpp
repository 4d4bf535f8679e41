#include "lab/campaign/matrix_file.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <limits>
#include <nlohmann/json.hpp>
#include <set>

#include "lab/base/json_defect.h"
#include "lab/base/text.h"
#include "lab/run/rows.h"

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

// What differs between two campaigns of one state; "" for what is not known.
template <class T>
auto changing_texts(T &origin) {
  return std::array{std::pair("commit", &origin.commit), std::pair("machine", &origin.machine),
                    std::pair("date", &origin.date), std::pair("command", &origin.command)};
}

ordered_json to_json(const run_result &run, bool times) {
  ordered_json value;
  value["fault"] = run.what.fault;
  value["card"] = run.what.board.card;
  value["revision"] = run.what.board.revision;
  value["mode"] = name_of(run.what.mode);
  value["repeat"] = run.what.repeat;
  if (!run.what.stratum.empty()) value["stratum"] = run.what.stratum;
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
    value["headline"] = name_of(run.explained->headline);
    value["places"] = run.explained->places;
  }
  if (run.located) {
    value["located"] = name_of(run.located->answer);
    value["located_places"] = run.located->places;
    value["located_text"] = run.located->text;
    value["located_contents"] = run.located->contents;
  }
  if (!times) return value;
  value["seconds"] = rounded(run.seconds);
  value["cpu_seconds"] = rounded(run.cpu_seconds);
  return value;
}

// ---- reading: a matrix may come from anywhere

// Those of ASCII, and U+0080 to U+009F, which some terminals obey as well.
bool has_control(std::string_view text) {
  const auto is_control = [](char c) { return (static_cast<unsigned char>(c) < 0x20 && c != '\t') || c == 0x7F; };
  const auto is_second = [](char first, char second) {
    return first == '\xC2' && static_cast<unsigned char>(second) < 0xA0;
  };
  return std::ranges::any_of(text, is_control) || std::ranges::adjacent_find(text, is_second) != text.end();
}

// A text of the object; not one that a terminal or a page could take for more.
std::string text_in(const ordered_json &value, const char *key) {
  auto text = value.at(key).get<std::string>();
  if (has_control(text)) throw std::invalid_argument(std::string(key) + " has a control character");
  return text;
}

template <class T>
T number_in(const ordered_json &value, const char *key) {
  const auto &number = value.at(key);
  const bool whole = number.is_number_unsigned() && number.get<uint64_t>() <= std::numeric_limits<T>::max();
  if (!whole) throw std::invalid_argument(std::string(key) + " is no number, or too large");
  return number.get<T>();
}

double seconds_in(const ordered_json &value, const char *key) {
  const auto seconds = value.at(key).get<double>();
  if (!(seconds >= 0 && seconds < 1e9)) throw std::invalid_argument(std::string(key) + " is no time");
  return seconds;
}

void must_be(bool good, const std::string &what) {
  if (!good) throw std::invalid_argument(what);
}

// Whether the object has these; all of them or none.
bool has_all(const ordered_json &value, std::initializer_list<const char *> keys) {
  const auto there = std::ranges::count_if(keys, [&](const char *key) { return value.contains(key); });
  must_be(there == 0 || static_cast<size_t>(there) == keys.size(),
          "some but not all of " + std::string(*keys.begin()) + " and what belongs to it");
  return there != 0;
}

// Of a key that an object has twice the library takes either value without a word.
ordered_json parse(std::string_view text) {
  std::vector<std::set<std::string>> keys;  // of the objects around the place
  const auto look = [&keys](int /*depth*/, ordered_json::parse_event_t event, const ordered_json &value) {
    if (event == ordered_json::parse_event_t::object_start) keys.emplace_back();
    if (event == ordered_json::parse_event_t::object_end) keys.pop_back();
    if (event == ordered_json::parse_event_t::key) {
      auto key = value.get<std::string>();
      must_be(keys.back().insert(key).second, "a key is there twice: " + printable(key));
    }
    return true;
  };
  return ordered_json::parse(text, look);
}

bool is_device(const std::string &name) {
  for (const auto &row : rows)
    for (size_t i = 0; i < row.parts.size(); ++i)
      if (name == std::string(row.key) + "." + std::to_string(i)) return true;
  return false;
}

run_result from_json(const ordered_json &value) {
  run_result run;
  run.what.fault = text_in(value, "fault");
  run.what.board = {number_in<uint16_t>(value, "card"), text_in(value, "revision")};
  must_be(run.what.board.revision == "P0" || run.what.board.revision == "P1", "no such revision");
  const auto mode = mode_named(text_in(value, "mode"));
  const auto end = outcome_named(text_in(value, "outcome"));
  must_be(mode && end, "no such mode or outcome");
  run.what.mode = *mode;
  run.end = *end;
  run.what.repeat = number_in<uint32_t>(value, "repeat");
  if (value.contains("stratum")) run.what.stratum = text_in(value, "stratum");
  if (!value.at("fired").is_null()) run.fired = number_in<uint64_t>(value, "fired");
  run.fired_more = value.at("fired_more").get<bool>();
  run.verdict = text_in(value, "verdict");
  must_be(run.verdict == "passed" || run.verdict == "failed" || run.verdict == "none", "no such verdict");
  run.reported = value.at("reported").get<std::vector<std::string>>();
  must_be(std::ranges::all_of(run.reported, is_device), "no such device");
  run.right = value.at("right_device").get<bool>();
  run.line = text_in(value, "line");
  run.status = number_in<uint8_t>(value, "status");
  run.contents = text_in(value, "contents");
  run.reason = text_in(value, "reason");
  if (has_all(value, {"explanation", "listed", "headline", "places"})) {
    const auto headline = headline_named(text_in(value, "headline"));
    must_be(headline.has_value(), "no headline says this");
    run.explained = run_explanation{text_in(value, "explanation"), value.at("listed").get<bool>(), *headline,
                                    number_in<uint64_t>(value, "places")};
  }
  if (has_all(value, {"located", "located_places", "located_text", "located_contents"})) {
    const auto answer = located_named(text_in(value, "located"));
    must_be(answer.has_value(), "no such answer of post-locate");
    run.located = location{*answer, number_in<uint64_t>(value, "located_places"), text_in(value, "located_text"),
                           text_in(value, "located_contents")};
  }
  if (has_all(value, {"seconds", "cpu_seconds"})) {
    run.seconds = seconds_in(value, "seconds");
    run.cpu_seconds = seconds_in(value, "cpu_seconds");
  }
  return run;
}

provenance origin_from(const ordered_json &value) {
  provenance origin{
      text_in(value, "tool"), text_in(value, "program"), number_in<uint8_t>(value, "word_bits"), "", "", "", ""};
  for (const auto &[key, text] : changing_texts(origin))
    if (value.contains(key)) *text = text_in(value, key);
  return origin;
}

shard shard_from(const ordered_json &value, size_t runs) {
  shard part{number_in<size_t>(value, "number"),
             number_in<size_t>(value, "of"),
             text_in(value, "plan"),
             number_in<size_t>(value, "all_runs"),
             {}};
  must_be(part.of <= 1'000'000 && part.all_runs <= 10'000'000, "too many shards or runs");
  for (const auto &position : value.at("positions")) {
    must_be(position.is_number_unsigned() && position.get<size_t>() < part.all_runs, "no such position");
    part.positions.push_back(position.get<size_t>());
  }
  must_be(part.positions.size() == runs, "a position for each run");
  must_be(part.number >= 1 && part.number <= part.of, "no such shard");
  return part;
}

ordered_json summary_of(const std::vector<run_result> &runs) {
  ordered_json summary;
  const auto counts = count_outcomes(runs);
  for (size_t i = 0; i < outcome_count; ++i)
    summary[std::string(outcome_texts[i].name)] = counts[i];
  summary["reported_by_right_device"] = std::ranges::count_if(runs, &run_result::right);
  summary["unnoticed"] = std::ranges::count_if(runs, is_unnoticed);
  const auto answers = count_located(runs);
  for (size_t i = 0; i < located_count; ++i)
    if (answers[i] > 0) summary["located_" + std::string(name_of(static_cast<located>(i)))] = answers[i];
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
      const auto range = interval_of(rate.found, rate.fired);
      value["rate_low"] = rounded(range.low);
      value["rate_high"] = rounded(range.high);
    }
    value["first_found_in_run"] = rate.first_found ? ordered_json(*rate.first_found) : ordered_json(nullptr);
    if (all.times && rate.seconds_to_found) value["seconds_to_found"] = rounded(*rate.seconds_to_found);
    list.push_back(value);
  }
  return list;
}

ordered_json strata_to_json(const matrix &all) {
  auto list = ordered_json::array();
  for (const auto &one : strata_of(all)) {
    const auto range = interval_of(one.count, one.of);
    list.push_back({{"stratum", one.stratum},
                    {"outcome", one.title},
                    {"count", one.count},
                    {"of", one.of},
                    {"rate_low", range.low},
                    {"rate_high", range.high}});
  }
  return list;
}

ordered_json to_json(const provenance &origin) {
  ordered_json value{{"tool", origin.tool}, {"program", origin.program}, {"word_bits", origin.word_bits}};
  for (const auto &[key, text] : changing_texts(origin))
    if (!text->empty()) value[key] = *text;
  return value;
}

std::string runs_text(const matrix &all) {
  std::string text;
  for (const auto &run : all.runs)
    text += (&run == &all.runs.front() ? "\n    " : ",\n    ") + run_to_json(run, all.times.has_value());
  return text;
}

// What an edit or a damaged disk changes in a part.
std::string check_of(const std::vector<size_t> &positions, std::string_view runs) {
  text_hash hash;
  for (const auto position : positions)
    hash.add(std::to_string(position));
  hash.add(runs);
  return hash.text();
}

std::string head_of(const matrix &all, std::string_view runs) {
  ordered_json head;
  head["format"] = format_name;
  head["version"] = format_version;
  head["origin"] = to_json(all.origin);
  if (all.part)
    head["shard"] = {{"number", all.part->number},       {"of", all.part->of},
                     {"plan", all.part->plan},           {"all_runs", all.part->all_runs},
                     {"positions", all.part->positions}, {"check", check_of(all.part->positions, runs)}};
  head["space"] = all.space;
  head["description"] = all.description;
  head["repeats"] = all.repeats;
  head["summary"] = summary_of(all.runs);
  if (all.repeats > 1) head["rates"] = rates_of(all);
  if (auto strata = strata_to_json(all); !strata.empty()) head["strata"] = std::move(strata);
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
  must_be(value.at("format") == format_name && value.at("version") == format_version, "no matrix of this program");
  matrix all;
  if (value.contains("origin")) all.origin = origin_from(value["origin"]);
  all.space = text_in(value, "space");
  all.description = text_in(value, "description");
  all.repeats = number_in<uint32_t>(value, "repeats");
  for (const auto &kind : value.at("left_out"))
    all.left_out.emplace_back(text_in(kind, "fault"), text_in(kind, "reason"));
  const bool timed = value.contains("times");
  for (const auto &run : value.at("runs"))
    try {
      must_be(run.contains("seconds") == timed, timed ? "no times" : "times, and the matrix has none");
      all.runs.push_back(from_json(run));
    } catch (const std::exception &wrong) {
      throw std::invalid_argument("run " + std::to_string(all.runs.size() + 1) + ": " + json_defect(wrong));
    }
  if (const auto times = value.find("times"); times != value.end())
    all.times = campaign_times{seconds_in(*times, "elapsed"), seconds_in(*times, "run_cpu"),
                               seconds_in(*times, "other_cpu"), number_in<unsigned>(*times, "jobs")};
  if (value.contains("shard")) {
    all.part = shard_from(value["shard"], all.runs.size());
    all.part->is_intact = text_in(value["shard"], "check") == check_of(all.part->positions, runs_text(all));
  }
  return all;
}

}  // namespace

std::string run_to_json(const run_result &run, bool times) {
  return dump(to_json(run, times));
}

std::string matrix_to_json(const matrix &all) {
  const auto runs = runs_text(all);
  auto text = head_of(all, runs);
  text.resize(text.rfind('\n'));
  return text + ",\n  \"runs\": [" + runs + "\n  ]\n}\n";
}

std::optional<matrix> matrix_from_json(std::string_view text, std::string *error) try {
  return read_matrix(parse(text));
} catch (const std::exception &wrong) {
  *error = json_defect(wrong);
  return std::nullopt;
}

std::optional<run_result> run_from_json(std::string_view text, std::string *error) try {
  return from_json(parse(text));
} catch (const std::exception &wrong) {
  *error = json_defect(wrong);
  return std::nullopt;
}

}  // namespace lab
