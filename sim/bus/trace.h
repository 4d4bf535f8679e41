// trace.h: the bus log, one line for each device access and service transaction, in order.
#pragma once

#include <cstdint>
#include <span>
#include <string>

namespace sim {

// Starts logging at the end of `path`; an empty path stops it. Returns false with errno set if the file cannot be
// written.
bool trace_open(const std::string &path);
[[nodiscard]] bool trace_active();

// Writes "SECONDS DEVICE KIND WIDTH 0xOFFSET 0xDATA", with the seconds since the log was opened, in microseconds.
// Async-signal-safe; errno stays as it was.
//   device  such as "nvram0", "flash", "port", "sprom"
//   kind    'r' or 'w'
//   width   bits of the access
void trace_access(const char *device, char kind, unsigned width, uint64_t offset, uint64_t data);

// The same for a message on a bus.
//   device  such as "i2c-1:52"
//   kind    'r' or 'w'; 'R' or 'W' if it was not acknowledged or failed
//   offset  number of the message within its transaction, from 0
//   bytes   in the order on the wire, which is that of the digits; the width is their number times 8
void trace_message(const char *device, char kind, uint64_t offset, std::span<const uint8_t> bytes);

}  // namespace sim
