#include "platform/mfgd/cmn_lib/diag_util/ptu_velto_or.h"

#include <stdio.h>
#include <string.h>

#include "platform/mfgd/cmn_lib/diag_util/diag_assert.h"
#include "platform/mfgd/cmn_lib/diag_util/spin.h"
#include "platform/mfgd/cmn_lib/diag_util/trunc32.h"

namespace {

constexpr char cpuinfo_path[] = "/proc/cpuinfo";
constexpr char rate_key[] = "cpu MHz";
constexpr size_t rate_key_len = sizeof rate_key - 1;
constexpr int line_size = 256;

// Reads on to the first line that begins with the key; a longer line comes in pieces, each taken for a line.
bool find_rate_line(FILE *file, char *line) {
  while (fgets(line, line_size, file) != nullptr) {
    if (memcmp(line, rate_key, rate_key_len) == 0) return true;
  }
  return false;
}

// 0 where the line has no colon or no number after it.
float rate_of_line(const char *line) {
  float rate = 0.0F;
  const char *colon = strchr(line, ':');
  if (colon != nullptr) (void)sscanf(colon + 1, "%f", &rate);
  return rate;
}

uint32_t hz_of(double rate_mhz) {
  const double hz = rate_mhz * 1000000.0;
  if (hz >= 4294967296.0) return UINT32_MAX;
  return trunc32(hz);
}

}  // namespace

extern "C" void _init_ptu() {
  FILE *const file = fopen(cpuinfo_path, "r");
  if (file == nullptr) {
    printf("Unable to open %s for reading....\n", cpuinfo_path);
    assert(0);
  }
  char line[line_size] = {};
  if (!find_rate_line(file, line)) {
    (void)fclose(file);
    printf("Unable to find '%s' in %s\n", rate_key, cpuinfo_path);
    assert(0);
  }
  const float mhz = rate_of_line(line);
  assert(mhz != 0.0);
  ptu_parms.cpu_hz = hz_of(mhz);
  ptu_parms.cpu_mhz = mhz;
  ptu_parms.usec_per_cycle = 1.0 / mhz;
  (void)fclose(file);
}
