// decode.cpp: decoder and executor of single loads, stores, compares and port accesses.
#include "sim/bus/decode.h"

#include <bit>
#include <cstddef>

namespace sim {

namespace {

constexpr uint64_t flag_carry = 0x001;
constexpr uint64_t flag_parity = 0x004;
constexpr uint64_t flag_adjust = 0x010;
constexpr uint64_t flag_zero = 0x040;
constexpr uint64_t flag_sign = 0x080;
constexpr uint64_t flag_overflow = 0x800;
constexpr uint64_t flags_arithmetic = flag_carry | flag_parity | flag_adjust | flag_zero | flag_sign | flag_overflow;

constexpr unsigned reg_sp = 4;
constexpr unsigned reg_bp = 5;

uint64_t mask_of(unsigned width) {
  return width >= 64 ? ~uint64_t{0} : (uint64_t{1} << width) - 1;
}

uint64_t sign_extend(uint64_t value, unsigned width) {
  const uint64_t top = uint64_t{1} << (width - 1);
  return ((value & mask_of(width)) ^ top) - top;
}

// The prefixes that matter, and the place in the code.
struct reader {
  const uint8_t *at;
  word_size size;
  bool operand16 = false;
  bool address32 = false;
  bool has_rex = false;
  uint8_t rex = 0;

  uint8_t byte() { return *at++; }

  uint64_t number(unsigned bytes) {
    uint64_t value = 0;
    for (unsigned i = 0; i < bytes; i++)
      value |= uint64_t{byte()} << (8 * i);
    return value;
  }

  uint64_t signed_number(unsigned bytes) { return sign_extend(number(bytes), 8 * bytes); }

  [[nodiscard]] unsigned rex_bit(unsigned bit) const { return (rex >> bit & 1U) << 3; }

  [[nodiscard]] uint8_t operand_width() const {
    if ((rex & 8U) != 0) return 64;
    return operand16 ? 16 : 32;
  }

