// options.cpp: the command line of board-sim.
#include "sim/base/options.h"

#include <algorithm>
#include <array>

#include "faults/text.h"

namespace sim {

namespace {

struct option_row {
  const char *name;
  const char *value;  // name of its value in the help text, null for an option without one
  const char *help;
  bool (*take)(command *cmd, std::string_view value);  // false: bad value
  const char *allowed = nullptr;                       // the values, if `value` does not say it

  [[nodiscard]] std::string bad_value(std::string_view text) const {
    return "bad value " + quoted(text) + " of option " + quoted(name) + ", allowed is " +
           (allowed == nullptr ? value : allowed);
  }
};

bool take_path(std::string_view text, std::string *path) {
  *path = text;
  return !text.empty() && text != "--" && text.find('\n') == std::string_view::npos;
}

struct family_row {
  const char *name;
  family value;
  uint32_t card;
};

// clang-format off
constexpr std::array family_rows{std::to_array<family_row>({
    // name    family          card index if none is given
    {"dorvan", family::dorvan, 11062},
    {"pellin", family::pellin, 11003},
    {"tosk",   family::tosk,   11004},
})};
// clang-format on

const family_row &row_of(family value) {
  return *std::ranges::find(family_rows, value, &family_row::value);
}

bool take_family(command *cmd, std::string_view text) {
  for (const auto &row : family_rows) {
    if (text != row.name) continue;
    cmd->opts.family = row.value;
    return true;
  }
  return false;
}

bool take_card(command *cmd, std::string_view text) {
  const auto number = parse_number(text);
  if (!number || *number > 0xFFFF) return false;
  cmd->opts.card = static_cast<uint32_t>(*number);
  return true;
}

bool take_revision(command *cmd, std::string_view text) {
  if (text != "P0" && text != "P1") return false;
  cmd->opts.change_bits = text == "P1" ? 1 : 0;
  return true;
}

bool take_change_bits(command *cmd, std::string_view text) {
  const auto number = parse_number(text);
  if (number) cmd->opts.change_bits = *number;
  return number.has_value();
}

bool take_trace_limit(command *cmd, std::string_view text) {
  const auto number = parse_number(text);
  if (!number || *number == 0) return false;
  cmd->opts.trace_limit = *number;
  return true;
}

bool take_busy(command *cmd, std::string_view text) {
  cmd->opts.busy = text == "time" ? busy::time : busy::polls;
  return text == "time" || text == "polls";
}

bool take_waits(command *cmd, std::string_view text) {
  cmd->opts.short_waits = text == "short";
  return text == "short" || text == "true";
}

template <action A>
bool take_action(command *cmd, std::string_view) {
  cmd->action = A;
  return true;
}

constexpr const char *opt_family = "--family";
constexpr const char *opt_card = "--card";
constexpr const char *opt_fault = "--fault";
constexpr const char *a_path = "a path without line ends";

// clang-format off
constexpr std::array option_rows{std::to_array<option_row>({
    {opt_family,      "NAME", "board family: dorvan (default), pellin or tosk",                            take_family, "dorvan|pellin|tosk"},
    {opt_card,        "N",    "card index, 0 to 65535; default 11062 (pellin 11003, tosk 11004)",          take_card, "0..65535"},
    {"--revision",    "P0|P1", "board revision; default P1",                                               take_revision},
    {"--change-bits", "N",    "hardware change bits, 64 bits, instead of a revision",                      take_change_bits, "a number of at most 64 bits"},
    {"--state",       "DIR",  "keep EEPROM, NVRAM, flash and files here; default a temporary directory",
     [](command *cmd, std::string_view text) { return take_path(text, &cmd->opts.state); }, a_path},
    {"--trace",       "FILE", "write every device access and bus transaction to this file",
     [](command *cmd, std::string_view text) { return take_path(text, &cmd->opts.trace); }, a_path},
    {"--trace-limit", "BYTES", "end the log before it exceeds this size",                                  take_trace_limit, "a number of bytes, 1 or more"},
    {"--cut-audit",   "FILE", "write to this file what a power cut would lose at each write to NVRAM and flash",
     [](command *cmd, std::string_view text) { return take_path(text, &cmd->opts.cut_audit); }, a_path},
    {"--busy",        "polls|time", "count busy times in polls (default) or in real time",                 take_busy},
    {"--real-times",  nullptr, "use the flash times of the real chip instead of shorter ones",
     [](command *cmd, std::string_view) { return cmd->opts.real_times = true; }},
    {"--waits",       "true|short", "show the program its true clock rate (default), or one so slow that its waits end at once", take_waits},
    {"--no-patch",    nullptr, "do not change the program's code in memory: each device access takes a signal",
     [](command *cmd, std::string_view) { cmd->opts.patch = false; return true; }},
    {opt_fault,       "\"NAME key=value ...\"", "inject a fault; may be given several times",              nullptr},
    {"--fault-report", "FILE", "write to this file how often each fault changed anything in the run",
     [](command *cmd, std::string_view text) { return take_path(text, &cmd->fault_report); }, a_path},
    {"--occasions",   "FILE", "write to this file how many occasions each fault had by the end of each row",
     [](command *cmd, std::string_view text) { return take_path(text, &cmd->opts.occasions); }, a_path},
    {"--show-result", nullptr, "print the result records after the run",
     [](command *cmd, std::string_view) { return cmd->show_result = true; }},
    {"--estimate",    nullptr, "show how long the run takes, and during the run how much is left",
     [](command *cmd, std::string_view) { return cmd->estimate = true; }},
    {"--list-faults", nullptr, "list the faults and their parameters, and exit",                           take_action<action::list_faults>},
    {"--help",        nullptr, "print this text, and exit; so does -h",                                    take_action<action::help>},
    {"--version",     nullptr, "print the version, and exit; so does -V",                                  take_action<action::version>},
})};
// clang-format on

const option_row *row_of(std::string_view name) {
  if (name == "-h") name = "--help";
  if (name == "-V") name = "--version";
  const auto *const found = std::ranges::find_if(option_rows, [&](const auto &row) { return name == row.name; });
  return found == option_rows.end() ? nullptr : found;
}

std::vector<std::string_view> option_names() {
  std::vector<std::string_view> names;
  names.reserve(option_rows.size());
  for (const auto &row : option_rows)
    names.emplace_back(row.name);
  return names;
}

// Takes one option with its value. Returns what is wrong, "" for nothing.
std::string take_option(command *cmd, const option_row &row, std::string_view value) {
  if (row.take != nullptr) return row.take(cmd, value) ? "" : row.bad_value(value);
  std::string error;
  const auto parsed = fault_parse(value, &error);
  if (!parsed) return error + " (--list-faults lists them)";
  const auto former = std::ranges::find_if(cmd->opts.faults, [&](const fault &f) { return f.excludes(*parsed); });
  if (former != cmd->opts.faults.end()) {
    const auto text = "fault " + quoted(parsed->text);
    return text +
           (former->values == parsed->values ? " is given twice" : " does nothing beside " + quoted(former->text));
  }
  cmd->opts.faults.push_back(*parsed);
  return "";
}

struct given_option {
  const option_row *row;
  std::string_view value;
};

// Takes the next option with its value off the arguments. Nothing, with the reason in *error, if it is none.
std::optional<given_option> next_option(std::span<const std::string> *args, std::string *error) {
  const std::string_view arg = args->front();
  *args = args->subspan(1);
  const auto equals = arg.find('=');
  const auto name = arg.substr(0, equals);
  const given_option bare{row_of(name), ""};
  if (bare.row == nullptr) {
    *error = arg.starts_with('-') ? "unknown option " + quoted(name) + did_you_mean(name, option_names())
                                  : "unexpected argument " + quoted(arg) + " (a program comes after --)";
  } else if (bare.row->value == nullptr) {
    if (equals == std::string_view::npos) return bare;
    *error = "option " + quoted(name) + " takes no value";
  } else if (equals != std::string_view::npos) {
    return given_option{bare.row, arg.substr(equals + 1)};
  } else if (args->empty()) {
    *error = "option " + quoted(name) + " needs a value";
  } else {
    const given_option with_value{bare.row, args->front()};
    *args = args->subspan(1);
    return with_value;
  }
  return std::nullopt;
}

// An argument that begins with '-' is not a program, but belongs to the default one.
void take_program(command *cmd, std::span<const std::string> args) {
  if (!args.empty() && !args[0].starts_with('-')) {
    cmd->program = args[0];
    args = args.subspan(1);
  }
  cmd->arguments.assign(args.begin(), args.end());
}

}  // namespace

const fault *options::find(fault_id id) const {
  const auto found = std::ranges::find(faults, id, &fault::id);
  return found == faults.end() ? nullptr : &*found;
}

std::optional<command> command_parse(std::span<const std::string> args, std::string *error) {
  command cmd;
  bool has_card = false;
  while (!args.empty() && args[0] != "--") {
    const auto given = next_option(&args, error);
    if (!given) return std::nullopt;
    *error = take_option(&cmd, *given->row, given->value);
    if (!error->empty()) return std::nullopt;
    if (given->row->name == opt_card) has_card = true;
  }
  if (args.size() > 1 && args[1].empty()) {
    *error = "the program's name is empty";
    return std::nullopt;
  }
  if (!args.empty()) take_program(&cmd, args.subspan(1));
  if (cmd.estimate && !cmd.program.empty()) {
    *error = "--estimate knows only the times of post";
    return std::nullopt;
  }
  if (cmd.opts.trace_limit != 0 && cmd.opts.trace.empty()) {
    *error = "--trace-limit does nothing without --trace";
    return std::nullopt;
  }
  if (!has_card) cmd.opts.card = row_of(cmd.opts.family).card;
  return cmd;
}

std::optional<options> options_parse(std::span<const std::string> args, std::string *error) {
  const auto cmd = command_parse(args, error);
  if (!cmd) return std::nullopt;
  return cmd->opts;
}

std::string options_format(const options &opts) {
  std::string lines = std::string(opt_family) + "=" + row_of(opts.family).name;
  lines += "\n" + std::string(opt_card) + "=" + std::to_string(opts.card);
  lines += "\n--change-bits=" + std::to_string(opts.change_bits);
  if (!opts.state.empty()) lines += "\n--state=" + opts.state;
  if (!opts.trace.empty()) lines += "\n--trace=" + opts.trace;
  if (opts.trace_limit != 0) lines += "\n--trace-limit=" + std::to_string(opts.trace_limit);
  if (!opts.cut_audit.empty()) lines += "\n--cut-audit=" + opts.cut_audit;
  if (!opts.occasions.empty()) lines += "\n--occasions=" + opts.occasions;
  if (opts.busy == busy::time) lines += "\n--busy=time";
  if (opts.real_times) lines += "\n--real-times";
  if (opts.short_waits) lines += "\n--waits=short";
  if (!opts.patch) lines += "\n--no-patch";
  for (const auto &f : opts.faults)
    lines += "\n" + std::string(opt_fault) + "=" + f.text;
  return lines;
}

std::optional<options> options_parse_lines(std::string_view lines, std::string *error) {
  std::vector<std::string> args;
  while (!lines.empty()) {
    const auto end = std::min(lines.find('\n'), lines.size());
    args.emplace_back(lines.substr(0, end));
    lines.remove_prefix(std::min(end + 1, lines.size()));
  }
  return options_parse(args, error);
}

std::string options_help() {
  std::string text;
  for (const auto &row : option_rows) {
    std::string line = std::string("  ") + row.name;
    if (row.value != nullptr) line += std::string(" ") + row.value;
    line.resize(std::max<size_t>(line.size() + 2, 26), ' ');
    text += line + row.help + "\n";
  }
  return text;
}

}  // namespace sim
