// patch.h: device accesses without a signal. The first one of a move replaces it, in this process's memory only, by a
// jump to a trampoline. Only the bytes of the move itself change: where it is shorter than a jump, the jump's last
// bytes are those that follow the move anyway, and the trampoline is placed where they lead. So no other instruction
// moves, and no branch meets a changed one.
//
// No page is ever writable and executable. A move stays as it is, and its accesses go by signal,
//   - where the library is not to patch (board-sim --no-patch);
//   - while another thread or a tracer is there: they may be in this very code;
//   - if it uses a port, loads the stack pointer, has an address relative to itself or cut to 32 bits;
//   - if its code, or the bytes after it that the jump needs, may be written, is shared or ends there;
//   - within 5 bytes of another patched move, whose jump these bytes belong to;
//   - where no room is left for a trampoline, or the system or the processor refuses something.
#pragma once

#include <cstdint>

#include "sim/bus/decode.h"
#include "sim/bus/vector_state.h"

namespace sim {

class cpu_bus;

// Patched moves, old and new, use this bus from now on. With null they are plain moves.
//   allowed  whether moves are patched from now on
void patch_start(cpu_bus *bus, bool allowed);

// Selects how all patched moves save the vector state, instead of the best way; call it after patch_start(). Returns
// false if the processor does not have it.
[[nodiscard]] bool patch_saves(save_way way);

// Tries to patch the move at `ip`, which accessed a device. Returns whether it is a jump now, to be executed again.
[[nodiscard]] bool try_patch(uintptr_t ip, const insn &move);

// The code of the move at `ip`: the original code of a patched one, otherwise `ip` itself.
[[nodiscard]] const uint8_t *code_of_move(uintptr_t ip);

// The patched move whose copy is at `ip`, otherwise `ip` itself.
[[nodiscard]] uintptr_t patched_origin(uintptr_t ip);

// Changes the jump at `ip`, if there is one, back to the move for good, so that its fault happens there.
void patch_undo(uintptr_t ip);

}  // namespace sim
