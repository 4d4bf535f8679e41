// post_campaign.cpp: post-campaign, which runs the self-test over a fault space.
#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <filesystem>

#include "lab/base/command_line.h"
#include "lab/base/files.h"
#include "lab/base/text.h"
#include "lab/campaign/campaign.h"
#include "lab/campaign/matrix_file.h"
#include "lab/campaign/score.h"
#include "lab/campaign/shards.h"
#include "lab/campaign/work_directory.h"
#include "lab/report/coverage.h"
#include "lab/report/html.h"
#include "lab/report/junit_matrix.h"
#include "lab/report/table.h"

// Of the sources, "" outside of a checkout; cmake/commit.cmake writes its definition.
extern const char lab_commit[];

namespace {

struct options {
  lab::campaign_request campaign;

  std::string json;
  std::string junit;
  std::string html;
  std::string coverage;
  std::string explain;
  std::string expect;
  bool no_times = false;
  bool summary = false;
  bool wide = false;
  bool list = false;

  std::vector<std::string> merge;
  std::string read;
};

constexpr char program[] = "post-campaign";
constexpr char about[] =
    "Runs the power-on self-test with faults of the simulated board and reports which it finds and misses.";

int fail(const std::string &what) {
  return lab::complain(program, what);
}

// The pipe's reading end can be read once a signal has asked for the end.
int stop_pipe[2] = {-1, -1};
volatile std::sig_atomic_t stop_signal = 0;

void ask_to_stop(int signal) {
  stop_signal = signal;
  (void)!write(stop_pipe[1], "", 1);
}

// Without runs the signals end this program as they end any other.
bool catch_signals(bool has_runs) {
  (void)std::signal(SIGPIPE, SIG_IGN);
  if (!has_runs) return true;
  if (pipe2(stop_pipe, O_CLOEXEC | O_NONBLOCK) != 0) return false;
  struct sigaction act {};
  act.sa_handler = ask_to_stop;
  for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
    struct sigaction former {};
    const bool ignored = sigaction(signal, nullptr, &former) == 0 && former.sa_handler == SIG_IGN;  // as by nohup
    if (!ignored) (void)sigaction(signal, &act, nullptr);
  }
  return true;
}

// Ends as the signal would have ended the program.
[[noreturn]] void end_by_signal() {
  const int signal = stop_signal;
  (void)std::signal(signal, SIG_DFL);
  (void)raise(signal);
  _exit(lab::EXIT_USAGE);
}

double cpu_seconds() {
  rusage used{};
  (void)getrusage(RUSAGE_SELF, &used);
  const auto seconds = [](const timeval &time) {
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
  };
  return seconds(used.ru_utime) + seconds(used.ru_stime);
}

size_t terminal_width() {
  winsize size{};
  if (isatty(STDOUT_FILENO) == 0 || ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) != 0) return 0;
  return size.ws_col;
}

// ---- running it

const char *typed_command = program;
std::vector<std::string> typed;  // the arguments

std::string shell_word(const std::string &word) {
  constexpr const char *plain = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789_./=:,+-";
  if (!word.empty() && word.find_first_not_of(plain) == std::string::npos) return word;
  std::string out = "'";
  for (const char c : word)
    out += c == '\'' ? R"('\'')" : std::string(1, c);
  return out + "'";
}

// What was typed, under the name of the command that started this program, but with the directory of the interrupted
// campaign, whose plan holds the shard.
std::string resume_command(const std::string &work) {
  const char *const command = std::getenv("POST_CAMPAIGN_COMMAND");
  std::string line = shell_word(command != nullptr ? command : typed_command) + " --resume " + shell_word(work);
  for (size_t i = 0; i < typed.size(); ++i) {
    const std::string name = typed[i].substr(0, typed[i].find('='));
    const bool is_other = name == "--resume" || name == "--work" || name == "--shard";
    if (!is_other) line += " " + shell_word(typed[i]);
    if (is_other && name == typed[i]) ++i;
  }
  return line;
}

using steady = std::chrono::steady_clock;

lab::campaign_times times_of(const lab::matrix &matrix, steady::time_point start, unsigned jobs) {
  const std::chrono::duration<double> elapsed = steady::now() - start;
  lab::campaign_times times{elapsed.count(), 0, cpu_seconds(), jobs};
  for (const auto &run : matrix.runs)
    times.run_cpu += run.cpu_seconds;
  return times;
}

