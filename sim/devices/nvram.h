// nvram.h: battery-backed RAM on the 16-bit local bus.
#pragma once

#include <cstdint>
#include <span>

#include "sim/board/options.h"
#include "sim/devices/cells.h"
#include "sim/devices/lines.h"

namespace sim {

class cut_audit;

class nvram_model {
 public:
  // Puts an instance to work on its contents. The caller keeps these mapped, and `opts`.
  void start(std::span<uint8_t> contents, unsigned instance, const options &opts);

  // Tells the audit of every write from now on. It must stay.
  void tell(cut_audit *audit) { m_audit = audit; }

  // Whether every access may go to the contents at once.
  [[nodiscard]] bool healthy() const {
    return m_data.lines().healthy() && m_address.healthy() && m_cells.healthy() && m_power_cut == nullptr;
  }

  // One 16-bit read cycle at an even offset.
  //   lanes  0x00FF, 0xFF00 or both: the bytes that somebody wants
  [[nodiscard]] uint16_t read(uint32_t offset, uint16_t lanes);

  // One write cycle at an even offset.
  //   lanes  the bytes that are written
  void write(uint32_t offset, uint16_t word, uint16_t lanes);

 private:
  std::span<uint8_t> m_memory;
  data_lines m_data;
  bus_lines m_address;
  bad_cells m_cells;
  const fault *m_power_cut = nullptr;
  cut_audit *m_audit = nullptr;

  void add(const fault &f);
  void cut_power(const word_write &w);
  [[nodiscard]] uint32_t cell_offset(uint32_t offset);
};

}  // namespace sim
