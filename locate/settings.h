// settings.h: what the command line asks of the probes.
#pragma once

#include <cstdint>
#include <string>

namespace locate {

struct settings {
  uint32_t rounds = 1;                         // over the lines of an NVRAM, at least, and over words of the flash
  bool cells = false;                          // march over the cells of the NVRAM
  bool write = false;                          // two sectors of the flash may be erased, written and restored
  bool progress = false;                       // show it on the terminal
  uint32_t wait_ms = 10'000;                   // for a lock of another process
  std::string state = "/var/lib/post-locate";  // the directory of the journals
};

}  // namespace locate
