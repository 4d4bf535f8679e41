// Locks between processes, on real lock files.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstring>
#include <fstream>
#include <string>
#include <utility>

#include "platform/mfgd/cmn_lib/diag_util/diag_dbg.h"
#include "platform/mfgd/cmn_lib/diag_util/lock.h"
#include "tests/unit/host.h"

namespace {

// What the next record lock request fails with; 0 for none.
int request_error = 0;

}  // namespace

extern "C" int test_fcntl(int fd, int cmd, ...) asm("fcntl64");

int test_fcntl(int fd, int cmd, ...) {
  va_list args;
  va_start(args, cmd);
  void *const arg = va_arg(args, void *);
  va_end(args);
  if (request_error != 0 && (cmd == F_SETLK || cmd == F_SETLKW)) {
    errno = std::exchange(request_error, 0);
    return -1;
  }
#ifdef SYS_fcntl64
  return static_cast<int>(syscall(SYS_fcntl64, fd, cmd, arg));
#else
  return static_cast<int>(syscall(SYS_fcntl, fd, cmd, arg));
#endif
}

namespace {

using operation = uint32_t (*)(int32_t);

class lock_test : public testing::Test {
 protected:
  lock_test() : name_("post-test-lock-" + std::to_string(getpid())), path_("/var/lock/" + name_ + ".lock") {}
  ~lock_test() override { (void)unlink(path_.c_str()); }

  const std::string name_;
  const std::string path_;
};

// A child process that took a lock, which it drops when it is told to or, with a time, by itself.
class holder {
 public:
  holder(const std::string &name, operation take, useconds_t usec = 0) {
    EXPECT_EQ(pipe(ready_), 0);
    EXPECT_EQ(pipe(end_), 0);
    pid_ = fork();
    if (pid_ == 0) {
      (void)close(end_[1]);
      const uint32_t rc = take(lock_create(name.c_str()));
      char byte = static_cast<char>(rc);
      (void)!write(ready_[1], &byte, 1);
      if (usec != 0)
        (void)usleep(usec);
      else
        (void)!read(end_[0], &byte, 1);
      _exit(0);
    }
    char byte = 1;
    EXPECT_EQ(read(ready_[0], &byte, 1), 1);
    EXPECT_EQ(byte, 0);
  }
  ~holder() {
    release();
    for (const int fd : {ready_[0], ready_[1], end_[0]})
      (void)close(fd);
  }
  void release() {
    if (pid_ == 0) return;
    (void)close(end_[1]);
    EXPECT_EQ(waitpid(pid_, nullptr, 0), pid_);
    pid_ = 0;
  }

