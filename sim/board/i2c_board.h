// i2c_board.h: the I2C buses of each board family and what sits on them.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "sim/bus/i2c.h"

namespace sim {

class expander;
class io_port;

class i2c_board {
 public:
  // Makes the buses and devices that `opts` asks for, with the EEPROMs' files in the state directory. Check first. The
  // port, which protects some of them, must stay as long as the object.
  // Returns null and says why in *error when the state directory cannot be used.
  static std::unique_ptr<i2c_board> make(const options &opts, const io_port &port, std::string *error);

  // The bus of that number, or null.
  [[nodiscard]] i2c_bus *bus(uint32_t number) const;

  // Tells why the board cannot have the faults that `opts` asks of its buses: "" if it can.
  static std::string check(const options &opts);

 private:
  std::vector<std::unique_ptr<i2c_bus>> m_buses;
};

// The numbers of the family's buses that have a device file.
std::vector<uint32_t> i2c_bus_numbers(const options &opts);

}  // namespace sim
