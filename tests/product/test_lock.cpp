// Locks between processes, on the board's lock directory.
#include "platform/mfgd/cmn_lib/diag_util/diag_dbg.h"
#include "platform/mfgd/cmn_lib/diag_util/lock.h"
#include "tests/support/board.h"

using request = std::array<long long, 7>;  // command, type, whence, start, length, process, errno before it
static std::vector<request> requests;
static std::vector<int> failures;  // of the next requests

extern "C" {
int __real_fcntl(int fd, int cmd, ...), __wrap_fcntl(int fd, int cmd, ...);
}

int __wrap_fcntl(int fd, int cmd, ...) {
  va_list args;
  va_start(args, cmd);
  auto *const lock = va_arg(args, struct flock *);
  va_end(args);
  if ((cmd != F_SETLK && cmd != F_SETLKW) || is_of_coverage(fd)) return __real_fcntl(fd, cmd, lock);
  requests.push_back({cmd, lock->l_type, lock->l_whence, lock->l_start, lock->l_len, lock->l_pid, errno});
  if (failures.empty()) return __real_fcntl(fd, cmd, lock);
  errno = failures.back();
  failures.pop_back();
  return -1;
}

namespace {

constexpr char source[] = "cmn_lib/diag_util/lock.cpp";

// clang-format off
struct lock_case { const char *name; uint32_t (*op)(int32_t); int cmd, type; const char *request, *trace; };
const lock_case cases[] = {
    {"lock_get_rd_lock",  lock_get_rd_lock,  F_SETLK,  F_RDLCK, "F_SETLK, F_RDLCK",  "taking rd_lock: "},
    {"lock_get_rd_lockw", lock_get_rd_lockw, F_SETLKW, F_RDLCK, "F_SETLKW, F_RDLCK", "taking rd_lockw: "},
    {"lock_get_wr_lock",  lock_get_wr_lock,  F_SETLK,  F_WRLCK, "F_SETLK, F_WRLCK",  "taking wr_lock: "},
    {"lock_get_wr_lockw", lock_get_wr_lockw, F_SETLKW, F_WRLCK, "F_SETLKW, F_WRLCK", "taking wr_lockw: "},
    {"lock_drop_rd_lock", lock_drop_rd_lock, F_SETLK,  F_UNLCK, "F_SETLK, F_UNLCK",  "dropping rd_lock: "},
    {"lock_drop_wr_lock", lock_drop_wr_lock, F_SETLK,  F_UNLCK, "F_SETLK, F_UNLCK",  "dropping wr_lock: "},
};
// clang-format on

// What an operation without a handle prints before it ends the process, traces included.
std::string without_handle(const char *name, uint32_t (*op)(int32_t)) {
  return expect_assertion([op] { (void)hooks_of([op] { (void)op(-1); }, true); }, source, name, "0").out;
}

TEST(lock, makes_one_request_and_tells_contention_from_failure) {
  const test_board board;
  const int32_t lock = lock_create("x");
  for (const auto &c : cases) {
    const std::string error = std::string("ERROR ") + c.name + "(): ";
    for (const int failure : {0, EACCES, EAGAIN, EINTR, EDEADLK}) {
      failures = std::vector(failure == 0 ? 0 : failure == EINTR ? 3 : 1, failure);
      const bool busy = (failure == EACCES || failure == EAGAIN) && c.cmd == F_SETLK && c.type != F_UNLCK;
      if (busy || failure == 0 || (failure == EINTR && c.cmd == F_SETLKW)) {
        requests.clear();
        errno = EIO;
        EXPECT_EQ(hooks_of([&] { EXPECT_EQ(c.op(lock), busy ? LOCK_ERR_BUSY : 0U); }, true),
                  (std::vector<hook_line>{{DIAG_LVL_DEBUG, c.trace + std::to_string(lock) + ".\n"}}));
        EXPECT_EQ(requests, std::vector(failure == EINTR ? 4 : 1, request{c.cmd, c.type, SEEK_SET, 0, 1, 0, 0}));
      } else {
        EXPECT_EQ(expect_assertion([&] { (void)c.op(lock); }, source, c.name, "0").out,
                  "<3>" + error + "lock_req( m_lock, " + c.request +
                      ") failed: OS Error: errno: " + std::to_string(failure) + ", " + strerror(failure) + " \n<3>" +
                      error + "Fatal error.  Exitting...\n");
      }
    }
    failures.clear();
    EXPECT_EQ(without_handle(c.name, c.op), "<3>" + error + "Lock not initialized.  Fatal error, exitting.\n");
  }
  EXPECT_THAT(without_handle("lock_destroy", lock_destroy), StartsWith("<3>ERROR lock_destroy(): Lock not"));
  EXPECT_EQ(lock_req(lock, 6, F_WRLCK), 0);  // F_SETLK of a caller with 32-bit file offsets
  EXPECT_EQ(requests.back(), (request{F_SETLK, F_WRLCK, SEEK_SET, 0, 1, 0, 0}));
}

TEST(lock, keeps_a_private_empty_file_at_a_cut_path) {
  const test_board board;
  const std::string path = board.file("var/lock/x.lock");
  const size_t open = open_descriptors();
  errno = EIO;
  const int32_t lock = lock_create("x");
  EXPECT_EQ(errno, 0);
  errno = EIO;
  EXPECT_EQ(hooks_of([&] { EXPECT_EQ(lock_destroy(lock), 0U); }, true),
            (std::vector<hook_line>{{7, "Destroying lock with fd: " + std::to_string(lock) + ".\n"}}));
  EXPECT_TRUE(errno == 0 && open_descriptors() == open);
  EXPECT_EQ(std::filesystem::status(path).permissions(), std::filesystem::perms{0600});
  std::filesystem::resize_file(path, 5);
  EXPECT_EQ(lock_destroy(lock_create("x")), 0U);
  EXPECT_EQ(std::filesystem::file_size(path), 0U);
  const auto with_handle_0 = [] { _exit(close(0) == 0 && lock_create("x") == 0 && lock_get_wr_lock(0) == 0 ? 0 : 1); };
  EXPECT_EQ(run_child(with_handle_0).status, 0);
  const std::string cut = "/var/lock/none/" + std::string(271, 'n');  // 286 characters
  EXPECT_EQ(hooks_of([] { EXPECT_EQ(lock_create(("none/" + std::string(300, 'n')).c_str()), -1); }, true),
            (std::vector<hook_line>{{7, "creating lock: " + cut + "\n"},
                                    {3, "ERROR lock_create(): error creating lock: " + cut +
                                            "\n: OS Error: errno: 2, No such file or directory \n"},
                                    {7, "Created lock with path: " + cut + " with fd: 4294967295.\n"}}));
}

}  // namespace
