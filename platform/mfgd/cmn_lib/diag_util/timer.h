// timer.h: the cycle counter and its conversions.
#pragma once

#include <stdint.h>

extern "C" {
extern uint32_t cpu_khz;  // CPU clock in kHz; 0 until _init_libtimer

// Sets cpu_khz from the CPU clock record, which _init_ptu must have filled.
void _init_libtimer();

// The time-stamp counter, 64 bits.
[[nodiscard]] uint64_t timer_get_cycles();

// cpu_khz.
[[nodiscard]] uint32_t timer_get_cpu_khz();

// The time between two cycle counts, rounded down, in milliseconds or microseconds; all ones while cpu_khz is 0.
//   later, earlier  counts of timer_get_cycles; the difference is taken modulo 2^64, so a reversed pair gives a huge
//                   value. Microseconds are right up to (2^64 - 1) / 1000 cycles: a larger product loses its high bits.
[[nodiscard]] uint64_t timer_diff_cycle_in_msec(uint64_t later, uint64_t earlier);
[[nodiscard]] uint64_t timer_diff_cycle_in_usec(uint64_t later, uint64_t earlier);
}
