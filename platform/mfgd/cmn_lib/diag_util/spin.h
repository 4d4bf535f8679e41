// spin.h: the CPU clock record and the busy wait.
#pragma once

#include <stdint.h>

extern "C" {
struct ptu_parms_t {
  uint32_t cpu_hz;        // cycles per second; all ones where the rate does not fit
  double cpu_mhz;         // cycles per microsecond, exact at any rate
  double usec_per_cycle;  // 1 / cpu_mhz
};

static_assert(sizeof(ptu_parms_t) == (sizeof(void *) == 4 ? 20 : 24));

extern ptu_parms_t ptu_parms;  // all zero until _init_ptu; nothing else writes it

// Copies the clock record to *ptu, which must not be null (asserted).
void get_ptu_parms(ptu_parms_t *ptu);

// Waits before it returns.
//   usec  microseconds. Up to 10000 are spun on the time-stamp counter without a system call, so the processor is
//         held for the whole wait; more are slept.
// A spin counts in 32 bits: the wait is right as long as usec * cpu_mhz stays below 2^31 cycles.
void diag_spin_usec(uint32_t usec);
}
