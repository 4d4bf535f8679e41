#include "sim/host/files.h"

#include <dirent.h>
#include <dlfcn.h>

#include <cstring>

#include "sim/host/real.h"

namespace sim {

namespace {

bool write_all(int fd, std::span<const uint8_t> bytes) {
  while (!bytes.empty()) {
    const auto written = ::syscall(SYS_write, fd, bytes.data(), bytes.size());
    if (written < 0) return false;
    bytes = bytes.subspan(static_cast<size_t>(written));
  }
  return true;
}

// A file under a name of its own, to be put in place when it is whole.
class unfinished_file {
 public:
  explicit unfinished_file(const std::string &path)
      : m_path(path + "." + std::to_string(getpid())),
        m_file(sys::open(m_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC)) {}
  unfinished_file(const unfinished_file &) = delete;
  unfinished_file &operator=(const unfinished_file &) = delete;
  ~unfinished_file() {
    const keep_errno kept;
    (void)sys::unlink(m_path.c_str());
  }
  [[nodiscard]] bool write(std::span<const uint8_t> bytes) const {
    return m_file.is_open() && write_all(m_file.fd(), bytes);
  }
  [[nodiscard]] const char *path() const { return m_path.c_str(); }

 private:
  std::string m_path;
  file m_file;
};

// Where another program of the run was first, its file stays; it may have written to it already.
bool make_contents(const std::string &path, size_t size, const backing_file::piece_source &next) {
  const unfinished_file made(path);
  for (size_t done = 0; done < size;) {
    const auto piece = next();
    if (!made.write(piece)) return false;
    done += piece.size();
  }
  return sys::link(made.path(), path.c_str()) == 0 || errno == EEXIST || sys::rename(made.path(), path.c_str()) == 0;
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
  const unfinished_file made(path);
  return made.write({reinterpret_cast<const uint8_t *>(contents.data()), contents.size()}) &&
         sys::rename(made.path(), path.c_str()) == 0;
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

bool file_exists(const std::string &path) {
  return sys::access(path.c_str(), F_OK) == 0;
}

std::string os_error(const std::string &path) {
  return path + ": " + std::strerror(errno);
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
  close();
}

void backing_file::close() {
  if (is_open()) (void)sys::munmap(m_bytes.data(), m_bytes.size());
  m_bytes = {};
}

bool backing_file::open(const std::string &path, size_t size, const piece_source &next, std::string *error) {
  close();
  m_path = std::make_unique<const std::string>(path);
  if (file_exists(path) || make_contents(path, size, next)) {
    const file backing{sys::open(path.c_str(), O_RDWR | O_CLOEXEC)};
    const auto found = lseek(backing.fd(), 0, SEEK_END);
    if (found >= 0 && static_cast<uint64_t>(found) != size) {
      *error = path + ": size is not " + std::to_string(size) + " bytes";
      return false;
    }
    void *const at = found < 0 ? MAP_FAILED : map(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, 0);
    if (at != MAP_FAILED) m_bytes = {static_cast<uint8_t *>(at), size};
  }
  if (!is_open()) *error = os_error(path);
  return is_open();
}

void *backing_file::map(void *addr, size_t length, int prot, int flags, uint64_t offset) const {
  const file backing{sys::open(m_path->c_str(), O_RDWR | O_CLOEXEC)};
  if (!backing.is_open()) return MAP_FAILED;
  return sys::mmap(addr, length, prot, flags, backing.fd(), offset);
}

}  // namespace sim
