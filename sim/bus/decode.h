// decode.h: the one x86 instruction that met a device. Known are the moves of 8, 16, 32 and 64 bits between a register
// or a constant and memory or a port: mov, movzx, movsx, movsxd, in and out (AMD64 Architecture Programmer's Manual,
// volume 3). That is what compilers make of volatile loads and stores that stand alone.
#pragma once

#include <array>
#include <cstdint>

namespace sim {

// General registers in the order of their encoding: ax cx dx bx sp bp si di r8 to r15.
struct cpu_regs {
  std::array<uint64_t, 16> gpr{};
  uint64_t ip = 0;
};

enum class word_size : uint8_t { bits32, bits64 };

struct insn {
  bool io = false;        // in, out: `address` is the port
  bool store = false;     // onto the bus; else from the bus into a register
  bool sign = false;      // a load is sign-extended to reg_width, else zero-extended
  uint8_t width = 0;      // bits of the access: 8, 16, 32, 64
  uint8_t reg_width = 0;  // bits of the register that a load fills
  uint8_t reg = 0;        // index into gpr
  bool high = false;      // bits 8 to 15 of the register: ah, ch, dh, bh
  uint8_t length = 0;     // bytes
  uint64_t address = 0;   // effective address
  uint64_t data = 0;      // what a store puts onto the bus
};

// Decodes the instruction at `code`, which regs.ip is the address of; reads no byte beyond the instruction.
//   size  mode of the processor
//   regs  registers before the instruction
// Returns false if it is none of the known moves or has no memory or port operand.
[[nodiscard]] bool decode(const uint8_t *code, word_size size, const cpu_regs &regs, insn *out);

// Puts what the bus delivered to a load into its register; bits of bus_data above i.width are ignored.
void fill_register(const insn &i, uint64_t bus_data, cpu_regs *regs);

}  // namespace sim
