// trace.h: the bus log, one line for each device access and service transaction, in order.
#pragma once

#include <cstdint>
#include <string>

namespace sim {

// Starts a log in `path`; an empty path stops logging. Returns false if the file cannot be written.
bool trace_open(const std::string &path);
[[nodiscard]] bool trace_active();

// Writes "SECONDS DEVICE KIND WIDTH 0xOFFSET 0xDATA", with the seconds since the log was opened, in microseconds.
//   device  such as "nvram0", "flash", "port", "i2c-1:52"
//   kind    'r' or 'w'; an I2C transfer that was not acknowledged is 'R' or 'W'
//   width   bits of one access; for I2C the number of bytes times 8
void trace_access(const char *device, char kind, unsigned width, uint64_t offset, uint64_t data);

}  // namespace sim
