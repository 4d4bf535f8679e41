// output.cpp: the output hooks of this program, both to standard output.
#include <stdarg.h>
#include <stdio.h>

#include "platform/mfgd/cmn_lib/diag_util/diag_dbg.h"

namespace {

// An abort or a crash right after the call must not lose the text.
__attribute__((format(printf, 1, 0))) int print(const char *fmt, va_list args) {
  const int written = vprintf(fmt, args);
  (void)fflush(stdout);
  return written;
}

}  // namespace

int cli_printf(const char *fmt, ...) {
  va_list args;
  va_start(args, fmt);
  const int written = print(fmt, args);
  va_end(args);
  return written;
}

void diag_dbg_print(int32_t level, const char *fmt, ...) {
  if (level == DIAG_LVL_DEBUG) return;
  va_list args;
  va_start(args, fmt);
  (void)print(fmt, args);
  va_end(args);
}
