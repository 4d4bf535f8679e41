// diag_assert.h: the standard assertion of the libraries.
//
// As `assert` of <cassert>, always on, with two differences: the failure line names the plain operation, where C++'s
// own form would print its whole signature; and standard output is flushed first, so that what was printed before the
// abort reaches a pipe or a file.
#pragma once

#include <assert.h>
#include <stdio.h>

// Fails in the name of a place in the sources and of an operation.
[[noreturn]] static inline void diag_std_assert_fail(const char *text, const char *file, unsigned line,
                                                     const char *op) {
  (void)fflush(stdout);
  __assert_fail(text, file, line, op);
}

// Fails with `text` instead of the condition's source text.
#define DIAG_STD_ASSERT_AS(cond, text) ((cond) ? (void)0 : diag_std_assert_fail(text, __FILE__, __LINE__, __func__))

#undef assert
#define assert(cond) DIAG_STD_ASSERT_AS(cond, #cond)
