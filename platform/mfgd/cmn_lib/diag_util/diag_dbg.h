// diag_dbg.h: the two output hooks that the host program provides, and the idioms that print through them.
#pragma once

#include <execinfo.h>
#include <stdint.h>
#include <stdlib.h>

// Levels of diag_dbg_print, numbered as the syslog severities are.
enum diag_lvl_t : int32_t {
  DIAG_LVL_ERR = 3,    // error reports
  DIAG_LVL_INFO = 6,   // informational lines, assertion reports
  DIAG_LVL_DEBUG = 7,  // call traces; suppressed
};

extern "C" {
// Formats as printf does, writes to standard output and flushes it.
// Returns the number of characters written, negative on an output error.
int cli_printf(const char *fmt, ...) __attribute__((format(printf, 1, 2)));

// As cli_printf, except that DIAG_LVL_DEBUG prints nothing. The level leaves no mark in the text.
void diag_dbg_print(int32_t level, const char *fmt, ...) __attribute__((format(printf, 2, 3)));
}

// Prints the same text through both hooks: in a program that sends both to one place it appears twice in a row.
#define DIAG_PRINT_BOTH(level, ...) ((void)cli_printf(__VA_ARGS__), diag_dbg_print((level), __VA_ARGS__))

// Checked call: traces `text` in the name of the calling function, evaluates `call`, which gives a status, and reports
// one other than 0. An expression with the status as its value. Statuses are named by hw_err_to_str, which whoever
// makes checked calls declares: the catalogue is not a matter of this library.
//   text  the call as the messages name it
#define DIAG_CALL(text, call) \
  (diag_dbg_print(DIAG_LVL_DEBUG, "%s(): %s\n", __func__, (text)), DIAG_CALL_STATUS((text), (call)))

// The half of a checked call after the trace. `rc` is the call or its status.
#define DIAG_CALL_STATUS(text, rc) diag_call_status((text), (rc), hw_err_to_str)

// Diagnostic assertion: where `cond` does not hold, reports it with the call stack and aborts.
#define DIAG_ASSERT(cond) DIAG_ASSERT_AS(cond, #cond)

// The same with `text`, a literal, instead of the condition's source text. It becomes part of a format string.
#define DIAG_ASSERT_AS(cond, text)                                                                             \
  do {                                                                                                         \
    if (!(cond)) {                                                                                             \
      DIAG_PRINT_BOTH(DIAG_LVL_INFO, "## Assert:%s():%u\n", __func__, static_cast<unsigned>(__LINE__));        \
      DIAG_PRINT_BOTH(DIAG_LVL_INFO, "         :\"" text "\" is false\n");                                     \
      void *diag_frames[DIAG_FRAMES_MAX];                                                                      \
      diag_print_frames(diag_frames, backtrace(diag_frames, DIAG_FRAMES_MAX)); /* here: this frame is first */ \
      abort();                                                                                                 \
    }                                                                                                          \
  } while (0)

enum : int { DIAG_FRAMES_MAX = 20 };

static inline uint32_t diag_call_status(const char *text, uint32_t rc, const char *(*name_of)(uint32_t rc)) {
  if (rc != 0)
    DIAG_PRINT_BOTH(DIAG_LVL_ERR, "## Error : Failed %s\n           with rc %u (%s)\n", text, rc, name_of(rc));
  return rc;
}

// The last half of DIAG_ASSERT's report. Nothing is printed where there is no frame or no memory for the names.
static inline void diag_print_frames(void *const *frames, int count) {
  char *const *const names = backtrace_symbols(frames, count);
  for (int i = 0; names != nullptr && i < count; ++i)
    DIAG_PRINT_BOTH(DIAG_LVL_INFO, "## BT: %s\n", names[i]);
}
