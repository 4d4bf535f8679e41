// trace.h: where every cycle of the board's buses passes, and the log of them.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

namespace sim {

// One access to a device or one message on a bus.
struct bus_cycle {
  std::string_view device;  // "nvram0", "flash", "port", "sprom"; of a message bus and address, "i2c-1:52"
  char kind;                // 'r' or 'w'; 'R' or 'W' of a message that was not acknowledged or failed
  unsigned width;           // bits
  uint64_t offset;          // within the device; the port; the request; a message's number in its transaction, from 0
  uint64_t data = 0;
  std::span<const uint8_t> message{};  // instead of data; in the order on the wire
};

// A cycle as the log, tests and manuals write it: "DEVICE KIND WIDTH 0xOFFSET 0xDATA". The digits of a message are in
// the order on the wire.
std::string cycle_text(const bus_cycle &cycle);

// Every cycle of every bus passes here as it happens. errno stays as it was.
void bus_passed(const bus_cycle &cycle);
// A transaction on an I2C bus has ended.
void i2c_stop_passed(uint32_t bus);
// The level of the flash's RY/BY# pin.
void flash_ready_passed(bool ready);

// Whether a log or a test reads the cycles.
[[nodiscard]] bool bus_is_watched();

// --- The program's rows ---------------------------------------------------------------------------------------------

// The name of the row that a text of the program's begins, "  Executing NAME: "; none if it begins no row.
[[nodiscard]] std::optional<std::string_view> row_begun_by(std::string_view text);

// The program begins a row.
void row_begins(std::string_view name);

// The row that the program began last; "" before the first.
[[nodiscard]] const std::string &row_now();

// --- The log: "SECONDS CYCLE", a line each, the seconds since it was opened with six decimals -----------------------

// Logs at the end of a file, which is made if it does not exist, until log_close. A name that ends in ".vcd" asks for
// waveforms instead of lines; see waves.h.
//   limit  bytes that the file may have, 0 for any number. The line that would make it larger ends the log.
//   i2c_buses  the numbers of the board's buses
// If the log ends early, by its limit, a full disk or a pipe without a reader, a message on standard error says so.
// Returns false with errno set if the file cannot be written.
[[nodiscard]] bool log_open(const std::string &path, uint64_t limit, std::span<const uint32_t> i2c_buses);
void log_close();

}  // namespace sim
