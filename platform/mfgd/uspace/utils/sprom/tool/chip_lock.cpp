#include "platform/mfgd/uspace/utils/sprom/tool/chip_lock.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <unistd.h>

#include <array>

#include "platform/mfgd/uspace/utils/sprom/tool/output.h"

namespace tool {
namespace {

std::string lock_path(const smb_dev_t &dev) {
  std::string_view bus = dev.path;
  bus.remove_prefix(bus.rfind('/') + 1);
  std::array<char, 16> addr;
  (void)snprintf(addr.data(), addr.size(), "-%02x.lock", dev.addr);
  return "/var/lock/sprom-" + std::string{bus} + addr.data();
}

// Another process's write lock on the whole file.
struct flock whole_file() {
  struct flock lock {};
  lock.l_type = F_WRLCK;
  lock.l_whence = SEEK_SET;
  return lock;
}

}  // namespace

chip_lock_t::chip_lock_t(const entry_t &entry)
    : m_fd(open(lock_path(entry.dev()).c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0666)) {
  struct flock lock = whole_file();
  if (m_fd >= 0 && fcntl(m_fd, F_SETLK, &lock) == 0) return;
  m_is_busy = m_fd >= 0 && (errno == EACCES || errno == EAGAIN);
  if (!m_is_busy) {
    m_refusal = "cannot lock " + lock_path(entry.dev()) + ": " + error_text(errno);
    return;
  }
  m_refusal = "another program is writing to this EEPROM";
  lock = whole_file();
  if (fcntl(m_fd, F_GETLK, &lock) == 0 && lock.l_type != F_UNLCK)
    m_refusal += " (process " + std::to_string(lock.l_pid) + ")";
}

chip_lock_t::~chip_lock_t() {
  if (m_fd >= 0) (void)close(m_fd);
}

}  // namespace tool
