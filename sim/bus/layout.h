// layout.h: the local-bus windows of the PLX PCI 9030 bridge, where the PCI list and /dev/mem must agree.
#pragma once

#include <array>
#include <cstdint>

namespace sim {

struct window {
  const char *name;  // device name in the bus log, file name in the state directory
  uint32_t bar;      // configuration-space offset of the base address register
  uint32_t base;     // physical address
  uint32_t length;   // bytes
};

// clang-format off
inline constexpr std::array<window, 4> windows{{
    {"nvram0", 0x18, 0xF4000000, 0x0008000},
    {"nvram1", 0x1C, 0xF4010000, 0x0008000},
    {"nvram2", 0x20, 0xF4020000, 0x0008000},
    {"flash",  0x24, 0xF8000000, 0x4000000},
}};
// clang-format on

}  // namespace sim
