// options.h: the command line.
#pragma once

#include <stdint.h>

#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace tool {

struct family_t;

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
  OPT_WAIT = 1 << 14,
  OPT_UNIT = 1 << 15,
};

struct options_t {
  std::vector<std::string> args;  // after the command
  uint32_t given = 0;             // OPT_*
  std::optional<std::string> file;
  const family_t *family = nullptr;
  std::optional<uint32_t> bus;   // of a unit in a fixture
  std::optional<uint32_t> addr;  //
  std::optional<std::string> from;
  std::optional<std::string> backup;
  bool no_backup = false;
  uint32_t wait = 10;                                       // for an EEPROM that another process has, in seconds
  std::vector<std::pair<std::string, std::string>> fields;  // name and value, in the order given

  [[nodiscard]] bool has(uint32_t option) const { return (given & option) != 0; }
};

}  // namespace tool
