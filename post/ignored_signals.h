// ignored_signals.h: what a run ignores from start-up on.
#pragma once

#include <signal.h>

#include <array>

// A reader of the output who goes away and a limit of file sizes cost lines and records. They must not end a run that
// has memories to restore.
inline constexpr std::array ignored_signals{SIGPIPE, SIGXFSZ};
