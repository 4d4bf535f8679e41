#include "lab/work_directory.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>

#include "lab/files.h"

namespace lab {

namespace fs = std::filesystem;

work_directory::~work_directory() {
  std::error_code ignored;
  if (goes_) fs::remove_all(path_, ignored);
  if (lock_ >= 0) (void)close(lock_);
}

std::string work_directory::make(const std::string &asked) {
  std::error_code wrong;
  if (asked.empty()) {
    const char *const base = std::getenv("TMPDIR");
    path_ = absolute_path(base == nullptr || *base == '\0' ? "/tmp" : base) + "/post-campaign-XXXXXX";
    if (mkdtemp(path_.data()) == nullptr) return os_error(path_);
  } else {
    path_ = absolute_path(asked);
    (void)fs::create_directories(path_, wrong);
    const bool empty = !wrong && fs::is_empty(path_, wrong);
    if (wrong) return path_ + ": " + wrong.message();
    if (!empty) return path_ + ": the directory is not empty";
  }
  goes_ = true;
  return lock();
}

std::string work_directory::take_over(const std::string &asked) {
  path_ = absolute_path(asked);
  return lock();
}

std::string work_directory::lock() {
  lock_ = open(path_.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (lock_ < 0) return os_error(path_);
  if (flock(lock_, LOCK_EX | LOCK_NB) == 0) return "";
  goes_ = false;
  return path_ + ": another campaign works here";
}

std::string absolute_path(const std::string &path) {
  return path.empty() ? path : fs::absolute(path).string();
}

}  // namespace lab
