// port.h: the supervisor's 32-bit I/O port 0x50C. Bit 27 write-protects the SPROM of supervisor and backplane.
#pragma once

#include <cstdint>

#include "sim/board/options.h"

namespace sim {

inline constexpr uint16_t port_number = 0x50C;
inline constexpr uint32_t port_initial = 0x6B5A3C41;  // protected; the other bits are only to be kept
inline constexpr uint32_t port_protect_bit = 1U << 27;

// Sets the port to its initial value, with the process's privilege down.
void port_start(const options &opts);

// iopl(): 0, or -1 with errno set.
int port_set_level(int level);

// Whether the process has raised its I/O privilege to level 3.
[[nodiscard]] bool port_allowed();

// Whether the pins protect the supervisor's EEPROM.
[[nodiscard]] bool port_write_protected();

// I/O cycles. Ends the run on another port or width: nothing else of the board answers there.
[[nodiscard]] uint32_t port_in(uint16_t port, unsigned width);
void port_out(uint16_t port, unsigned width, uint32_t data);

}  // namespace sim
