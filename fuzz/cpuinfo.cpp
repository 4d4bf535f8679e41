// The processor's rate in a text instead of /proc/cpuinfo: with any text a rate or an assertion, nothing else.
#include <cmath>
#include <csetjmp>
#include <cstring>

#include "fuzz/fuzz.h"
#include "fuzz/text_file.h"
#include "platform/mfgd/cmn_lib/diag_util/ptu_velto_or.h"
#include "platform/mfgd/cmn_lib/diag_util/spin.h"

namespace {

std::jmp_buf asserted;
const char *asserted_text;

}  // namespace

extern "C" {
[[noreturn]] void __wrap___assert_fail(const char *text, const char *file, unsigned line, const char *function);

void __wrap___assert_fail(const char *text, const char * /*file*/, unsigned /*line*/, const char * /*function*/) {
  asserted_text = text;
  std::longjmp(asserted, 1);  // NOLINT(cert-err52-cpp): the code under test knows no exceptions
}

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  drop_output();
  ptu_parms = {};
  set_file_text({reinterpret_cast<const char *>(data), size});
  if (setjmp(asserted) == 0) {  // NOLINT(cert-err52-cpp)
    _init_ptu();
    MUST_HOLD(ptu_parms.cpu_mhz != 0);
    MUST_HOLD(!close_left_file());
    // The rate is in the record in both units. One above 32 bits of hertz is all ones.
    const double mhz = ptu_parms.cpu_mhz;
    MUST_HOLD(!(mhz >= 1 && mhz < 4294) || std::fabs(ptu_parms.cpu_hz - mhz * 1e6) <= 1);
    MUST_HOLD(!(mhz > 4295) || ptu_parms.cpu_hz == UINT32_MAX);
    return 0;
  }
  MUST_HOLD(std::strcmp(asserted_text, "0") == 0 || std::strcmp(asserted_text, "mhz != 0.0") == 0);
  MUST_HOLD(ptu_parms.cpu_hz == 0);
  (void)close_left_file();
  return 0;
}
}
