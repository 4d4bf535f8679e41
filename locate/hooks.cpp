#include "locate/hooks.h"

#include <array>
#include <cstdarg>
#include <cstdio>
#include <utility>

#include "platform/mfgd/cmn_lib/diag_util/diag_dbg.h"

namespace {

std::string first_line;

}  // namespace

namespace locate {

std::string take_report() {
  return std::exchange(first_line, {});
}

}  // namespace locate

// What an operation reports goes through both hooks; one of them is enough.
int cli_printf(const char * /*fmt*/, ...) {
  return 0;
}

void diag_dbg_print(int32_t level, const char *fmt, ...) {
  if (level == DIAG_LVL_DEBUG || !first_line.empty()) return;
  std::array<char, 256> text{};
  va_list args;
  va_start(args, fmt);
  (void)std::vsnprintf(text.data(), text.size(), fmt, args);
  va_end(args);
  const std::string line = text.data();
  const bool is_error = level == DIAG_LVL_ERR || line.find("failed") != std::string::npos;
  if (is_error) first_line = line.substr(0, line.find('\n'));
}
