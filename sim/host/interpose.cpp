// interpose.cpp: the C library's entry points through which a program meets the board. Each looks whether the board is
// concerned and otherwise calls the next definition of its name. Logic stands elsewhere.
//
// The definitions have names of their own and take the C library's as labels, so that the headers' declarations, inline
// forms and renamings for large files stay out of the way.

// Here alone off_t and struct stat are those of the plain names.
#undef _FILE_OFFSET_BITS

#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <stdarg.h>
#include <stdio.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <type_traits>

#include "sim/board/board.h"
#include "sim/host/lock_holder.h"
#include "sim/host/real.h"

namespace {

// The definition that ours hides.
template <typename F>
class next_function {
 public:
  constexpr explicit next_function(const char *name) : m_name(name) {}
  F *get() {
    const sim::keep_errno kept;
    auto *found = m_found.load(std::memory_order_relaxed);
    if (found == nullptr) {
      found = reinterpret_cast<F *>(dlsym(RTLD_NEXT, m_name));
      m_found.store(found, std::memory_order_relaxed);
    }
    return found;
  }

 private:
  const char *m_name;
  std::atomic<F *> m_found{nullptr};
};

using sim::path_use;

std::optional<sim::redirection> board_path(const char *path, bool writing, path_use use) {
  const auto *const opts = sim::board_options();
  if (opts == nullptr || path == nullptr) return std::nullopt;
  const sim::keep_errno kept;
  auto to = sim::redirect(*opts, path, writing);
  if (to) sim::count_faults(*opts, *to, writing, use);
  return to;
}

bool is_writing(int flags) {
  return (flags & O_ACCMODE) != O_RDONLY || (flags & (O_CREAT | O_TRUNC)) != 0;
}
bool is_writing(const char *mode) {
  return mode != nullptr && (mode[0] != 'r' || strchr(mode, '+') != nullptr);
}

// All opening forms come down to this call.
int open_any(int dir, const char *path, int flags, mode_t mode) {
  const auto to = board_path(path, is_writing(flags), path_use::open);
  if (!to) return static_cast<int>(syscall(SYS_openat, dir, path, flags, mode));
  if (to->error != 0) return sim::fail(to->error);
  if (to->device != sim::device::none) return sim::device_open(*to, flags);
  return static_cast<int>(syscall(SYS_openat, AT_FDCWD, to->path.c_str(), flags, mode));
}

// The mode of an opening call is there only with the flags that make a file.
mode_t mode_of(int flags, va_list args) {
  return (flags & O_CREAT) != 0 || (flags & O_TMPFILE) == O_TMPFILE ? va_arg(args, mode_t) : 0;
}

// Functions whose first argument is a path: the next definition gets the board's version of it.
template <typename R, typename... A>
R by_path(next_function<R(const char *, A...)> &next, R failed, bool writing, const char *path, A... rest) {
  const auto to = board_path(path, writing, std::is_same_v<R, FILE *> ? path_use::open : path_use::act);
  if (!to) return next.get()(path, rest...);
  if (to->error != 0) {
    errno = to->error;
    return failed;
  }
  return next.get()(to->path.c_str(), rest...);
}

// The same for functions that take a directory first.
template <typename... A>
int by_path_at(next_function<int(int, const char *, A...)> &next, bool writing, int dir, const char *path, A... rest) {
  const auto to = board_path(path, writing, path_use::act);
  if (!to) return next.get()(dir, path, rest...);
  if (to->error != 0) return sim::fail(to->error);
  return next.get()(AT_FDCWD, to->path.c_str(), rest...);
}

// Asking about what cannot be opened is no error.
template <typename R, typename... A>
R by_asked_path(next_function<R(const char *, A...)> &next, const char *path, A... rest) {
  const auto to = board_path(path, false, path_use::ask);
  return next.get()(to ? to->path.c_str() : path, rest...);
}

template <typename... A>
int by_asked_path_at(next_function<int(int, const char *, A...)> &next, int dir, const char *path, A... rest) {
  const auto to = board_path(path, false, path_use::ask);
  return to ? next.get()(AT_FDCWD, to->path.c_str(), rest...) : next.get()(dir, path, rest...);
}

void *map_any(next_function<void *(void *, size_t, int, int, int, off64_t)> &next, void *addr, size_t length, int prot,
              int flags, int fd, off64_t offset) {
  if ((flags & MAP_ANONYMOUS) == 0)
    if (const auto at = sim::device_mmap(length, prot, flags, fd, static_cast<uint64_t>(offset))) return *at;
  return next.get()(addr, length, prot, flags, fd, offset);
}

int fcntl_any(next_function<int(int, int, void *)> &next, int fd, int cmd, void *arg) {
  if (const auto *const opts = sim::board_options()) sim::lock_asked(*opts, fd, cmd, arg);
  return next.get()(fd, cmd, arg);
}

// clang-format off
constinit next_function<FILE *(const char *, const char *)>         next_fopen{"fopen"};
constinit next_function<FILE *(const char *, const char *)>         next_fopen64{"fopen64"};
constinit next_function<FILE *(const char *, const char *, FILE *)> next_freopen{"freopen"};
constinit next_function<FILE *(const char *, const char *, FILE *)> next_freopen64{"freopen64"};
constinit next_function<int(int)>                                   next_close{"close"};
constinit next_function<int(int, unsigned long, void *)>            next_ioctl{"ioctl"};
constinit next_function<int(int, int, void *)>                      next_fcntl{"fcntl"};
constinit next_function<int(int, int, void *)>                      next_fcntl64{"fcntl64"};
constinit next_function<void *(void *, size_t, int, int, int, off64_t)> next_mmap64{"mmap64"};
constinit next_function<int(void *, size_t)>                        next_munmap{"munmap"};
constinit next_function<int(int)>                                   next_iopl{"iopl"};
constinit next_function<int(const char *)>                          next_system{"system"};
constinit next_function<int(const char *)>                          next_unlink{"unlink"};
constinit next_function<int(const char *)>                          next_remove{"remove"};
constinit next_function<int(const char *)>                          next_rmdir{"rmdir"};
constinit next_function<int(const char *)>                          next_chdir{"chdir"};
constinit next_function<int(const char *, mode_t)>                  next_mkdir{"mkdir"};
constinit next_function<int(const char *, mode_t)>                  next_chmod{"chmod"};
constinit next_function<int(const char *, int)>                     next_access{"access"};
constinit next_function<int(const char *, struct stat *)>           next_stat{"stat"};
constinit next_function<int(const char *, struct stat64 *)>         next_stat64{"stat64"};
constinit next_function<int(const char *, struct stat *)>           next_lstat{"lstat"};
constinit next_function<int(const char *, struct stat64 *)>         next_lstat64{"lstat64"};
constinit next_function<DIR *(const char *)>                        next_opendir{"opendir"};
constinit next_function<ssize_t(const char *, const char *, void *, size_t)> next_getxattr{"getxattr"};
constinit next_function<ssize_t(const char *, const char *, void *, size_t)> next_lgetxattr{"lgetxattr"};
constinit next_function<ssize_t(const char *, char *, size_t)>      next_listxattr{"listxattr"};
constinit next_function<ssize_t(const char *, char *, size_t)>      next_llistxattr{"llistxattr"};
constinit next_function<int(int, const char *, int)>                next_unlinkat{"unlinkat"};
constinit next_function<int(int, const char *, mode_t)>             next_mkdirat{"mkdirat"};
constinit next_function<int(int, const char *, int, const char *, unsigned)> next_renameat2{"renameat2"};
constinit next_function<int(int, const char *, int, int)>           next_faccessat{"faccessat"};
constinit next_function<int(int, const char *, struct stat *, int)> next_fstatat{"fstatat"};
constinit next_function<int(int, const char *, struct stat64 *, int)> next_fstatat64{"fstatat64"};
constinit next_function<int(int, const char *, int, unsigned, struct statx *)> next_statx{"statx"};
// clang-format on

int rename_any(int from_dir, const char *from, int to_dir, const char *to, unsigned flags) {
  const auto source = board_path(from, true, path_use::act);
  const auto target = board_path(to, true, path_use::act);
  const int error = source && source->error != 0 ? source->error : target ? target->error : 0;
  if (error != 0) return sim::fail(error);
  return next_renameat2.get()(from_dir, source ? source->path.c_str() : from, to_dir,
                              target ? target->path.c_str() : to, flags);
}

}  // namespace