// Returns "" or why they cannot be listed.
std::string list_runs(const lab::campaign &all) {
  std::string text;
  for (const auto &run : all.runs())
    text += run.key() + "\n";
  return lab::write_whole("-", text);
}

void say_how_to_go_on(const std::string &what, const lab::campaign &all) {
  (void)fail(what + "; go on with: " + resume_command(all.directory()));
}

// Returns nothing and says why in *error if there is no whole matrix.
std::optional<lab::matrix> run_campaign(const options &opts, lab::campaign *all, std::string *error) {
  *error = all->prepare();
  if (!error->empty()) {
    if (stop_signal == 0) return std::nullopt;
    error->clear();  // what the signal ended has not failed
    if (!opts.campaign.resume.empty()) say_how_to_go_on("interrupted", *all);
    return std::nullopt;
  }
  if (opts.list) {
    *error = list_runs(*all);
    return error->empty() ? std::optional(lab::matrix{}) : std::nullopt;
  }
  const auto start = steady::now();
  lab::live_line live(all->left(), opts.campaign.jobs);
  *error = all->run([&live](const lab::run_result &result) { live.add(result); });
  live.end();
  const bool whole = all->left().empty();
  all->keep(opts.campaign.keep || !whole);
  if (!whole) say_how_to_go_on("interrupted", *all);
  if (!whole || !error->empty()) return std::nullopt;
  auto matrix = all->take_matrix("post-campaign " LAB_VERSION, lab_commit);
  matrix.times = times_of(matrix, start, opts.campaign.jobs);
  return matrix;
}

// ---- its results

std::optional<lab::matrix> read_matrix(const std::string &path, std::string *error) {
  const auto text = lab::read_whole(path);
  if (!text) {
    *error = lab::os_error(path);
    return std::nullopt;
  }
  auto matrix = lab::matrix_from_json(*text, error);
  if (!matrix) *error = path + ": " + *error;
  return matrix;
}

std::optional<lab::matrix> merge_matrices(const std::vector<std::string> &paths, std::string *error) {
  std::vector<std::pair<std::string, lab::matrix>> parts;
  for (const auto &path : paths) {
    auto part = read_matrix(path, error);
    if (!part) return std::nullopt;
    parts.emplace_back(path, std::move(*part));
  }
  auto whole = lab::merge(std::move(parts), error);
  if (whole && !whole->origin.date.empty()) {
    whole->origin.date = lab::now_text();
    whole->origin.command = lab::command_line();
  }
  return whole;
}

std::string write_files(const options &opts, const lab::matrix &matrix, const std::vector<std::string> &changes) {
  const auto write = [](const std::string &path, const std::string &text) {
    return path.empty() ? "" : lab::write_whole(path, text);
  };
  auto wrong = write(opts.json, lab::matrix_to_json(matrix));
  if (wrong.empty()) wrong = write(opts.junit, lab::matrix_to_junit(matrix));
  if (wrong.empty()) wrong = write(opts.html, lab::matrix_to_html(matrix, changes));
  if (wrong.empty()) wrong = write(opts.coverage, lab::matrix_to_coverage(matrix));
  if (wrong.empty()) wrong = write(opts.explain, lab::matrix_to_score(matrix));
  return wrong;
}

// The table, if standard output is not taken by a file.
std::string print(const options &opts, const lab::matrix &matrix) {
  for (const auto *const path : {&opts.json, &opts.junit, &opts.html, &opts.coverage, &opts.explain})
    if (*path == "-") return "";
  const auto table = opts.summary ? "" : lab::matrix_table(matrix, terminal_width(), opts.wide) + "\n";
  return lab::write_whole("-", table + lab::matrix_summary(matrix, opts.wide));
}

