#include "lab/campaign/space.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdio>

#include "lab/campaign/fault_facts.h"

namespace lab {
namespace {

constexpr std::array<std::string_view, 3> mode_names{"short", "no-flash", "full"};

// Ends the flash row in its first sector, before that is erased.
constexpr const char *flash_row_stop = "flash-erase-hangs sector=6";

// What a pattern asks of its values while it is taken apart.
struct expansion {
  const space_source *source;
  const fault_row *kind;
  run_item base;                   // options and the name
  std::vector<std::string> words;  // the parameters' patterns
  std::vector<run_item> runs;
  std::string error;
};

std::string number_text(uint64_t number, bool hexadecimal) {
  char text[24] = "0x";
  char *const start = hexadecimal && number > 9 ? text + 2 : text;
  const auto end = std::to_chars(start, text + sizeof text, number, hexadecimal ? 16 : 10);
  return {text, end.ptr};
}

// More values of a parameter, and more runs of a pattern, than anybody can run.
constexpr uint64_t most_values = 1'000'000;

// "LOW..HIGH" or "LOW..HIGH/STEP". The board says what it allows of a range that goes beyond the parameter's.
bool take_range(std::string_view piece, const parm_row &parameter, std::vector<std::string> *values) {
  const auto dots = piece.find("..");
  if (dots == std::string_view::npos) return false;
  const auto slash = std::min(piece.find('/', dots), piece.size());
  const auto low = parse_c_number(piece.substr(0, dots));
  const auto high = parse_c_number(piece.substr(dots + 2, slash - dots - 2));
  const auto step = slash == piece.size() ? std::optional<uint64_t>(1) : parse_c_number(piece.substr(slash + 1));
  if (!low || !high || !step || *step == 0 || *low > *high || *high - *low > most_values) return false;
  const bool hexadecimal = piece.starts_with("0x");
  if (*high > parameter.highest()) {
    values->push_back(number_text(*high, hexadecimal));
    return true;
  }
  for (uint64_t turn = 0; turn <= (*high - *low) / *step; ++turn)
    values->push_back(number_text(*low + turn * *step, hexadecimal));
  return true;
}

// "*" or "*>KEY", with the values that are already in `fault`.
bool take_all(std::string_view piece, const parm_row &parameter, const fault_text &fault,
              std::vector<std::string> *values) {
  uint64_t low = parameter.low;
  if (piece.starts_with("*>")) {
    const auto other = fault.find(piece.substr(2));
    if (!other) return false;
    low = std::max(low, parse_c_number(*other).value_or(0) + 1);
  } else if (piece != "*") {
    return false;
  }
  const uint64_t high = parameter.highest();
  if (high > low && high - low > most_values) return false;
  for (uint64_t value = low; value <= high; ++value)
    values->push_back(parameter.words != nullptr ? parameter.print(value) : number_text(value, false));
  return true;
}

// The values of one parameter's pattern. A single value is left to the board to judge.
std::optional<std::vector<std::string>> values_of(std::string_view pattern, const parm_row &parameter,
                                                  const fault_text &fault) {
  std::vector<std::string> values;
  for (const auto piece : pieces_of(pattern, ',')) {
    if (piece.starts_with('*')) {
      if (!take_all(piece, parameter, fault, &values)) return std::nullopt;
    } else if (piece.find("..") != std::string_view::npos) {
      if (!take_range(piece, parameter, &values)) return std::nullopt;
    } else if (piece.find('*') != std::string_view::npos) {
      return std::nullopt;
    } else {
      values.emplace_back(piece);
    }
  }
  return values;
}

void expand_from(size_t word, const std::string &fault, expansion *work);

void expand_functions(size_t word, const std::string &fault, expansion *work) {
  for (const auto &at : work->source->functions(work->base.board)) {
    char text[48];
    (void)std::snprintf(text, sizeof text, " bus=0x%02X dev=%u func=%u", at.bus, at.dev, at.func);
    expand_from(word + 1, fault + text, work);
  }
}

// Adds the runs whose first parameters are in `fault`.
void expand_from(size_t word, const std::string &fault, expansion *work) {
  if (!work->error.empty()) return;
  if (word == work->words.size()) {
    if (work->runs.size() == most_values) work->error = "more than " + std::to_string(most_values) + " runs";
    work->runs.push_back(work->base);
    work->runs.back().fault = fault;
    return;
  }
  const std::string_view text = work->words[word];
  if (text == "function=*") {
    expand_functions(word, fault, work);
    return;
  }
  const auto equals = text.find('=');
  const auto *const parameter = equals == std::string_view::npos ? nullptr : work->kind->find(text.substr(0, equals));
  const auto values =
      parameter == nullptr ? std::nullopt : values_of(text.substr(equals + 1), *parameter, parse_fault_text(fault));
  if (!values) {
    work->error = parameter == nullptr ? "no such parameter: " : "bad value: ";
    work->error += text;
    return;
  }
  for (const auto &value : *values)
    expand_from(word + 1, fault + " " + std::string(parm_name(parameter->key)) + "=" + value, work);
}

// Takes an option off the front of a pattern. Returns whether it was a good one.
bool take_option(std::string_view word, run_item *base, std::optional<run_mode> *mode) {
  const auto equals = std::min(word.find('='), word.size());
  const auto name = word.substr(0, equals);
  const auto value = word.substr(std::min(equals + 1, word.size()));
  if (name == "--card") {
    const auto number = parse_c_number(value);
    base->board.card = static_cast<uint32_t>(number.value_or(0));
    return number && *number <= 0xFFFF;
  }
  if (name == "--revision") {
    base->board.revision = value;
    return value == "P0" || value == "P1";
  }
  *mode = mode_named(value);
  return name == "--mode" && mode->has_value();
}

}  // namespace

std::string_view name_of(run_mode mode) {
  return mode_names.at(static_cast<size_t>(mode));
}

std::optional<run_mode> mode_named(std::string_view name) {
  const auto *const found = std::ranges::find(mode_names, name);
  if (found == mode_names.end()) return std::nullopt;
  return static_cast<run_mode>(found - mode_names.begin());
}

std::string run_item::key() const {
  std::string text = fault + " --card=" + std::to_string(board.card) + " --revision=" + board.revision +
                     " --mode=" + std::string(name_of(mode));
  if (repeat != 0) text += " #" + std::to_string(repeat + 1);
  return text;
}

std::string kind_of(const run_item &run) {
  return run.fault.empty() ? "healthy" : run.fault.substr(0, run.fault.find(' '));
}

std::string name_of(const run_item &run) {
  const auto fault = run.fault.empty() ? "healthy board" : run.fault;
  return run.repeat == 0 ? fault : fault + " #" + std::to_string(run.repeat + 1);
}

// The drivers' waits only cost time: busy times are counted in polls.
std::vector<std::string> board_options(const run_item &run, bool true_waits) {
  std::vector<std::string> words{"--card", std::to_string(run.board.card), "--revision", run.board.revision};
  if (!true_waits) words.insert(words.end(), {"--waits", "short"});
  if (!run.fault.empty()) words.insert(words.end(), {"--fault", run.fault});
  if (run.mode == run_mode::no_flash) words.insert(words.end(), {"--fault", flash_row_stop});
  return words;
}

std::string shell_line(const run_item &run) {
  std::string line = "board-sim";
  for (const auto &word : board_options(run))
    line += word.find(' ') == std::string::npos ? " " + word : " '" + word + "'";
  return run.mode == run_mode::short_test ? line + " -- -s" : line;
}

double expected_seconds(run_mode mode) {
  constexpr std::array<double, 3> seconds{0.1, 0.75, 1.25};
  return seconds.at(static_cast<size_t>(mode));
}

std::optional<std::vector<run_item>> expand(std::string_view pattern, const space_defaults &defaults,
                                            const space_source &source, std::string *error) {
  auto words = words_of(pattern);
  expansion work{&source, nullptr, {"", defaults.board, run_mode::short_test, 0}, {}, {}, ""};
  auto mode = defaults.mode;
  while (!words.empty() && words[0].starts_with("--")) {
    if (!take_option(words[0], &work.base, &mode)) {
      *error = "bad option " + std::string(words[0]) + " in '" + std::string(pattern) + "'";
      return std::nullopt;
    }
    words.erase(words.begin());
  }
  work.kind = words.empty() ? nullptr : sim::fault_named(words[0], source.faults);
  if (work.kind == nullptr) {
    std::vector<std::string_view> names;
    for (const auto &row : source.faults)
      names.emplace_back(row.name);
    const auto word = words.empty() ? pattern : words[0];
    *error = "no such fault: " + sim::quoted(word) + sim::did_you_mean(word, names) + " (board-sim --list-faults)";
    return std::nullopt;
  }
  work.base.mode = mode.value_or(facts_of(work.kind->id).mode);
  work.words.assign(words.begin() + 1, words.end());
  expand_from(0, work.kind->name, &work);
  if (!work.error.empty()) {
    *error = work.error + " in '" + std::string(pattern) + "'";
    return std::nullopt;
  }
  return std::move(work.runs);
}

}  // namespace lab
