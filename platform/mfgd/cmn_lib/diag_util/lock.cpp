#include "platform/mfgd/cmn_lib/diag_util/lock.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include "platform/mfgd/cmn_lib/diag_util/diag_assert.h"
#include "platform/mfgd/cmn_lib/diag_util/diag_dbg.h"

namespace {

// Path buffer of 288 bytes; the last one is always NUL.
constexpr size_t path_max = 287;

struct lock_op_t {
  const char *name;  // the operation, for messages
  const char *doing;
  int32_t cmd;
  int32_t type;
  const char *cmd_name;
  const char *type_name;
};

// clang-format off
constexpr lock_op_t op_get_rd   = {"lock_get_rd_lock",  "taking rd_lock",   F_SETLK,  F_RDLCK, "F_SETLK",  "F_RDLCK"};
constexpr lock_op_t op_get_rdw  = {"lock_get_rd_lockw", "taking rd_lockw",  F_SETLKW, F_RDLCK, "F_SETLKW", "F_RDLCK"};
constexpr lock_op_t op_get_wr   = {"lock_get_wr_lock",  "taking wr_lock",   F_SETLK,  F_WRLCK, "F_SETLK",  "F_WRLCK"};
constexpr lock_op_t op_get_wrw  = {"lock_get_wr_lockw", "taking wr_lockw",  F_SETLKW, F_WRLCK, "F_SETLKW", "F_WRLCK"};
constexpr lock_op_t op_drop_rd  = {"lock_drop_rd_lock", "dropping rd_lock", F_SETLK,  F_UNLCK, "F_SETLK",  "F_UNLCK"};
constexpr lock_op_t op_drop_wr  = {"lock_drop_wr_lock", "dropping wr_lock", F_SETLK,  F_UNLCK, "F_SETLK",  "F_UNLCK"};
// clang-format on

// Callers built with 32-bit file offsets have other numbers for two of the commands.
constexpr int32_t command_of(int32_t cmd) {
  // clang-format off
  switch (cmd) {
    case 6:  return F_SETLK;
    case 7:  return F_SETLKW;
    default: return cmd;
  }
  // clang-format on
}

// assert(0) in the name of an operation.
[[noreturn]] void die(const char *op) {
  diag_std_assert_fail("0", __FILE__, __LINE__, op);
}

void check_handle(int32_t lock, const char *op) {
  if (lock >= 0) return;
  diag_dbg_print(DIAG_LVL_ERR, "ERROR %s(): Lock not initialized.  Fatal error, exitting.\n", op);
  die(op);
}

[[noreturn]] void fail(const lock_op_t &op, int error) {
  diag_dbg_print(DIAG_LVL_ERR, "ERROR %s(): lock_req( m_lock, %s, %s) failed: OS Error: errno: %d, %s \n", op.name,
                 op.cmd_name, op.type_name, error, strerror(error));
  diag_dbg_print(DIAG_LVL_ERR, "ERROR %s(): Fatal error.  Exitting...\n", op.name);
  die(op.name);
}

// Returns 0, or LOCK_ERR_BUSY where the operation neither waits nor releases; does not come back from other failures.
uint32_t request(int32_t lock, const lock_op_t &op) {
  check_handle(lock, op.name);
  diag_dbg_print(DIAG_LVL_DEBUG, "%s: %u.\n", op.doing, static_cast<uint32_t>(lock));
  while (lock_req(lock, op.cmd, op.type) < 0) {
    const int error = errno;
    const bool waits = op.cmd == F_SETLKW;
    if (waits && error == EINTR) continue;
    if (!waits && op.type != F_UNLCK && (error == EACCES || error == EAGAIN)) return LOCK_ERR_BUSY;
    fail(op, error);
  }
  return 0;
}

}  // namespace

extern "C" {

int32_t lock_create(const char *name) {
  char path[path_max + 1];
  (void)snprintf(path, path_max, "/var/lock/%s.lock", name);
  path[path_max] = '\0';
  diag_dbg_print(DIAG_LVL_DEBUG, "creating lock: %s\n", path);
  errno = 0;
  const int32_t lock = open(path, O_RDWR | O_CREAT | O_TRUNC, 0600);
  if (lock < 0)
    diag_dbg_print(DIAG_LVL_ERR, "ERROR %s(): error creating lock: %s\n: OS Error: errno: %d, %s \n", __func__, path,
                   errno, strerror(errno));
  diag_dbg_print(DIAG_LVL_DEBUG, "Created lock with path: %s with fd: %u.\n", path, static_cast<uint32_t>(lock));
  return lock;
}

uint32_t lock_destroy(int32_t lock) {
  check_handle(lock, __func__);
  diag_dbg_print(DIAG_LVL_DEBUG, "Destroying lock with fd: %u.\n", static_cast<uint32_t>(lock));
  errno = 0;
  (void)close(lock);
  return 0;
}

uint32_t lock_get_rd_lock(int32_t lock) {
  return request(lock, op_get_rd);
}

uint32_t lock_get_wr_lock(int32_t lock) {
  return request(lock, op_get_wr);
}

uint32_t lock_get_rd_lockw(int32_t lock) {
  return request(lock, op_get_rdw);
}

uint32_t lock_get_wr_lockw(int32_t lock) {
  return request(lock, op_get_wrw);
}

uint32_t lock_drop_rd_lock(int32_t lock) {
  return request(lock, op_drop_rd);
}

uint32_t lock_drop_wr_lock(int32_t lock) {
  return request(lock, op_drop_wr);
}

int32_t lock_req(int32_t lock, int32_t cmd, int32_t type) {
  struct flock req = {};
  req.l_type = static_cast<short>(type);
  req.l_whence = SEEK_SET;
  req.l_start = 0;
  req.l_len = 1;
  errno = 0;
  return fcntl(lock, command_of(cmd), &req);
}

}  // extern "C"
