// trampoline.h: where a patched move leads. A trampoline is code of its own for each move: it saves flags and general
// registers, asks whether a device answers at the move's address, and if so has the access carried out with the vector
// state saved; then it goes back to the instruction after the move. Where no device answers, a copy of the move runs.
//
// It uses about 3.3 KiB of the program's stack (5.7 KiB where a log is written), from below the 128 bytes that programs
// of 64 bits may use there. What it calls runs as in a signal's handler: vector state and direction flag as at a
// program's start, errno kept. Signals may arrive anywhere in it, and their handlers may use devices.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

#include "sim/bus/decode.h"
#include "sim/bus/trap.h"
#include "sim/bus/vector_state.h"

namespace sim {

inline constexpr size_t jump_bytes = 5;     // E9 and a distance of 32 bits
inline constexpr size_t longest_insn = 15;  // bytes

// A move that is a jump now. Assembly reads the first member.
struct jump_site {
  const vector_state *vectors;
  uintptr_t ip;                            // of the move
  insn move;                               // as decoded there
  std::array<uint8_t, longest_insn> code;  // the move's bytes
  uintptr_t begin;                         // the trampoline
  uintptr_t copy;                          // of the move in it
};

// The bytes of a trampoline for a move of this many bytes.
[[nodiscard]] size_t trampoline_bytes(size_t move_bytes);

// Makes the trampoline of `site`, to be placed at site.begin. The site stays where it is for good.
//   code  trampoline_bytes() of them
void trampoline_make(const jump_site &site, std::span<uint8_t> code);

// The place of the move's copy in a trampoline.
[[nodiscard]] size_t trampoline_copy_offset();

// Puts a jump from `from` to `to` into `code`. They are at most 2 GiB apart.
void make_jump(uintptr_t from, uintptr_t to, std::span<uint8_t, jump_bytes> code);

// A mapping of a device, with what the device itself answers now. The processor carries out the other accesses.
struct device_range {
  uintptr_t begin, end;
  bool loads, stores;
};
inline constexpr size_t most_ranges = 16;

// The bus that trampolines use from now on. Another thread that reads this meanwhile takes the longer way.
//   bus     null for nobody
//   ranges  most_ranges at most; accesses to others raise the signal
void trampoline_bus(cpu_bus *bus);
void trampoline_ranges(std::span<const device_range> ranges);

}  // namespace sim
