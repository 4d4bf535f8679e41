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

#include "platform/mfgd/uspace/utils/sprom/tool/commands.h"

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
  LONG_FIELD_NAME,
};

struct option_row_t {
  const char *name;
  int value;        // of getopt_long
  const char *arg;  // name of its argument, or null
  option_set set;
  const char *help;
};

// clang-format off
constexpr std::array<option_row_t, 15> option_rows{{
    {"file",      'f',            "IMAGE",      OPT_FILE,     "work on an image file in place of a SPROM; - is standard input"},
    {"family",    'F',            "NAME",       OPT_FAMILY,   "take the board for one of this family"},
    {"json",      'j',            nullptr,      OPT_JSON,     "print JSON"},
    {"yes",       'y',            nullptr,      OPT_YES,      "write without asking"},
    {"dry-run",   'n',            nullptr,      OPT_DRY_RUN,  "show what would be written, and write nothing"},
    {"force",     LONG_FORCE,     nullptr,      OPT_FORCE,    "do what is refused for safety's sake"},
    {"field",     LONG_FIELD,     "NAME=VALUE", OPT_FIELD,    "give a field its value, as --NAME=VALUE does"},
    {"from",      LONG_FROM,      "JSON",       OPT_FROM,     "take the fields from what show --json printed"},
    {"backup",    LONG_BACKUP,    "FILE",       OPT_BACKUP,   "keep the old image there"},
    {"no-backup", LONG_NO_BACKUP, nullptr,      OPT_BACKUP,   "keep no copy of the old image"},
    {"raw",       LONG_RAW,       nullptr,      OPT_RAW,      "dump the whole EEPROM"},
    {"hex",       LONG_HEX,       nullptr,      OPT_HEX,      "dump to the terminal, in hexadecimal"},
    {"on",        LONG_ON,        nullptr,      OPT_ON,       "switch the write protection on"},
    {"no-probe",  LONG_NO_PROBE,  nullptr,      OPT_NO_PROBE, "list without asking the SPROMs"},
    {"verbose",   'v',            nullptr,      OPT_VERBOSE,  "tell each step and each transaction"},
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
      "supervisor's and write takes the only SPROM of the file's kind.\n"
      "KIND is one of");
  for (const kind_t &kind : all_kinds()) {
    if (kind.size != 0) (void)printf(" %s", kind.name);
  }
  (void)printf(".\n\nOptions:\n");
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
      "Exit status: 0 done, 1 failed or bad, 2 wrong usage, 3 an empty slot.\n",
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
    case LONG_FIELD:
      return add_field(optarg, options);
    case LONG_FROM:
      options.from = optarg;
      return EXIT_OK;
    case LONG_BACKUP:
      options.backup = optarg;
      return EXIT_OK;
    case LONG_NO_BACKUP:
      options.no_backup = true;
      return EXIT_OK;
    default:
      if (set_of(value) != 0 && value < LONG_FIELD_NAME) return EXIT_OK;  // being given is all
      if (value < LONG_FIELD_NAME) break;
      options.fields.emplace_back(fields[static_cast<size_t>(value - LONG_FIELD_NAME)], optarg);
      return EXIT_OK;
  }
  (void)fputs("Try 'sprom --help' for more information.\n", stderr);  // getopt_long has told what is wrong
  return EXIT_USAGE;
}

exit_code run_command(const options_t &given) {
  if (given.args.empty()) return complain_usage("a command is missing");
  const std::string &name = given.args.front();
  const auto commands = all_commands();
  const auto command = std::ranges::find_if(commands, [&](const command_t &c) { return c.name == name; });
  if (command == commands.end()) return complain_usage("%s: no such command", shown(name).c_str());
  for (const option_row_t &row : option_rows) {
    if (given.has(row.set & ~(command->options | OPT_VERBOSE)))
      return complain_usage("%s takes no --%s", command->name, row.set == OPT_FIELD ? "FIELD=VALUE" : row.name);
  }
  if (given.file && given.family != nullptr) return complain_usage("--family does not go with --file");
  if (given.backup && given.no_backup) return complain_usage("--backup does not go with --no-backup");
  options_t options = given;
  options.args.erase(options.args.begin());
  if (options.args.size() < command->min_args || options.args.size() > command->max_args)
    return complain_usage("usage: sprom %s%s%s", command->name, *command->synopsis == '\0' ? "" : " ",
                          command->synopsis);
  return command->run(options);
}

exit_code run(int argc, char **argv) {
  std::array program{'s', 'p', 'r', 'o', 'm', '\0'};
  if (argc > 0) argv[0] = program.data();  // getopt_long begins its messages with it
  const long_options_t all = long_options();
  options_t options;
  for (;;) {
    const int value = getopt_long(argc, argv, "f:F:jynvhV", all.table.data(), nullptr);
    if (value < 0) break;
    if (value == 'h') return print_help(), EXIT_OK;
    if (value == 'V') return (void)printf("sprom %s\n", SPROM_TOOL_VERSION), EXIT_OK;
    if (const exit_code code = add_option(value, all.fields, options); code != EXIT_OK) return code;
    options.given |= set_of(value);
  }
  options.args.assign(argv + optind, argv + argc);
  tell_steps(options.has(OPT_VERBOSE));
  return run_command(options);
}

// Files and devices must not get the numbers of standard streams that are closed.
void open_standard_streams() {
  for (;;) {
    const int fd = open("/dev/null", O_RDWR);
    if (fd > STDERR_FILENO) (void)close(fd);
    if (fd < 0 || fd > STDERR_FILENO) return;
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
