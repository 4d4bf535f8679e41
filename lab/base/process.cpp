#include "lab/base/process.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>

namespace lab {
namespace {

using clock = std::chrono::steady_clock;

// In the child: nothing but system calls.
[[noreturn]] void become(char *const *argv, const rlimit &processor, int output, int told, pid_t parent) {
  (void)setpgid(0, 0);
  (void)prctl(PR_SET_PDEATHSIG, SIGTERM);
  (void)setrlimit(RLIMIT_CPU, &processor);
  if (getppid() != parent) _exit(127);
  struct sigaction standard {};
  standard.sa_handler = SIG_DFL;
  for (const int signal : {SIGINT, SIGTERM, SIGHUP, SIGPIPE})
    (void)sigaction(signal, &standard, nullptr);
  sigset_t none;
  (void)sigemptyset(&none);
  (void)sigprocmask(SIG_SETMASK, &none, nullptr);
  const int input = open("/dev/null", O_RDONLY | O_CLOEXEC);
  (void)dup2(input, STDIN_FILENO);
  (void)dup2(output, STDOUT_FILENO);
  (void)dup2(output, STDERR_FILENO);
  (void)execv(argv[0], argv);
  const int error = errno;
  (void)!write(told, &error, sizeof error);
  _exit(127);
}

double seconds_of(const timeval &time) {
  return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
}

// Reads one piece. Returns whether there may be more.
bool take_output(int fd, process_result *result) {
  std::array<char, 16384> piece;
  const auto length = read(fd, piece.data(), piece.size());
  if (length < 0) return errno == EINTR;
  const auto room = output_limit - result->output.size();
  result->output.append(piece.data(), std::min(static_cast<size_t>(length), room));
  if (static_cast<size_t>(length) > room) result->more_output = true;
  return length > 0;
}

// Reads to the end of the output, of the time or of our own work.
void follow(int fd, int stop_fd, clock::time_point end, process_result *result) {
  while (true) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - clock::now()).count();
    result->timed_out = left <= 0;
    if (result->timed_out) return;
    std::array<pollfd, 2> wait{{{fd, POLLIN, 0}, {stop_fd, POLLIN, 0}}};
    const auto ready = poll(wait.data(), wait.size(), static_cast<int>(std::min<int64_t>(left, 1'000'000)));
    if (ready < 0 && errno != EINTR) return;
    if (ready <= 0) continue;
    result->stopped = wait[1].revents != 0;
    if (result->stopped) return;
    if (wait[0].revents != 0 && !take_output(fd, result)) return;
  }
}

// Waits for the program itself; what it left running in its group goes with it, and is gone when this returns: orphans
// become children of this process.
void finish(pid_t child, process_result *result) {
  if (result->timed_out || result->stopped) (void)kill(-child, SIGKILL);
  // Until it is waited for, nobody else can have the group's number.
  siginfo_t info{};
  while (waitid(P_PID, static_cast<id_t>(child), &info, WEXITED | WNOWAIT) < 0 && errno == EINTR) {
  }
  (void)kill(-child, SIGKILL);
  int status = 0;
  rusage used{};
  while (wait4(child, &status, 0, &used) < 0 && errno == EINTR) {
  }
  while (waitpid(-child, nullptr, 0) > 0 || errno == EINTR) {
  }
  result->status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  result->cpu_seconds = seconds_of(used.ru_utime) + seconds_of(used.ru_stime);
}

}  // namespace

process_result run_process(const std::vector<std::string> &words, const run_limits &limits, int stop_fd) {
  process_result result;
  std::vector<char *> argv;
  argv.reserve(words.size() + 1);
  for (const auto &word : words)
    argv.push_back(const_cast<char *>(word.c_str()));
  argv.push_back(nullptr);

  int output[2];
  int told[2];
  if (pipe2(output, O_CLOEXEC) != 0) return result.error = errno, result;
  if (pipe2(told, O_CLOEXEC) != 0) {
    result.error = errno;
    (void)close(output[0]);
    (void)close(output[1]);
    return result;
  }
  // Who holds the signal back is killed soon after.
  const auto seconds = static_cast<rlim_t>(std::chrono::ceil<std::chrono::seconds>(limits.processor).count());
  const rlimit processor{seconds, seconds + 2};
  const auto start = clock::now();
  const pid_t parent = getpid();
  (void)prctl(PR_SET_CHILD_SUBREAPER, 1);
  const pid_t child = fork();
  if (child == 0) become(argv.data(), processor, output[1], told[1], parent);
  if (child < 0) result.error = errno;
  (void)close(output[1]);
  (void)close(told[1]);
  if (child > 0) {
    (void)setpgid(child, child);
    (void)!read(told[0], &result.error, sizeof result.error);
    follow(output[0], stop_fd, start + limits.wall, &result);
    finish(child, &result);
    const bool killed = result.status == 128 + SIGKILL && result.cpu_seconds >= static_cast<double>(seconds);
    result.timed_out |= killed || result.status == 128 + SIGXCPU;
  }
  (void)close(output[0]);
  (void)close(told[0]);
  result.seconds = std::chrono::duration<double>(clock::now() - start).count();
  return result;
}

}  // namespace lab
