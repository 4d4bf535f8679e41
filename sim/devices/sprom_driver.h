// sprom_driver.h: the kernel driver behind /dev/sprom.
#pragma once

#include <cstdint>

#include "sim/base/options.h"

namespace sim {

class sprom_driver {
 public:
  explicit sprom_driver(const options &opts) : m_opts(opts) {}

  // As ioctl(): 0, or -1 with errno set. It answers the two requests for card index and hardware change bits (16 bits)
  // through the pointer in the caller's record, and refuses a record whose constant fields are not as they should be.
  int ioctl(unsigned long request, void *arg);

 private:
  int answer(unsigned long request, void *arg) const;

  const options &m_opts;
  uint64_t m_requests = 0;
};

}  // namespace sim