int conclude(const options &opts, lab::matrix matrix, const std::optional<lab::matrix> &former) {
  if (opts.no_times) matrix.forget_times();
  const auto changes = former ? lab::changes_since(*former, matrix) : std::vector<std::string>{};
  auto wrong = print(opts, matrix);
  if (wrong.empty()) wrong = write_files(opts, matrix, changes);
  if (!wrong.empty()) return fail(wrong);
  bool clean =
      std::ranges::all_of(matrix.runs, [&](const auto &run) { return lab::is_accounted_for(run, matrix.space); });
  for (const auto &fault : opts.explain.empty() ? std::vector<std::string>{} : lab::left_out_faults(matrix)) {
    (void)std::fprintf(stderr, "no candidate of its own explanation: %s\n", fault.c_str());
    clean = false;
  }
  for (const auto &run : matrix.runs)
    if (lab::is_misplaced(run))
      (void)std::fprintf(stderr, "post-locate: %s: %s: %s\n", run.what.key().c_str(), run.located->title().c_str(),
                         run.located->text.c_str());
  for (const auto &change : changes)
    (void)std::fprintf(stderr, "changed: %s\n", change.c_str());
  return clean && changes.empty() ? lab::EXIT_CLEAN : lab::EXIT_FINDINGS;
}

// ---- the command line

constexpr const char *examples =
    "Examples:\n"
    "  post-campaign                                   every kind of fault, every line of each memory\n"
    "  post-campaign --fault \"nvram-data-stuck instance=1 line=* level=0\"\n"
    "  post-campaign --fault \"flash-cell-stuck offset=0x0 bit=3 level=0 p=10000\" --repeat 50\n"
    "  post-campaign --healthy 14 --mode short         false alarms\n"
    "  post-campaign --json now.json --html now.html --expect former.json\n"
    "  post-campaign --shard 2/7 --json 2.json         the second of seven parts; then: --merge 1.json 2.json ...\n"
    "  post-campaign --read now.json --coverage coverage.md --explain explain.md\n"
    "\n"
    "Exit status: 0 everything is accounted for, 1 something is not or has changed, 2 wrong usage or an error.\n";

