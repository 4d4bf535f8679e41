#include "sim/launcher/preload_list.h"

#include <dlfcn.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <cstring>

#include "sim/base/files.h"
#include "sim/base/real.h"

namespace sim {

namespace {

bool is_plain(const std::string &path) {
  return path.find_first_of(" :$") == std::string::npos;
}

// A new directory that every user can look into: the program may become another one. "" if there is no place for it.
std::string make_plain_directory() {
  for (const char *const base : std::array<const char *, 4>{std::getenv("TMPDIR"), "/tmp", "/var/tmp", "/dev/shm"}) {
    if (base == nullptr || *base != '/' || !is_plain(base)) continue;
    auto path = std::string(base) + "/board-sim-lib-XXXXXX";
    if (::mkdtemp(path.data()) != nullptr && ::chmod(path.c_str(), 0755) == 0) return path;
  }
  return "";
}

}  // namespace

preload_list::~preload_list() {
  if (!m_directory.empty()) remove_tree(m_directory);
}

bool preload_list::make(const std::string &library, std::string *error) {
  m_library = library;
  if (sys::access(library.c_str(), R_OK) != 0) {
    *error = os_error(library);
    return false;
  }
  if (is_plain(library)) return true;
  m_directory = make_plain_directory();
  m_library = m_directory + library.substr(library.rfind('/'));
  if (!m_directory.empty() && ::symlink(library.c_str(), m_library.c_str()) == 0) return true;
  *error = library + ": no temporary directory for a link to it, which a path with a blank, colon or '$' needs";
  return false;
}

// A sanitizer's library wants to be before all others.
std::string preload_list::text() const {
  std::string list = m_library;
  Dl_info info{};
  if (void *const sanitizer = dlsym(RTLD_DEFAULT, "__asan_init"))
    if (dladdr(sanitizer, &info) != 0 && std::strstr(info.dli_fname, ".so") != nullptr)
      list = std::string(info.dli_fname) + ":" + list;
  if (const char *const others = std::getenv("LD_PRELOAD")) list += std::string(":") + others;
  return list;
}

}  // namespace sim
