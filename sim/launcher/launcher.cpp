// launcher.cpp: board-sim, which runs a program on the simulated board; and, under the name ethtool, that command of
// the board.
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "faults/text.h"
#include "sim/base/fault_counts.h"
#include "sim/base/files.h"
#include "sim/base/options.h"
#include "sim/base/real.h"
#include "sim/board/board.h"
#include "sim/board/cpuinfo.h"
#include "sim/board/lock_holder.h"
#include "sim/board/pci_list.h"
#include "sim/devices/ethtool.h"
#include "sim/launcher/estimate.h"
#include "sim/launcher/preload_list.h"
#include "sim/launcher/run.h"
#include "sim/launcher/state_directory.h"
#include "sim/preload/children.h"
#include "sim/preload/programs.h"

namespace {

enum : int { exit_usage = 2, exit_not_executable = 126, exit_not_found = 127, exit_signal = 128 };

constexpr const char *usage_text =
    "Usage: board-sim [OPTIONS] [-- PROGRAM ARGS...]\n"
    "       board-sim [OPTIONS] -- -ARGS...\n"
    "Runs a program on a simulated supervisor board. Without a program, runs the power-on\n"
    "self-test of its own directory, with the arguments after --.\n"
    "\n";
constexpr const char *example_text =
    "\n"
    "Examples:\n"
    "  board-sim -- -s                                    short test on a healthy board\n"
    "  board-sim --card 11079 --fault \"pci-missing bus=2 dev=0 func=0\"\n"
    "  board-sim --state board -- -s                      keep the board after the run\n"
    "  board-sim -- /bin/sh                               look around\n";

int fail(const std::string &what, int status = exit_usage) {
  (void)std::fprintf(stderr, "board-sim: %s\n", what.c_str());
  return status;
}

int fail_to_run(const std::string &program, int error) {
  return fail(program + ": " + std::strerror(error), error == ENOENT ? exit_not_found : exit_not_executable);
}

// A card that is not known has the functions of another one: a slip would go unnoticed.
void note_slip_of_card(const sim::options &opts) {
  const auto known = sim::known_cards();
  if (opts.family != sim::family::dorvan || std::ranges::find(known, opts.card) != known.end()) return;
  std::vector<std::string> names;
  names.reserve(known.size());
  for (const auto card : known)
    names.push_back(std::to_string(card));
  const auto card = std::to_string(opts.card);
  const auto hint = sim::did_you_mean(card, std::vector<std::string_view>(names.begin(), names.end()));
  if (!hint.empty()) (void)std::fprintf(stderr, "board-sim: card %s is not known%s\n", card.c_str(), hint.c_str());
}

// Files in the place of closed standard descriptors would get what is written there. The program finds them closed.
void fill_standard_descriptors() {
  int fd = -1;
  do {
    fd = open("/dev/null", O_RDWR | O_CLOEXEC);
  } while (fd >= 0 && fd <= STDERR_FILENO);
  if (fd >= 0) (void)close(fd);
}

// Empties a file that the run writes to, or begins to write to what is no plain file, and makes its path absolute. It
// stays open here: the reader of a FIFO then sees no end before the run ends. Without a path nothing is opened.
bool begin_output(std::string *path, sim::file *output, std::string *error) {
  if (path->empty()) return true;
  const auto whole = sim::absolute_path(*path, error);
  if (!whole) return false;
  *path = *whole;
  *output = sim::file(sim::sys::open(path->c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC));
  if (!output->is_open()) *error = sim::os_error(*path);
  return output->is_open();
}

int write_report(const sim::file &output, const sim::command &cmd, int status) {
  const auto lines = sim::fault_report(cmd.opts);
  if (write(output.fd(), lines.data(), lines.size()) == static_cast<ssize_t>(lines.size())) return status;
  return fail(sim::os_error(cmd.fault_report));
}

// Returns the exit status.
int print(const std::string &text) {
  const bool printed = std::fwrite(text.data(), 1, text.size(), stdout) == text.size() && std::fflush(stdout) == 0;
  return printed ? 0 : fail(sim::os_error("standard output"));
}

int show_result(const std::string &state, int status) {
  const int shown = print(sim::read_file(state + "/post/result").value_or(""));
  return shown != 0 ? shown : status;
}

int report(const std::string &program, const sim::run_end &end) {
  if (end.error != 0) return fail_to_run(program, end.error);
  if (end.signal == 0) return end.status;
  return fail(program + " was ended by signal " + std::to_string(end.signal) + " (" + strsignal(end.signal) + ")",
              exit_signal + end.signal);
}

// post takes the short test from the first two characters of its first argument.
void tell_time(const sim::command &cmd) {
  const auto &args = cmd.arguments;
  const bool is_short = !args.empty() && (args[0].starts_with("-s") || args[0].starts_with("-S"));
  const auto &counts = is_short ? sim::short_run : sim::full_run;
  const auto times = sim::estimate(cmd.opts, counts, sim::measure_costs());
  (void)std::fprintf(stderr, "board-sim: %s\n", sim::told_before(counts, times).c_str());
  sim::start_countdown(times);
}

// Runs the program, once it is sure that it will be on the board.
int run_with_library(const sim::command &cmd, const std::string &program) {
  const auto check = sim::check_program(program);
  if (check.error != 0) return fail_to_run(program, check.error);
  if (!check.refusal.empty()) return fail(check.refusal);
  sim::preload_list preload;
  std::string error;
  const auto own = sim::own_directory();
  if (!preload.make(own.substr(0, own.rfind('/')) + "/lib/libboard_sim.so", &error)) return fail(error);
  (void)setenv("LD_PRELOAD", preload.text().c_str(), 1);
  (void)setenv(sim::options_variable, sim::options_format(cmd.opts).c_str(), 1);
  if (!sim::loader_takes(check.image, preload.library()))
    return fail(program + ": the loader does not load " + preload.library() + " into it");
  const auto holders = sim::lock_holders_start(cmd.opts, &error);
  if (!holders) return fail(error);
  if (cmd.estimate) tell_time(cmd);
  const auto end = sim::run_program(program, cmd.arguments);
  sim::end_children();
  return report(program, end);
}

// The path of the program to run: post beside this one, or what PATH has, or else a program beside this one. "" if
// there is none.
std::string program_of(const sim::command &cmd) {
  auto beside = sim::own_directory() + "/" + (cmd.program.empty() ? "post" : cmd.program);
  if (cmd.program.empty()) return beside;
  const auto found = sim::find_program(cmd.opts, cmd.program);
  const bool is_bare = cmd.program.find('/') == std::string::npos;
  return found.empty() && is_bare && access(beside.c_str(), X_OK) == 0 ? beside : found;
}

int run_on_board(sim::command cmd) {
  std::string error = sim::board_check(cmd.opts);
  if (!error.empty()) return fail(error);
  note_slip_of_card(cmd.opts);
  fill_standard_descriptors();
  sim::file trace;
  sim::file audit;
  sim::file occasions;
  sim::file faults;
  if (!begin_output(&cmd.opts.trace, &trace, &error) || !begin_output(&cmd.opts.cut_audit, &audit, &error) ||
      !begin_output(&cmd.opts.occasions, &occasions, &error) || !begin_output(&cmd.fault_report, &faults, &error))
    return fail(error);
  sim::take_signals();
  sim::state_directory state;
  if (!state.use(cmd.opts.state, &error)) return fail(error);
  cmd.opts.state = state.path();
  const auto rate = sim::tsc_khz();
  if (!sim::make_board_files(cmd.opts, rate, &error)) return fail(error);
  sim::fault_counts counts;
  sim::fault_counts::forget(cmd.opts);
  if (!counts.open(&cmd.opts, &error)) return fail(error);
  (void)setenv("BOARD_SIM_TSC_KHZ", std::to_string(rate).c_str(), 1);

  const auto program = program_of(cmd);
  if (program.empty()) return fail(cmd.program + ": not found in PATH", exit_not_found);
  int status = run_with_library(cmd, program);
  if (faults.is_open()) status = write_report(faults, cmd, status);
  if (cmd.show_result) status = show_result(cmd.opts.state, status);
  return status;
}

bool is_ethtool(const char *name) {
  const char *const slash = std::strrchr(name, '/');
  return std::strcmp(slash == nullptr ? name : slash + 1, "ethtool") == 0;
}

}  // namespace

int main(int argc, char **argv) {
  const std::vector<std::string> args(argv + std::min(argc, 1), argv + argc);
  if (argc > 0 && is_ethtool(argv[0])) return sim::ethtool_main(args);
  std::string error;
  auto cmd = sim::command_parse(args, &error);
  if (!cmd) return fail(error + "\nTry 'board-sim --help' for more information.");
  switch (cmd->action) {
    case sim::action::help:
      return print(usage_text + sim::options_help() + example_text);
    case sim::action::version:
      return print("board-sim " BOARD_SIM_VERSION "\n");
    case sim::action::list_faults:
      return print(sim::fault_list());
    case sim::action::run:
      break;
  }
  return run_on_board(*std::move(cmd));
}
