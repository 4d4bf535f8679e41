// nvram.h: the battery-backed RAM of the real-time clock: data lines, address lines, cells. Contents are kept.
#pragma once

#include <stdint.h>

extern "C" {
// The row's entry; a PostTestFn. Passes when mem_test_nvram returns 0. Returns that status.
uint32_t dorvan_nvram_test(uint32_t reserved, uint32_t *result, uint32_t device, uint32_t *scratch);

// Tests the NVRAM instances that the card has. Each is saved first and written back whatever the outcome; its first
// failure ends its test, with lines on standard output. Nothing outside a region is touched.
// Returns  0           all passed
//          0xFFFFFFFF  one or more failed
//          6           no memory to save an instance; it and the ones after it were not tested
//          others      the card index cannot be read; nothing was tested
[[nodiscard]] uint32_t mem_test_nvram();

// Prints what stands at a byte offset in place of what should.
void memory_error(uint16_t expected, uint32_t offset, uint16_t actual);
}
