// post_results.cpp: the program post-results, which turns a run's records and output into results.
#include <errno.h>
#include <sys/stat.h>
#include <time.h>

#include <algorithm>
#include <fstream>
#include <functional>
#include <iterator>
#include <optional>
#include <string>

#include "lab/base/command_line.h"
#include "lab/base/files.h"
#include "lab/base/text.h"
#include "lab/results/device_results.h"
#include "lab/results/identity.h"
#include "lab/run/cases.h"
#include "lab/run/records.h"
#include "lab/run/run_log.h"

namespace {

using lab::log_file;
using lab::record_list;

struct options {
  std::string records = "/post/result";
  std::string log;
  std::string sprom;
  std::optional<int64_t> run;  // instead of the last one
  size_t forms = 0;            // asked for
  std::function<std::string(const lab::device_results &)> form = lab::table;
  std::string file = "-";  // that gets the form; - is standard output
};

constexpr char program[] = "post-results";
constexpr char about[] = "Shows the results of a power-on self-test from its records and its output.";
constexpr char footer[] = R"(Exit status: 0 for a clean run, 1 if a device failed or its result is not known,
2 if the command line is wrong or a file cannot be read.

Examples:
  post-results                                 the last run of this board
  post-results --log post.log result           stored files, on any machine
  sprom show --json SUPERVISOR > sprom.json
  post-results --ocp --sprom sprom.json --log post.log > results.jsonl
  post-results --junit --run 3 result          the third run in the file)";

int complain(const std::string &what) {
  return lab::complain(program, what);
}

void add_options(CLI::App *app, options *chosen) {
  constexpr char group[] = "Formats (default: table)";
  const auto choose = [chosen](std::string (*write)(const lab::device_results &)) {
    if (++chosen->forms > 1) throw CLI::ValidationError("more than one format given");
    chosen->form = write;
  };
  const auto form = [&](const char *name, const char *what, std::string (*write)(const lab::device_results &)) {
    app->add_flag_callback(
           name, [choose, write] { choose(write); }, what)
        ->group(group);
  };
  form("--table", "a table for people", lab::table);
  form("--ocp", "JSON lines of the OCP test and validation output, version 2.0", lab::ocp_lines);
  form("--junit", "JUnit XML", lab::junit_text);
  form("--ktap", "KTAP, version 1", lab::ktap);
  form("--journal", "entries for the systemd journal, an empty line after each", lab::journal_entries);
  const auto choose_metrics = [chosen, choose](const std::string &file) {
    choose(lab::prometheus);
    chosen->file = file;
  };
  app->add_option_function<std::string>("--prometheus", choose_metrics,
                                        "metrics for the node exporter, in FILE, which is replaced as a whole")
      ->type_name("FILE")
      ->group(group);
  app->add_option("--log", chosen->log, "the output of the run; - is standard input")->type_name("FILE");
  app->add_option("--sprom", chosen->sprom, "the board's identity, as 'sprom show --json SUPERVISOR' prints it")
      ->type_name("FILE");
  app->add_option("--run", chosen->run, "the run with this number, 1 for the oldest, instead of the last")
      ->type_name("N");
  app->add_option("RECORDS", chosen->records, "file of records, /post/result by default")->type_name("");
  app->footer(footer);
  app->set_version_flag("--version,-V", "post-results " LAB_VERSION);
}

// When a file was last written, or now.
int64_t written_at(const std::string &path) {
  struct stat status {};
  return stat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode) ? status.st_mtime : time(nullptr);
}

struct inputs {
  record_list records;
  bool no_records = false;  // the file does not exist
  std::optional<log_file> log;
  lab::board_identity board;
};

// Each reads one input, or says in *error what is wrong.
void read_records(const options &chosen, inputs *in, std::string *error) {
  std::ifstream file = lab::open_file(chosen.records, error);
  // A run that dies early leaves no file on a fresh board.
  in->no_records = !file.is_open() && errno == ENOENT && !chosen.log.empty();
  if (in->no_records) error->clear();
  in->records = lab::parse_records(file);
}

void read_log(const options &chosen, inputs *in, std::string *error) {
  if (!chosen.log.empty()) in->log = lab::read_run_log(chosen.log, error);
}

void read_identity(const options &chosen, inputs *in, std::string *error) {
  if (chosen.sprom.empty()) return;
  std::ifstream file = lab::open_file(chosen.sprom, error);
  if (!file.is_open()) return;
  const std::string text{std::istreambuf_iterator<char>(file), {}};
  std::string why;
  const auto board = lab::parse_identity(text, &why);
  if (board) in->board = *board;
  if (!board) *error = chosen.sprom + ": " + why;
}

// "line 3" or "lines 3 to 5"
std::string lines_text(size_t first, size_t last) {
  if (first == last) return "line " + std::to_string(first);
  return "lines " + std::to_string(first) + " to " + std::to_string(last);
}

