// board.h: the simulated board of this process.
#pragma once

#include "sim/options.h"

namespace sim {

// Builds the board that `opts` asks for: the state directory's files, the device models, the redirections. From then
// on the interposed C library entry points of this process meet it. Returns false, with a message on standard error,
// when the state directory cannot be used.
bool board_start(const options &opts);

// Takes the board away; the state directory stays. The C library's entry points are plain again.
void board_stop();

// The running board's options, or null.
const options *board_options();

}  // namespace sim
