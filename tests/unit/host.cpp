#include "tests/unit/host.h"

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <ostream>

#include "platform/mfgd/cmn_lib/diag_util/diag_dbg.h"

namespace {

std::vector<hook_line> *recording = nullptr;

__attribute__((format(printf, 2, 0))) int print(int32_t level, const char *fmt, va_list args) {
  if (recording == nullptr && level == DIAG_LVL_DEBUG) return 0;
  std::array<char, 4096> text{};
  const int length = vsnprintf(text.data(), text.size(), fmt, args);
  if (recording != nullptr) recording->push_back({level, text.data()});
  if (level == DIAG_LVL_DEBUG) return length;
  (void)fputs(text.data(), stdout);
  (void)fflush(stdout);
  return length;
}

std::string contents(int fd) {
  std::string text;
  std::array<char, 4096> piece{};
  off_t at = 0;
  for (ssize_t got; (got = pread(fd, piece.data(), piece.size(), at)) > 0; at += got)
    text.append(piece.data(), static_cast<size_t>(got));
  return text;
}

int scratch_file(const char *name) {
  const int fd = memfd_create(name, 0);
  EXPECT_GE(fd, 0);
  return fd;
}

}  // namespace

int cli_printf(const char *fmt, ...) {
  va_list args;
  va_start(args, fmt);
  const int length = print(0, fmt, args);
  va_end(args);
  return length;
}

void diag_dbg_print(int32_t level, const char *fmt, ...) {
  va_list args;
  va_start(args, fmt);
  (void)print(level, fmt, args);
  va_end(args);
}

void PrintTo(const hook_line &line, std::ostream *os) {
  *os << line.level << " " << testing::PrintToString(line.text);
}

std::vector<hook_line> hooks_of(const std::function<void()> &body, bool traces) {
  std::vector<hook_line> lines;
  recording = &lines;
  body();
  recording = nullptr;
  if (!traces) std::erase_if(lines, [](const hook_line &line) { return line.level == DIAG_LVL_DEBUG; });
  return lines;
}

outcome run_child(const std::function<void()> &body) {
  const int out = scratch_file("out");
  const int err = scratch_file("err");
  (void)fflush(nullptr);
  const pid_t pid = fork();
  if (pid == 0) {
    (void)dup2(out, STDOUT_FILENO);
    (void)dup2(err, STDERR_FILENO);
    body();
    (void)fflush(nullptr);
    _exit(0);
  }
  int status = 0;
  EXPECT_EQ(waitpid(pid, &status, 0), pid);
  const outcome result = {WIFEXITED(status) ? WEXITSTATUS(status) : -1, WIFSIGNALED(status) ? WTERMSIG(status) : 0,
                          contents(out), contents(err)};
  (void)close(out);
  (void)close(err);
  return result;
}

std::string stdout_of(const std::function<void()> &body) {
  const int out = scratch_file("out");
  (void)fflush(stdout);
  const int saved = dup(STDOUT_FILENO);
  (void)dup2(out, STDOUT_FILENO);
  body();
  (void)fflush(stdout);
  (void)dup2(saved, STDOUT_FILENO);
  (void)close(saved);
  const std::string text = contents(out);
  (void)close(out);
  return text;
}

void expect_assertion(const std::function<void()> &body, const std::string &file, const std::string &op,
                      const std::string &text) {
  SCOPED_TRACE(op + " " + text);
  const outcome child = run_child(body);
  EXPECT_EQ(child.signal, SIGABRT);
  const size_t at = child.err.find(file + ":");
  ASSERT_NE(at, std::string::npos) << child.err;
  const size_t after_line = child.err.find(": ", at);
  ASSERT_NE(after_line, std::string::npos) << child.err;
  EXPECT_EQ(child.err.substr(after_line), ": " + op + ": Assertion `" + text + "' failed.\n");
}