std::string text_of(const lab::bad_lines &bad) {
  constexpr size_t shown = 60;
  const std::string text = bad.text.size() > shown ? bad.text.substr(0, shown) + "..." : bad.text;
  return "records, " + lines_text(bad.first, bad.last) + ": " + bad.reason + ": \"" + text + "\"";
}

void note_log(const log_file &log, std::vector<std::string> *notes) {
  for (const lab::line_note &one : log.notes)
    notes->push_back("log, " + lines_text(one.first, one.last) + ": " + one.text);
  if (log.note_count > log.notes.size())
    notes->push_back("log: " + lab::counted(log.note_count - log.notes.size(), "more note"));
  if (log.run_count > log.runs.size())
    notes->push_back("log: " + lab::counted(log.run_count - log.runs.size(), "earlier run") + " left out");
}

// The lines of the records among which a bad one may have been one of this run.
struct line_range {
  size_t after = 0;
  size_t before = SIZE_MAX;
};

line_range lines_around(const std::deque<lab::record> &records, const std::vector<lab::record> &run) {
  line_range range;
  for (const lab::record &one : records) {
    if (run.empty() || one.line < run.front().line) range.after = one.line;
    if (!run.empty() && one.line > run.back().line) {
      range.before = one.line;
      break;
    }
  }
  return range;
}

// Bad lines are findings where they may be this run's.
void add_bad_lines(const record_list &list, const std::vector<lab::record> &run, lab::device_results *results) {
  const line_range range = lines_around(list.records, run);
  bool own = list.bad_unlisted > 0;
  for (const lab::bad_lines &bad : list.bad) {
    own |= bad.last > range.after && bad.first < range.before;
    results->notes.push_back(text_of(bad));
  }
  if (list.bad_unlisted > 0) results->notes.push_back("records: " + lab::counted(list.bad_unlisted, "more bad line"));
  if (own) results->run.warnings.emplace_back("lines among its records are no records");
}

void add_notes(const options &chosen, const inputs &in, lab::device_results *results) {
  if (in.no_records) results->notes.push_back("there is no file " + lab::printable(chosen.records));
  if (in.log) note_log(*in.log, &results->notes);
  if (in.log && in.log->runs.empty()) results->run.warnings.emplace_back("the log shows no run");
  if (!chosen.sprom.empty() && !in.board.good)
    results->notes.emplace_back("the SPROM with the board's identity has bad blocks");
  const auto &printed = results->run.change_bits;
  if (printed && in.board.change_bits && *printed != *in.board.change_bits)
    results->notes.emplace_back("the run printed other change bits than the SPROM holds");
}

// The runs of both inputs. A log without a run is that of a run that died at once.
std::vector<lab::run_pair> runs_of(const inputs &in) {
  static const std::deque<lab::run_log> no_logs;
  static const std::deque<lab::run_log> dead_run(1);
  const auto *logs = &no_logs;
  if (in.log) logs = in.log->runs.empty() ? &dead_run : &in.log->runs;
  auto pairs = lab::pair_runs(in.records.records, *logs);
  if (pairs.empty()) pairs.push_back({{}, nullptr});
  return pairs;
}

int report(const options &chosen, const inputs &in) {
  const auto pairs = runs_of(in);
  const auto runs = static_cast<int64_t>(pairs.size());
  const int64_t run = chosen.run.value_or(runs);
  if (run < 1 || run > runs)
    return complain("there is no run " + std::to_string(run) + ", the last is " + std::to_string(runs));
  const lab::run_pair &pair = pairs[static_cast<size_t>(run - 1)];

  lab::device_results results;
  results.run = lab::make_report(pair.records, pair.log);
  results.board = in.board;
  results.ended = written_at(chosen.log.empty() ? chosen.records : chosen.log);
  results.tool_version = LAB_VERSION;
  add_bad_lines(in.records, pair.records, &results);
  add_notes(chosen, in, &results);
  if (runs > 1) results.notes.push_back("run " + std::to_string(run) + " of " + std::to_string(runs));

  const int status = results.run.clean() ? lab::EXIT_CLEAN : lab::EXIT_FINDINGS;
  if (chosen.file == "-") return lab::put_out(program, chosen.form(results), status);
  const std::string wrong = lab::write_whole(chosen.file, chosen.form(results));
  return wrong.empty() ? status : complain(wrong);
}

int run(const options &chosen) {
  inputs in;
  for (const auto read : {read_records, read_log, read_identity}) {
    std::string error;
    read(chosen, &in, &error);
    if (!error.empty()) return complain(error);
  }
  return report(chosen, in);
}

}  // namespace

int main(int argc, char **argv) {
  return lab::run_program(program, about, argc, argv, add_options, run);
}
