// nvram.h: the battery-backed RAM of the real-time clock: data lines, address lines, cells. Contents are kept.
//
// Detects data lines stuck or shorted and, in the lower half of each region, address lines stuck or shorted and cells
// that do not hold both a 0 and a 1.
//
// Does not detect
//   - anything in the upper half, which is only saved and written back: its cells and the topmost address line;
//   - by the data phase, a bus that nothing drives and that echoes the last write: nothing else is driven between a
//     write and its read. The address phase reads words other than the last one written, and fails there;
//   - cells that disturb one another, unless the count from word to word shows it;
//   - an empty battery.
#pragma once

#include <stdint.h>

extern "C" {
// The row's entry; a PostTestFn. Passes when mem_test_nvram returns 0. Returns that status.
uint32_t dorvan_nvram_test(uint32_t reserved, uint32_t *result, uint32_t device, uint32_t *scratch);

// Tests the NVRAM instances that the card's row in cards.h gives. Each is saved first and written back after any
// outcome; its first failure ends its test, with lines on standard output. Only words that begin in a region are
// touched.
// Returns  0           all passed
//          0xFFFFFFFF  one or more failed
//          6           no memory to save an instance; it and the ones after it were not tested
//          others      the card index cannot be read; nothing was tested
[[nodiscard]] uint32_t mem_test_nvram();

// Prints the byte offset of a word with its expected and its actual value.
void memory_error(uint16_t expected, uint32_t offset, uint16_t actual);
}
