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

// One access as cycles of the 16-bit local bus, `visit(word offset, lanes, shift)`, the lowest first. The shift is
// the place of the bus word's bit 0 in the data, negative when it lies below.
template <class Visit>
void for_each_cycle(uint32_t offset, unsigned width, Visit visit) {
  const uint32_t end = offset + width / 8;
  for (uint32_t word = offset & ~1U; word < end; word += 2) {
    unsigned lanes = 0xFFFF;
    if (word < offset) lanes &= 0xFF00U;
    if (word + 1 >= end) lanes &= 0x00FFU;
    visit(word, static_cast<uint16_t>(lanes), 8 * (static_cast<int>(word) - static_cast<int>(offset)));
  }
}

}  // namespace sim
