// preload.cpp: the start of the preload library: the board that the launcher asked for, before the program's own
// start-up code runs.
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "sim/board/board.h"

namespace {

[[noreturn]] void give_up() {
  _exit(2);
}

[[gnu::constructor]] void start() {
  const char *const asked = std::getenv(sim::options_variable);
  if (asked == nullptr) return;
  std::string error;
  const auto opts = sim::options_parse_lines(asked, &error);
  if (!opts) {
    (void)std::fprintf(stderr, "board-sim: %s\n", error.c_str());
    give_up();
  }
  if (!sim::board_start(*opts)) give_up();
}

}  // namespace
