#include "sprom/cli/commands.h"

#include <array>

#include "sprom/cli/change.h"
#include "sprom/cli/copy.h"
#include "sprom/cli/protect.h"
#include "sprom/cli/show.h"

namespace tool {
namespace {

constexpr uint32_t OPT_BOARD = OPT_FILE | OPT_FAMILY | OPT_FORCE | OPT_WAIT;
constexpr uint32_t OPT_READ = OPT_BOARD | OPT_UNIT;
constexpr uint32_t OPT_WRITE = OPT_READ | OPT_YES | OPT_BACKUP | OPT_DRY_RUN | OPT_JSON;

// clang-format off
constexpr std::array<command_t, 11> commands{{
    {"list",    run_list,    OPT_BOARD | OPT_JSON | OPT_NO_PROBE,        0, 0, "",                      "every SPROM of the board's family, and whether it is there"},
    {"show",    run_show,    OPT_READ | OPT_JSON,                        0, 1, "SPROM",                 "the fields, and the verdict of each block"},
    {"get",     run_get,     OPT_READ | OPT_JSON,                        1, 2, "SPROM FIELD",           "the value of one field"},
    {"verify",  run_verify,  OPT_READ | OPT_JSON,                        0, 1, "[SPROM]",               "check every block"},
    {"dump",    run_dump,    OPT_READ | OPT_RAW | OPT_HEX,               0, 2, "[SPROM] FILE",          "copy the image to FILE as it is on the chip"},
    {"diff",    run_diff,    OPT_FAMILY | OPT_FORCE | OPT_WAIT | OPT_UNIT | OPT_JSON, 1, 2, "FILE|SPROM [FILE|SPROM]", "compare two images; exit status 0, 1 or 2"},
    {"write",   run_write,   OPT_WRITE | OPT_RAW,                        1, 2, "[SPROM] FILE",          "check FILE, write the bytes that differ and read them back"},
    {"edit",    run_edit,    OPT_WRITE | OPT_FIELD | OPT_FROM,           0, 1, "SPROM --FIELD=VALUE...", "change single fields, checksums included"},
    {"protect", run_protect, OPT_FAMILY | OPT_FORCE | OPT_WAIT | OPT_JSON | OPT_ON, 0, 1, "[SPROM]",               "the state of the write protection"},
    {"make",    run_make,    OPT_FILE | OPT_FIELD | OPT_FROM,            1, 2, "KIND FILE [--FIELD=VALUE]...", "build a valid image"},
    {"fields",  run_fields,  OPT_JSON,                                   1, 1, "KIND",                  "the names of a kind's fields"},
}};
// clang-format on

}  // namespace

std::span<const command_t> all_commands() {
  return commands;
}

}  // namespace tool
