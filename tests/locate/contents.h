// contents.h: what the memories of a board may hold.
#pragma once

#include "faults/random.h"
#include "models/nor_flash.h"
#include "tests/support/test.h"

using bytes = std::vector<uint8_t>;

inline bytes blank() {
  return bytes(models::flash_bytes, 0xFF);
}

// Noise in the first bytes of so many sectors.
inline bytes noise(uint32_t sectors, uint32_t length) {
  auto all = blank();
  uint64_t random = 5;
  for (uint32_t sector = 0; sector < sectors; ++sector)
    for (uint32_t i = 0; i < length; i += sizeof random) {
      const uint64_t piece = sim::random_next(&random);
      std::memcpy(&all[sector * models::flash_sector_bytes + i], &piece, sizeof piece);
    }
  return all;
}

// Lines of text in so many sectors, of 64 bytes each if `even`.
inline bytes text(uint32_t sectors, bool even) {
  auto all = blank();
  uint64_t random = 9;
  for (uint32_t n = 0; n < sectors; ++n) {
    const uint32_t sector = n * 7 % models::flash_sectors;
    std::string lines;
    while (lines.size() < 40'000) {
      const auto number = sim::random_next(&random);
      auto line = std::to_string(number % 100'000'000) + " slot " + std::to_string(number >> 40U & 7U) +
                  " fan tray alarm raised";
      line.resize(even ? 64 : line.size(), ' ');
      lines += line + (even ? "" : "\n");
    }
    std::ranges::copy(lines, &all[size_t{sector} * models::flash_sector_bytes]);
  }
  return all;
}
