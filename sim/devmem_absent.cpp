// devmem_absent.cpp: a board without a memory side.
#include <sys/mman.h>

#include <cerrno>

#include "sim/devmem.h"

namespace sim {

bool devmem_start(const options &) {
  return true;
}
void devmem_stop() {}

void *devmem_map(size_t, int, int, uint64_t) {
  errno = ENODEV;
  return MAP_FAILED;
}

bool devmem_unmap(void *, size_t) {
  return false;
}

int port_iopl(int) {
  errno = ENODEV;
  return -1;
}

bool port_write_protected() {
  return false;
}

}  // namespace sim
