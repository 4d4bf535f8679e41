// flash_bus.h: the flash as the probes reach it, one cycle at a time.
#pragma once

#include <cstdint>
#include <span>

#include "models/nor_flash.h"

namespace locate {

// Address lines as bits of the byte offset. Words have even offsets: there is no line 0.
inline constexpr unsigned first_flash_line = 1;
inline constexpr unsigned last_flash_line = 25;
inline constexpr uint32_t flash_lines = models::flash_bytes - 2;
inline constexpr uint32_t flash_sector_lines = flash_lines & ~(models::flash_sector_bytes - 1);

using enum models::flash_command;
using enum models::flash_status;
// Where command cycles go, as byte offsets.
enum : uint32_t { flash_unlock_1 = 0xAAA, flash_unlock_2 = 0x554, flash_query_entry = 0x0AA };

class flash_bus {
 public:
  // Polls of an operation: the first at once, the others a millisecond apart. The longest erase of such chips takes
  // 3.5 s, the longest program of a buffer 4 ms.
  static constexpr unsigned polls_at_once = 1'000;
  static constexpr unsigned most_program_polls = polls_at_once + 50;
  static constexpr unsigned most_erase_polls = polls_at_once + 5'000;

  // One cycle of 16 bits at an even byte offset.
  [[nodiscard]] uint16_t read(uint32_t offset) {
    ++m_accesses;
    return read_cycle(offset);
  }
  void write(uint32_t offset, uint16_t data) {
    ++m_accesses;
    write_cycle(offset, data);
  }

  // Erase a sector; program words of one page. Return whether the chip says that it did so; it reads its array then.
  [[nodiscard]] bool erase(uint32_t sector);
  [[nodiscard]] bool program(uint32_t offset, std::span<const uint16_t> words);

  // Cycles so far.
  [[nodiscard]] unsigned accesses() const { return m_accesses; }

 protected:
  ~flash_bus() = default;

 private:
  virtual uint16_t read_cycle(uint32_t offset) = 0;
  virtual void write_cycle(uint32_t offset, uint16_t data) = 0;
  // Whether an operation that began so many polls ago may still run. Pauses between polls.
  [[nodiscard]] virtual bool may_run(unsigned polls) = 0;
  [[nodiscard]] bool wait(uint32_t offset, uint16_t running, unsigned most_polls);

  unsigned m_accesses = 0;
};

}  // namespace locate
