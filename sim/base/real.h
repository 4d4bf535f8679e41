// real.h: the operating system below the interposed functions. The board's own code accesses files only through these,
// since it must not call the functions that it replaces.
#pragma once

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <utility>

namespace sim {

// Restores errno at the end of a scope.
class keep_errno {
 public:
  keep_errno() = default;
  keep_errno(const keep_errno &) = delete;
  keep_errno &operator=(const keep_errno &) = delete;
  ~keep_errno() { errno = m_errno; }

 private:
  int m_errno = errno;
};

// A failed call's result: -1 with this errno.
inline int fail(int error) {
  errno = error;
  return -1;
}

inline int64_t monotonic_nsec() {
  timespec now{};
  (void)::clock_gettime(CLOCK_MONOTONIC, &now);
  return int64_t{now.tv_sec} * 1'000'000'000 + now.tv_nsec;
}

inline constexpr size_t page_size = 4096;

// The plain system calls, with the C library's results: -1 and errno.
namespace sys {

inline int open(const char *path, int flags, mode_t mode = 0666) {
  return static_cast<int>(::syscall(SYS_openat, AT_FDCWD, path, flags | O_LARGEFILE, mode));
}
inline int close(int fd) {
  return static_cast<int>(::syscall(SYS_close, fd));
}
inline ssize_t write(int fd, const void *from, size_t length) {
  return ::syscall(SYS_write, fd, from, length);
}
inline int unlink(const char *path) {
  return static_cast<int>(::syscall(SYS_unlink, path));
}
inline int rmdir(const char *path) {
  return static_cast<int>(::syscall(SYS_rmdir, path));
}
inline int mkdir(const char *path, mode_t mode) {
  return static_cast<int>(::syscall(SYS_mkdir, path, mode));
}
inline int link(const char *from, const char *to) {
  return static_cast<int>(::syscall(SYS_link, from, to));
}
inline int rename(const char *from, const char *to) {
  return static_cast<int>(::syscall(SYS_rename, from, to));
}
inline int access(const char *path, int mode) {
  return static_cast<int>(::syscall(SYS_access, path, mode));
}
inline int fcntl(int fd, int cmd, intptr_t arg) {
#ifdef SYS_fcntl64
  return static_cast<int>(::syscall(SYS_fcntl64, fd, cmd, arg));
#else
  return static_cast<int>(::syscall(SYS_fcntl, fd, cmd, arg));
#endif
}
inline int munmap(void *addr, size_t length) {
  return static_cast<int>(::syscall(SYS_munmap, addr, length));
}

inline int mprotect(void *addr, size_t length, int prot) {
  return static_cast<int>(::syscall(SYS_mprotect, addr, length, prot));
}
inline void *mremap(void *addr, size_t length, size_t new_length, int flags, void *to) {
  return reinterpret_cast<void *>(::syscall(SYS_mremap, addr, length, new_length, flags, to));
}

inline void *mmap(void *addr, size_t length, int prot, int flags, int fd, uint64_t offset) {
#ifdef SYS_mmap2
  const long at = ::syscall(SYS_mmap2, addr, length, prot, flags, fd, static_cast<unsigned long>(offset / page_size));
#else
  const long at = ::syscall(SYS_mmap, addr, length, prot, flags, fd, offset);
#endif
  return reinterpret_cast<void *>(at);
}

// Moves a descriptor that stays open out of the low numbers, which belong to the program. Returns -1 for -1.
inline int keep(int fd) {
  constexpr int first = 700;
  if (fd < 0) return fd;
  const int high = sys::fcntl(fd, F_DUPFD_CLOEXEC, first);
  if (high < 0) return fd;
  (void)sys::close(fd);
  return high;
}

}  // namespace sys

// A descriptor that closes itself; -1 for none.
class file {
 public:
  file() = default;
  explicit file(int fd) : m_fd(fd) {}
  file(file &&other) noexcept : m_fd(std::exchange(other.m_fd, -1)) {}
  file &operator=(file &&other) noexcept {
    close();
    m_fd = std::exchange(other.m_fd, -1);
    return *this;
  }
  ~file() { close(); }
  void close() {
    const keep_errno kept;
    if (m_fd >= 0) (void)sys::close(m_fd);
    m_fd = -1;
  }
  [[nodiscard]] int fd() const { return m_fd; }
  [[nodiscard]] bool is_open() const { return m_fd >= 0; }

 private:
  int m_fd = -1;
};

struct pipe_ends {
  file reading;
  file writing;
};

// A pipe that programs started later do not inherit. Neither end is open, with errno set, if there is none.
inline pipe_ends make_pipe() {
  int fds[] = {-1, -1};
  (void)!::pipe2(fds, O_CLOEXEC);
  return {file(fds[0]), file(fds[1])};
}

}  // namespace sim
