#include "tests/unit/fake_os.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>

fake_os_t fake_os;

namespace {

// Sparse: only what is touched takes memory.
int physical_memory() {
  static const int fd = [] {
    const int memory = memfd_create("physical", 0);
    EXPECT_EQ(ftruncate(memory, off_t{1} << 32), 0);
    return memory;
  }();
  return fd;
}

int real_open(const char *path, int flags, mode_t mode) {
  return static_cast<int>(syscall(SYS_openat, AT_FDCWD, path, flags | O_LARGEFILE, mode));
}

int open_devmem(int flags) {
  fake_os.devmem_flags.push_back(flags);
  if (fake_os.devmem_absent) {
    errno = ENOENT;
    return -1;
  }
  const std::string path = "/proc/self/fd/" + std::to_string(physical_memory());
  return real_open(path.c_str(), fake_os.devmem_read_only ? O_RDONLY : O_RDWR, 0);
}

}  // namespace

uint32_t phys_read(uint64_t address, unsigned bytes) {
  uint32_t value = 0;
  EXPECT_EQ(pread(physical_memory(), &value, bytes, static_cast<off_t>(address)), static_cast<ssize_t>(bytes));
  return value;
}

void phys_write(uint64_t address, unsigned bytes, uint32_t value) {
  EXPECT_EQ(pwrite(physical_memory(), &value, bytes, static_cast<off_t>(address)), static_cast<ssize_t>(bytes));
}

// With 64-bit file offsets, open() and fopen() are these symbols in every word size.
extern "C" {
int fake_open(const char *path, int flags, ...) asm("open64");
FILE *fake_fopen(const char *path, const char *mode) asm("fopen64");

int fake_open(const char *path, int flags, ...) {
  va_list args;
  va_start(args, flags);
  const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(args, mode_t) : 0;
  va_end(args);
  return strcmp(path, "/dev/mem") == 0 ? open_devmem(flags) : real_open(path, flags, mode);
}

FILE *fake_fopen(const char *path, const char *mode) {
  if (strcmp(path, "/proc/bus/pci/devices") != 0) {
    const int fd = real_open(path, mode[0] == 'r' ? O_RDONLY : O_RDWR | O_CREAT | O_TRUNC, 0666);
    return fd < 0 ? nullptr : fdopen(fd, mode);
  }
  ++fake_os.pci_opened;
  if (!fake_os.pci_devices) {
    errno = ENOENT;
    return nullptr;
  }
  FILE *const file = tmpfile();
  (void)fputs(fake_os.pci_devices->c_str(), file);
  rewind(file);
  return file;
}
}
