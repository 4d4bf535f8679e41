// options.h: the command line.
#pragma once

#include <stdint.h>

#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "platform/mfgd/uspace/utils/sprom/tool/board.h"
#include "platform/mfgd/uspace/utils/sprom/tool/fields.h"

namespace tool {

// Which options a command takes; --help and --version go with all.
enum option_set : uint32_t {
  OPT_FILE = 1 << 0,
  OPT_FAMILY = 1 << 1,
  OPT_JSON = 1 << 2,
  OPT_YES = 1 << 3,
  OPT_FORCE = 1 << 4,
  OPT_FIELD = 1 << 5,
};

struct options_t {
  std::vector<std::string> args;  // after the command
  std::optional<std::string> file;
  const family_t *family = nullptr;
  bool json = false;
  bool yes = false;
  bool force = false;
  std::vector<std::pair<std::string, std::string>> fields;  // name and value, in the order given
};

}  // namespace tool
