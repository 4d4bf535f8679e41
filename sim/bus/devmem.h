// devmem.h: the memory side of the board: the windows behind /dev/mem, the trapped accesses, I/O port 0x50C.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "sim/board/options.h"

namespace sim {

// Prepares the device models and creates what the state directory lacks of their contents: nvram0, nvram1 and nvram2 at
// once, flash at the first access to it. `opts` must stay until devmem_stop. Returns false and says why in *error when
// the state directory cannot be used.
bool devmem_start(const options &opts, std::string *error);

// Drops every mapping and model; contents are in their files.
void devmem_stop();

// mmap() of /dev/mem: physical range [phys, phys + length), rounded up to whole pages. A device may be mapped several
// times. The first mapping puts the handler of trapped accesses in place.
//   prot, flags  as for mmap(); MAP_SHARED without MAP_FIXED
// Returns MAP_FAILED with errno set: EINVAL for an offset within a page, no length or other flags; EPERM where no
// window holds the whole range.
void *devmem_map(size_t length, int prot, int flags, uint64_t phys);

// munmap() of a mapping or a part of it. Returns false, with nothing done, if [addr, addr + length) does not lie in one
// mapping of devmem_map.
bool devmem_unmap(void *addr, size_t length);

// iopl(), level 0 to 3. Returns 0, or -1 with errno set. At level 3 the process may use the port.
int devmem_iopl(int level);

}  // namespace sim
