// lines.h: stuck, shorted and floating lines between a memory and its bus.
#pragma once

#include <cstdint>
#include <span>
#include <vector>

#include "sim/board/fault.h"

namespace sim {

// The lines of one address or data bus, as bits of a number.
class bus_lines {
 public:
  // Lets one line take a level, two lines take the level that wins when they differ, or one line keep its own level.
  // The fault must stay.
  void add_stuck(const fault &f);
  void add_shorted(const fault &f);
  void add_floating(const fault &f);

  [[nodiscard]] bool healthy() const { return m_faulty.empty(); }

  // What arrives at the other end.
  //   seen  lines that matter there; a fault in others alone does not act
  //   kept  the levels that floating lines have
  [[nodiscard]] uint32_t pass(uint32_t levels, uint32_t seen, uint32_t kept = 0);

  // The faults that acted in the last pass made a difference.
  void fired() const;

 private:
  enum class kind : uint8_t { stuck, shorted, floating };
  struct faulty_lines {
    const fault *cause;
    bus_lines::kind kind;
    uint32_t lines;
    bool high;  // the level of the stuck line; the one that wins
    bool acted = false;

    [[nodiscard]] uint32_t apply(uint32_t levels, uint32_t kept) const;
  };
  std::vector<faulty_lines> m_faulty;
};

// A memory's 16 data lines. A floating line is open between bus and chip: either side keeps the level that was last
// driven there, by this memory's own cycles.
class data_lines {
 public:
  [[nodiscard]] bus_lines &lines() { return m_lines; }
  [[nodiscard]] const bus_lines &lines() const { return m_lines; }

  // A write cycle: what the chip takes. Bits outside of `lanes` are not driven.
  [[nodiscard]] uint16_t to_chip(uint16_t word, uint16_t lanes);
  // A read cycle: what the bus takes. Nobody looks at bits outside of `lanes`.
  [[nodiscard]] uint16_t to_bus(uint16_t word, uint16_t lanes = 0xFFFF);

 private:
  bus_lines m_lines;
  uint16_t m_bus_levels = 0;
  uint16_t m_chip_levels = 0;
};

// Little-endian 16-bit words of a memory at an even offset.
[[nodiscard]] uint16_t word_get(std::span<const uint8_t> bytes, uint32_t offset);
void word_set(std::span<uint8_t> bytes, uint32_t offset, uint16_t word);

}  // namespace sim
