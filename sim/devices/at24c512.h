// at24c512.h: serial EEPROM of 64 KiB (Atmel AT24C512 data sheet).
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <span>
#include <string>
#include <vector>

#include "sim/bus/i2c.h"
#include "sim/host/files.h"

namespace sim {

inline constexpr size_t at24c512_size = 0x10000;
inline constexpr size_t at24c512_page = 128;

// Two address bytes after a write start, then data; the chip's own counter carries on from there. A read goes on at
// the counter and wraps at the end of the memory, a write wraps within its page. What was written is programmed at
// the stop; until the write cycle is over nothing is acknowledged. With its protect pin high the chip acknowledges
// data and drops it.
class at24c512 : public i2c_device {
 public:
  static constexpr uint64_t usual_polls = 2;

  struct setup {
    sim::busy busy = sim::busy::polls;
    uint64_t busy_polls = usual_polls;      // in polls: starts that a write cycle leaves unanswered
    bool busy_forever = false;              // a write cycle never ends
    const fault *slow = nullptr;            // why its busy time is not the usual one
    std::function<bool()> write_protected;  // the level of the protect pin; none: low
    const fault *locked = nullptr;          // it drops what is written
    struct corruption {
      uint16_t offset;
      uint8_t bits;  // inverted when the byte is read
      const fault *cause;
    };
    std::vector<corruption> corrupt;
  };

  explicit at24c512(setup with) : m_setup(std::move(with)) {}

  // Contents are in this file, which starts as `initial`. Returns false and says why in *error.
  bool open(const std::string &path, std::span<const uint8_t> initial, std::string *error);

  bool start(bool reading) override;
  bool write(uint8_t byte) override;
  uint8_t read() override;
  void stop() override;

 private:
  [[nodiscard]] bool is_busy();
  void compare_with_usual(bool busy);
  [[nodiscard]] bool changes() const;
  void program();

  setup m_setup;
  backing_file m_file;
  uint16_t m_counter = 0;
  unsigned m_address_bytes = 0;  // received since the start
  uint16_t m_address = 0;
  std::array<uint8_t, at24c512_page> m_page{};  // written since the start, where they belong in the page
  std::array<bool, at24c512_page> m_written{};
  bool m_any_written = false;
  uint64_t m_busy_polls = 0;
  uint64_t m_usual_polls = 0;  // left of a write cycle of the usual length
  int64_t m_busy_until = 0;    // in ns of the monotonic clock
};

}  // namespace sim
