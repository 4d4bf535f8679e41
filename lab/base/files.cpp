#include "lab/base/files.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "platform/mfgd/cmn_lib/diag_util/owner.h"

namespace lab {
namespace {

bool write_all(int fd, std::string_view bytes) {
  while (!bytes.empty()) {
    const auto written = write(fd, bytes.data(), bytes.size());
    if (written < 0 && errno == EINTR) continue;
    if (written < 0) return false;
    bytes.remove_prefix(static_cast<size_t>(written));
  }
  return true;
}

// Devices and pipes are written as they are; a file of that name would take their place.
bool is_special(const std::string &path) {
  struct stat found {};
  return stat(path.c_str(), &found) == 0 && !S_ISREG(found.st_mode);
}

}  // namespace

std::optional<std::string> read_whole(const std::string &path) {
  const unique_fd in(open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (in.get() < 0) return std::nullopt;
  std::string whole;
  char piece[65536];
  while (true) {
    const auto length = read(in.get(), piece, sizeof piece);
    if (length < 0 && errno == EINTR) continue;
    if (length < 0) return std::nullopt;
    if (length == 0) return whole;
    whole.append(piece, static_cast<size_t>(length));
  }
}

std::string write_whole(const std::string &path, std::string_view contents) {
  if (path == "-") return write_all(STDOUT_FILENO, contents) ? "" : os_error("standard output");
  const bool special = is_special(path);
  const auto made = special ? path : path + "." + std::to_string(getpid());
  bool good = false;
  {
    // In a folder of others, a file of that name may be their link.
    if (!special) (void)unlink(made.c_str());
    const int flags = special ? O_TRUNC : O_EXCL;
    const unique_fd out(open(made.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC | flags, 0666));
    good = out.get() >= 0 && write_all(out.get(), contents);
  }
  if (!special) good = good && rename(made.c_str(), path.c_str()) == 0;
  if (good) return "";
  auto wrong = os_error(path);
  if (!special) (void)unlink(made.c_str());
  return wrong;
}

std::string os_error(const std::string &path) {
  return path + ": " + std::strerror(errno);
}

mapped_file::mapped_file(const std::string &path) {
  const unique_fd file(open(path.c_str(), O_RDWR | O_CLOEXEC));
  struct stat found {};
  if (file.get() < 0 || fstat(file.get(), &found) != 0 || found.st_size <= 0) return;
  const auto size = static_cast<size_t>(found.st_size);
  void *const at = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_POPULATE, file.get(), 0);
  if (at != MAP_FAILED) m_bytes = {static_cast<uint8_t *>(at), size};
}

mapped_file::~mapped_file() {
  if (is_open()) (void)munmap(m_bytes.data(), m_bytes.size());
}

}  // namespace lab
