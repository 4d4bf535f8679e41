// hooks.cpp: the output hooks of a test program, which keep a record on request.
#include <ostream>

#include "platform/mfgd/cmn_lib/diag_util/diag_dbg.h"
#include "tests/support/host.h"

namespace {

std::vector<hook_line> *recording = nullptr;
bool with_traces = false;

__attribute__((format(printf, 2, 0))) int print(int32_t level, const char *fmt, va_list args) {
  if (level == DIAG_LVL_DEBUG && !with_traces) return 0;
  std::array<char, 4096> text{};
  const int length = vsnprintf(text.data(), text.size(), fmt, args);
  if (recording != nullptr) recording->push_back({level, text.data()});
  if (level != 0) printf("<%d>", level);
  (void)fputs(text.data(), stdout);
  (void)fflush(stdout);
  return length;
}

}  // namespace

int cli_printf(const char *fmt, ...) {
  va_list args;
  va_start(args, fmt);
  const int length = print(0, fmt, args);
  va_end(args);
  return length;
}

void diag_dbg_print(int32_t level, const char *fmt, ...) {
  va_list args;
  va_start(args, fmt);
  (void)print(level, fmt, args);
  va_end(args);
}

void PrintTo(const hook_line &line, std::ostream *os) {
  *os << line.level << " " << testing::PrintToString(line.text);
}

std::vector<hook_line> hooks_of(const std::function<void()> &body, bool traces) {
  std::vector<hook_line> lines;
  recording = &lines;
  with_traces = traces;
  body();
  recording = nullptr;
  with_traces = false;
  return lines;
}
