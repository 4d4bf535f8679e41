#include "platform/mfgd/uspace/utils/sprom/tool/file.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

namespace tool {
namespace {

class fd_t {
 public:
  explicit fd_t(int fd) : m_fd(fd) {}
  ~fd_t() {
    if (m_fd >= 0) (void)::close(m_fd);  // on a path that has failed already
  }
  fd_t(const fd_t &) = delete;
  fd_t &operator=(const fd_t &) = delete;

  int get() const { return m_fd; }
  int close() {
    const int result = ::close(m_fd);
    m_fd = -1;
    return result;
  }

 private:
  int m_fd;
};

// Writes, syncs and closes.
int fill(fd_t &fd, std::span<const uint8_t> data) {
  while (!data.empty()) {
    const ssize_t done = write(fd.get(), data.data(), data.size());
    if (done < 0 && errno == EINTR) continue;
    if (done < 0) return errno;
    data = data.subspan(static_cast<size_t>(done));
  }
  // A pipe or a device need not know how to sync.
  if (fsync(fd.get()) < 0 && errno != EINVAL && errno != EROFS && errno != ENOTSUP) return errno;
  return fd.close() < 0 ? errno : 0;
}

int fill_through(const std::string &path, std::span<const uint8_t> data) {
  fd_t fd{open(path.c_str(), O_WRONLY | O_CLOEXEC | O_NOCTTY)};
  if (fd.get() < 0) return errno;
  return fill(fd, data);
}

// Fills a new file and gives it its name; what fails leaves no file behind.
int fill_and_rename(const std::string &temporary, const std::string &path, mode_t mode, bool keep_mode,
                    std::span<const uint8_t> data) {
  fd_t fd{open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, mode)};
  if (fd.get() < 0) return errno;
  int error = keep_mode && fchmod(fd.get(), mode) < 0 ? errno : fill(fd, data);
  if (error == 0 && rename(temporary.c_str(), path.c_str()) < 0) error = errno;
  if (error != 0) (void)unlink(temporary.c_str());  // the first failure is the one to report
  return error;
}

// The file that a path finally names, so that a link stays and its target is replaced.
std::string resolved(const std::string &path) {
  char *real = realpath(path.c_str(), nullptr);
  const std::string result = real == nullptr ? path : real;
  free(real);
  return result;
}

}  // namespace

int read_file(const std::string &path, size_t limit, std::vector<uint8_t> &data) {
  const fd_t fd{open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY)};
  if (fd.get() < 0) return errno;
  data.resize(limit);
  size_t size = 0;
  while (size < limit) {
    const ssize_t done = read(fd.get(), data.data() + size, limit - size);
    if (done < 0 && errno == EINTR) continue;
    if (done < 0) return errno;
    if (done == 0) break;
    size += static_cast<size_t>(done);
  }
  data.resize(size);
  return 0;
}

int write_file(const std::string &path, std::span<const uint8_t> data) {
  (void)signal(SIGXFSZ, SIG_IGN);  // a file size limit is a failed write, not the end of the process
  struct stat st;
  const bool exists = stat(path.c_str(), &st) == 0;
  if (!exists && errno != ENOENT) return errno;
  if (exists && !S_ISREG(st.st_mode)) return fill_through(path, data);
  // Replacing needs no right to write to the old file itself; a protected one is to stay.
  if (exists && access(path.c_str(), W_OK) < 0) return errno;

  const std::string file = resolved(path);
  const std::string temporary = file + ".new-" + std::to_string(getpid());
  return fill_and_rename(temporary, file, exists ? st.st_mode & 07777 : 0666, exists, data);
}

}  // namespace tool