  // Immediates have 32 bits at most.
  uint64_t operand_immediate(unsigned width) { return signed_number(width == 64 ? 4 : width / 8); }
};

// Returns false on a prefix that changes more than sizes. The segments of the data are all flat but fs and gs.
bool prefixes(reader *r) {
  for (;; r->at++) {
    switch (*r->at) {
      case 0x66:
        r->operand16 = true;
        continue;
      case 0x67:
        r->address32 = true;
        continue;
      case 0x26:
      case 0x2E:
      case 0x36:
      case 0x3E:
        continue;
      case 0x64:
      case 0x65:
      case 0xF0:
      case 0xF2:
      case 0xF3:
        return false;
      default:
        break;
    }
    break;
  }
  if (r->size == word_size::bits32) return !r->address32;  // 16-bit addressing
  if ((*r->at & 0xF0U) == 0x40) {
    r->has_rex = true;
    r->rex = r->byte();
  }
  return true;
}

// ModRM, SIB and displacement. `relative` tells that the address counts from the end of the instruction.
struct modrm {
  uint8_t reg = 0;  // without REX, as opcode extension
  uint64_t address = 0;
  bool relative = false;
};

bool modrm_read(reader *r, const cpu_regs &regs, modrm *m) {
  const uint8_t byte = r->byte();
  const unsigned mod = byte >> 6U;
  const unsigned rm = byte & 7U;
  m->reg = static_cast<uint8_t>(byte >> 3U & 7U);
  if (mod == 3) return false;

  uint64_t address = 0;
  bool displacement32 = mod == 2;
  if (rm == reg_sp) {
    const uint8_t sib = r->byte();
    const unsigned base = sib & 7U;
    const unsigned index = (sib >> 3U & 7U) | r->rex_bit(1);
    if (index != reg_sp) address += regs.gpr[index] << (sib >> 6U);
    if (base == reg_bp && mod == 0) {
      displacement32 = true;
    } else {
      address += regs.gpr[base | r->rex_bit(0)];
    }
  } else if (rm == reg_bp && mod == 0) {
    displacement32 = true;
    m->relative = r->size == word_size::bits64;
  } else {
    address += regs.gpr[rm | r->rex_bit(0)];
  }
  if (mod == 1) address += r->signed_number(1);
  if (displacement32) address += r->signed_number(4);
  m->address = address;
  return true;
}

void take_register(const reader &r, unsigned reg, unsigned width, insn *i) {
  i->reg_width = static_cast<uint8_t>(width);
  i->high = width == 8 && !r.has_rex && reg >= 4;
  i->reg = static_cast<uint8_t>(i->high ? reg - 4 : reg | r.rex_bit(2));
}

void operands(insn *i, operation op, operand to, operand from) {
  i->op = op;
  i->to = to;
  i->from = from;
}

// Opcodes 00 to 3B: operation in bits 3 to 5, direction in bit 1, size in bit 0.
void arithmetic(const reader &r, uint8_t code, const modrm &m, insn *i) {
  const auto op = static_cast<operation>(code >> 3U & 7U);
  const bool to_register = (code & 2U) != 0;
  operands(i, op, to_register ? operand::reg : operand::memory, to_register ? operand::memory : operand::reg);
  take_register(r, m.reg, i->width, i);
}

// Opcodes 80, 81, 83: operation in the register field.
void arithmetic_immediate(reader *r, uint8_t code, const modrm &m, insn *i) {
  operands(i, static_cast<operation>(m.reg), operand::memory, operand::immediate);
  i->immediate = code == 0x83 ? r->signed_number(1) : r->operand_immediate(i->width);
}

// Opcodes F6, F7, FE, FF: the operation stands in the register field.
bool unary(reader *r, uint8_t code, const modrm &m, insn *i) {
  const bool step = code >= 0xFE;
  if (!step && m.reg <= 1) {
    operands(i, operation::test, operand::memory, operand::immediate);
    i->immediate = r->operand_immediate(i->width);
    return true;
  }
  if (code == 0xFF && m.reg == 6) {
    operands(i, operation::push, operand::none, operand::memory);
    i->width = r->size == word_size::bits64 ? 64 : 32;
    return !r->operand16;
  }
  if (!step && (m.reg == 4 || m.reg == 5)) {
    operands(i, m.reg == 4 ? operation::mul : operation::imul, operand::none, operand::memory);
    return i->width <= 32;
  }
  if (step ? m.reg > 1 : m.reg > 3) return false;
  constexpr std::array ops{operation::inc, operation::dec, operation::not_, operation::neg};
  operands(i, ops[m.reg], operand::memory, operand::none);
  return true;
}

// Opcodes C0, C1, D0 to D3: shifts and rotations by an immediate, by one, by cl.
bool shift(reader *r, uint8_t code, const cpu_regs &regs, const modrm &m, insn *i) {
  constexpr std::array ops{operation::rol, operation::ror, operation::mov, operation::mov,
                           operation::shl, operation::shr, operation::shl, operation::sar};
  if (ops[m.reg] == operation::mov) return false;  // rotations through the carry
  operands(i, ops[m.reg], operand::memory, operand::immediate);
  const uint64_t count = code < 0xD0 ? r->byte() : code < 0xD2 ? 1 : regs.gpr[1];
  i->immediate = count & (i->width == 64 ? 0x3FU : 0x1FU);
  return true;
}

// Opcodes 0F AF, 69, 6B.
void multiply_register(const reader &r, const modrm &m, insn *i) {
  operands(i, operation::imul_reg, operand::reg, operand::memory);
  i->width = r.operand_width();
  take_register(r, m.reg, i->width, i);
}

bool multiply_immediate(reader *r, uint8_t code, const modrm &m, insn *i) {
  multiply_register(*r, m, i);
  i->op = operation::imul_immediate;
  i->immediate = code == 0x6B ? r->signed_number(1) : r->operand_immediate(i->width);
  return i->width <= 32;
}

// Opcodes after 0F: loads that extend, stores of a condition.
bool two_bytes(reader *r, const cpu_regs &regs, insn *i, modrm *m) {
  const uint8_t code = r->byte();
  const bool extends = (code & 0xF6U) == 0xB6;
  const bool condition = (code & 0xF0U) == 0x90;
  if (!extends && !condition && code != 0xC3 && code != 0xAF) return false;
  if (!modrm_read(r, regs, m)) return false;
  if (extends) {  // movzx B6 B7, movsx BE BF
    operands(i, operation::mov, operand::reg, operand::memory);
    take_register(*r, m->reg, r->operand_width(), i);
    i->width = (code & 1U) != 0 ? 16 : 8;
    i->sign = (code & 8U) != 0;
  } else if (condition) {
    operands(i, operation::set, operand::memory, operand::none);
    i->width = 8;
    i->condition = code & 0xFU;
  } else if (code == 0xAF) {
    multiply_register(*r, *m, i);
    return i->width <= 32;
  } else {  // movnti
    if (r->operand16) return false;
    operands(i, operation::mov, operand::memory, operand::reg);
    i->width = r->operand_width();
    take_register(*r, m->reg, i->width, i);
  }
  return true;
}

// E4 to E7 and EC to EF; bit 0 is the size, bit 1 the direction, bit 3 clear with an immediate port.
void port_access(reader *r, uint8_t code, const cpu_regs &regs, insn *i) {
  const bool out = (code & 2U) != 0;
  i->io = true;
  i->width = (code & 1U) == 0 ? 8 : r->operand16 ? 16 : 32;
  i->reg_width = i->width;
  i->address = (code & 8U) != 0 ? regs.gpr[2] & 0xFFFFU : r->byte();
  operands(i, operation::mov, out ? operand::memory : operand::reg, out ? operand::reg : operand::memory);
}

// A0 to A3: the accumulator and an absolute address.
void absolute(reader *r, uint8_t code, insn *i, modrm *m) {
  const bool store = (code & 2U) != 0;
  operands(i, operation::mov, store ? operand::memory : operand::reg, store ? operand::reg : operand::memory);
  i->reg_width = i->width;
  m->address = r->number(r->size == word_size::bits64 && !r->address32 ? 8 : 4);
}

bool is_shift(uint8_t code) {
  return (code & 0xFEU) == 0xC0 || (code & 0xFCU) == 0xD0;
}

// The opcodes with a ModRM byte that one_byte takes apart.
bool is_known(uint8_t code, word_size size) {
  if (code < 0x40) return (code & 7U) < 4;
  if (code == 0x63) return size == word_size::bits64;
  if (code == 0x69 || code == 0x6B) return true;
  if (code >= 0x80 && code <= 0x8B) return code != 0x82;
  return (code & 0xFEU) == 0xC6 || (code & 0xF6U) == 0xF6 || is_shift(code);
}

// Opcodes 84 to 8B, by pairs.
struct exchange {
  operation op;
  operand to, from;
};
constexpr std::array exchanges{std::to_array<exchange>({
    {operation::test, operand::memory, operand::reg},
    {operation::xchg, operand::memory, operand::reg},
    {operation::mov, operand::memory, operand::reg},
    {operation::mov, operand::reg, operand::memory},
})};

bool one_byte(reader *r, uint8_t code, const cpu_regs &regs, insn *i, modrm *m) {
  i->width = (code & 1U) != 0 ? r->operand_width() : 8;
  if (code >= 0xA0 && code <= 0xA3) {
    absolute(r, code, i, m);
    return true;
  }
  if (!is_known(code, r->size) || !modrm_read(r, regs, m)) return false;
  if (is_shift(code)) return shift(r, code, regs, *m, i);
  if (code < 0x40) {
    arithmetic(*r, code, *m, i);
    return true;
  }
  if (code >= 0x84 && code <= 0x8B) {
    const auto &e = exchanges[(code - 0x84U) / 2];
    operands(i, e.op, e.to, e.from);
    take_register(*r, m->reg, i->width, i);
    return true;
  }
  switch (code) {
    case 0x63:
      operands(i, operation::mov, operand::reg, operand::memory);
      take_register(*r, m->reg, r->operand_width(), i);
      i->width = i->reg_width == 16 ? 16 : 32;
      i->sign = true;
      return true;
    case 0x69:
    case 0x6B:
      return multiply_immediate(r, code, *m, i);
    case 0x80:
    case 0x81:
    case 0x83:
      arithmetic_immediate(r, code, *m, i);
      return true;
    case 0xC6:
    case 0xC7:
      operands(i, operation::mov, operand::memory, operand::immediate);
      i->immediate = r->operand_immediate(i->width);
      return m->reg == 0;
    default:
      return unary(r, code, *m, i);
  }
}

uint64_t register_get(const insn &i, const cpu_regs &regs) {
  return (regs.gpr[i.reg] >> (i.high ? 8U : 0U)) & mask_of(i.reg_width);
}

// A 32-bit result clears the upper half of a 64-bit register; a shorter one leaves the rest alone.
void register_set(const insn &i, cpu_regs *regs, uint64_t value) {
  const unsigned shift = i.high ? 8 : 0;
  const uint64_t kept = i.reg_width >= 32 ? 0 : ~(mask_of(i.reg_width) << shift);
  regs->gpr[i.reg] = (regs->gpr[i.reg] & kept) | (value & mask_of(i.reg_width)) << shift;
}

uint64_t result_flags(uint64_t result, unsigned width) {
  uint64_t flags = 0;
  if ((std::popcount(result & 0xFFU) & 1) == 0) flags |= flag_parity;
  if ((result & mask_of(width)) == 0) flags |= flag_zero;
  if ((result >> (width - 1) & 1U) != 0) flags |= flag_sign;
  return flags;
}

// Carries into and out of every bit tell carry, adjust and overflow.
uint64_t carry_flags(uint64_t carries_out, uint64_t a, uint64_t b, uint64_t result, unsigned width) {
  uint64_t flags = 0;
  if ((carries_out >> (width - 1) & 1U) != 0) flags |= flag_carry;
  if (((a ^ b ^ result) & 0x10U) != 0) flags |= flag_adjust;
  const uint64_t carries_in = a ^ b ^ result;
  if (((carries_in ^ carries_out) >> (width - 1) & 1U) != 0) flags |= flag_overflow;
  return flags;
}

uint64_t add(uint64_t a, uint64_t b, uint64_t carry, unsigned width, uint64_t *flags) {
  const uint64_t result = a + b + carry;
  *flags = carry_flags((a & b) | ((a | b) & ~result), a, b, result, width);
  return result;
}

uint64_t subtract(uint64_t a, uint64_t b, uint64_t borrow, unsigned width, uint64_t *flags) {
  const uint64_t result = a - b - borrow;
  *flags = carry_flags((~a & b) | ((~a | b) & result), a, b, result, width);
  return result;
}

bool holds(unsigned condition, uint64_t flags) {
  const auto is = [flags](uint64_t flag) { return (flags & flag) != 0; };
  const bool less = is(flag_sign) != is(flag_overflow);
  bool result = false;
  switch (condition >> 1U) {
    case 0:
      result = is(flag_overflow);
      break;
    case 1:
      result = is(flag_carry);
      break;
    case 2:
      result = is(flag_zero);
      break;
    case 3:
      result = is(flag_carry) || is(flag_zero);
      break;
    case 4:
      result = is(flag_sign);
      break;
    case 5:
      result = is(flag_parity);
      break;
    case 6:
      result = less;
      break;
    default:
      result = less || is(flag_zero);
      break;
  }
  return result != ((condition & 1U) != 0);
}

uint64_t flag_if(bool condition, uint64_t flag) {
  return condition ? flag : 0;
}

// Rotations set carry and overflow alone. Overflow has a meaning only where the count is 1.
uint64_t rotate(operation op, uint64_t a, unsigned count, unsigned width, uint64_t *flags) {
  if (count == 0) return a;
  const unsigned left = (op == operation::rol ? count : width - count % width) % width;
  const uint64_t result = left == 0 ? a : (a << left | a >> (width - left)) & mask_of(width);
  const bool top = (result >> (width - 1) & 1U) != 0;
  const bool next = (result >> (width - 2) & 1U) != 0;
  const bool carry = op == operation::rol ? (result & 1U) != 0 : top;
  const bool overflow = op == operation::rol ? top != carry : top != next;
  *flags = (*flags & ~(flag_carry | flag_overflow)) | flag_if(carry, flag_carry) | flag_if(overflow, flag_overflow);
  return result;
}

// The last bit shifted out is the carry. Overflow as above; adjust has no meaning.
uint64_t shift_bits(operation op, uint64_t a, unsigned count, unsigned width, uint64_t *flags) {
  if (count == 0) return a;
  const uint64_t extended = op == operation::sar ? sign_extend(a, width) : a;
  const auto right = [&](unsigned n) {
    const uint64_t filled = extended >> 63U != 0 && n != 0 ? ~(~uint64_t{0} >> n) : 0;
    return extended >> n | (op == operation::sar ? filled : 0);
  };
  const bool top = (a >> (width - 1) & 1U) != 0;
  uint64_t result = 0;
  bool carry = false;
  bool overflow = false;
  if (op == operation::shl) {
    result = a << count;
    carry = count <= width && (a >> (width - count) & 1U) != 0;
    overflow = ((result >> (width - 1) & 1U) != 0) != carry;
  } else {
    result = right(count);
    carry = (right(count - 1) & 1U) != 0;
    overflow = op == operation::shr && top;
  }
  *flags = (*flags & ~flags_arithmetic) | result_flags(result, width) | flag_if(carry, flag_carry) |
           flag_if(overflow, flag_overflow);
  return result;
}

// Multiplications set carry and overflow alone, both when the product does not fit.
void set_product_flags(bool fits, uint64_t *flags) {
  *flags = (*flags & ~(flag_carry | flag_overflow)) | flag_if(!fits, flag_carry | flag_overflow);
}

// Into ax, or into dx and ax; `i` is taken as an instruction on each of them in turn.
void multiply_accumulator(insn i, cpu_regs *regs, uint64_t memory) {
  const bool has_sign = i.op == operation::imul;
  const auto extend = [&](uint64_t value) { return has_sign ? sign_extend(value, i.width) : value & mask_of(i.width); };
  const uint64_t product = extend(regs->gpr[0]) * extend(memory);
  set_product_flags(extend(product) == product, &regs->flags);
  i.reg = 0;
  i.reg_width = i.width == 8 ? 16 : i.width;
  register_set(i, regs, product);
  i.reg = 2;
  if (i.width != 8) register_set(i, regs, product >> i.width);
}

uint64_t multiply(uint64_t a, uint64_t b, unsigned width, uint64_t *flags) {
  const uint64_t product = sign_extend(a, width) * sign_extend(b, width);
  set_product_flags(sign_extend(product, width) == product, flags);
  return product;
}

uint64_t sum_or_difference(operation op, uint64_t a, uint64_t b, uint64_t carry, unsigned width, uint64_t *flags) {
  switch (op) {
    case operation::add:
      return add(a, b, 0, width, flags);
    case operation::adc:
      return add(a, b, carry, width, flags);
    case operation::inc:
      return add(a, 1, 0, width, flags);
    case operation::dec:
      return subtract(a, 1, 0, width, flags);
    case operation::sbb:
      return subtract(a, b, carry, width, flags);
    case operation::neg:
      return subtract(0, a, 0, width, flags);
    default:  // sub, cmp
      return subtract(a, b, 0, width, flags);
  }
}

// `a` is the operand that also takes the result.
uint64_t compute(operation op, uint64_t a, uint64_t b, unsigned width, uint64_t *flags) {
  uint64_t result = 0;
  uint64_t changed = 0;
  switch (op) {
    case operation::mov:
    case operation::xchg:
    case operation::push:
      return b;
    case operation::not_:
      return ~a;
    case operation::rol:
    case operation::ror:
      return rotate(op, a, static_cast<unsigned>(b), width, flags);
    case operation::shl:
    case operation::shr:
    case operation::sar:
      return shift_bits(op, a, static_cast<unsigned>(b), width, flags);
    case operation::imul_reg:
    case operation::imul_immediate:
      return multiply(a, b, width, flags);
    case operation::or_:
      result = a | b;
      break;
    case operation::xor_:
      result = a ^ b;
      break;
    case operation::and_:
    case operation::test:
      result = a & b;
      break;
    default:
      result = sum_or_difference(op, a, b, *flags & flag_carry, width, &changed);
      break;
  }
  const bool keeps_carry = op == operation::inc || op == operation::dec;
  const uint64_t replaced = keeps_carry ? flags_arithmetic & ~flag_carry : flags_arithmetic;
  *flags = (*flags & ~replaced) | ((changed | result_flags(result, width)) & replaced);
  return result;
}

}  // namespace

bool decode(const uint8_t *code, word_size size, const cpu_regs &regs, insn *out) {
  reader r{.at = code, .size = size};
  insn i;
  modrm m;
  if (!prefixes(&r)) return false;
  const uint8_t opcode = r.byte();
  if ((opcode & 0xF4U) == 0xE4) {
    port_access(&r, opcode, regs, &i);
  } else if (!(opcode == 0x0F ? two_bytes(&r, regs, &i, &m) : one_byte(&r, opcode, regs, &i, &m))) {
    return false;
  }
  i.length = static_cast<uint8_t>(r.at - code);
  if (!i.io) {
    i.address = m.address + (m.relative ? regs.ip + i.length : 0);
    if (size == word_size::bits32 || r.address32) i.address &= 0xFFFFFFFFU;
  }
  const bool plain = i.op == operation::mov || i.op == operation::set;
  i.reads = i.from == operand::memory || !plain;
  i.writes = i.to == operand::memory && i.op != operation::cmp && i.op != operation::test;
  *out = i;
  return true;
}

uint64_t retire(const insn &i, cpu_regs *regs, uint64_t bus_data) {
  const uint64_t memory = i.sign ? sign_extend(bus_data, i.width) : bus_data & mask_of(i.width);
  regs->ip += i.length;
  if (i.op == operation::set) return holds(i.condition, regs->flags) ? 1 : 0;

  const auto value = [&](operand o) -> uint64_t {
    if (o == operand::memory) return memory;
    if (o == operand::reg) return register_get(i, *regs);
    return i.immediate & mask_of(i.width);
  };
  if (i.op == operation::mul || i.op == operation::imul) {
    multiply_accumulator(i, regs, memory);
    return 0;
  }
  const operand first = i.op == operation::imul_immediate ? operand::immediate : i.to;
  const uint64_t result = compute(i.op, value(first), value(i.from), i.width, &regs->flags);
  if (i.op == operation::push) regs->gpr[reg_sp] -= i.width / 8U;
  const bool only_flags = i.op == operation::cmp || i.op == operation::test;
  if (i.op == operation::xchg) register_set(i, regs, memory);
  if (i.to == operand::reg && !only_flags) register_set(i, regs, result);
  return result & mask_of(i.width);
}

}  // namespace sim
