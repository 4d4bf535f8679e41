// i2c_board.h: the I2C buses of each board family and their devices.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "sim/base/files.h"
#include "sim/base/needs.h"
#include "sim/bus/i2c.h"

namespace sim {

class expander;
class io_port;

class i2c_board {
 public:
  // Makes the buses and devices that `opts` asks for, with the EEPROMs' files in the state directory. Check first. The
  // address counters of EEPROMs and the registers of port and expanders are kept there, too, for all programs. The
  // port, which protects some of the EEPROMs, uses this object's memory from then on. Returns null and says why in
  // *error when the state directory cannot be used.
  static std::unique_ptr<i2c_board> make(const options &opts, io_port &port, std::string *error);

  // The bus of that number, or null.
  [[nodiscard]] i2c_bus *bus(uint32_t number) const;

 private:
  std::vector<std::unique_ptr<backing_file>> m_files;  // registers that outlive a program
  std::vector<std::unique_ptr<i2c_bus>> m_buses;
};

// The numbers of the family's buses that have a device file.
std::vector<uint32_t> i2c_bus_numbers(const options &opts);

// What faults may need of the buses. A need is asked for when those before it in the fault's row are met.
std::span<const need_row> i2c_needs();

}  // namespace sim
