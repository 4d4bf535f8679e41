// launcher.cpp: board-sim, which runs a program on the simulated board; and, under the name ethtool, that command of
// the board.
#include <dlfcn.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "sim/board/board.h"
#include "sim/board/fault_counts.h"
#include "sim/board/options.h"
#include "sim/devices/ethtool.h"
#include "sim/host/cpuinfo.h"
#include "sim/host/files.h"
#include "sim/host/lock_holder.h"
#include "sim/host/real.h"

namespace {

enum : int { exit_usage = 2, exit_not_executable = 126, exit_not_found = 127, exit_signal = 128 };

constexpr const char *usage_text =
    "Usage: board-sim [OPTIONS] [-- PROGRAM ARGS...]\n"
    "       board-sim [OPTIONS] -- -ARGS...\n"
    "Runs a program on a simulated supervisor board; without one, the power-on self-test\n"
    "beside it, with the arguments that follow --.\n"
    "\n";
constexpr const char *example_text =
    "\n"
    "Examples:\n"
    "  board-sim -- -s                                    short test on a healthy board\n"
    "  board-sim --card 11096 --fault \"pci-missing bus=2 dev=0 func=0\"\n"
    "  board-sim --state board -- -s                      keep what the run leaves\n"
    "  board-sim -- /bin/sh                               look around\n";

int fail(const std::string &what) {
  (void)std::fprintf(stderr, "board-sim: %s\n", what.c_str());
  return exit_usage;
}

int fail_os(const std::string &what) {
  return fail(what + ": " + std::strerror(errno));
}

void list_faults() {
  for (const auto &row : sim::fault_table())
    (void)std::printf("%s\n    %s\n", sim::fault_usage(row).c_str(), row.what);
}

std::string absolute(const std::string &path) {
  if (path.starts_with('/')) return path;
  char *const here = getcwd(nullptr, 0);
  const std::string whole = std::string(here == nullptr ? "" : here) + "/" + path;
  std::free(here);
  return whole;
}

// The state directory: the one that was asked for, or a temporary one that goes with the run.
class state_directory {
 public:
  state_directory() = default;
  state_directory(const state_directory &) = delete;
  state_directory &operator=(const state_directory &) = delete;
  ~state_directory() {
    if (m_temporary) (void)sim::remove_tree(m_path);
  }

  bool use(const std::string &asked) {
    m_path = asked;
    if (!asked.empty()) return sim::make_directories(asked) && access(asked.c_str(), W_OK) == 0;
    const char *const base = std::getenv("TMPDIR");
    m_path = absolute(base == nullptr || *base == '\0' ? "/tmp" : base) + "/board-sim-XXXXXX";
    m_temporary = mkdtemp(m_path.data()) != nullptr;
    return m_temporary;
  }
  [[nodiscard]] const std::string &path() const { return m_path; }

 private:
  std::string m_path;
  bool m_temporary = false;
};

bool is_executable(const std::string &path) {
  struct stat st {};
  return stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode) && access(path.c_str(), X_OK) == 0;
}

// Where the shell would find a program: the path as it stands, or the first match in PATH. "" if nowhere.
std::string find_program(const std::string &name) {
  if (name.find('/') != std::string::npos) return name;
  const char *const path = std::getenv("PATH");
  std::string_view rest = path == nullptr ? "/bin:/usr/bin" : path;
  while (!rest.empty()) {
    const auto end = std::min(rest.find(':'), rest.size());
    const auto candidate = std::string(rest.substr(0, end)) + "/" + name;
    if (is_executable(candidate)) return candidate;
    rest.remove_prefix(std::min(end + 1, rest.size()));
  }
  return "";
}

// The loader leaves a library of the other word size out, and the program would meet the real machine. A script is
// judged by its interpreter, which may be a script; the kernel refuses more than a few in a row.
bool has_own_word_size(const std::string &path, int scripts = 0) {
  char head[256] = "";
  const sim::file in{sim::sys::open(path.c_str(), O_RDONLY | O_CLOEXEC)};
  const auto length = read(in.fd(), head, sizeof(head) - 1);
  constexpr char own_class = sizeof(void *) == 8 ? 2 : 1;
  if (length > 4 && std::memcmp(head, "\177ELF", 4) == 0) return head[4] == own_class;
  if (length < 3 || std::memcmp(head, "#!", 2) != 0 || scripts > 4) return true;
  const char *const interpreter = head + 2 + std::strspn(head + 2, " \t");
  return has_own_word_size(std::string(interpreter, std::strcspn(interpreter, " \t\n")), scripts + 1);
}

// The running program. Signals that end a run are handed on to it.
volatile pid_t child = 0;

void hand_on(int signal, siginfo_t *info, void *) {
  // The terminal has sent its signals to the whole group already.
  if (info->si_code <= 0 && child > 0) (void)kill(child, signal);
}

void hand_on_signals() {
  struct sigaction act {};
  act.sa_sigaction = hand_on;
  act.sa_flags = SA_SIGINFO | SA_RESTART;
  for (const int signal : {SIGINT, SIGTERM, SIGHUP})
    (void)sigaction(signal, &act, nullptr);
}

// What has to be loaded first. A sanitizer's library wants to be before all others.
std::string preload_list(const std::string &library) {
  std::string list = library;
  Dl_info info{};
  if (void *const sanitizer = dlsym(RTLD_DEFAULT, "__asan_init"))
    if (dladdr(sanitizer, &info) != 0 && std::strstr(info.dli_fname, ".so") != nullptr)
      list = std::string(info.dli_fname) + ":" + list;
  if (const char *const others = std::getenv("LD_PRELOAD")) list += std::string(":") + others;
  return list;
}

