// nvram.h: an instance of the board's battery-backed RAM, with the faults and the audit that the run asks for.
#pragma once

#include <cstdint>
#include <span>

#include "models/nvram.h"
#include "sim/base/options.h"

namespace sim {

class cut_audit;

class nvram_model {
 public:
  // Puts an instance to work on its contents. The caller keeps these mapped, and `opts`.
  //   audit  of every write from now on, or null
  void start(std::span<uint8_t> contents, unsigned instance, const options &opts, cut_audit *audit = nullptr);

  // Whether every access may go to the contents at once.
  [[nodiscard]] bool healthy() const { return m_ram.healthy(); }

  // Cycles as of models::nvram.
  [[nodiscard]] uint16_t read(uint32_t offset, uint16_t lanes) { return m_ram.read(offset, lanes); }
  void write(uint32_t offset, uint16_t word, uint16_t lanes);

 private:
  models::nvram m_ram;
  const fault *m_power_cut = nullptr;
  cut_audit *m_audit = nullptr;
};

}  // namespace sim
