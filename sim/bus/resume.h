// resume.h: the way back from the handler of trapped accesses.
#pragma once

#include <ucontext.h>

namespace sim {

// Goes on with the interrupted code, in the state that `context` holds, and does not return: on 32 bits, where all that
// the signal changed can be restored by hand. Returns where the kernel is to do it, by the handler's return.
//   context  the frame as the kernel made it for a handler that blocks no signal, but for general registers and
//            instruction pointer
//   caller   the handler's return address
void resume(const ucontext_t &context, const void *caller);

}  // namespace sim
