#include "sim/launcher/run.h"

#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <sstream>

#include "sim/base/files.h"
#include "sim/base/real.h"

namespace sim {

namespace {

// What ends a process from outside, unless it is taken.
constexpr bool is_taken(int signal) {
  constexpr std::array others{SIGKILL, SIGSTOP,                                                // cannot be
                              SIGSEGV, SIGBUS,  SIGILL, SIGFPE,   SIGTRAP, SIGSYS,  SIGABRT,   // faults of its own
                              SIGCHLD, SIGCONT, SIGURG, SIGWINCH, SIGTSTP, SIGTTIN, SIGTTOU};  // end nothing
  return std::ranges::find(others, signal) == others.end();
}

std::array<struct sigaction, NSIG> found;  // dispositions, by the signal

volatile pid_t program_pid = 0;
volatile sig_atomic_t early_signal = 0;  // came before there was a program

void hand_on(int signal, siginfo_t *info, void *) {
  const keep_errno kept;
  if (program_pid == 0) early_signal = signal;
  // The terminal has sent its signals to the whole group already.
  const bool by_terminal = info->si_code > 0 && (signal == SIGHUP || signal == SIGINT || signal == SIGQUIT);
  if (program_pid > 0 && !by_terminal) (void)kill(program_pid, signal);
}

[[noreturn]] void exec_program(const std::string &program, const std::vector<std::string> &arguments,
                               const sigset_t &mask, const file &told) {
  (void)prctl(PR_SET_PDEATHSIG, SIGKILL);
  for (int signal = 1; signal < NSIG; ++signal)
    if (is_taken(signal)) (void)sigaction(signal, &found[static_cast<size_t>(signal)], nullptr);
  (void)sigprocmask(SIG_SETMASK, &mask, nullptr);
  std::vector<char *> argv{const_cast<char *>(program.c_str())};
  for (const auto &argument : arguments)
    argv.push_back(const_cast<char *>(argument.c_str()));
  argv.push_back(nullptr);
  (void)execv(program.c_str(), argv.data());
  const int error = errno;
  (void)!sys::write(told.fd(), &error, sizeof(error));
  _exit(127);
}

// Lets the loader list what it would load.
[[noreturn]] void exec_loader(const std::string &image, const file &list) {
  (void)setenv("LD_TRACE_LOADED_OBJECTS", "1", 1);
  (void)dup2(list.fd(), STDOUT_FILENO);
  const file null{sys::open("/dev/null", O_WRONLY | O_CLOEXEC)};
  (void)dup2(null.fd(), STDERR_FILENO);
  const std::array<char *, 2> argv{const_cast<char *>(image.c_str()), nullptr};
  (void)execv(image.c_str(), argv.data());
  _exit(127);
}

// Signals wait until it is known to whom they go.
pid_t start(const std::string &program, const std::vector<std::string> &arguments, const file &told) {
  sigset_t all{};
  sigset_t before{};
  (void)sigfillset(&all);
  (void)sigprocmask(SIG_BLOCK, &all, &before);
  const pid_t pid = fork();
  if (pid == 0) exec_program(program, arguments, before, told);
  if (pid > 0) program_pid = pid;
  (void)sigprocmask(SIG_SETMASK, &before, nullptr);
  if (pid > 0 && early_signal != 0) (void)kill(pid, early_signal);
  return pid;
}

int wait_for(pid_t pid) {
  // The number stays the program's until nothing is handed on any more.
  siginfo_t info{};
  while (waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOWAIT) < 0 && errno == EINTR) {
  }
  program_pid = 0;
  int status = 0;
  while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  return status;
}

}  // namespace

void take_signals() {
  for (int signal = 1; signal < NSIG; ++signal) {
    auto &before = found[static_cast<size_t>(signal)];
    if (!is_taken(signal) || sigaction(signal, nullptr, &before) != 0 || before.sa_handler == SIG_IGN) continue;
    struct sigaction act {};
    act.sa_sigaction = hand_on;
    act.sa_flags = SA_SIGINFO | SA_RESTART;
    if (signal == SIGPIPE || signal == SIGXFSZ) act.sa_handler = SIG_IGN;
    (void)sigaction(signal, &act, nullptr);
  }
}

bool loader_takes(const std::string &image, const std::string &library) {
  auto list = make_pipe();
  const pid_t pid = fork();
  if (pid == 0) exec_loader(image, list.writing);
  list.writing.close();
  const auto text = read_all(list.reading);
  if (pid > 0) (void)waitpid(pid, nullptr, 0);
  return text && text->find("\t" + library + " (0x") != std::string::npos;
}

run_end run_program(const std::string &program, const std::vector<std::string> &arguments) {
  auto told = make_pipe();
  if (!told.writing.is_open() || prctl(PR_SET_CHILD_SUBREAPER, 1) != 0) return {.error = errno};
  const pid_t pid = start(program, arguments, told.writing);
  if (pid < 0) return {.error = errno};
  told.writing.close();
  const auto answer = read_all(told.reading);
  const int status = wait_for(pid);
  run_end end;
  if (answer && answer->size() == sizeof(end.error)) std::memcpy(&end.error, answer->data(), sizeof(end.error));
  if (WIFEXITED(status)) end.status = WEXITSTATUS(status);
  if (WIFSIGNALED(status)) end.signal = WTERMSIG(status);
  return end;
}

void end_children() {
  const auto list = "/proc/self/task/" + std::to_string(getpid()) + "/children";
  do {
    std::istringstream pids(read_file(list).value_or(""));
    for (pid_t pid = 0; pids >> pid;)
      (void)kill(pid, SIGKILL);
  } while (waitpid(-1, nullptr, 0) > 0 || errno == EINTR);
}

}  // namespace sim
