#include "sim/host/run.h"

#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <sstream>

#include "sim/host/files.h"
#include "sim/host/real.h"

namespace sim {

namespace {

constexpr std::array taken{SIGHUP, SIGINT, SIGQUIT, SIGTERM, SIGPIPE};

std::array<struct sigaction, taken.size()> found;  // dispositions, in the order of `taken`

volatile pid_t program_pid = 0;
volatile sig_atomic_t early_signal = 0;  // came before there was a program

void hand_on(int signal, siginfo_t *info, void *) {
  const keep_errno kept;
  if (program_pid == 0) early_signal = signal;
  // The terminal has sent its signals to the whole group already.
  if (program_pid > 0 && info->si_code <= 0) (void)kill(program_pid, signal);
}

[[noreturn]] void exec_program(const std::string &program, const std::vector<std::string> &arguments,
                               const sigset_t &mask, const file &told) {
  (void)prctl(PR_SET_PDEATHSIG, SIGKILL);
  for (size_t i = 0; i < taken.size(); ++i)
    (void)sigaction(taken[i], &found[i], nullptr);
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
  for (size_t i = 0; i < taken.size(); ++i) {
    (void)sigaction(taken[i], nullptr, &found[i]);
    if (found[i].sa_handler == SIG_IGN) continue;
    struct sigaction act {};
    act.sa_sigaction = hand_on;
    act.sa_flags = SA_SIGINFO | SA_RESTART;
    if (taken[i] == SIGPIPE) act.sa_handler = SIG_IGN;
    (void)sigaction(taken[i], &act, nullptr);
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
