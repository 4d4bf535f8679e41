// explain_flash_run.h: the flash test's own accesses, and the test run on a model of the chip.
#pragma once

#include <cstdint>
#include <span>
#include <vector>

#include "lab/explain_chip.h"
#include "lab/explain_flash.h"

namespace lab {

// Words that are written together and read back together.
struct flash_list {
  std::vector<uint32_t> addresses;  // in bytes
  std::vector<uint16_t> data;
};

// A sector that is saved, erased, tested, erased and written back.
struct flash_sector_test {
  uint32_t sector;
  std::vector<flash_list> lists;
};

// In the order of a run, which ends with the first that fails.
[[nodiscard]] const std::vector<flash_sector_test> &flash_sector_tests();

// The part of a list that the driver programs at once, from entry `first` on: neighbours in one write page.
[[nodiscard]] size_t end_of_page(const flash_list &list, size_t first);

// Runs the test. Of each sector a few pages stand for all when it is saved and written back: those whose numbers have
// one bit set or none, and the last.
//   hung  whether it waited without end
[[nodiscard]] std::vector<flash_event> run_flash_test(flash_chip *chip, bool *hung);

}  // namespace lab
