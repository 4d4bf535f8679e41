#include "platform/mfgd/cmn_lib/diag_util/timer.h"

#include <x86intrin.h>

#include "platform/mfgd/cmn_lib/diag_util/spin.h"

extern "C" {

constinit uint32_t cpu_khz = 0;

void _init_libtimer() {
  ptu_parms_t ptu;
  get_ptu_parms(&ptu);
  cpu_khz = ptu.cpu_hz / 1000;
}

uint64_t timer_get_cycles() {
  return __rdtsc();
}

uint32_t timer_get_cpu_khz() {
  return cpu_khz;
}

uint64_t timer_diff_cycle_in_msec(uint64_t later, uint64_t earlier) {
  if (cpu_khz == 0) return UINT64_MAX;
  return (later - earlier) / cpu_khz;
}

uint64_t timer_diff_cycle_in_usec(uint64_t later, uint64_t earlier) {
  if (cpu_khz == 0) return UINT64_MAX;
  return (later - earlier) * 1000 / cpu_khz;
}

}  // extern "C"
