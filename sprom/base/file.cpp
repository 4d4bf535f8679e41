#include "sprom/base/file.h"

#include <errno.h>
#include <fcntl.h>
#include <linux/magic.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <array>
#include <optional>

#include "platform/mfgd/cmn_lib/diag_util/owner.h"
#include "sprom/base/output.h"

namespace tool {
namespace {

// A pipe, a device or a directory need not know how to sync.
int sync(int fd) {
  if (fsync(fd) < 0 && errno != EINVAL && errno != EROFS && errno != ENOTSUP) return errno;
  return 0;
}

// Writes and syncs.
int fill(int fd, std::span<const uint8_t> data) {
  while (!data.empty()) {
    const ssize_t done = write(fd, data.data(), data.size());
    if (done < 0 && errno == EINTR) continue;
    if (done < 0) return errno;
    data = data.subspan(static_cast<size_t>(done));
  }
  return sync(fd);
}

int fill_and_close(unique_fd &fd, std::span<const uint8_t> data) {
  const int error = fill(fd.get(), data);
  return fd.close() < 0 && error == 0 ? errno : error;
}

int fill_opened(const std::string &path, int flags, std::span<const uint8_t> data) {
  unique_fd fd{open(path.c_str(), flags | O_WRONLY | O_CLOEXEC | O_NOCTTY, 0666)};
  if (!fd) return errno;
  return fill_and_close(fd, data);
}

// Fills a new file and gives it its name; a failure leaves no file.
int fill_and_rename(const std::string &temporary, const std::string &path, mode_t mode, bool keep_mode,
                    std::span<const uint8_t> data) {
  unique_fd fd{open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, mode)};
  if (!fd) return errno;
  int error = keep_mode && fchmod(fd.get(), mode) < 0 ? errno : fill_and_close(fd, data);
  if (error == 0 && rename(temporary.c_str(), path.c_str()) < 0) error = errno;
  if (error != 0) (void)unlink(temporary.c_str());  // the first failure is the one to report
  return error;
}

std::string directory_of(const std::string &path) {
  const size_t slash = path.rfind('/');
  if (slash == std::string::npos) return ".";
  return path.substr(0, slash + 1);
}

// A new name outlives a power cut only then. What may be written to need not be readable.
int sync_directory(const std::string &path) {
  const unique_fd fd{open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)};
  if (!fd) return errno == EACCES ? 0 : errno;
  return sync(fd.get());
}

// What a link says; nothing if the path is no link.
std::optional<std::string> link_target(const std::string &path) {
  std::array<char, 4096> text;
  const ssize_t length = readlink(path.c_str(), text.data(), text.size());
  if (length < 0) return std::nullopt;
  const std::string target{text.data(), static_cast<size_t>(length)};
  if (target.starts_with('/')) return target;
  return directory_of(path) + "/" + target;
}

// The links below /proc lead to the open file, even if their text says otherwise.
bool is_in_proc(const std::string &path) {
  const std::string directory = directory_of(path);
  struct statfs fs;
  return statfs(directory.c_str(), &fs) == 0 && fs.f_type == PROC_SUPER_MAGIC;
}

// Where a path leads, over links that may dangle; `is_descriptor` if it ends in a link that names an open file.
std::string resolved(std::string path, bool &is_descriptor) {
  constexpr int most_links = 40;
  is_descriptor = false;
  for (int links = 0; links < most_links; ++links) {
    const auto target = link_target(path);
    if (!target) break;
    is_descriptor = is_in_proc(path);
    if (is_descriptor) break;
    path = *target;
  }
  return path;
}

// The number at the end of a path below /proc/self/fd.
int descriptor_in(const std::string &path) {
  return atoi(path.c_str() + path.rfind('/') + 1);
}

// Opened again, a descriptor would forget its place in the file.
bool is_own_descriptor(const std::string &path, const struct stat &st) {
  struct stat own;
  return fstat(descriptor_in(path), &own) == 0 && own.st_dev == st.st_dev && own.st_ino == st.st_ino;
}

// Where data for a path goes.
struct destination_t {
  enum { OPEN, APPENDED, REPLACED } how = REPLACED;
  int fd = -1;              // of OPEN
  std::string path;         // of the others, over all links
  mode_t mode = 0666;       // of REPLACED
  bool keeps_mode = false;  // it is the old file's
};

// Returns 0 or an errno.
int find_destination(const std::string &path, destination_t &to) {
  if (path == standard_stream) return to.how = destination_t::OPEN, to.fd = STDOUT_FILENO, 0;
  bool is_descriptor = false;
  to.path = resolved(path, is_descriptor);
  struct stat st;
  const bool exists = stat(to.path.c_str(), &st) == 0;
  if (!exists && errno != ENOENT) return errno;
  if (is_descriptor && exists && is_own_descriptor(to.path, st))
    return to.how = destination_t::OPEN, to.fd = descriptor_in(to.path), 0;
  if (is_descriptor || (exists && !S_ISREG(st.st_mode))) return to.how = destination_t::APPENDED, 0;
  if (!exists) return 0;
  to.mode = st.st_mode & 07777;
  to.keeps_mode = true;
  // Replacing needs no right to write to the old file itself; a protected one is to stay.
  return access(to.path.c_str(), W_OK) < 0 ? errno : 0;
}

}  // namespace

std::string file_label(const std::string &path) {
  if (path == standard_stream) return "standard input";
  return shown(path);
}

int read_file(const std::string &path, size_t limit, std::vector<uint8_t> &data) {
  const unique_fd fd{path == standard_stream ? dup(STDIN_FILENO) : open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY)};
  if (!fd) return errno;
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
  (void)signal(SIGXFSZ, SIG_IGN);         // a file size limit is a failed write, not the end of the process
  if (fflush(stdout) != 0) return errno;  // it may be where the path leads
  destination_t to;
  if (const int error = find_destination(path, to); error != 0) return error;
  switch (to.how) {
    case destination_t::OPEN:
      return fill(to.fd, data);
    case destination_t::APPENDED:
      return fill_opened(to.path, O_APPEND, data);
    case destination_t::REPLACED:
      return fill_and_rename(to.path + ".new-" + std::to_string(getpid()), to.path, to.mode, to.keeps_mode, data);
  }
  return EINVAL;
}

int create_file(const std::string &path, std::span<const uint8_t> data) {
  (void)signal(SIGXFSZ, SIG_IGN);  // as in write_file
  unique_fd fd{open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOCTTY, 0666)};
  if (!fd) return errno;
  int error = fill_and_close(fd, data);
  if (error == 0) error = sync_directory(directory_of(path));
  if (error != 0) (void)unlink(path.c_str());  // half a file is worth nothing
  return error;
}

}  // namespace tool
