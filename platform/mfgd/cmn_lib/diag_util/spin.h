// spin.h: the CPU clock record and the busy wait.
#pragma once

#include <stdint.h>

extern "C" {
struct ptu_parms_t {
  uint32_t cpu_hz;        // cycles per second
  double cpu_mhz;         // cycles per microsecond
  double usec_per_cycle;  // 1 / cpu_mhz
};

extern ptu_parms_t ptu_parms;  // written once, by _init_ptu

// Copies the clock record to *ptu, which must not be null (asserted).
void get_ptu_parms(ptu_parms_t *ptu);

// Waits `usec` microseconds: up to 10000 by spinning on the time-stamp counter without a system call, longer ones
// by sleeping.
void diag_spin_usec(uint32_t usec);
}
