#include "tests/unit/process.h"

#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <array>
#include <cstdio>

namespace {

struct ends {
  int ours;
  int theirs;
};

[[noreturn]] void give_up(const char *what) {
  perror(what);
  abort();
}

// A terminal whose output reaches us byte for byte and that echoes nothing.
ends make_terminal() {
  ends made{};
  if (openpty(&made.ours, &made.theirs, nullptr, nullptr, nullptr) < 0) give_up("openpty");
  termios mode{};
  tcgetattr(made.theirs, &mode);
  mode.c_lflag &= ~static_cast<tcflag_t>(ECHO);
  mode.c_oflag &= ~static_cast<tcflag_t>(OPOST);
  tcsetattr(made.theirs, TCSANOW, &mode);
  fcntl(made.ours, F_SETFD, FD_CLOEXEC);
  return made;
}

ends make_pipe() {
  std::array<int, 2> fds{};
  if (pipe2(fds.data(), O_CLOEXEC) < 0) give_up("pipe2");
  return {fds[0], fds[1]};
}

int open_or_give_up(const char *path, int flags) {
  const int fd = open(path, flags | O_CLOEXEC);
  if (fd < 0) give_up(path);
  return fd;
}

[[noreturn]] void become(const process &what, int in, int out, int err) {
  dup2(in, STDIN_FILENO);
  dup2(out, STDOUT_FILENO);
  dup2(err, STDERR_FILENO);
  for (const auto &[name, value] : what.env)
    setenv(name.c_str(), value.c_str(), 1);
  if (what.file_limit) {
    const rlimit limit{*what.file_limit, *what.file_limit};
    setrlimit(RLIMIT_FSIZE, &limit);
  }
  std::vector<char *> argv;
  for (const std::string &arg : what.args)
    argv.push_back(const_cast<char *>(arg.c_str()));
  argv.push_back(nullptr);
  execvp(argv[0], argv.data());
  give_up(argv[0]);
}

// Reads until both are at their end; a terminal ends with an error.
void collect(int out, std::string *out_text, int err, std::string *err_text) {
  std::array<pollfd, 2> polled{{{out, POLLIN, 0}, {err, POLLIN, 0}}};
  const std::array<std::string *, 2> texts{out_text, err_text};
  while (polled[0].fd >= 0 || polled[1].fd >= 0) {
    if (poll(polled.data(), polled.size(), -1) < 0) give_up("poll");
    for (size_t i = 0; i < polled.size(); ++i) {
      if (polled[i].revents == 0) continue;
      std::array<char, 4096> chunk;
      const ssize_t size = read(polled[i].fd, chunk.data(), chunk.size());
      if (size > 0) {
        texts[i]->append(chunk.data(), static_cast<size_t>(size));
      } else {
        close(polled[i].fd);
        polled[i].fd = -1;
      }
    }
  }
}

}  // namespace

process_result run(const process &what) {
  ends in{-1, -1};
  if (what.typed) {
    in = make_terminal();
    if (write(in.ours, what.typed->data(), what.typed->size()) < 0) give_up("typing");
  } else {
    in.theirs = open_or_give_up("/dev/null", O_RDONLY);
  }
  const ends out = what.output.empty() ? make_pipe() : ends{-1, open_or_give_up(what.output.c_str(), O_WRONLY)};
  const ends err = what.err_is_terminal ? make_terminal() : make_pipe();

  const pid_t child = fork();
  if (child < 0) give_up("fork");
  if (child == 0) become(what, in.theirs, out.theirs, err.theirs);
  close(in.theirs);
  close(out.theirs);
  close(err.theirs);

  process_result result{};
  collect(out.ours, &result.out, err.ours, &result.err);
  int status = 0;
  if (waitpid(child, &status, 0) != child) give_up("waitpid");
  if (in.ours >= 0) close(in.ours);
  result.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  return result;
}
