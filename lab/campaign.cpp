// campaign.cpp: post-campaign, which runs the self-test over a fault space.
#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <numeric>
#include <thread>

#include "lab/command_line.h"
#include "lab/coverage.h"
#include "lab/explain_score.h"
#include "lab/files.h"
#include "lab/html.h"
#include "lab/journal.h"
#include "lab/junit_matrix.h"
#include "lab/matrix.h"
#include "lab/runner.h"
#include "lab/table.h"
#include "lab/work_directory.h"

namespace {

struct options {
  std::string set = "standard";
  uint64_t samples = 100;
  uint64_t seed = 1;
  std::vector<std::string> faults;
  std::string from;
  uint64_t healthy = 0;
  uint32_t repeats = 1;
  lab::board_setting board;
  std::string mode;

  std::string json;
  std::string junit;
  std::string html;
  std::string coverage;
  std::string explain;
  std::string expect;
  bool no_times = false;
  bool summary = false;
  bool list = false;

  std::string read;
  std::string resume;
  std::string work;
  bool keep = false;
  unsigned jobs = std::max(1U, std::thread::hardware_concurrency());
  double limit = 120;
  std::string board_sim;
  std::string program;
};

constexpr char program[] = "post-campaign";
constexpr char about[] =
    "Runs the power-on self-test over faults of the simulated board and tells what it finds and misses.";

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

bool catch_signals() {
  if (pipe2(stop_pipe, O_CLOEXEC | O_NONBLOCK) != 0) return false;
  struct sigaction act {};
  act.sa_handler = ask_to_stop;
  for (const int signal : {SIGINT, SIGTERM, SIGHUP})
    (void)sigaction(signal, &act, nullptr);
  (void)std::signal(SIGPIPE, SIG_IGN);
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

// ---- what is to be run

std::optional<lab::fault_space> own_space(const options &opts, const lab::space_source &source, std::string *error) {
  lab::fault_space space{"own", "faults as asked for; one fault a run", {}};
  auto patterns = opts.faults;
  if (!opts.from.empty()) {
    const auto text = lab::read_whole(opts.from);
    if (!text) {
      *error = lab::os_error(opts.from);
      return std::nullopt;
    }
    for (const auto line : lab::pieces_of(*text, '\n'))
      if (!lab::words_of(line).empty() && !lab::words_of(line)[0].starts_with('#')) patterns.emplace_back(line);
  }
  for (const auto &pattern : patterns) {
    const auto runs = lab::expand(pattern, {opts.board, lab::mode_named(opts.mode)}, source, error);
    if (!runs) return std::nullopt;
    space.runs.insert(space.runs.end(), runs->begin(), runs->end());
  }
  return space;
}

std::optional<lab::fault_space> space_of(const options &opts, const lab::space_source &source, std::string *error) {
  if (opts.healthy > 0) return lab::healthy_space(opts.healthy, lab::mode_named(opts.mode));
  if (!opts.faults.empty() || !opts.from.empty()) return own_space(opts, source, error);
  if (opts.set == "lines") return lab::lines_space(source, error);
  if (opts.set == "cells") return lab::cells_space(opts.samples, opts.seed, source, error);
  return lab::standard_space(source, error);
}

// ---- running it

struct campaign {
  lab::work_directory work;
  lab::campaign_plan plan;
  std::map<size_t, lab::run_result> done;
};

lab::runner make_runner(const options &opts, const campaign &all) {
  return {{all.plan.board_sim, all.work.path(), all.plan.program, std::chrono::milliseconds(all.plan.limit_ms),
           opts.jobs, opts.keep},
          stop_pipe[0]};
}

std::string begin(const options &opts, campaign *all) {
  std::error_code ignored;
  const auto own = std::filesystem::read_symlink("/proc/self/exe", ignored).parent_path().string();
  all->plan.board_sim = opts.board_sim.empty() ? own + "/board-sim" : lab::absolute_path(opts.board_sim);
  all->plan.program = lab::absolute_path(opts.program);
  all->plan.limit_ms = static_cast<uint64_t>(opts.limit * 1000);
  all->plan.repeats = opts.repeats;
  return all->work.make(opts.work);
}

std::string go_on(const options &opts, campaign *all) {
  std::string error = all->work.take_over(opts.resume);
  if (!error.empty()) return error;
  auto plan = lab::read_plan(all->work.path(), &error);
  if (!plan) return error;
  all->plan = std::move(*plan);
  all->done = lab::read_runs(all->work.path());
  return "";
}

// Runs what is not done. Returns "" or what went wrong.
std::string run_all(const options &opts, lab::runner *runner, campaign *all) {
  const auto &runs = all->plan.space.runs;
  std::vector<size_t> wanted;
  std::vector<lab::run_item> left;
  for (size_t i = 0; i < runs.size(); ++i) {
    if (all->done.contains(i)) continue;
    wanted.push_back(i);
    left.push_back(runs[i]);
  }
  lab::live_line live(left, opts.jobs);
  std::string wrong;
  auto failed = runner->run(runs, wanted, [&](size_t index, lab::run_result result) {
    if (wrong.empty()) wrong = lab::add_run(all->work.path(), index, result);
    live.add(result);
    all->done.insert_or_assign(index, std::move(result));
  });
  live.end();
  return failed.empty() ? wrong : failed;
}

lab::matrix matrix_of(campaign *all) {
  lab::matrix matrix{all->plan.space.name, all->plan.space.description, {}, all->plan.repeats, {}, {}};
  if (matrix.space == "standard")
    for (const auto &kind : lab::left_out_kinds())
      matrix.left_out.emplace_back(kind.name, kind.reason);
  for (auto &[index, run] : all->done)
    matrix.runs.push_back(std::move(run));
  return matrix;
}

// Returns nothing and says why in *error if there is no whole matrix.
std::optional<lab::matrix> run_campaign(const options &opts, std::string *error) {
  campaign all;
  *error = opts.resume.empty() ? begin(opts, &all) : go_on(opts, &all);
  if (!error->empty()) return std::nullopt;
  auto runner = make_runner(opts, all);
  *error = runner.prepare();
  if (!error->empty()) return std::nullopt;
  if (opts.resume.empty()) {
    auto space = space_of(opts, runner.source(), error);
    if (!space) return std::nullopt;
    all.plan.space = std::move(*space);
    lab::repeat_runs(&all.plan.space, opts.repeats);
    all.plan.fault_list = runner.fault_list_text();
    *error = lab::write_plan(all.work.path(), all.plan);
  } else if (all.plan.fault_list != runner.fault_list_text()) {
    *error = "the board's faults are no longer those of the campaign in " + all.work.path();
  }
  if (!error->empty()) return std::nullopt;
  if (opts.list) {
    for (const auto &run : all.plan.space.runs)
      (void)std::printf("%s\n", run.key().c_str());
    return lab::matrix{};
  }
  const auto start = std::chrono::steady_clock::now();
  *error = run_all(opts, &runner, &all);
  const bool whole = all.done.size() == all.plan.space.runs.size();
  if (opts.keep || !whole) all.work.keep();
  if (!whole) (void)lab::complain(program, "interrupted; go on with: post-campaign --resume " + all.work.path());
  if (!error->empty() || !whole) return std::nullopt;
  auto matrix = matrix_of(&all);
  const std::chrono::duration<double> elapsed = std::chrono::steady_clock::now() - start;
  matrix.times = lab::campaign_times{elapsed.count(), 0, cpu_seconds(), opts.jobs};
  for (const auto &run : matrix.runs)
    matrix.times->run_cpu += run.cpu_seconds;
  return matrix;
}

// ---- what came of it

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

std::string write_files(const options &opts, const lab::matrix &matrix) {
  const auto write = [](const std::string &path, const std::string &text) {
    return path.empty() ? "" : lab::write_whole(path, text);
  };
  auto wrong = write(opts.json, lab::matrix_to_json(matrix));
  if (wrong.empty()) wrong = write(opts.junit, lab::matrix_to_junit(matrix));
  if (wrong.empty()) wrong = write(opts.html, lab::matrix_to_html(matrix));
  if (wrong.empty()) wrong = write(opts.coverage, lab::matrix_to_coverage(matrix));
  if (wrong.empty()) wrong = write(opts.explain, lab::matrix_to_score(matrix));
  return wrong;
}

// The table, if standard output is not taken by a file.
std::string print(const options &opts, const lab::matrix &matrix) {
  for (const auto *const path : {&opts.json, &opts.junit, &opts.html, &opts.coverage, &opts.explain})
    if (*path == "-") return "";
  const auto table = opts.summary ? "" : lab::matrix_table(matrix, terminal_width()) + "\n";
  return lab::write_whole("-", table + lab::matrix_summary(matrix));
}

int conclude(const options &opts, lab::matrix matrix, const std::optional<lab::matrix> &former) {
  if (opts.no_times) matrix.times.reset();
  auto wrong = print(opts, matrix);
  if (wrong.empty()) wrong = write_files(opts, matrix);
  if (!wrong.empty()) return fail(wrong);
  bool clean =
      std::ranges::all_of(matrix.runs, [&](const auto &run) { return lab::is_accounted_for(run, matrix.space); });
  for (const auto &fault : opts.explain.empty() ? std::vector<std::string>{} : lab::left_out_faults(matrix)) {
    (void)std::fprintf(stderr, "no candidate of its own explanation: %s\n", fault.c_str());
    clean = false;
  }
  if (!former) return clean ? lab::EXIT_CLEAN : lab::EXIT_FINDINGS;
  const auto changes = lab::changes_since(*former, matrix);
  for (const auto &change : changes)
    (void)std::fprintf(stderr, "changed: %s\n", change.c_str());
  return clean && changes.empty() ? lab::EXIT_CLEAN : lab::EXIT_FINDINGS;
}

// ---- the command line

constexpr const char *examples =
    "Examples:\n"
    "  post-campaign                                   every kind of fault, every line of each memory\n"
    "  post-campaign --fault \"nvram-data-stuck instance=1 line=* level=0\"\n"
    "  post-campaign --fault \"flash-cell-stuck offset=0x0 bit=3 level=0 p=0.01\" --repeat 50\n"
    "  post-campaign --healthy 14 --mode short         false alarms\n"
    "  post-campaign --json now.json --html now.html --expect former.json\n"
    "  post-campaign --read now.json --coverage coverage.md --explain explain.md\n"
    "\n"
    "Exit status: 0 all is accounted for, 1 something is not or has changed, 2 usage or trouble.\n";

void add_space_options(CLI::App *app, options *opts) {
  auto *const set = app->add_option("--set", opts->set, "the fault space: standard (default), lines or cells")
                        ->check(CLI::IsMember({"standard", "lines", "cells"}));
  app->add_option("--samples", opts->samples, "random cells of the set cells; default 100")
      ->check(CLI::Range(uint64_t{1}, uint64_t{1'000'000}));
  app->add_option("--seed", opts->seed, "seed of the set cells; default 1");
  auto *const fault = app->add_option("--fault", opts->faults, "faults of one's own, as a pattern; may be repeated")
                          ->allow_extra_args(false);
  auto *const from = app->add_option("--from", opts->from, "a file of patterns, one a line");
  auto *const healthy = app->add_option("--healthy", opts->healthy, "so many runs of healthy boards")
                            ->check(CLI::Range(uint64_t{1}, uint64_t{1'000'000}));
  set->excludes(fault)->excludes(from)->excludes(healthy);
  healthy->excludes(fault)->excludes(from);
  app->add_option("--repeat", opts->repeats, "run each fault so many times")
      ->check(CLI::Range(uint32_t{1}, uint32_t{100'000}));
  app->add_option("--card", opts->board.card, "card of patterns that name none; default 11062")
      ->check(CLI::Range(0U, 65535U));
  app->add_option("--revision", opts->board.revision, "its revision: P0 or P1 (default)")
      ->check(CLI::IsMember({"P0", "P1"}));
  app->add_option("--mode", opts->mode, "short, cut or full, in place of each fault's own")
      ->check(CLI::IsMember({"short", "cut", "full"}));
}

void add_output_options(CLI::App *app, options *opts) {
  app->add_option("--json", opts->json, "write the matrix to this file; - is standard output");
  app->add_option("--junit", opts->junit, "write JUnit XML");
  app->add_option("--html", opts->html, "write a page for a browser");
  app->add_option("--coverage", opts->coverage, "write what a PASS covers, as Markdown");
  app->add_option("--explain", opts->explain,
                  "write what explanations are worth, as Markdown; one without the fault is a finding");
  app->add_option("--expect", opts->expect, "a former matrix: any change is a finding");
  app->add_flag("--no-times", opts->no_times, "leave times out, so that equal campaigns are equal byte for byte");
  app->add_flag("--summary", opts->summary, "print the summary alone");
  app->add_flag("--list", opts->list, "print what would be run, and exit");
}

void add_run_options(CLI::App *app, options *opts) {
  auto *const read = app->add_option("--read", opts->read, "take this matrix and run nothing");
  app->add_option("--resume", opts->resume, "go on with the campaign that was interrupted in this directory")
      ->excludes(read);
  app->add_option("--work", opts->work, "work in this directory, new or empty; default a temporary one");
  app->add_flag("--keep", opts->keep, "keep the work directory, with what each run printed and left");
  app->add_option("-j,--jobs", opts->jobs, "runs at a time; default one a processor")->check(CLI::Range(1U, 1024U));
  app->add_option("--limit", opts->limit, "seconds after which a run counts as hung; default 120")
      ->check(CLI::Range(0.1, 86400.0));
  app->add_option("--board-sim", opts->board_sim, "the simulated board; default the one beside this program");
  app->add_option("--program", opts->program, "run this program in place of post");
}

// A campaign is long: what cannot be written is told before it. Returns "" or what is wrong.
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
  app->set_version_flag("--version", "post-campaign " LAB_VERSION);
  add_space_options(app, opts);
  add_output_options(app, opts);
  add_run_options(app, opts);
}

int run(const options &opts) {
  if (!catch_signals()) return fail(lab::os_error("pipe"));
  std::string error = check_files(opts);
  if (!error.empty()) return fail(error);
  std::optional<lab::matrix> former;
  if (!opts.expect.empty()) {
    former = read_matrix(opts.expect, &error);
    if (!former) return fail(error);
  }
  auto matrix = opts.read.empty() ? run_campaign(opts, &error) : read_matrix(opts.read, &error);
  if (!matrix && error.empty() && stop_signal != 0) end_by_signal();
  if (!matrix) return fail(error);
  return opts.list ? lab::EXIT_CLEAN : conclude(opts, std::move(*matrix), former);
}

}  // namespace

int main(int argc, char **argv) {
  return lab::run_program(program, about, argc, argv, add_options, run);
}
