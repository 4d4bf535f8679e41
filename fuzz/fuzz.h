// fuzz.h: what the fuzzers share.
//
// A fuzzer is one function, LLVMFuzzerTestOneInput, which gives its bytes to the code under test and checks what must
// hold for any bytes. In the preset fuzz, libFuzzer calls it with bytes that reach new code; in the others, replay.cpp
// calls it with the files of the corpus.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include <cstdio>
#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

// Ends the process with the condition's text where it does not hold.
#define MUST_HOLD(cond) ((cond) ? (void)0 : fuzz_fail(#cond, __FILE__, __LINE__))

[[noreturn]] inline void fuzz_fail(const char *text, const char *file, int line) {
  (void)std::fprintf(stderr, "%s:%d: does not hold: %s\n", file, line, text);
  std::abort();
}

// What the code under test prints is not looked at. Standard error is the fuzzer's.
inline void drop_output() {
  static const bool dropped = std::freopen("/dev/null", "w", stdout) != nullptr;
  (void)dropped;
}
