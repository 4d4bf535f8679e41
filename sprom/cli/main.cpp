// sprom: reads, checks and writes the identity SPROMs of the boards, and their images in files.
#include <errno.h>
#include <fcntl.h>
#include <getopt.h>
#include <locale.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <charconv>

#include "sprom/base/file.h"
#include "sprom/board/board.h"
#include "sprom/cli/commands.h"
#include "sprom/image/fields.h"

namespace tool {
namespace {

// What getopt_long returns for options without a letter. Each field has a number of its own, from LONG_FIELD_NAME on,
// so that an abbreviation of several names is ambiguous.
enum long_only : int {
  LONG_FORCE = 0x100,
  LONG_FIELD,
  LONG_FROM,
  LONG_BACKUP,
  LONG_NO_BACKUP,
  LONG_RAW,
  LONG_HEX,
  LONG_ON,
  LONG_NO_PROBE,
  LONG_WAIT,
  LONG_BUS,
  LONG_ADDR,
  LONG_FIELD_NAME,
};

// The 7-bit addresses at which EEPROMs are; what else is on a bus must not be written to by setting an address.
enum : uint32_t { lowest_eeprom = 0x50, highest_eeprom = 0x5F };

struct option_row_t {
  const char *name;
  int value;        // of getopt_long
  const char *arg;  // name of its argument, or null
  option_set set;
  const char *help;
};

// clang-format off
constexpr std::array<option_row_t, 18> option_rows{{
    {"file",      'f',            "IMAGE",      OPT_FILE,     "work on an image file instead of a SPROM; - is standard input"},
    {"family",    'F',            "NAME",       OPT_FAMILY,   "assume that the board is of this family"},
    {"bus",       LONG_BUS,       "N",          OPT_UNIT,     "work on a unit in a fixture: the number of its I2C bus (with --addr)"},
    {"addr",      LONG_ADDR,      "A",          OPT_UNIT,     "the address of its EEPROM, 0x50 to 0x5f; the SPROM is named by its KIND"},
    {"json",      'j',            nullptr,      OPT_JSON,     "print JSON"},
    {"yes",       'y',            nullptr,      OPT_YES,      "write without asking"},
    {"dry-run",   'n',            nullptr,      OPT_DRY_RUN,  "show what would be written, and write nothing"},
    {"force",     LONG_FORCE,     nullptr,      OPT_FORCE,    "do what is otherwise refused for safety"},
    {"field",     LONG_FIELD,     "NAME=VALUE", OPT_FIELD,    "give a field its value, as --NAME=VALUE does"},
    {"from",      LONG_FROM,      "JSON",       OPT_FROM,     "take the fields from the output of show --json"},
    {"wait",      LONG_WAIT,      "SECONDS",    OPT_WAIT,     "how long to wait for an EEPROM that another process uses; default 10"},
    {"backup",    LONG_BACKUP,    "FILE",       OPT_BACKUP,   "write the old image to this new file"},
    {"no-backup", LONG_NO_BACKUP, nullptr,      OPT_BACKUP,   "keep no copy of the old image"},
    {"raw",       LONG_RAW,       nullptr,      OPT_RAW,      "dump or write the whole EEPROM"},
    {"hex",       LONG_HEX,       nullptr,      OPT_HEX,      "dump to the terminal, in hexadecimal"},
    {"on",        LONG_ON,        nullptr,      OPT_ON,       "switch the write protection on"},
    {"no-probe",  LONG_NO_PROBE,  nullptr,      OPT_NO_PROBE, "list without checking whether the SPROMs are present"},
    {"verbose",   'v',            nullptr,      OPT_VERBOSE,  "print each step and each transaction"},
}};
// clang-format on

void print_help() {
  (void)printf(
      "Usage: sprom COMMAND [ARGUMENT]... [OPTION]...\n"
      "Read, check and write the identity SPROMs of the board, or images of them in files.\n"
      "\n"
      "Commands:\n");
  for (const command_t &command : all_commands()) {
    const std::string call = std::string{command.name} + ' ' + command.synopsis;
    (void)printf("  %-36s %s\n", call.c_str(), command.help);
  }
  (void)printf(
      "\n"
      "SPROM is a name that 'sprom list' shows, or SLOT,INDEX. Without it, verify checks all SPROMs, dump reads the\n"
      "supervisor's and write takes the only SPROM of the file's kind. With --file, or with --bus and --addr, it is a "
      "KIND.\n"
      "KIND is one of %s.\n"
      "\n"
      "Options:\n",
      layout_names().c_str());
  for (const option_row_t &row : option_rows) {
    std::string letter = "   ";
    if (row.value < LONG_FORCE) letter = {'-', static_cast<char>(row.value), ','};
    std::string name = row.name;
    if (row.arg != nullptr) name = name + "=" + row.arg;
    (void)printf("  %s --%-20s %s\n", letter.c_str(), name.c_str(), row.help);
  }
  (void)printf(
      "  -h, --%-20s %s\n  -V, --%-20s %s\n"
      "\n"
      "Families: %s.\n"
      "Exit status: 0 done, 1 failed or bad, 2 wrong usage, 3 empty slot,\n"
      "4 another process uses the EEPROM.\n",
      "help", "print this help", "version", "print the version", family_names(", ").c_str());
}

// All long options: the program's own, and one for each field name, with underscores and with dashes.
struct long_options_t {
  std::vector<std::string> fields;
  std::vector<std::string> dashed;
  std::vector<option> table;
};

long_options_t long_options() {
  long_options_t all;
  for (const option_row_t &row : option_rows) {
    all.table.push_back({row.name, row.arg == nullptr ? no_argument : required_argument, nullptr, row.value});
  }
  all.table.push_back({"help", no_argument, nullptr, 'h'});
  all.table.push_back({"version", no_argument, nullptr, 'V'});

  for (const kind_t &kind : all_kinds()) {
    for (const field_t &field : kind.fields())
      all.fields.emplace_back(field.name);
  }
  std::ranges::sort(all.fields);
  all.fields.erase(std::unique(all.fields.begin(), all.fields.end()), all.fields.end());
  all.dashed = all.fields;
  for (std::string &name : all.dashed)
    std::ranges::replace(name, '_', '-');
  for (size_t i = 0; i < all.fields.size(); ++i) {
    const int value = LONG_FIELD_NAME + static_cast<int>(i);
    all.table.push_back({all.fields[i].c_str(), required_argument, nullptr, value});
    all.table.push_back({all.dashed[i].c_str(), required_argument, nullptr, value});
  }
  all.table.push_back({});
  return all;
}

exit_code add_field(std::string_view text, options_t &options) {
  const size_t equals = text.find('=');
  if (equals == std::string_view::npos || equals == 0)
    return complain_usage("--field takes NAME=VALUE, not '%s'", shown(text).c_str());
  options.fields.emplace_back(text.substr(0, equals), text.substr(equals + 1));
  return EXIT_OK;
}

exit_code set_wait(std::string_view text, options_t &options) {
  constexpr uint32_t a_day = 86400;
  const char *const end = text.data() + text.size();
  const auto [last, error] = std::from_chars(text.data(), end, options.wait);
  if (error == std::errc{} && last == end && options.wait <= a_day) return EXIT_OK;
  return complain_usage("--wait takes a number of seconds from 0 to %u, not '%s'", a_day, shown(text).c_str());
}

// A number that an option takes, decimal or hexadecimal after 0x, within limits; EXIT_USAGE after a message.
//   what  what the option takes, with the limits
exit_code add_number(const char *option, const char *what, uint32_t lowest, uint32_t highest,
                     std::optional<uint32_t> &number) {
  std::string_view digits = optarg;
  const bool is_hex = digits.starts_with("0x") || digits.starts_with("0X");
  if (is_hex) digits.remove_prefix(2);
  uint32_t value = 0;
  const char *const end = digits.data() + digits.size();
  const auto parsed = std::from_chars(digits.data(), end, value, is_hex ? 16 : 10);
  if (parsed.ec != std::errc{} || parsed.ptr != end || value < lowest || value > highest)
    return complain_usage("--%s takes %s, not '%s'", option, what, shown(optarg).c_str());
  number = value;
  return EXIT_OK;
}

uint32_t set_of(int value) {
  if (value >= LONG_FIELD_NAME) return OPT_FIELD;
  const auto *row = std::ranges::find(option_rows, value, &option_row_t::value);
  return row == option_rows.end() ? 0U : row->set;
}

exit_code add_option(int value, std::span<const std::string> fields, options_t &options) {
  switch (value) {
    case 'f':
      options.file = optarg;
      return EXIT_OK;
    case 'F':
      options.family = family_by_name(optarg);
      if (options.family != nullptr) return EXIT_OK;
      return complain_usage("%s: no such family (%s)", shown(optarg).c_str(), family_names(", ").c_str());
    case LONG_BUS:
      return add_number("bus", "the number of an I2C bus, 0 to 1048575", 0, highest_bus, options.bus);
    case LONG_ADDR:
      return add_number("addr", "the I2C address of an EEPROM, 0x50 to 0x5f", lowest_eeprom, highest_eeprom,
                        options.addr);
    case LONG_FIELD:
      return add_field(optarg, options);
    case LONG_FROM:
      options.from = optarg;
      return EXIT_OK;
    case LONG_BACKUP:
      options.backup = optarg;
      return EXIT_OK;
    case LONG_WAIT:
      return set_wait(optarg, options);
    case LONG_NO_BACKUP:
      options.no_backup = true;
      return EXIT_OK;
    default:
      if (set_of(value) != 0 && value < LONG_FIELD_NAME) return EXIT_OK;  // being given is all
      options.fields.emplace_back(fields[static_cast<size_t>(value - LONG_FIELD_NAME)], optarg);
      return EXIT_OK;
  }
}

exit_code run_command(const options_t &given) {
  if (given.args.empty()) return complain_usage("a command is missing");
  const std::string &name = given.args.front();
  const auto commands = all_commands();
  const auto command = std::ranges::find_if(commands, [&](const command_t &c) { return c.name == name; });
  if (command == commands.end()) {
    std::vector<std::string_view> names;
    names.reserve(commands.size());
    for (const command_t &known : commands)
      names.emplace_back(known.name);
    return complain_usage("%s: no such command%s", shown(name).c_str(), did_you_mean(name, names).c_str());
  }
  for (const option_row_t &row : option_rows) {
    if (given.has(row.set & ~(command->options | OPT_VERBOSE)))
      return complain_usage("%s takes no --%s", command->name, row.set == OPT_FIELD ? "FIELD=VALUE" : row.name);
  }
  if (given.file && given.family != nullptr) return complain_usage("--family does not go with --file");
  if (given.bus.has_value() != given.addr.has_value())
    return complain_usage("--%s needs --%s", given.bus ? "bus" : "addr", given.bus ? "addr" : "bus");
  if (given.bus && (given.file || given.family != nullptr))
    return complain_usage("--%s does not go with --bus", given.file ? "file" : "family");
  if (given.backup && given.no_backup) return complain_usage("--backup does not go with --no-backup");
  if (given.backup && (given.backup->empty() || *given.backup == standard_stream))
    return complain_usage("--backup takes the name of a file, not '%s'", given.backup->c_str());
  options_t options = given;
  options.args.erase(options.args.begin());
  if (options.args.size() < command->min_args || options.args.size() > command->max_args)
    return complain_usage("usage: sprom %s%s%s", command->name, *command->synopsis == '\0' ? "" : " ",
                          command->synopsis);
  return command->run(options);
}

// What getopt_long has found wrong, a value that is missing or something else, and which option may be meant.
exit_code refuse_option(bool no_value, std::string_view word, const std::vector<option> &table) {
  const auto known = std::ranges::find_if(
      table, [](const option &one) { return one.name != nullptr && optopt != 0 && one.val == optopt; });
  if (known != table.end())
    return complain_usage("option '--%s' %s", known->name, no_value ? "needs a value" : "takes no value");
  if (optopt != 0)
    return complain_usage("unknown option '%s'", shown(std::string{'-', static_cast<char>(optopt)}).c_str());
  word = word.substr(0, word.find('='));
  std::vector<std::string> options;
  std::string longer;
  for (const option &one : table) {
    if (one.name == nullptr) continue;
    options.push_back(std::string("--") + one.name);
    if (options.back().starts_with(word)) longer += (longer.empty() ? "" : ", ") + options.back();
  }
  if (!longer.empty()) return complain_usage("option '%s' can be %s", shown(word).c_str(), longer.c_str());
  return complain_usage("unknown option '%s'%s", shown(word).c_str(),
                        did_you_mean(word, {options.begin(), options.end()}).c_str());
}

exit_code run(int argc, char **argv) {
  const long_options_t all = long_options();
  options_t options;
  for (;;) {
    const int value = getopt_long(argc, argv, ":f:F:jynvhV", all.table.data(), nullptr);
    if (value < 0) break;
    if (value == 'h') return print_help(), EXIT_OK;
    if (value == 'V') return (void)printf("sprom %s\n", SPROM_TOOL_VERSION), EXIT_OK;
    if (value == '?' || value == ':') return refuse_option(value == ':', argv[optind - 1], all.table);
    if (const exit_code code = add_option(value, all.fields, options); code != EXIT_OK) return code;
    options.given |= set_of(value);
  }
  options.args.assign(argv + optind, argv + argc);
  tell_steps(options.has(OPT_VERBOSE));
  return run_command(options);
}

// Files and devices must not get the numbers of standard streams that are closed. What goes to a closed standard output
// still fails.
void open_standard_streams() {
  for (const int stream : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
    if (fcntl(stream, F_GETFD) >= 0) continue;
    (void)open("/dev/null", stream == STDERR_FILENO ? O_WRONLY : O_RDONLY);  // the lowest number that is free
  }
}

// What is still in the buffer must reach its file for the run to count.
exit_code close_output(exit_code code) {
  bool is_written = ferror(stdout) == 0;
  is_written = fclose(stdout) == 0 && is_written;
  if (is_written) return code;
  (void)fprintf(stderr, "sprom: cannot write the output: %s\n", strerror(errno));
  return code == EXIT_OK ? EXIT_FAILED : code;
}

}  // namespace
}  // namespace tool

int main(int argc, char **argv) {
  (void)setlocale(LC_CTYPE, "");  // which characters of a file's name can be shown
  tool::open_standard_streams();
  return tool::close_output(tool::run(argc, argv));
}
