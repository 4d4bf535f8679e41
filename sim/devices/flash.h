// flash.h: the board's NOR flash: the chip with the faults, the times and the audit that the run asks for.
#pragma once

#include <cstdint>
#include <span>
#include <string>

#include "models/nor_flash.h"
#include "sim/base/needs.h"

namespace sim {

// What faults may need of the flash.
std::span<const need_row> flash_needs();

class cut_audit;

class flash_model final : private models::flash_watcher {
 public:
  flash_model() = default;
  flash_model(const flash_model &) = delete;
  flash_model &operator=(const flash_model &) = delete;

  // Powers the chip up with its contents (models::flash_bytes of them). The caller owns and keeps these and `opts`.
  //   audit  of every write from now on, or null
  void start(std::span<uint8_t> contents, const options &opts, cut_audit *audit = nullptr);

  // One 16-bit bus cycle at an even byte offset.
  [[nodiscard]] uint16_t read(uint32_t offset) { return m_chip.read(offset); }
  void write(uint32_t offset, uint16_t data);

  // As of models::nor_flash.
  [[nodiscard]] bool reads_plainly() const { return m_chip.reads_plainly(); }
  [[nodiscard]] bool is_busy() const { return m_chip.is_busy(); }
  [[nodiscard]] bool reads_array() const { return m_chip.reads_array(); }

 private:
  models::nor_flash m_chip;
  const fault *m_power_cut = nullptr;
  cut_audit *m_audit = nullptr;

  // The audit counts the times of the real chip.
  void programs(std::span<const models::word_write> words) override;
  void erases(const std::bitset<models::flash_sectors> &sectors) override;
  void done() override;
};

}  // namespace sim
