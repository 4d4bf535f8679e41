// eeprom.h: serial EEPROMs (Atmel AT24C512 and AT24C02 data sheets).
#pragma once

#include <cstdint>
#include <functional>
#include <span>
#include <string>
#include <vector>

#include "sim/base/files.h"
#include "sim/bus/i2c.h"

namespace sim {

// Sizes are powers of two, in bytes.
struct eeprom_chip {
  size_t size;
  size_t page;
  unsigned address_bytes;
};
inline constexpr eeprom_chip at24c512{0x10000, 128, 2};
inline constexpr eeprom_chip at24c02{0x100, 8, 1};

// The address bytes after a write start, then data; the chip's own counter carries on from there. A read goes on at
// the counter and wraps at the end of the memory, a write wraps within its page. What was written is programmed at
// the stop; until the write cycle is over nothing is acknowledged. With its protect pin high the chip acknowledges
// data and drops it.
class eeprom : public i2c_device {
 public:
  static constexpr uint64_t usual_polls = 2;

  struct setup {
    eeprom_chip chip = at24c512;
    sim::busy busy = sim::busy::polls;
    uint64_t busy_polls = usual_polls;      // in polls: starts that a write cycle leaves unanswered
    bool busy_forever = false;              // a write cycle never ends
    const fault *slow = nullptr;            // why its busy time is not the usual one
    std::function<bool()> write_protected;  // the level of the protect pin; none: low
    std::vector<const fault *> locked;      // it drops what is written
    struct corruption {
      uint16_t offset;
      uint8_t bits;  // inverted when the byte is read
      const fault *cause;
    };
    std::vector<corruption> corrupt;
    struct power_cut {
      const fault *cause = nullptr;
      uint64_t byte = 0;  // number of the byte written in whose write cycle it happens, 0 for never
      uint8_t written;    // the bits of it that are written all the same
      bool of_the_run;    // the run is killed; else the chip is dead
    };
    power_cut cut;
  };

  explicit eeprom(setup with) : m_setup(std::move(with)), m_page(m_setup.chip.page), m_written(m_setup.chip.page) {}

  // Contents are in this file, which starts as `initial`. Returns false and says why in *error.
  bool open(const std::string &path, std::span<const uint8_t> initial, std::string *error);
  // From now on the address counter is this memory, with its present value: every program that uses the chip moves it.
  void keep(uint32_t *counter) { m_counter = counter; }

  bool start(bool reading) override;
  bool write(uint8_t byte) override;
  uint8_t read() override;
  void stop() override;

 private:
  [[nodiscard]] bool is_busy();
  void compare_with_usual(bool busy);
  [[nodiscard]] bool changes() const;
  void program();
  void program_byte(uint8_t *cell, uint8_t byte);
  [[nodiscard]] size_t counter() const { return *m_counter % m_setup.chip.size; }
  void count_to(size_t address) { *m_counter = static_cast<uint32_t>(address % m_setup.chip.size); }
  [[nodiscard]] std::span<uint8_t> page() const;

  setup m_setup;
  backing_file m_file;
  uint32_t m_own_counter = 0;
  uint32_t *m_counter = &m_own_counter;
  unsigned m_address_bytes = 0;  // received since the start
  size_t m_address = 0;
  std::vector<uint8_t> m_page;  // written since the start, where they belong in the page
  std::vector<bool> m_written;
  bool m_any_written = false;
  uint64_t m_busy_polls = 0;
  uint64_t m_usual_polls = 0;  // left of a write cycle of the usual length
  int64_t m_busy_until = 0;    // in ns of the monotonic clock
  uint64_t m_bytes_written = 0;
  bool m_is_dead = false;
};

}  // namespace sim
