// port.h: the supervisor's 32-bit I/O port 0x50C. Bit 27 write-protects the SPROM of supervisor and backplane.
#pragma once

#include <cstdint>
#include <vector>

#include "sim/base/options.h"

namespace sim {

inline constexpr uint16_t port_number = 0x50C;
inline constexpr uint32_t port_initial = 0x6B5A3C41;  // protected; the other bits are only to be kept
inline constexpr uint32_t port_protect_bit = 1U << 27;

class io_port {
 public:
  // The port after power-on, the process's privilege down. `opts` must stay as long as the object.
  explicit io_port(const options &opts);
  io_port(const io_port &) = delete;
  io_port &operator=(const io_port &) = delete;

  // iopl(): 0, or -1 with errno set.
  [[nodiscard]] int set_level(int level);

  // From now on the latch is in this memory, with its present value.
  void keep(uint32_t *latch) { m_latch = latch; }

  // Whether the process has raised its I/O privilege to level 3.
  [[nodiscard]] bool allowed() const { return m_level == 3; }

  // Whether the pins protect the supervisor's EEPROM.
  [[nodiscard]] bool write_protected() const { return (pins(port_protect_bit) & port_protect_bit) != 0; }

  // I/O cycles. End the run on another port or width: nothing else of the board answers there.
  [[nodiscard]] uint32_t in(uint16_t port, unsigned width) const;
  void out(uint16_t port, unsigned width, uint32_t data);

 private:
  uint32_t m_own_latch = port_initial;
  uint32_t *m_latch = &m_own_latch;
  std::vector<const fault *> m_stuck;
  const fault *m_refusal;  // of iopl; null for none
  int m_level = 0;

  // The levels of the pins. The reader uses only those in `seen`.
  [[nodiscard]] uint32_t pins(uint32_t seen) const;
};

}  // namespace sim
