// waves.h: the cycles on the board's buses as waveforms, in the Value Change Dump format (IEEE 1364-2005, 18).
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "sim/bus/trace.h"

namespace sim {

// Text for the end of such a file. Its time is that of the buses, in units of 100 ns: I2C at 100 kHz, 500 ns for a
// cycle of the local bus or the port. Pauses in between are left out.
class waves {
 public:
  // The file's beginning: what signals there are, and their levels at rest.
  static std::string header(std::span<const uint32_t> i2c_buses);

  // The next cycle; "" if it is on no bus.
  std::string cycle(const bus_cycle &cycle);
  // The master ends the transaction on this I2C bus.
  std::string i2c_stop(uint32_t bus);
  // The flash's RY/BY# pin; "" if it already has this level.
  std::string flash_ready(bool ready);
  // The program begins a row.
  std::string row(std::string_view name);

  // Another program has written to the file: its last time.
  void go_on_from(uint64_t time);

 private:
  struct vector {
    char id;
    unsigned width;
    std::optional<uint32_t> last;  // as the file has it, if that is known
  };

  uint64_t m_time = 0;
  vector m_address{'A', 26, 0};
  vector m_data{'D', 16, 0};
  vector m_port{'P', 32, 0};
  vector m_lanes{'B', 2, 3};
  std::optional<bool> m_ready = true;
  std::string m_text;

  void at(uint64_t later);
  void level(std::string_view id, bool high);
  void number(vector *of, uint32_t value);
  [[nodiscard]] std::string take();
  void memory_cycle(const bus_cycle &cycle);
  void bus_word(char chip, bool reading, uint32_t offset, uint16_t lanes, uint16_t word);
  void port_cycle(const bus_cycle &cycle);
  void i2c_message(const bus_cycle &cycle);
  void i2c_bit(uint32_t bus, bool level);
  void i2c_byte(uint32_t bus, uint8_t byte, bool acknowledged);
};

}  // namespace sim
