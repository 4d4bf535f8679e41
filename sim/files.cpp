#include "sim/files.h"

#include <dirent.h>
#include <dlfcn.h>

#include <cstring>

#include "sim/real.h"

namespace sim {

namespace {

bool write_all(int fd, std::string_view contents) {
  while (!contents.empty()) {
    const auto written = ::syscall(SYS_write, fd, contents.data(), contents.size());
    if (written < 0) return false;
    contents.remove_prefix(static_cast<size_t>(written));
  }
  return true;
}

bool is_directory(const std::string &path) {
  const file dir{sys::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)};
  return dir.is_open();
}

}  // namespace

bool make_directories(const std::string &path) {
  for (auto slash = path.find('/', 1);; slash = path.find('/', slash + 1)) {
    const auto part = path.substr(0, slash);
    if (sys::mkdir(part.c_str(), 0755) != 0 && errno != EEXIST) return false;
    if (slash == std::string::npos) break;
  }
  return is_directory(path);
}

bool remove_tree(const std::string &path) {
  const int fd = sys::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
  if (fd < 0) return sys::unlink(path.c_str()) == 0;
  DIR *const dir = fdopendir(fd);
  if (dir == nullptr) return false;
  while (const auto *const entry = readdir(dir)) {
    const std::string_view name = entry->d_name;
    if (name != "." && name != "..") (void)remove_tree(path + "/" + entry->d_name);
  }
  (void)closedir(dir);
  return sys::rmdir(path.c_str()) == 0;
}

bool write_file(const std::string &path, std::string_view contents) {
  const auto temporary = path + "." + std::to_string(getpid());
  {
    const file out{sys::open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC)};
    if (!out.is_open()) return false;
    if (!write_all(out.fd(), contents)) {
      const keep_errno kept;
      (void)sys::unlink(temporary.c_str());
      return false;
    }
  }
  return sys::rename(temporary.c_str(), path.c_str()) == 0;
}

std::optional<std::string> read_file(const std::string &path) {
  const file in{sys::open(path.c_str(), O_RDONLY | O_CLOEXEC)};
  if (!in.is_open()) return std::nullopt;
  std::string contents;
  char part[4096];
  while (true) {
    const auto got = ::syscall(SYS_read, in.fd(), part, sizeof(part));
    if (got < 0) return std::nullopt;
    if (got == 0) return contents;
    contents.append(part, static_cast<size_t>(got));
  }
}

std::string own_directory() {
  char path[4096] = "";
  Dl_info info{};
  static constexpr char inside = 0;
  std::string object;
  if (dladdr(&inside, &info) != 0 && info.dli_fname != nullptr && std::strchr(info.dli_fname, '/') != nullptr)
    object = info.dli_fname;
  // A program may have been started by a relative name from a directory that is no longer the current one.
  const auto length = readlink("/proc/self/exe", path, sizeof(path) - 1);
  const std::string program = length > 0 ? std::string(path, static_cast<size_t>(length)) : "";
  if (!object.starts_with('/') || object.find(".so") == std::string::npos) object = program;
  return object.substr(0, object.rfind('/'));
}

backing_file::~backing_file() {
  if (!m_bytes.empty()) (void)sys::munmap(m_bytes.data(), m_bytes.size());
}

bool backing_file::open(const std::string &path, std::span<const uint8_t> initial) {
  if (sys::access(path.c_str(), F_OK) != 0) {
    const std::string contents(initial.begin(), initial.end());
    if (!write_file(path, contents)) return false;
  }
  const file backing{sys::open(path.c_str(), O_RDWR | O_CLOEXEC)};
  if (!backing.is_open()) return false;
  const auto size = lseek(backing.fd(), 0, SEEK_END);
  if (size != static_cast<off_t>(initial.size())) {
    if (size >= 0) errno = EFBIG;
    return false;
  }
  void *const at = sys::mmap(nullptr, initial.size(), PROT_READ | PROT_WRITE, MAP_SHARED, backing.fd(), 0);
  if (at == MAP_FAILED) return false;
  m_bytes = {static_cast<uint8_t *>(at), initial.size()};
  return true;
}

}  // namespace sim
