// commands.h: the commands of the program.
#pragma once

#include <span>

#include "sprom/base/options.h"
#include "sprom/base/output.h"

namespace tool {

struct command_t {
  const char *name;
  exit_code (*run)(const options_t &options);
  uint32_t options;  // OPT_*
  size_t min_args;
  size_t max_args;
  const char *synopsis;  // its arguments
  const char *help;      // one line
};

std::span<const command_t> all_commands();

}  // namespace tool