[[noreturn]] void run_child(const std::string &program, const std::vector<std::string> &arguments, const sigset_t &mask,
                            int told) {
  (void)prctl(PR_SET_PDEATHSIG, SIGKILL);
  for (const int signal : {SIGINT, SIGTERM, SIGHUP})
    (void)std::signal(signal, SIG_DFL);
  (void)sigprocmask(SIG_SETMASK, &mask, nullptr);
  std::vector<char *> argv{const_cast<char *>(program.c_str())};
  for (const auto &argument : arguments)
    argv.push_back(const_cast<char *>(argument.c_str()));
  argv.push_back(nullptr);
  (void)execv(program.c_str(), argv.data());
  const int error = errno;
  (void)!write(told, &error, sizeof(error));
  _exit(exit_not_found);
}

// Runs the program to its end. Returns its exit status, 128 and the signal's number if a signal ended it.
int run(const std::string &program, const std::vector<std::string> &arguments) {
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) return fail_os("pipe");
  sigset_t all{};
  sigset_t before{};
  (void)sigfillset(&all);
  (void)sigprocmask(SIG_BLOCK, &all, &before);
  hand_on_signals();
  const pid_t pid = fork();
  if (pid == 0) run_child(program, arguments, before, ends[1]);
  child = pid;
  (void)sigprocmask(SIG_SETMASK, &before, nullptr);
  (void)close(ends[1]);
  if (pid < 0) return fail_os("fork");

  int error = 0;
  const bool failed = read(ends[0], &error, sizeof(error)) == sizeof(error);
  (void)close(ends[0]);
  int status = 0;
  while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  if (failed) {
    (void)std::fprintf(stderr, "board-sim: %s: %s\n", program.c_str(), std::strerror(error));
    return error == ENOENT ? exit_not_found : exit_not_executable;
  }
  if (WIFEXITED(status)) return WEXITSTATUS(status);
  const int signal = WTERMSIG(status);
  (void)std::fprintf(stderr, "board-sim: %s was ended by signal %d (%s)\n", program.c_str(), signal, strsignal(signal));
  return exit_signal + signal;
}

void end_holders(const std::vector<pid_t> &holders) {
  for (const auto pid : holders) {
    (void)kill(pid, SIGKILL);
    (void)waitpid(pid, nullptr, 0);
  }
}

void show_result(const std::string &state) {
  const auto records = sim::read_file(state + "/post/result");
  if (records) (void)std::fwrite(records->data(), 1, records->size(), stdout);
}

// Not put in place by renaming: the file may be a pipe.
int open_report(const std::string &path) {
  return path.empty() ? -1 : sim::sys::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC);
}

void write_report(const sim::file &report, const sim::options &opts) {
  const auto lines = sim::fault_report(opts);
  if (write(report.fd(), lines.data(), lines.size()) != static_cast<ssize_t>(lines.size()))
    (void)fail_os("fault report");
}

int run_on_board(sim::command *cmd) {
  const auto wrong = sim::board_check(cmd->opts);
  if (!wrong.empty()) return fail(wrong);
  if (!cmd->opts.state.empty()) cmd->opts.state = absolute(cmd->opts.state);
  if (!cmd->opts.trace.empty()) {
    cmd->opts.trace = absolute(cmd->opts.trace);
  }
  // Open until the end: a pipe's reader sees one writer.
  const sim::file log(
      cmd->opts.trace.empty() ? -1 : sim::sys::open(cmd->opts.trace.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC));
  if (!cmd->opts.trace.empty() && !log.is_open()) return fail_os(cmd->opts.trace);
  state_directory state;
  if (!state.use(cmd->opts.state)) return fail_os(state.path());
  cmd->opts.state = state.path();

  const auto own = sim::own_directory();
  const auto program = cmd->program.empty() ? own + "/post" : find_program(cmd->program);
  if (program.empty()) {
    (void)fail(cmd->program + ": not found in PATH");
    return exit_not_found;
  }
  if (!has_own_word_size(program)) {
    (void)fail(program + ": this board runs " + (sizeof(void *) == 8 ? "64" : "32") + "-bit programs only");
    return exit_not_executable;
  }
  const auto library = own.substr(0, own.rfind('/')) + "/lib/libboard_sim.so";
  if (access(library.c_str(), R_OK) != 0) return fail_os(library);
  const sim::file report{open_report(cmd->fault_report)};
  if (!cmd->fault_report.empty() && !report.is_open()) return fail_os(cmd->fault_report);
  std::string error;
  sim::fault_counts counts;
  sim::fault_counts::forget(cmd->opts);
  if (!counts.open(&cmd->opts, &error)) return fail(error);
  const auto holders = sim::lock_holders_start(cmd->opts, &error);
  if (!holders) return fail(error);

  (void)setenv("LD_PRELOAD", preload_list(library).c_str(), 1);
  (void)setenv(sim::options_variable, sim::options_format(cmd->opts).c_str(), 1);
  (void)setenv("BOARD_SIM_TSC_KHZ", std::to_string(sim::tsc_khz()).c_str(), 1);
  const int status = run(program, cmd->arguments);
  end_holders(*holders);
  if (report.is_open()) write_report(report, cmd->opts);
  if (cmd->show_result) show_result(cmd->opts.state);
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
      (void)std::printf("%s%s%s", usage_text, sim::options_help().c_str(), example_text);
      return 0;
    case sim::action::version:
      (void)std::printf("board-sim %s\n", BOARD_SIM_VERSION);
      return 0;
    case sim::action::list_faults:
      list_faults();
      return 0;
    case sim::action::run:
      break;
  }
  return run_on_board(&*cmd);
}