 private:
  int ready_[2];
  int end_[2];
  pid_t pid_;
};

TEST_F(lock_test, creates_a_private_empty_file_and_leaves_it) {
  { std::ofstream(path_) << "left over"; }
  const int32_t lock = lock_create(name_.c_str());
  ASSERT_GE(lock, 0);
  struct stat info = {};
  ASSERT_EQ(stat(path_.c_str(), &info), 0);
  EXPECT_EQ(info.st_size, 0);
  EXPECT_EQ(fcntl(lock, F_GETFL) & O_ACCMODE, O_RDWR);
  EXPECT_EQ(lock_destroy(lock), 0U);
  EXPECT_EQ(fcntl(lock, F_GETFL), -1);
  EXPECT_EQ(access(path_.c_str(), F_OK), 0);
  (void)unlink(path_.c_str());
  EXPECT_EQ(lock_destroy(lock_create(name_.c_str())), 0U);
  ASSERT_EQ(stat(path_.c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 0777U, 0600U);
}

TEST_F(lock_test, cuts_paths_to_286_characters) {
  // "/var/lock/" has 10 characters; a file name ends at 255.
  const std::string directory = std::string(40, 'd');
  const std::string full = directory + "/" + std::string(235, 'n');
  const auto lines = hooks_of([&] { EXPECT_LT(lock_create(full.c_str()), 0); }, true);
  ASSERT_EQ(lines.size(), 3U);
  const std::string path = ("/var/lock/" + full).substr(0, 286);
  EXPECT_EQ(lines[0], (hook_line{DIAG_LVL_DEBUG, "creating lock: " + path + "\n"}));
}

TEST_F(lock_test, says_why_a_lock_cannot_be_created_and_goes_on) {
  const auto lines = hooks_of([] { EXPECT_EQ(lock_create("no-such-directory/lock"), -1); }, true);
  const std::string path = "/var/lock/no-such-directory/lock.lock";
  const std::vector<hook_line> expected = {
      {DIAG_LVL_DEBUG, "creating lock: " + path + "\n"},
      {DIAG_LVL_ERR, "ERROR lock_create(): error creating lock: " + path +
                         "\n: OS Error: errno: " + std::to_string(ENOENT) + ", " + strerror(ENOENT) + " \n"},
      {DIAG_LVL_DEBUG, "Created lock with path: " + path + " with fd: 4294967295.\n"},
  };
  EXPECT_EQ(lines, expected);
}

TEST_F(lock_test, shares_reading_and_excludes_writing) {
  struct {
    operation held;
    operation asked;
    uint32_t rc;
  } const cases[] = {
      {lock_get_rd_lock, lock_get_rd_lock, 0},
      {lock_get_rd_lock, lock_get_wr_lock, LOCK_ERR_BUSY},
      {lock_get_wr_lock, lock_get_rd_lock, LOCK_ERR_BUSY},
      {lock_get_wr_lockw, lock_get_wr_lock, LOCK_ERR_BUSY},
      {lock_get_rd_lockw, lock_get_rd_lockw, 0},
  };
  const int32_t lock = lock_create(name_.c_str());
  for (const auto &c : cases) {
    holder other(name_, c.held);
    EXPECT_EQ(hooks_of([&] { EXPECT_EQ(c.asked(lock), c.rc); }), std::vector<hook_line>{});
    EXPECT_EQ(lock_drop_rd_lock(lock), 0U);
    other.release();
    EXPECT_EQ(c.asked(lock), 0U) << "the other one has gone";
    EXPECT_EQ(lock_drop_wr_lock(lock), 0U);
  }
  (void)lock_destroy(lock);
}

TEST_F(lock_test, never_waits_for_itself_and_releases_what_it_does_not_hold) {
  const int32_t lock = lock_create(name_.c_str());
  const int32_t again = lock_create(name_.c_str());
  EXPECT_EQ(lock_drop_rd_lock(lock), 0U);
  EXPECT_EQ(lock_get_rd_lockw(lock), 0U);
  EXPECT_EQ(lock_get_wr_lock(again), 0U);
  // Closing one descriptor drops what the process holds through the other.
  (void)lock_destroy(lock);
  const outcome other = run_child([&] { _exit(static_cast<int>(lock_get_wr_lock(lock_create(name_.c_str())))); });
  EXPECT_EQ(other.exit_code, 0);
  (void)lock_destroy(again);
}

volatile sig_atomic_t signals = 0;

TEST_F(lock_test, keeps_waiting_through_signals_and_traces_once) {
  const int32_t lock = lock_create(name_.c_str());
  struct sigaction action = {};
  action.sa_handler = [](int) { signals = signals + 1; };
  ASSERT_EQ(sigaction(SIGALRM, &action, nullptr), 0);
  const itimerval every_5_ms = {{0, 5000}, {0, 5000}};
  const itimerval never = {};
  for (const auto &[take, trace] :
       {std::pair{&lock_get_rd_lockw, "taking rd_lockw: "}, std::pair{&lock_get_wr_lockw, "taking wr_lockw: "}}) {
    const holder other(name_, lock_get_wr_lock, 60000);
    signals = 0;
    (void)setitimer(ITIMER_REAL, &every_5_ms, nullptr);
    const auto lines = hooks_of([&, acquire = take] { EXPECT_EQ(acquire(lock), 0U); }, true);
    (void)setitimer(ITIMER_REAL, &never, nullptr);
    EXPECT_GE(signals, 3);
    EXPECT_EQ(lines, (std::vector<hook_line>{{DIAG_LVL_DEBUG, trace + std::to_string(lock) + ".\n"}}));
    (void)lock_drop_wr_lock(lock);
  }
  (void)lock_destroy(lock);
}

TEST_F(lock_test, takes_both_errors_of_a_held_byte_for_contention_where_it_does_not_wait) {
  const int32_t lock = lock_create(name_.c_str());
  for (const int error : {EACCES, EAGAIN}) {
    for (const operation take : {lock_get_rd_lock, lock_get_wr_lock}) {
      request_error = error;
      EXPECT_EQ(take(lock), LOCK_ERR_BUSY);
    }
    for (const auto &[op, name] :
         {std::pair{&lock_get_rd_lockw, "lock_get_rd_lockw"}, std::pair{&lock_drop_wr_lock, "lock_drop_wr_lock"}}) {
      const auto call = [&, operation = op] {
        request_error = error;
        (void)operation(lock);
      };
      expect_assertion(call, "cmn_lib/diag_util/lock.cpp", name, "0");
    }
  }
  (void)lock_destroy(lock);
}

TEST_F(lock_test, ends_the_process_on_any_other_failure) {
  struct {
    const char *name;
    operation op;
    const char *request;
  } const cases[] = {
      // clang-format off
      {"lock_get_rd_lock",  lock_get_rd_lock,  "F_SETLK, F_RDLCK"},
      {"lock_get_rd_lockw", lock_get_rd_lockw, "F_SETLKW, F_RDLCK"},
      {"lock_get_wr_lock",  lock_get_wr_lock,  "F_SETLK, F_WRLCK"},
      {"lock_get_wr_lockw", lock_get_wr_lockw, "F_SETLKW, F_WRLCK"},
      {"lock_drop_rd_lock", lock_drop_rd_lock, "F_SETLK, F_UNLCK"},
      {"lock_drop_wr_lock", lock_drop_wr_lock, "F_SETLK, F_UNLCK"},
      {"lock_destroy",      lock_destroy,      nullptr},
      // clang-format on
  };
  for (const auto &c : cases) {
    const std::string error = std::string("ERROR ") + c.name + "(): ";
    const auto negative = [&] { (void)c.op(-1); };
    expect_assertion(negative, "cmn_lib/diag_util/lock.cpp", c.name, "0");
    EXPECT_EQ(run_child(negative).out, error + "Lock not initialized.  Fatal error, exitting.\n");
    if (c.request == nullptr) continue;
    const auto closed = [&] { (void)c.op(1000); };
    expect_assertion(closed, "cmn_lib/diag_util/lock.cpp", c.name, "0");
    EXPECT_EQ(run_child(closed).out, error + "lock_req( m_lock, " + c.request +
                                         ") failed: OS Error: errno: " + std::to_string(EBADF) + ", " +
                                         strerror(EBADF) + " \n" + error + "Fatal error.  Exitting...\n");
  }
}

TEST_F(lock_test, takes_commands_by_both_numbers) {
  const int32_t lock = lock_create(name_.c_str());
  for (const int32_t cmd : {6, F_SETLK}) {
    EXPECT_EQ(lock_req(lock, cmd, F_WRLCK), 0);
    const outcome other = run_child([&] {
      struct flock held = {};
      held.l_type = F_WRLCK;
      _exit(fcntl(lock, F_GETLK, &held) == 0 && held.l_len == 1 ? 0 : 1);
    });
    EXPECT_EQ(other.exit_code, 0);
    EXPECT_EQ(lock_drop_wr_lock(lock), 0U);
  }
  (void)lock_destroy(lock);
}

TEST_F(lock_test, takes_0_for_a_handle) {
  const outcome child = run_child([&] {
    (void)close(0);
    if (lock_create(name_.c_str()) != 0) _exit(1);
    if (lock_get_wr_lock(0) != 0 || lock_drop_wr_lock(0) != 0 || lock_destroy(0) != 0) _exit(2);
  });
  EXPECT_EQ(child.exit_code, 0) << child.out;
}

}  // namespace
