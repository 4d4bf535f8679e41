// preload.cpp: the start of the preload library: the board that the launcher asked for, before the program's own
// start-up code runs.
#include <cstdlib>
#include <string>

#include "sim/base/files.h"
#include "sim/board/board.h"
#include "sim/preload/children.h"

namespace {

[[gnu::constructor]] void start() {
  const char *const asked = std::getenv(sim::options_variable);
  if (asked == nullptr) return;
  std::string error;
  const auto opts = sim::options_parse_lines(asked, &error);
  if (!opts || !sim::board_start(*opts, &error)) sim::end_run(error);
  if (const char *const list = std::getenv("LD_PRELOAD")) sim::guard_programs(list);
}

[[gnu::destructor]] void end() {
  sim::board_program_ends();
}

}  // namespace
