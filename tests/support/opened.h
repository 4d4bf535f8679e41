// opened.h: the flags with which a program opened its files last. The linker hands open to this file, which one source
// of a program includes; see post_wrap_open().
#pragma once

#include "tests/support/test.h"

inline std::map<std::string, int> &opened_with() {  // by path; constructors of other files open some, too
  static auto &flags = *new std::map<std::string, int>;
  return flags;
}

extern "C" {
int __real_open(const char *path, int flags, ...), __wrap_open(const char *path, int flags, ...);
int __wrap___open_2(const char *path, int flags);

int __wrap_open(const char *path, int flags, ...) {
  opened_with()[path] = flags;
  return __real_open(path, flags, 0600);
}
int __wrap___open_2(const char *path, int flags) {
  return __wrap_open(path, flags);
}
}
