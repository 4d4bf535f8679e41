#include "tests/support/host.h"

#include "platform/mfgd/cmn_lib/diag_util/owner.h"

namespace {

// Takes what is written to a descriptor.
class scratch_file {
 public:
  scratch_file() { EXPECT_TRUE(m_fd); }

  void take_over(int descriptor) const { (void)dup2(m_fd.get(), descriptor); }
  [[nodiscard]] std::string contents() const {
    std::string text;
    std::array<char, 4096> piece{};
    off_t at = 0;
    for (ssize_t got; (got = pread(m_fd.get(), piece.data(), piece.size(), at)) > 0; at += got)
      text.append(piece.data(), static_cast<size_t>(got));
    return text;
  }

 private:
  unique_fd m_fd{memfd_create("scratch", MFD_CLOEXEC)};
};

// What the caller of the tests ignores, as nohup does, and blocks: a child would inherit it.
void take_all_signals() {
  for (int number = 1; number < NSIG; ++number) {
    struct sigaction action {};
    if (sigaction(number, nullptr, &action) == 0 && action.sa_handler == SIG_IGN) (void)signal(number, SIG_DFL);
  }
  sigset_t none;
  (void)sigemptyset(&none);
  (void)sigprocmask(SIG_SETMASK, &none, nullptr);
}

}  // namespace

std::string stdout_of(const std::function<void()> &body) {
  const scratch_file out;
  (void)fflush(stdout);
  const int saved = dup(STDOUT_FILENO);
  out.take_over(STDOUT_FILENO);
  body();
  (void)fflush(stdout);
  (void)dup2(saved, STDOUT_FILENO);
  (void)close(saved);
  return out.contents();
}

size_t open_descriptors() {
  const std::filesystem::directory_iterator all("/proc/self/fd");
  return static_cast<size_t>(std::distance(begin(all), end(all)));
}

bool is_of_coverage(int fd) {
  std::array<char, 4096> path{};
  const auto link = "/proc/self/fd/" + std::to_string(fd);
  const ssize_t length = readlink(link.c_str(), path.data(), path.size());
  return std::string_view(path.data(), static_cast<size_t>(std::max<ssize_t>(length, 0))).ends_with(".gcda");
}

outcome run_child(const std::function<void()> &body) {
  const scratch_file out, err;
  (void)fflush(nullptr);
  const pid_t child = fork();
  if (child == 0) {
    take_all_signals();
    out.take_over(STDOUT_FILENO);
    err.take_over(STDERR_FILENO);
    body();
    (void)fflush(nullptr);
    _exit(0);
  }
  int status = 0;
  EXPECT_EQ(waitpid(child, &status, 0), child);
  return {WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status), out.contents(), err.contents(), "", ""};
}

void isolated(const std::function<void()> &body) {
  const auto parts = [] { return testing::UnitTest::GetInstance()->current_test_info()->result()->total_part_count(); };
  const outcome child = run_child([&] {
    const int before = parts();
    body();
    (void)fflush(stdout);
    _exit(parts() != before ? 1 : 0);
  });
  EXPECT_EQ(child.status, 0) << child.out << child.err;
}

outcome expect_assertion(const std::function<void()> &body, const std::string &file, const std::string &op,
                         const std::string &text) {
  SCOPED_TRACE(op + " " + text);
  outcome child = run_child(body);
  EXPECT_EQ(child.status, 128 + SIGABRT);
  const size_t line = child.err.find(": ", child.err.find(file + ":"));
  EXPECT_EQ(child.err.substr(std::min(line, child.err.size())), ": " + op + ": Assertion `" + text + "' failed.\n");
  return child;
}
