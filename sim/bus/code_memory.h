// code_memory.h: the program's code in this process's memory: what may be changed there, and where other code may go.
// For one thread at a time, with all signals blocked; usable in a signal's handler.
#pragma once

#include <cstddef>
#include <cstdint>

namespace sim {

// Whether nobody else can be in this code: no other thread, and no tracer (a debugger's breakpoints are changes, too).
// False where /proc/self/status does not say.
[[nodiscard]] bool is_alone();

// Whether [begin, begin + length) belongs to one private mapping that is executable and not writable. Others may
// change, or are files that must not.
[[nodiscard]] bool is_constant_code(uintptr_t begin, size_t length);

enum class poke_result : uint8_t { done, unopened, refused };

// Writes to memory that the process may not write to, by way of /proc/self/mem. On failure nothing is changed.
[[nodiscard]] poke_result poke(uintptr_t at, const uint8_t *bytes, size_t count);

// Whether the memory holds these bytes. It may be unmapped.
[[nodiscard]] bool memory_holds(uintptr_t at, const uint8_t *bytes, size_t count);

// Makes the processor forget what it has fetched ahead.
void discard_prefetched_code();

// Finds room for code within reach of a jump at `ip` whose first bytes only can be chosen, and maps it readable and
// executable. It is never unmapped.
//   jump_chosen  bytes of the jump that may have any value, 2 to 5; the others are those in memory
//   bytes        of code
// Returns its address, or 0 where there is no room.
[[nodiscard]] uintptr_t find_code_room(uintptr_t ip, size_t jump_chosen, size_t bytes);

// Whether the address is in memory that find_code_room() mapped.
[[nodiscard]] bool is_code_room(uintptr_t address);

}  // namespace sim