extern "C" {
#pragma GCC visibility push(default)

// clang-format off
int board_open(const char *path, int flags, ...)                   __asm__("open");
int board_open64(const char *path, int flags, ...)                 __asm__("open64");
int board_openat(int dir, const char *path, int flags, ...)        __asm__("openat");
int board_openat64(int dir, const char *path, int flags, ...)      __asm__("openat64");
int board_open_2(const char *path, int flags)                      __asm__("__open_2");
int board_open64_2(const char *path, int flags)                    __asm__("__open64_2");
int board_openat_2(int dir, const char *path, int flags)           __asm__("__openat_2");
int board_openat64_2(int dir, const char *path, int flags)         __asm__("__openat64_2");
int board_creat(const char *path, mode_t mode)                     __asm__("creat");
int board_creat64(const char *path, mode_t mode)                   __asm__("creat64");
FILE *board_fopen(const char *path, const char *mode)              __asm__("fopen");
FILE *board_fopen64(const char *path, const char *mode)            __asm__("fopen64");
FILE *board_freopen(const char *path, const char *mode, FILE *f)   __asm__("freopen");
FILE *board_freopen64(const char *path, const char *mode, FILE *f) __asm__("freopen64");
int board_close(int fd)                                            __asm__("close");
int board_ioctl(int fd, unsigned long request, ...)                __asm__("ioctl");
int board_fcntl(int fd, int cmd, ...)                              __asm__("fcntl");
int board_fcntl64(int fd, int cmd, ...)                            __asm__("fcntl64");
void *board_mmap(void *addr, size_t length, int prot, int flags, int fd, off_t offset)     __asm__("mmap");
void *board_mmap64(void *addr, size_t length, int prot, int flags, int fd, off64_t offset) __asm__("mmap64");
int board_munmap(void *addr, size_t length)                        __asm__("munmap");
int board_iopl(int level)                                          __asm__("iopl");
int board_system(const char *command)                              __asm__("system");
int board_unlink(const char *path)                                 __asm__("unlink");
int board_remove(const char *path)                                 __asm__("remove");
int board_rmdir(const char *path)                                  __asm__("rmdir");
int board_chdir(const char *path)                                  __asm__("chdir");
int board_mkdir(const char *path, mode_t mode)                     __asm__("mkdir");
int board_chmod(const char *path, mode_t mode)                     __asm__("chmod");
int board_access(const char *path, int mode)                       __asm__("access");
int board_stat(const char *path, struct stat *st)                  __asm__("stat");
int board_stat64(const char *path, struct stat64 *st)              __asm__("stat64");
int board_lstat(const char *path, struct stat *st)                 __asm__("lstat");
int board_lstat64(const char *path, struct stat64 *st)             __asm__("lstat64");
DIR *board_opendir(const char *path)                               __asm__("opendir");
ssize_t board_getxattr(const char *path, const char *name, void *value, size_t size)  __asm__("getxattr");
ssize_t board_lgetxattr(const char *path, const char *name, void *value, size_t size) __asm__("lgetxattr");
ssize_t board_listxattr(const char *path, char *list, size_t size)  __asm__("listxattr");
ssize_t board_llistxattr(const char *path, char *list, size_t size) __asm__("llistxattr");
int board_unlinkat(int dir, const char *path, int flags)           __asm__("unlinkat");
int board_mkdirat(int dir, const char *path, mode_t mode)          __asm__("mkdirat");
int board_rename(const char *from, const char *to)                 __asm__("rename");
int board_renameat(int from_dir, const char *from, int to_dir, const char *to) __asm__("renameat");
int board_renameat2(int from_dir, const char *from, int to_dir, const char *to, unsigned flags) __asm__("renameat2");
int board_faccessat(int dir, const char *path, int mode, int flags) __asm__("faccessat");
int board_fstatat(int dir, const char *path, struct stat *st, int flags)     __asm__("fstatat");
int board_fstatat64(int dir, const char *path, struct stat64 *st, int flags) __asm__("fstatat64");
int board_statx(int dir, const char *path, int flags, unsigned mask, struct statx *st) __asm__("statx");
// clang-format on

int board_open(const char *path, int flags, ...) {
  va_list args;
  va_start(args, flags);
  const mode_t mode = mode_of(flags, args);
  va_end(args);
  return open_any(AT_FDCWD, path, flags, mode);
}

int board_open64(const char *path, int flags, ...) {
  va_list args;
  va_start(args, flags);
  const mode_t mode = mode_of(flags, args);
  va_end(args);
  return open_any(AT_FDCWD, path, flags | O_LARGEFILE, mode);
}

int board_openat(int dir, const char *path, int flags, ...) {
  va_list args;
  va_start(args, flags);
  const mode_t mode = mode_of(flags, args);
  va_end(args);
  return open_any(dir, path, flags, mode);
}

int board_openat64(int dir, const char *path, int flags, ...) {
  va_list args;
  va_start(args, flags);
  const mode_t mode = mode_of(flags, args);
  va_end(args);
  return open_any(dir, path, flags | O_LARGEFILE, mode);
}

int board_open_2(const char *path, int flags) {
  return open_any(AT_FDCWD, path, flags, 0);
}
int board_open64_2(const char *path, int flags) {
  return open_any(AT_FDCWD, path, flags | O_LARGEFILE, 0);
}
int board_openat_2(int dir, const char *path, int flags) {
  return open_any(dir, path, flags, 0);
}
int board_openat64_2(int dir, const char *path, int flags) {
  return open_any(dir, path, flags | O_LARGEFILE, 0);
}

int board_creat(const char *path, mode_t mode) {
  return open_any(AT_FDCWD, path, O_CREAT | O_WRONLY | O_TRUNC, mode);
}
int board_creat64(const char *path, mode_t mode) {
  return open_any(AT_FDCWD, path, O_CREAT | O_WRONLY | O_TRUNC | O_LARGEFILE, mode);
}

FILE *board_fopen(const char *path, const char *mode) {
  return by_path<FILE *>(next_fopen, nullptr, is_writing(mode), path, mode);
}
FILE *board_fopen64(const char *path, const char *mode) {
  return by_path<FILE *>(next_fopen64, nullptr, is_writing(mode), path, mode);
}
FILE *board_freopen(const char *path, const char *mode, FILE *f) {
  return by_path<FILE *>(next_freopen, nullptr, is_writing(mode), path, mode, f);
}
FILE *board_freopen64(const char *path, const char *mode, FILE *f) {
  return by_path<FILE *>(next_freopen64, nullptr, is_writing(mode), path, mode, f);
}

int board_close(int fd) {
  sim::device_close(fd);
  return next_close.get()(fd);
}

int board_ioctl(int fd, unsigned long request, ...) {
  va_list args;
  va_start(args, request);
  void *const arg = va_arg(args, void *);
  va_end(args);
  const auto result = sim::device_ioctl(fd, request, arg);
  return result ? *result : next_ioctl.get()(fd, request, arg);
}

int board_fcntl(int fd, int cmd, ...) {
  va_list args;
  va_start(args, cmd);
  void *const arg = va_arg(args, void *);
  va_end(args);
  return fcntl_any(next_fcntl, fd, cmd, arg);
}
int board_fcntl64(int fd, int cmd, ...) {
  va_list args;
  va_start(args, cmd);
  void *const arg = va_arg(args, void *);
  va_end(args);
  return fcntl_any(next_fcntl64, fd, cmd, arg);
}

void *board_mmap(void *addr, size_t length, int prot, int flags, int fd, off_t offset) {
  // Above 2 GiB a 32-bit offset looks negative.
  return map_any(next_mmap64, addr, length, prot, flags, fd, static_cast<off64_t>(static_cast<unsigned long>(offset)));
}
void *board_mmap64(void *addr, size_t length, int prot, int flags, int fd, off64_t offset) {
  return map_any(next_mmap64, addr, length, prot, flags, fd, offset);
}
int board_munmap(void *addr, size_t length) {
  if (sim::device_munmap(addr, length)) return 0;
  return next_munmap.get()(addr, length);
}

int board_iopl(int level) {
  const auto result = sim::device_iopl(level);
  return result ? *result : next_iopl.get()(level);
}

// The command runs in the real shell, which meets the board by the command's text and its environment.
int board_system(const char *command) {
  const auto *const opts = sim::board_options();
  if (opts == nullptr || command == nullptr) return next_system.get()(command);
  const auto text = sim::redirect_command(*opts, command);
  char **const own = environ;
  environ = sim::shell_environment();
  const int status = next_system.get()(text.c_str());
  environ = own;
  return status;
}

int board_unlink(const char *path) {
  return by_path(next_unlink, -1, true, path);
}
int board_remove(const char *path) {
  return by_path(next_remove, -1, true, path);
}
int board_rmdir(const char *path) {
  return by_path(next_rmdir, -1, true, path);
}
int board_chdir(const char *path) {
  return by_path(next_chdir, -1, false, path);
}
int board_mkdir(const char *path, mode_t mode) {
  return by_path(next_mkdir, -1, true, path, mode);
}
int board_chmod(const char *path, mode_t mode) {
  return by_path(next_chmod, -1, true, path, mode);
}
int board_access(const char *path, int mode) {
  return by_path(next_access, -1, (mode & W_OK) != 0, path, mode);
}
int board_stat(const char *path, struct stat *st) {
  return by_asked_path(next_stat, path, st);
}
int board_stat64(const char *path, struct stat64 *st) {
  return by_asked_path(next_stat64, path, st);
}
int board_lstat(const char *path, struct stat *st) {
  return by_asked_path(next_lstat, path, st);
}
int board_lstat64(const char *path, struct stat64 *st) {
  return by_asked_path(next_lstat64, path, st);
}
DIR *board_opendir(const char *path) {
  return by_path<DIR *>(next_opendir, nullptr, false, path);
}
ssize_t board_getxattr(const char *path, const char *name, void *value, size_t size) {
  return by_asked_path(next_getxattr, path, name, value, size);
}
ssize_t board_lgetxattr(const char *path, const char *name, void *value, size_t size) {
  return by_asked_path(next_lgetxattr, path, name, value, size);
}
ssize_t board_listxattr(const char *path, char *list, size_t size) {
  return by_asked_path(next_listxattr, path, list, size);
}
ssize_t board_llistxattr(const char *path, char *list, size_t size) {
  return by_asked_path(next_llistxattr, path, list, size);
}
int board_unlinkat(int dir, const char *path, int flags) {
  return by_path_at(next_unlinkat, true, dir, path, flags);
}
int board_mkdirat(int dir, const char *path, mode_t mode) {
  return by_path_at(next_mkdirat, true, dir, path, mode);
}
int board_rename(const char *from, const char *to) {
  return rename_any(AT_FDCWD, from, AT_FDCWD, to, 0);
}
int board_renameat(int from_dir, const char *from, int to_dir, const char *to) {
  return rename_any(from_dir, from, to_dir, to, 0);
}
int board_renameat2(int from_dir, const char *from, int to_dir, const char *to, unsigned flags) {
  return rename_any(from_dir, from, to_dir, to, flags);
}
int board_faccessat(int dir, const char *path, int mode, int flags) {
  return by_path_at(next_faccessat, (mode & W_OK) != 0, dir, path, mode, flags);
}
int board_fstatat(int dir, const char *path, struct stat *st, int flags) {
  return by_asked_path_at(next_fstatat, dir, path, st, flags);
}
int board_fstatat64(int dir, const char *path, struct stat64 *st, int flags) {
  return by_asked_path_at(next_fstatat64, dir, path, st, flags);
}
int board_statx(int dir, const char *path, int flags, unsigned mask, struct statx *st) {
  return by_asked_path_at(next_statx, dir, path, flags, mask, st);
}

#pragma GCC visibility pop
}
