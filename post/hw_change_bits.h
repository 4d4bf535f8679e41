// hw_change_bits.h: the supervisor's 64-bit revision word. 1 and 2 mark a revision P1 board, 0 an earlier one.
#pragma once

#include <stdint.h>

extern "C" {
// Reads the word from the supervisor SPROM, once at start. Without a known card or memory it stays 0; an unreadable
// SPROM counts as revision P1, with a message on standard output.
void post_read_hw_change_bits();

// Returns the word, 0 until it has been read.
uint64_t dorvan_post_hw_change_bits_get();
}
