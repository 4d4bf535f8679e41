// nvram.h: battery-backed RAM on the 16-bit local bus.
#pragma once

#include <cstdint>
#include <span>

#include "sim/board/options.h"
#include "sim/devices/lines.h"

namespace sim {

class nvram_model {
 public:
  // Puts an instance to work on its contents, which the caller keeps mapped.
  void start(std::span<uint8_t> contents, unsigned instance, const options &opts);

  // Whether every access may go to the contents at once.
  [[nodiscard]] bool healthy() const { return data.healthy() && address.healthy() && cells.healthy(); }

  // One 16-bit read cycle at an even offset.
  [[nodiscard]] uint16_t read(uint32_t offset) const;

  // One write cycle at an even offset.
  //   lanes  0x00FF, 0xFF00 or both: the bytes that are written
  void write(uint32_t offset, uint16_t word, uint16_t lanes);

 private:
  std::span<uint8_t> memory;
  bus_lines data;
  bus_lines address;
  bad_cells cells;

  [[nodiscard]] uint32_t cell_offset(uint32_t offset) const;
};

}  // namespace sim
