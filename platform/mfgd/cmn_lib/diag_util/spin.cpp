#include "platform/mfgd/cmn_lib/diag_util/spin.h"

#include <unistd.h>

#include "platform/mfgd/cmn_lib/diag_util/diag_assert.h"
#include "platform/mfgd/cmn_lib/diag_util/trunc32.h"

namespace {

constexpr uint32_t spin_limit_usec = 10000;

// Without the counter's high half, which the intrinsic would put together each time round.
inline uint32_t cycles_low() {
  uint32_t low;
  asm volatile("rdtsc" : "=a"(low) : : "edx");
  return low;
}

}  // namespace

extern "C" {

constinit ptu_parms_t ptu_parms = {};

void get_ptu_parms(ptu_parms_t *ptu) {
  assert(ptu);
  *ptu = ptu_parms;
}

void diag_spin_usec(uint32_t usec) {
  if (usec > spin_limit_usec) {
    (void)usleep(usec);
    return;
  }
  const uint32_t cycles = trunc32(usec * ptu_parms.cpu_mhz);
  const uint32_t end = cycles_low() + cycles;
  // The sign of the difference, so that a wrap of the low half does not end the wait.
  while (static_cast<int32_t>(cycles_low() - end) < 0) {
  }
}

}  // extern "C"
