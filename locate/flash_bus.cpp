#include "locate/flash_bus.h"

namespace locate {

// Polls until these bits no longer toggle, all of them. An operation that failed or does not end needs a reset.
bool flash_bus::wait(uint32_t offset, uint16_t running) {
  for (unsigned polls = 0; may_run(polls); ++polls) {
    const uint16_t before = read(offset);
    if (((before ^ read(offset)) & running) != running) return true;
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
  return wait(sector, dq6 | dq2);
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
  return wait(offset, dq6);
}

}  // namespace locate
