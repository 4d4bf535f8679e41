// flash.cpp: the probe of the flash.
#include <time.h>

#include "locate/device.h"
#include "locate/flash_lines.h"
#include "locate/parts.h"

namespace locate {
namespace {

class device_flash_bus final : public flash_bus {
 public:
  explicit device_flash_bus(device *flash) : m_flash(*flash) {}

 private:
  uint16_t read_cycle(uint32_t offset) override { return m_flash.read(offset); }
  void write_cycle(uint32_t offset, uint16_t data) override { m_flash.write(offset, data); }
  bool may_run(unsigned polls) override {
    constexpr timespec poll_time{0, 1'000'000};
    if (polls >= polls_at_once) (void)nanosleep(&poll_time, nullptr);
    return true;
  }

  device &m_flash;
};

}  // namespace

part_result probe_flash(const settings &how) {
  part_result result;
  device flash;
  if (!flash.open(flash_row, how, &result)) return result;
  device_flash_bus bus(&flash);
  locate_flash_lines(&bus, how.rounds, how.write, &result);
  result.accesses = flash.accesses();
  return result;
}

}  // namespace locate
