// owner.h: owners of what the C library hands out. Their destructors leave errno as it was.
#pragma once

#include <errno.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include <memory>

template <auto release>
struct releaser {
  void operator()(auto *p) const noexcept {
    const int saved = errno;
    release(p);
    errno = saved;
  }
};

// An open stream.
using file_ptr = std::unique_ptr<FILE, releaser<[](FILE *f) { (void)fclose(f); }>>;

// Memory of malloc(). Allocation failures are results here, not exceptions.
template <typename T>
using malloc_ptr = std::unique_ptr<T[], releaser<&free>>;

template <typename T>
[[nodiscard]] malloc_ptr<T> malloc_array(size_t count) {
  return malloc_ptr<T>(static_cast<T *>(malloc(count * sizeof(T))));
}

// An open descriptor; negative for none.
class unique_fd {
 public:
  explicit unique_fd(int fd) : m_fd(fd) {}
  unique_fd(const unique_fd &) = delete;
  unique_fd &operator=(const unique_fd &) = delete;
  ~unique_fd() {
    if (m_fd < 0) return;
    const int saved = errno;
    (void)::close(m_fd);
    errno = saved;
  }

  // Closes it here, where that can fail and somebody looks; returns what close() does.
  int close() {
    const int fd = m_fd;
    m_fd = -1;
    return ::close(fd);
  }

  [[nodiscard]] int get() const { return m_fd; }
  explicit operator bool() const { return m_fd >= 0; }

 private:
  int m_fd;
};
