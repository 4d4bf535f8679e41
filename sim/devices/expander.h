// expander.h: 16-pin I2C I/O expanders: NXP PCA9539 and PCA8575 (their data sheets). Bit n of a 16-bit value is pin n
// of port 0, bit 8 + n pin n of port 1.
#pragma once

#include <array>
#include <cstdint>
#include <span>
#include <vector>

#include "sim/bus/i2c.h"

namespace sim {

// The circuit at the pins.
struct expander_pins {
  // Pins that a fault holds.
  struct held {
    const fault *cause;
    uint16_t pins;
    uint16_t levels;

    // The levels with the fault, which acts if it changes one of the `seen` pins.
    [[nodiscard]] uint16_t apply(uint16_t now, uint16_t seen) const;
  };

  uint16_t level = 0xFFFF;    // what the outside drives or pulls an input to,
  std::vector<held> outside;  // where faults do not make it another
  std::vector<held> stuck;    // pins that do not follow

  // The levels on the pins. The chip drives the pins in `driven` to `outputs`; the reader uses only the pins in `seen`.
  [[nodiscard]] uint16_t levels(uint16_t driven, uint16_t outputs, uint16_t seen) const;
};

class expander : public i2c_device {
 public:
  explicit expander(expander_pins pins) : m_pins(std::move(pins)) {}

  // The levels on the pins. The reader uses only those in `seen`.
  [[nodiscard]] virtual uint16_t levels(uint16_t seen) const = 0;

 protected:
  expander_pins m_pins;
};

// Four register pairs: input, output, polarity inversion, configuration. The command byte names a register; what
// follows it alternates between the two of its pair, and a read without a command goes on there ("Reading the port
// registers"). Inputs cannot be written. A command above 7 is not acknowledged.
class pca9539 : public expander {
 public:
  // Outputs high, polarity plain, all pins inputs.
  static constexpr std::array<uint8_t, 8> power_on{0, 0, 0xFF, 0xFF, 0, 0, 0xFF, 0xFF};

  using expander::expander;
  [[nodiscard]] uint16_t levels(uint16_t seen) const override;
  // From now on the registers are in this memory, with its present contents.
  void keep(std::span<uint8_t, 8> registers) { m_registers = registers.data(); }

  bool start(bool reading) override;
  bool write(uint8_t byte) override;
  uint8_t read() override;
  void stop() override {}

 private:
  [[nodiscard]] uint16_t pair(unsigned first) const;

  std::array<uint8_t, 8> m_own_registers = power_on;
  uint8_t *m_registers = m_own_registers.data();
  uint8_t m_next = 0;  // register
  bool m_has_command = false;
};

// No registers: bytes written go to port 0 and port 1 in turn, bytes read are the pins of port 0 and port 1 in turn.
// A pin that is written high is a weak pull-up that the outside can pull low, and so an input ("Quasi-bidirectional
// I/O architecture").
class pca8575 : public expander {
 public:
  using expander::expander;
  [[nodiscard]] uint16_t levels(uint16_t seen) const override;

  bool start(bool reading) override;
  bool write(uint8_t byte) override;
  uint8_t read() override;
  void stop() override {}

 private:
  uint16_t m_latch = 0xFFFF;
  unsigned m_port = 0;
};

}  // namespace sim
