#include "locate/flash_bus.h"

namespace locate {

// Polls until these bits no longer toggle, all of them. An operation that failed or does not end needs a reset. DQ5 may
// rise just as it ends, so one more poll decides.
bool flash_bus::wait(uint32_t offset, uint16_t running, unsigned most_polls) {
  bool gave_up = false;
  for (unsigned polls = 0; polls < most_polls && may_run(polls); ++polls) {
    const uint16_t before = read(offset);
    const uint16_t after = read(offset);
    if (((before ^ after) & running) != running) return true;
    if (gave_up) break;
    gave_up = (before & after & dq5) != 0;
  }
  write(offset, cmd_reset);
  return false;
}

bool flash_bus::erase(uint32_t sector) {
  write(flash_unlock_1, cmd_unlock1);
  write(flash_unlock_2, cmd_unlock2);
  write(flash_unlock_1, cmd_erase_setup);
  write(flash_unlock_1, cmd_unlock1);
  write(flash_unlock_2, cmd_unlock2);
  write(sector, cmd_sector_erase);
  return wait(sector, dq6 | dq2, most_erase_polls);
}

bool flash_bus::program(uint32_t offset, std::span<const uint16_t> words) {
  const uint32_t sector = offset & flash_sector_lines;
  write(flash_unlock_1, cmd_unlock1);
  write(flash_unlock_2, cmd_unlock2);
  write(sector, cmd_buffer_load);
  write(sector, static_cast<uint16_t>(words.size() - 1));
  for (size_t i = 0; i < words.size(); ++i)
    write(offset + static_cast<uint32_t>(2 * i), words[i]);
  write(sector, cmd_buffer_confirm);
  return wait(offset, dq6, most_program_polls);
}

}  // namespace locate
