// decode.h: the x86 instruction that accessed a device. It knows the moves of 8, 16, 32 and 64 bits between a register
// or a constant and memory or a port: mov, movzx, movsx, movsxd, in and out (AMD64 Architecture Programmer's Manual,
// volume 3). Compilers generate these for separate volatile loads and stores.
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

// An address in memory: displacement + base_factor * gpr[base] + index_factor * gpr[index].
struct operand_address {
  uint64_t displacement = 0;
  uint8_t base = 0;
  uint8_t base_factor = 0;  // 0 or 1
  uint8_t index = 0;
  uint8_t index_factor = 0;  // 0, 1, 2, 4 or 8
  bool relative = false;     // counts from the end of the instruction
  bool cut = false;          // to 32 bits, in 64-bit mode
};

struct insn {
  bool io = false;        // in, out: `address` is the port
  bool store = false;     // onto the bus; else from the bus into a register
  bool sign = false;      // a load is sign-extended to reg_width, else zero-extended
  uint8_t width = 0;      // bits of the access: 8, 16, 32, 64
  uint8_t reg_width = 0;  // bits of the register that a load fills
  uint8_t reg = 0;        // index into gpr
  bool high = false;      // bits 8 to 15 of the register: ah, ch, dh, bh
  bool constant = false;  // a store's data are in the instruction
  uint8_t length = 0;     // bytes
  operand_address memory;
  uint64_t address = 0;  // effective address
  uint64_t data = 0;     // what a store puts onto the bus
};

// Decodes the instruction at `code`, whose address is regs.ip; reads no byte beyond the instruction.
//   size  mode of the processor
//   regs  registers before the instruction
// Returns false if it is none of the known moves or has no memory or port operand.
[[nodiscard]] bool decode(const uint8_t *code, word_size size, const cpu_regs &regs, insn *out);

// The value that a store puts onto the bus when its register holds `value`.
[[nodiscard]] uint64_t stored_data(const insn &i, uint64_t value);

// The value of a load's register afterwards: `before` is its old value, bus_data is the data from the bus. Bits of
// bus_data above i.width are ignored.
[[nodiscard]] uint64_t loaded_register(const insn &i, uint64_t before, uint64_t bus_data);

// Puts the data from the bus into the register of a load; bits of bus_data above i.width are ignored.
void fill_register(const insn &i, uint64_t bus_data, cpu_regs *regs);

}  // namespace sim
