// diag_dbg.h: the two output hooks that the host program provides.
#pragma once

#include <stdint.h>

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

// As cli_printf, but for DIAG_LVL_DEBUG, which prints nothing. The level leaves no mark in the text.
void diag_dbg_print(int32_t level, const char *fmt, ...) __attribute__((format(printf, 2, 3)));
}