void add_space_options(CLI::App *app, options *opts) {
  auto *const set = app->add_option("--set", opts->campaign.set,
                                    "the fault space: standard (default), lines, cells, drawn or transients")
                        ->check(CLI::IsMember({"standard", "lines", "cells", "drawn", "transients"}));
  app->add_option("--samples", opts->campaign.samples,
                  "number of random faults, for transients in each stratum; default 100")
      ->check(CLI::Range(uint64_t{1}, uint64_t{1'000'000}));
  app->add_option("--seed", opts->campaign.seed, "seed of these; default 1");
  auto *const fault =
      app->add_option("--fault", opts->campaign.faults, "your own faults, as a pattern; may be repeated")
          ->allow_extra_args(false);
  auto *const from = app->add_option("--from", opts->campaign.from, "a file of patterns, one per line");
  auto *const healthy = app->add_option("--healthy", opts->campaign.healthy, "number of runs of healthy boards")
                            ->check(CLI::Range(uint64_t{1}, uint64_t{1'000'000}));
  set->excludes(fault)->excludes(from)->excludes(healthy);
  healthy->excludes(fault)->excludes(from);
  app->add_option("--repeat", opts->campaign.repeats, "how many times to run each fault")
      ->check(CLI::Range(uint32_t{1}, uint32_t{100'000}));
  app->add_option("--card", opts->campaign.board.card, "card of patterns that name none; default 11062")
      ->check(CLI::Range(0U, 65535U));
  app->add_option("--revision", opts->campaign.board.revision, "its revision: P0 or P1 (default)")
      ->check(CLI::IsMember({"P0", "P1"}));
  app->add_option("--mode", opts->campaign.mode, "short, no-flash or full, instead of each fault's own")
      ->check(CLI::IsMember({"short", "no-flash", "full"}));
}

void add_output_options(CLI::App *app, options *opts) {
  app->add_option("--json", opts->json, "write the matrix to this file; - is standard output");
  app->add_option("--junit", opts->junit, "write JUnit XML");
  app->add_option("--html", opts->html, "write a page for a browser");
  app->add_option("--coverage", opts->coverage, "write what a PASS covers, as Markdown");
  app->add_option("--explain", opts->explain,
                  "write what explanations are worth, as Markdown; one that lacks the fault is a finding");
  app->add_option("--expect", opts->expect, "an earlier matrix: any change is a finding");
  app->add_flag("--no-times", opts->no_times,
                "omit times, machine and command, so that equal campaigns are equal byte for byte");
  app->add_flag("--summary", opts->summary, "print only the summary");
  app->add_flag("--wide", opts->wide, "print all that is known of each run, and the runs of each reason");
  app->add_flag("--list", opts->list, "list the runs without starting them, and exit");
}

void add_run_options(CLI::App *app, options *opts) {
  auto *const read = app->add_option("--read", opts->read, "read this matrix and run nothing");
  auto *const resume = app->add_option("--resume", opts->campaign.resume,
                                       "continue the campaign that was interrupted in this directory");
  resume->excludes(read);
  auto *const merge = app->add_option("--merge", opts->merge, "put these matrices of shards together and run nothing");
  merge->excludes(read)->excludes(resume);
  app->add_option("--shard", opts->campaign.shard,
                  "run only part K of N that cost the same, as K/N; auto asks the environment")
      ->excludes(read)
      ->excludes(resume)
      ->excludes(merge);
  app->add_option("--work", opts->campaign.work, "work in this directory, new or empty; default a temporary one");
  app->add_flag("--locate", opts->campaign.locate,
                "run post-locate with each fault, too, and judge the places that it names")
      ->excludes(read)
      ->excludes(merge);
  app->add_flag("--keep", opts->campaign.keep, "keep the work directory, with the output and files of each run");
  app->add_option("-j,--jobs", opts->campaign.jobs, "runs at a time; default one for each processor")
      ->check(CLI::Range(1U, 1024U));
  app->add_option("--limit", opts->campaign.limit,
                  "whole processor seconds after which a run counts as hung; default 120")
      ->check(CLI::Range(uint64_t{1}, uint64_t{86400}));
  app->add_option("--wall-limit", opts->campaign.wall_limit,
                  "the same in seconds of the clock; default ten times as many")
      ->check(CLI::Range(0.1, 864000.0));
  app->add_option("--board-sim", opts->campaign.board_sim,
                  "the simulated board; default the one in the directory of this program");
  app->add_option("--program", opts->campaign.program, "run this program instead of post");
}

// A campaign is long: files that cannot be written are reported before it. Returns "" or what is wrong.
std::string check_files(const options &opts) {
  for (const auto *const path : {&opts.json, &opts.junit, &opts.html, &opts.coverage, &opts.explain}) {
    if (path->empty() || *path == "-") continue;
    const auto directory = std::filesystem::path(lab::absolute_path(*path)).parent_path();
    if (access(directory.c_str(), W_OK) != 0) return lab::os_error(*path);
  }
  return "";
}

void add_options(CLI::App *app, options *opts) {
  app->footer(examples);
  app->set_version_flag("-V,--version", "post-campaign " LAB_VERSION);
  add_space_options(app, opts);
  add_output_options(app, opts);
  add_run_options(app, opts);
}

int run(const options &opts) {
  if (!catch_signals(opts.merge.empty() && opts.read.empty())) return fail(lab::os_error("pipe"));
  std::string error = check_files(opts);
  if (!error.empty()) return fail(error);
  std::optional<lab::matrix> former;
  if (!opts.expect.empty()) {
    former = read_matrix(opts.expect, &error);
    if (!former) return fail(error);
  }
  std::optional<lab::campaign> campaign;
  std::optional<lab::matrix> matrix;
  if (!opts.merge.empty())
    matrix = merge_matrices(opts.merge, &error);
  else if (!opts.read.empty())
    matrix = read_matrix(opts.read, &error);
  else
    matrix = run_campaign(opts, &campaign.emplace(opts.campaign, stop_pipe[0]), &error);
  if (!matrix) {
    campaign.reset();
    if (error.empty() && stop_signal != 0) end_by_signal();
    return fail(error);
  }
  if (opts.list) return lab::EXIT_CLEAN;
  const int status = conclude(opts, std::move(*matrix), former);
  // The runs are not lost with a file that cannot be written.
  if (campaign && status == lab::EXIT_USAGE) {
    campaign->keep(true);
    say_how_to_go_on("the runs are done", *campaign);
  }
  return status;
}

}  // namespace

int main(int argc, char **argv) {
  if (argc > 0) typed_command = argv[0];
  typed.assign(argv + std::min(argc, 1), argv + argc);
  return lab::run_program(program, about, argc, argv, add_options, run);
}
