#include "platform/mfgd/uspace/utils/sprom/tool/commands.h"

#include <array>

#include "platform/mfgd/uspace/utils/sprom/tool/change.h"
#include "platform/mfgd/uspace/utils/sprom/tool/copy.h"
#include "platform/mfgd/uspace/utils/sprom/tool/protect.h"
#include "platform/mfgd/uspace/utils/sprom/tool/show.h"

namespace tool {
namespace {

constexpr uint32_t OPT_BOARD = OPT_FILE | OPT_FAMILY | OPT_FORCE;
constexpr uint32_t OPT_WRITE = OPT_BOARD | OPT_YES | OPT_BACKUP | OPT_DRY_RUN;

// clang-format off
constexpr std::array<command_t, 11> commands{{
    {"list",    run_list,    OPT_BOARD | OPT_JSON | OPT_NO_PROBE,        0, 0, "",                      "every SPROM of the board's family, and whether it is there"},
    {"show",    run_show,    OPT_BOARD | OPT_JSON,                       0, 1, "SPROM",                 "the fields, and the verdict of each block"},
    {"get",     run_get,     OPT_BOARD,                                  1, 2, "SPROM FIELD",           "the value of one field"},
    {"verify",  run_verify,  OPT_BOARD | OPT_JSON,                       0, 1, "[SPROM]",               "check every block"},
    {"dump",    run_dump,    OPT_BOARD | OPT_RAW | OPT_HEX,              0, 2, "[SPROM] FILE",          "copy the image to FILE as it stands on the chip"},
    {"diff",    run_diff,    OPT_FAMILY | OPT_FORCE,                     1, 2, "FILE [SPROM|FILE]",     "compare an image file; exit status 0, 1 or 2"},
    {"write",   run_write,   OPT_WRITE,                                  1, 2, "[SPROM] FILE",          "check FILE, write what differs and read it back"},
    {"edit",    run_edit,    OPT_WRITE | OPT_FIELD | OPT_FROM,           0, 1, "SPROM --FIELD=VALUE...", "change single fields, checksums included"},
    {"protect", run_protect, OPT_FAMILY | OPT_FORCE | OPT_JSON | OPT_ON, 0, 1, "[SPROM]",               "the state of the write protection"},
    {"make",    run_make,    OPT_FILE | OPT_FIELD | OPT_FROM,            1, 2, "KIND FILE [--FIELD=VALUE]...", "build a valid image from nothing"},
    {"fields",  run_fields,  OPT_JSON,                                   1, 1, "KIND",                  "the names of a kind's fields"},
}};
// clang-format on

}  // namespace

std::span<const command_t> all_commands() {
  return commands;
}

}  // namespace tool
