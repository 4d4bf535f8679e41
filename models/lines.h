// lines.h: stuck, shorted and floating lines between a memory and its bus.
#pragma once

#include <cstdint>
#include <optional>
#include <vector>

#include "models/fault.h"

namespace models {

enum class line_kind : uint8_t {
  stuck,
  shorted,   // two lines: one level wins where they differ
  floating,  // open: either end keeps a level of its own
};

// A bad line, or two that are shorted, as bits of an address or a data word.
struct bad_lines {
  line_kind kind = line_kind::stuck;
  uint32_t lines = 0;  // 0: none is bad
  bool high = false;   // the level of the stuck line; the one that wins

  // What arrives at the other end.
  //   kept  the levels that floating lines have there
  [[nodiscard]] uint32_t pass(uint32_t levels, uint32_t kept = 0) const {
    const uint32_t now = levels & lines;
    if (kind == line_kind::floating) return (levels & ~lines) | (kept & lines);
    if (kind == line_kind::shorted && (now == 0 || now == lines)) return levels;
    return high ? levels | lines : levels & ~lines;
  }
};

// The lines of one address or data bus.
class bus_lines {
 public:
  // `cause` as of a chip_fault.
  void add(const bad_lines &bad, const fault *cause = nullptr) { m_faulty.push_back({bad, cause, false}); }

  [[nodiscard]] bool healthy() const { return m_faulty.empty(); }

  // What arrives at the other end.
  //   seen  lines that matter there; a fault in others only does not act
  //   kept  the levels that floating lines have
  [[nodiscard]] uint32_t pass(uint32_t levels, uint32_t seen, uint32_t kept = 0) {
    return healthy() ? levels : pass_faulty(levels, seen, kept);
  }

  // The faults that acted in the last pass made a difference.
  void fired() const;

 private:
  struct faulty {
    bad_lines bad;
    const fault *cause;
    bool acted;
  };
  [[nodiscard]] uint32_t pass_faulty(uint32_t levels, uint32_t seen, uint32_t kept);

  std::vector<faulty> m_faulty;
};

// A memory's 16 data lines. Either side of a floating line keeps the level that was last driven there, by this memory's
// own cycles.
class data_lines {
 public:
  [[nodiscard]] bus_lines &lines() { return m_lines; }
  [[nodiscard]] const bus_lines &lines() const { return m_lines; }

  // A write cycle: what the chip takes. Bits outside of `lanes` are not driven.
  [[nodiscard]] uint16_t to_chip(uint16_t word, uint16_t lanes = 0xFFFF);
  // A read cycle: what the bus takes. Nobody looks at bits outside of `lanes`.
  [[nodiscard]] uint16_t to_bus(uint16_t word, uint16_t lanes = 0xFFFF);

 private:
  bus_lines m_lines;
  uint16_t m_bus_levels = 0;
  uint16_t m_chip_levels = 0;
};

// What a fault of lines does, and to which bus.
struct line_fault {
  bool address;  // lines of the address bus, else of the data bus
  bad_lines bad;
};
// Nothing for faults of other kinds.
[[nodiscard]] std::optional<line_fault> line_fault_of(const chip_fault &f);

// Adds a fault of lines to those of its bus. Returns whether it is one.
bool add_line_fault(const chip_fault &f, bus_lines *data, bus_lines *address);

}  // namespace models
