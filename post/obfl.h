// obfl.h: data lines and address lines of the on-board failure logging flash. The log is kept: every sector that
// is tested is saved and erased first, erased and written back afterwards.
//
// Detects data lines stuck or shorted, address lines stuck or shorted within a sector, and erases and programs that do
// not end.
//
// Does not detect
//   - address lines that select a sector, stuck or shorted: each sector is tested by itself, and the word with its
//     number is read back before the next one is written, so two numbers for one sector go unnoticed;
//   - the topmost line within a sector, stuck: no two words that are written differ only in it;
//   - bad cells beyond the few words that are written, unless an erase or the restore runs into one.
#pragma once

#include <stdint.h>

#include "platform/mfgd/cmn_lib/hw_acc/obfl/obfl_acc.h"

// Statuses of this test; 0 is pass.
enum : uint32_t {
  OBFL_TEST_NO_MEMORY = 6,       // for the save buffer
  OBFL_TEST_READ_FAILED = 434,   // a word reads back with another value than was written
  OBFL_TEST_ERASE_FAILED = 435,  // a sector erase, before or after a sub-test
  OBFL_TEST_WRITE_FAILED = 436,  // the write of a sub-test, or of a sector that is restored
};

extern "C" {
// A test inside one erased sector. The low 9 bits of `sector` number it. Returns a status as above.
typedef uint32_t (*obfl_subtest_t)(uint32_t inst, uint16_t sector, obfl_timeout_t timeout);

// The row's entry; a PostTestFn. Passes when obfl_post_test returns 0. Returns that status.
uint32_t dorvan_obfl_test(uint32_t reserved, uint32_t *result, uint32_t device, uint32_t *scratch);

// Runs the sector tests, up to the first that fails. Returns its status, 0 when all passed, or OBFL_TEST_NO_MEMORY with
// the flash untouched.
[[nodiscard]] uint32_t obfl_post_test();

// Runs one sub-test between the set-up and the clean-up of its sector. The clean-up follows any result of the
// sub-test, but not a failed set-up.
//   buffer  room for the sector's 65536 words; null neither saves nor restores
// Returns the set-up's status, else the sub-test's, else the clean-up's.
[[nodiscard]] uint32_t obfl_sector_test(obfl_subtest_t subtest, uint32_t inst, uint16_t sector, uint16_t *buffer,
                                        obfl_timeout_t timeout);

// Saves the sector to `buffer`, unless that is null, and erases it. From the erase on, the signals that end a run wait
// for the clean-up. Returns 0, or OBFL_TEST_ERASE_FAILED after a line on standard output; the signals go on then.
[[nodiscard]] uint32_t obfl_sector_setup(uint32_t inst, uint16_t sector, uint16_t *buffer, obfl_timeout_t timeout);

// Erases the sector and writes `buffer` back, unless that is null. Returns 0, or OBFL_TEST_ERASE_FAILED or
// OBFL_TEST_WRITE_FAILED after a line on standard output: the sector's contents may be lost then.
[[nodiscard]] uint32_t obfl_sector_cleanup(uint32_t inst, uint16_t sector, const uint16_t *buffer,
                                           obfl_timeout_t timeout);

// The sub-tests, all obfl_subtest_t. The last writes `sector` whole, all 16 bits.
[[nodiscard]] uint32_t dataline_test(uint32_t inst, uint16_t sector, obfl_timeout_t timeout);
[[nodiscard]] uint32_t addressline_low_test(uint32_t inst, uint16_t sector, obfl_timeout_t timeout);
[[nodiscard]] uint32_t addressline_high_test(uint32_t inst, uint16_t sector, obfl_timeout_t timeout);

// Writes data[i] at addr[i] for i below n, reads all of them back and compares in order up to the first difference,
// which two lines on standard output show.
//   label  names the sub-test; not printed
//   n      at least 1; the words that are read back are on the stack
// Returns 0, OBFL_TEST_READ_FAILED or OBFL_TEST_WRITE_FAILED.
[[nodiscard]] uint32_t obfl_test(const char *label, uint32_t inst, uint32_t n, const obfl_addr_t *addr,
                                 const uint16_t *data, obfl_timeout_t timeout);
}
