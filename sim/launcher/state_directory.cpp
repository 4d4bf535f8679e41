#include "sim/launcher/state_directory.h"

#include <cstdlib>

#include "sim/base/files.h"

namespace sim {

namespace {

// The board's commands are found by PATH, and its options travel one a line.
bool is_usable(const std::string &path, std::string *error) {
  if (path.find_first_of(":\n") == std::string::npos) return true;
  *error = "the path of a state directory cannot have a colon or a newline: '" + path + "'";
  return false;
}

}  // namespace

state_directory::~state_directory() {
  if (m_temporary) remove_tree(m_path);
}

bool state_directory::use(const std::string &asked, std::string *error) {
  if (asked.empty()) return make_temporary(error) && lock(error);
  const auto path = absolute_path(asked, error);
  if (!path || !is_usable(*path, error) || !make_directories(*path, error)) return false;
  m_path = *path;
  if (!lock(error)) return false;
  remove_unfinished(m_path);
  return true;
}

bool state_directory::make_temporary(std::string *error) {
  const char *const base = std::getenv("TMPDIR");
  const auto path = absolute_path(base == nullptr || *base == '\0' ? "/tmp" : base, error);
  if (!path || !is_usable(*path, error)) return false;
  m_path = *path + "/board-sim-XXXXXX";
  m_temporary = ::mkdtemp(m_path.data()) != nullptr;
  if (!m_temporary) *error = os_error(*path);
  return m_temporary;
}

// A lock of the kernel's: it goes with its owner, however that ends.
bool state_directory::lock(std::string *error) {
  const auto path = m_path + "/lock";
  m_lock = file(sys::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC));
  if (!m_lock.is_open()) {
    *error = os_error(path);
    return false;
  }
  struct flock held {};
  do {
    held.l_type = F_WRLCK;
    held.l_whence = SEEK_SET;
    if (::fcntl(m_lock.fd(), F_SETLK, &held) == 0) return true;
    if ((errno != EACCES && errno != EAGAIN) || ::fcntl(m_lock.fd(), F_GETLK, &held) != 0) {
      *error = os_error(path);
      return false;
    }
  } while (held.l_type == F_UNLCK);
  *error = m_path + ": in use by another board-sim, process " + std::to_string(held.l_pid);
  return false;
}

}  // namespace sim
