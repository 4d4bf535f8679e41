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

// Which options a command takes; --verbose, --help and --version go with all.
enum option_set : uint32_t {
  OPT_FILE = 1 << 0,
  OPT_FAMILY = 1 << 1,
  OPT_JSON = 1 << 2,
  OPT_YES = 1 << 3,
  OPT_FORCE = 1 << 4,
  OPT_FIELD = 1 << 5,
  OPT_FROM = 1 << 6,
  OPT_BACKUP = 1 << 7,
  OPT_DRY_RUN = 1 << 8,
  OPT_RAW = 1 << 9,
  OPT_HEX = 1 << 10,
  OPT_ON = 1 << 11,
  OPT_NO_PROBE = 1 << 12,
  OPT_VERBOSE = 1 << 13,
};

struct options_t {
  std::vector<std::string> args;  // after the command
  uint32_t given = 0;             // OPT_*
  std::optional<std::string> file;
  const family_t *family = nullptr;
  std::optional<std::string> from;
  std::optional<std::string> backup;
  bool no_backup = false;
  std::vector<std::pair<std::string, std::string>> fields;  // name and value, in the order given

  [[nodiscard]] bool has(uint32_t option) const { return (given & option) != 0; }
};

}  // namespace tool
