#include "sprom/board/chip_lock.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <array>
#include <string_view>

#include "platform/mfgd/uspace/utils/sprom/sse_dev.h"
#include "sprom/base/output.h"
#include "sprom/board/service.h"

namespace tool {
namespace {

// The innermost lock that is held.
constinit const chip_lock_t *innermost = nullptr;

constexpr mode_t group_use = S_IRGRP | S_IWGRP;
constexpr mode_t others_use = S_IROTH | S_IWOTH;
constexpr int64_t ns_per_s = 1'000'000'000;
constexpr long poll_ns = 10'000'000;

// A service that goes by identities takes several chips for one: then they share the lock, too.
std::string lock_path(const smb_dev_t &dev) {
  std::array<char, 32> name;
  const std::string_view path{dev.path};
  const sse_identity_t *identity = sse_identity_of(sse_eeproms, &dev);
  if (!service_has_routing() && identity != nullptr && *identity == sse_eeproms.back().identity) {
    (void)snprintf(name.data(), name.size(), "unit-%u-%u", identity->unit, identity->instance);
    return "/var/lock/sprom-" + std::string{name.data()} + ".lock";
  }
  (void)snprintf(name.data(), name.size(), "-%02x", dev.addr);
  return "/var/lock/sprom-" + std::string{path.substr(path.rfind('/') + 1)} + name.data() + ".lock";
}

// A lock on the whole file.
struct flock whole_file() {
  struct flock lock {};
  lock.l_type = F_WRLCK;
  lock.l_whence = SEEK_SET;
  return lock;
}

int64_t now_ns() {
  timespec now{};
  (void)clock_gettime(CLOCK_MONOTONIC, &now);
  return int64_t{now.tv_sec} * ns_per_s + now.tv_nsec;
}

void wait_a_little() {
  const timespec pause{0, poll_ns};
  (void)nanosleep(&pause, nullptr);  // cut short by a signal, it is asked sooner
}

// Without rights to it for anybody else, until the bus says who has them.
int create_lock(const std::string &path, const smb_dev_t &dev) {
  const int fd = open(path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
  struct stat bus;
  if (fd < 0 || stat(dev.path, &bus) != 0) return fd;
  mode_t mode = S_IRUSR | S_IWUSR;
  if ((bus.st_mode & others_use) == others_use) mode |= others_use;
  const bool is_groups = (bus.st_mode & group_use) == group_use && fchown(fd, static_cast<uid_t>(-1), bus.st_gid) == 0;
  if (is_groups) mode |= group_use;
  (void)fchmod(fd, mode);  // it stays the creator's own
  return fd;
}

// Opens the file, or makes it: never both in one call, which kernels refuse for the files of others (protected_regular)
// and which would make the target of a link. -1 with errno set.
int open_lock(const std::string &path, const smb_dev_t &dev) {
  constexpr int most_tries = 10;
  int fd = -1;
  for (int tries = 0; tries < most_tries; ++tries) {
    fd = open(path.c_str(), O_RDWR | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
    if (fd >= 0) break;
    if (errno == ENOENT) fd = create_lock(path, dev);
    if (fd >= 0 || (errno != EEXIST && errno != EACCES)) break;
    if (errno == EACCES && tries > 1) break;  // its creator may be about to give it away
    wait_a_little();
  }
  return fd;
}

// Only the members of a group give files to it.
bool is_of_bus_group(const struct stat &file, const smb_dev_t &dev) {
  struct stat bus;
  return file.st_gid != 0 && stat(dev.path, &bus) == 0 && (bus.st_mode & group_use) == group_use &&
         bus.st_gid == file.st_gid;
}

// Why this file is no lock; "" if it is one.
std::string defect_of(int fd, const smb_dev_t &dev) {
  struct stat file;
  if (fstat(fd, &file) != 0) return error_text(errno);
  if (!S_ISREG(file.st_mode)) return "it is no plain file";
  if (file.st_nlink > 1) return "it has another name, too";
  if (file.st_uid == 0 || file.st_uid == geteuid() || is_of_bus_group(file, dev)) return "";
  return "it belongs to another user (" + std::to_string(file.st_uid) + ")";
}

std::string holder_of(int fd) {
  struct flock lock = whole_file();
  const bool is_known = fcntl(fd, F_GETLK, &lock) == 0 && lock.l_type != F_UNLCK && lock.l_pid > 0;
  return is_known ? "process " + std::to_string(lock.l_pid) : "another process";
}

}  // namespace

chip_lock_t::chip_lock_t(const smb_dev_t &dev, uint32_t seconds) : m_path(lock_path(dev)), m_outer(innermost) {
  if (is_shared() || !service_is_there()) {  // without a service nobody reaches the chip
    m_state = state_t::held;
    return;
  }
  take(dev, seconds);
  if (is_held()) innermost = this;
}

chip_lock_t::~chip_lock_t() {
  if (m_fd < 0) return;
  (void)close(m_fd);
  innermost = m_outer;
}

// Closing any descriptor of the file would end the lock.
bool chip_lock_t::is_shared() const {
  for (const chip_lock_t *lock = m_outer; lock != nullptr; lock = lock->m_outer) {
    if (lock->m_path == m_path) return true;
  }
  return false;
}

void chip_lock_t::take(const smb_dev_t &dev, uint32_t seconds) {
  constexpr int most_files = 100;
  const int64_t end = now_ns() + int64_t{seconds} * ns_per_s;
  for (int files = 0; files < most_files; ++files) {
    const int fd = open_lock(m_path, dev);
    std::string defect = fd < 0 ? errno == ELOOP ? "it is a symbolic link" : error_text(errno) : defect_of(fd, dev);
    if (!defect.empty()) m_refusal = "cannot lock " + m_path + ": " + defect;
    const bool is_taken = defect.empty() && wait(fd, end);
    if (is_taken && is_in_place(fd)) {
      m_fd = fd;
      m_state = state_t::held;
      return;
    }
    if (fd >= 0) (void)close(fd);
    if (is_busy() && seconds != 0) m_refusal += " (waited " + std::to_string(seconds) + " s for it)";
    if (!is_taken) return;
    // Somebody removed it meanwhile, and others lock another one.
  }
  m_refusal = "cannot lock " + m_path + ": it is removed again and again";
}

// False with a refusal.
bool chip_lock_t::wait(int fd, int64_t end) {
  for (;;) {
    struct flock lock = whole_file();
    if (fcntl(fd, F_SETLK, &lock) == 0) return true;
    if (errno != EACCES && errno != EAGAIN) {
      m_refusal = "cannot lock " + m_path + ": " + error_text(errno);
      return false;
    }
    if (now_ns() >= end) break;
    wait_a_little();
  }
  m_state = state_t::busy;
  m_refusal = "in use by " + holder_of(fd);
  return false;
}

bool chip_lock_t::is_in_place(int fd) const {
  struct stat held;
  struct stat named;
  return fstat(fd, &held) == 0 && lstat(m_path.c_str(), &named) == 0 && held.st_dev == named.st_dev &&
         held.st_ino == named.st_ino;
}

}  // namespace tool
