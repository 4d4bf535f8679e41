#include "sim/base/files.h"

#include <dirent.h>
#include <dlfcn.h>

#include <array>
#include <climits>
#include <cstring>
#include <vector>

#include "sim/base/real.h"

namespace sim {

namespace {

bool write_all(int fd, std::span<const uint8_t> bytes) {
  while (!bytes.empty()) {
    const auto written = sys::write(fd, bytes.data(), bytes.size());
    if (written < 0) return false;
    bytes = bytes.subspan(static_cast<size_t>(written));
  }
  return true;
}

// A file under a name of its own, NAME.PID, to be put in place when it is whole.
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

bool succeeds(bool result, const std::string &path, std::string *error) {
  if (!result) *error = os_error(path);
  return result;
}

bool is_directory(const std::string &path) {
  const file dir{sys::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)};
  return dir.is_open();
}

// The paths of what is in a directory; none if it cannot be read.
std::vector<std::string> paths_in(const std::string &path) {
  std::vector<std::string> paths;
  const int fd = sys::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
  DIR *const dir = fd < 0 ? nullptr : fdopendir(fd);
  if (dir == nullptr) return paths;
  while (const auto *const entry = readdir(dir)) {
    const std::string_view name = entry->d_name;
    if (name != "." && name != "..") paths.emplace_back(path).append("/").append(name);
  }
  (void)closedir(dir);
  return paths;
}

struct whole_file {
  const char *directory;
  std::string_view begins;
};

// clang-format off
// What the board makes of its own. The program's files may have such names elsewhere.
constexpr std::array whole_files{std::to_array<whole_file>({
    // in the state directory  names
    {"",                       "flash."},
    {"",                       "nvram"},
    {"",                       "eeprom-"},
    {"",                       "counter-"},
    {"",                       "expander-"},
    {"",                       "port."},
    {"/proc",                  "cpuinfo."},
    {"/proc/bus/pci",          "devices."},
})};
// clang-format on

bool is_unfinished(std::string_view name) {
  const auto number = name.substr(name.rfind('.') + 1);
  return number.size() < name.size() && !number.empty() && number.find_first_not_of("0123456789") == number.npos;
}

}  // namespace

std::optional<std::string> absolute_path(const std::string &path, std::string *error) {
  char here[PATH_MAX];
  if (path.starts_with('/')) return path;
  if (::getcwd(here, sizeof(here)) != nullptr) return std::string(here) + "/" + path;
  *error = os_error(path);
  return std::nullopt;
}

bool make_directories(const std::string &path, std::string *error) {
  for (auto slash = path.find('/', 1);; slash = path.find('/', slash + 1)) {
    const auto part = path.substr(0, slash);
    if (sys::mkdir(part.c_str(), 0755) != 0 && errno != EEXIST) return succeeds(false, path, error);
    if (slash == std::string::npos) break;
  }
  return succeeds(is_directory(path), path, error);
}

void remove_tree(const std::string &path) {
  if (sys::unlink(path.c_str()) == 0) return;
  for (const auto &entry : paths_in(path))
    remove_tree(entry);
  (void)sys::rmdir(path.c_str());
}

bool write_file(const std::string &path, std::string_view contents, std::string *error) {
  const unfinished_file made(path);
  const bool whole = made.write({reinterpret_cast<const uint8_t *>(contents.data()), contents.size()});
  return succeeds(whole && sys::rename(made.path(), path.c_str()) == 0, path, error);
}

void remove_unfinished(const std::string &state) {
  for (const auto &row : whole_files) {
    for (const auto &path : paths_in(state + row.directory)) {
      const auto name = std::string_view(path).substr(path.rfind('/') + 1);
      if (name.starts_with(row.begins) && is_unfinished(name)) (void)sys::unlink(path.c_str());
    }
  }
}

std::optional<std::string> read_all(const file &from) {
  std::string contents;
  char part[4096];
  while (true) {
    const auto got = ::syscall(SYS_read, from.fd(), part, sizeof(part));
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) return std::nullopt;
    if (got == 0) return contents;
    contents.append(part, static_cast<size_t>(got));
  }
}

std::optional<std::string> read_file(const std::string &path) {
  return read_all(file(sys::open(path.c_str(), O_RDONLY | O_CLOEXEC)));
}

bool file_exists(const std::string &path) {
  return sys::access(path.c_str(), F_OK) == 0;
}

std::string os_error(const std::string &path) {
  return path + ": " + std::strerror(errno);
}

void end_run(const std::string &why) {
  const auto line = "board-sim: " + why + "\n";
  (void)!sys::write(STDERR_FILENO, line.data(), line.size());
  _exit(2);
}

std::string own_directory() {
  static constexpr char inside = 0;
  Dl_info info{};
  const bool is_library = dladdr(&inside, &info) != 0 && std::strstr(info.dli_fname, ".so") != nullptr;
  // A program may have been started by a relative name from a directory that is no longer the current one.
  const file object{sys::open(is_library ? info.dli_fname : "/proc/self/exe", O_PATH | O_CLOEXEC)};
  const auto link = "/proc/self/fd/" + std::to_string(object.fd());
  char path[PATH_MAX] = "";
  const auto length = ::readlink(link.c_str(), path, sizeof(path));
  const std::string_view whole(path, length < 0 ? 0 : static_cast<size_t>(length));
  return std::string(whole.substr(0, whole.rfind('/')));
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
  if (!file_exists(path) && !make_contents(path, size, next)) return succeeds(false, path, error);
  const file backing{sys::open(path.c_str(), O_RDWR | O_CLOEXEC)};
  const auto found = backing.is_open() ? ::lseek(backing.fd(), 0, SEEK_END) : -1;
  if (found < 0) return succeeds(false, path, error);
  if (static_cast<uint64_t>(found) != size) {
    *error = path + ": size is not " + std::to_string(size) + " bytes";
    return false;
  }
  void *const at = sys::mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, backing.fd(), 0);
  if (at == MAP_FAILED) return succeeds(false, path, error);
  m_bytes = {static_cast<uint8_t *>(at), size};
  return true;
}

void *backing_file::map(void *addr, size_t length, int prot, int flags, uint64_t offset) const {
  const file backing{sys::open(m_path->c_str(), O_RDWR | O_CLOEXEC)};
  if (!backing.is_open()) return MAP_FAILED;
  return sys::mmap(addr, length, prot, flags, backing.fd(), offset);
}

}  // namespace sim
