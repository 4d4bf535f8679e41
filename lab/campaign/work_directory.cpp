#include "lab/campaign/work_directory.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>

#include "lab/base/files.h"

namespace lab {

namespace fs = std::filesystem;

work_directory::~work_directory() {
  std::error_code ignored;
  if (m_goes) fs::remove_all(m_path, ignored);
  if (m_lock >= 0) (void)close(m_lock);
}

std::string work_directory::make(const std::string &asked) {
  std::error_code wrong;
  if (asked.empty()) {
    const char *const base = std::getenv("TMPDIR");
    m_path = absolute_path(base == nullptr || *base == '\0' ? "/tmp" : base) + "/post-campaign-XXXXXX";
    if (mkdtemp(m_path.data()) == nullptr) return os_error(m_path);
  } else {
    m_path = absolute_path(asked);
    (void)fs::create_directories(m_path, wrong);
    const bool empty = !wrong && fs::is_empty(m_path, wrong);
    if (wrong) return m_path + ": " + wrong.message();
    if (!empty) return m_path + ": the directory is not empty";
  }
  m_goes = true;
  return lock();
}

std::string work_directory::take_over(const std::string &asked) {
  m_path = absolute_path(asked);
  return lock();
}

std::string work_directory::lock() {
  m_lock = open(m_path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (m_lock < 0) return os_error(m_path);
  if (flock(m_lock, LOCK_EX | LOCK_NB) == 0) return "";
  m_goes = false;
  return m_path + ": another campaign works here";
}

std::string absolute_path(const std::string &path) {
  return path.empty() ? path : fs::absolute(path).string();
}

}  // namespace lab
