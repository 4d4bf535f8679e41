// decode.h: the one x86 instruction that met a device: what it asks of the bus, and what it does to the processor.
// Known are the forms that compilers make of 8-, 16- and 32-bit loads and stores; divisions and string, locked and
// vector instructions are not (AMD64 Architecture Programmer's Manual, volume 3).
#pragma once

#include <array>
#include <cstdint>

namespace sim {

// General registers in the order of their encoding: ax cx dx bx sp bp si di r8 to r15.
struct cpu_regs {
  std::array<uint64_t, 16> gpr{};
  uint64_t ip = 0;
  uint64_t flags = 0;
};

enum class word_size : uint8_t { bits32, bits64 };

// The first eight stand in the order of their encoding.
enum class operation : uint8_t {
  // clang-format off
  add, or_, adc, sbb, and_, sub, xor_, cmp,
  test, mov, xchg, not_, neg, inc, dec, set,
  rol, ror, shl, shr, sar, push,
  mul, imul,        // of the accumulator, into dx and ax
  imul_reg, imul_immediate,
  // clang-format on
};

enum class operand : uint8_t { none, memory, reg, immediate };

struct insn {
  operation op = operation::mov;
  operand to = operand::none;    // none: only the flags change
  operand from = operand::none;  // the other operand
  bool io = false;               // in, out: `address` is the port
  bool reads = false;            // takes data from the bus,
  bool writes = false;           // gives data to the bus; with both, reads first
  uint8_t width = 0;             // bits of the access: 8, 16, 32, 64
  uint8_t reg_width = 0;         // bits of the register that it fills or takes
  bool sign = false;             // data from the bus are sign-extended to reg_width, else zero-extended
  uint8_t reg = 0;               // index into gpr
  bool high = false;             // bits 8 to 15 of the register: ah, ch, dh, bh
  uint8_t condition = 0;         // of set: the low four bits of the opcode
  uint8_t length = 0;            // bytes
  uint64_t immediate = 0;        // sign-extended
  uint64_t address = 0;          // effective address
};

// Decodes the instruction at `code`, which regs.ip is the address of; reads no byte beyond the instruction.
//   size  mode of the processor
//   regs  registers before the instruction
// Returns false if it is none of the known forms or has no memory or port operand.
[[nodiscard]] bool decode(const uint8_t *code, word_size size, const cpu_regs &regs, insn *out);

// Carries the instruction out on the registers, flags and instruction pointer.
//   bus_data  what the bus delivered, if i.reads; bits above i.width are ignored
// Returns the data for the bus, if i.writes; those for the new top of the stack with operation::push.
[[nodiscard]] uint64_t retire(const insn &i, cpu_regs *regs, uint64_t bus_data);

}  // namespace sim
