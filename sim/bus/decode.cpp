#include "sim/bus/decode.h"

#include <algorithm>
#include <cstddef>

namespace sim {

namespace {

constexpr unsigned reg_ax = 0;
constexpr unsigned reg_dx = 2;
constexpr unsigned reg_sp = 4;  // in ModRM: a SIB byte follows; in SIB: no index
constexpr unsigned reg_bp = 5;  // in ModRM and SIB without displacement: a displacement only

constexpr std::ptrdiff_t longest = 15;  // bytes of an instruction; the processor refuses more

// Where the two operands of a move are: register and memory by ModRM; a constant and memory by ModRM; the accumulator
// and an address, or a port, in the instruction; the accumulator and port dx.
enum class form : uint8_t { modrm, constant, address, port, port_dx };
enum class extension : uint8_t { none, zero, sign };

struct opcode {
  uint16_t code;
  form sides;
  bool store;
  uint8_t width;  // bits, 0 for the operand size
  extension extends = extension::none;
};

// clang-format off
constexpr std::array opcodes{std::to_array<opcode>({
    // code   sides           store  width
    {0x88,    form::modrm,    true,  8},
    {0x89,    form::modrm,    true,  0},
    {0x8A,    form::modrm,    false, 8},
    {0x8B,    form::modrm,    false, 0},
    {0xC6,    form::constant, true,  8},
    {0xC7,    form::constant, true,  0},
    {0xA0,    form::address,  false, 8},
    {0xA1,    form::address,  false, 0},
    {0xA2,    form::address,  true,  8},
    {0xA3,    form::address,  true,  0},
    {0x0FB6,  form::modrm,    false, 8,  extension::zero},
    {0x0FB7,  form::modrm,    false, 16, extension::zero},
    {0x0FBE,  form::modrm,    false, 8,  extension::sign},
    {0x0FBF,  form::modrm,    false, 16, extension::sign},
    {0x63,    form::modrm,    false, 32, extension::sign},  // 64-bit mode only
    {0xE4,    form::port,     false, 8},
    {0xE5,    form::port,     false, 0},
    {0xE6,    form::port,     true,  8},
    {0xE7,    form::port,     true,  0},
    {0xEC,    form::port_dx,  false, 8},
    {0xED,    form::port_dx,  false, 0},
    {0xEE,    form::port_dx,  true,  8},
    {0xEF,    form::port_dx,  true,  0},
})};
// clang-format on

constexpr uint64_t cut(uint64_t value, unsigned width) {
  return width >= 64 ? value : value & ((uint64_t{1} << width) - 1);
}

constexpr uint64_t sign_extend(uint64_t value, unsigned width) {
  const uint64_t top = uint64_t{1} << (width - 1);
  return (cut(value, width) ^ top) - top;
}

// The place in the code, and the prefixes that matter.
struct reader {
  const uint8_t *start;
  const uint8_t *at;
  word_size size;
  bool operand16 = false;
  bool address32 = false;
  bool has_rex = false;
  uint8_t rex = 0;

  uint8_t byte() { return *at++; }
  uint64_t number(unsigned bytes) {
    uint64_t value = 0;
    for (unsigned i = 0; i < bytes; ++i)
      value |= uint64_t{byte()} << (8 * i);
    return value;
  }
  uint64_t signed_number(unsigned bytes) { return sign_extend(number(bytes), 8 * bytes); }

  // The fourth bit of a register's number, from bit 0, 1 or 2 of the REX prefix.
  [[nodiscard]] unsigned rex_bit(unsigned bit) const { return (rex >> bit & 1U) << 3; }
  [[nodiscard]] uint8_t operand_width() const { return (rex & 8U) != 0 ? 64 : operand16 ? 16 : 32; }
};

// Returns false on a prefix that changes more than sizes. The segments of the data are all flat but fs and gs.
bool read_prefixes(reader *r) {
  for (;; ++r->at) {
    if (r->at - r->start == longest) return false;
    const uint8_t byte = *r->at;
    if (byte == 0x66) {
      r->operand16 = true;
    } else if (byte == 0x67) {
      r->address32 = true;
    } else if ((byte & 0xE7U) != 0x26) {
      break;
    }
  }
  if (r->size == word_size::bits32) return !r->address32;  // 16-bit addressing
  r->has_rex = (*r->at & 0xF0U) == 0x40;
  if (r->has_rex) r->rex = r->byte();
  return true;
}

const opcode *read_opcode(reader *r) {
  uint16_t code = r->byte();
  if (code == 0x0F) code = static_cast<uint16_t>(0x0F00 | r->byte());
  if (code == 0x63 && (r->size == word_size::bits32 || r->operand16)) return nullptr;
  const auto *const found = std::ranges::find(opcodes, code, &opcode::code);
  return found == opcodes.end() ? nullptr : found;
}

// ModRM, SIB and displacement. Puts the register's field into *reg. Returns false where there is no memory operand.
bool read_modrm(reader *r, unsigned *reg, operand_address *to) {
  const uint8_t byte = r->byte();
  const unsigned mod = byte >> 6U;
  unsigned base = byte & 7U;
  *reg = byte >> 3U & 7U;
  if (mod == 3) return false;

  const bool has_sib = base == reg_sp;
  if (has_sib) {
    const uint8_t sib = r->byte();
    base = sib & 7U;
    const unsigned index = (sib >> 3U & 7U) | r->rex_bit(1);
    to->index = static_cast<uint8_t>(index);
    to->index_factor = index == reg_sp ? uint8_t{0} : static_cast<uint8_t>(1U << (sib >> 6U));
  }
  const bool has_base = mod != 0 || base != reg_bp;
  to->base = static_cast<uint8_t>(base | r->rex_bit(0));
  to->base_factor = has_base ? 1 : 0;
  if (mod == 1) to->displacement = r->signed_number(1);
  if (mod == 2 || !has_base) to->displacement = r->signed_number(4);
  to->relative = !has_base && !has_sib && r->size == word_size::bits64;
  return true;
}

uint64_t address_of(const reader &r, const operand_address &m, const cpu_regs &regs) {
  const uint64_t from = m.relative ? regs.ip + static_cast<uint64_t>(r.at - r.start) : 0;
  const uint64_t sum = from + m.displacement + m.base_factor * regs.gpr[m.base] + m.index_factor * regs.gpr[m.index];
  return r.size == word_size::bits32 || m.cut ? cut(sum, 32) : sum;
}

void take_register(const reader &r, unsigned reg, insn *i) {
  i->high = i->reg_width == 8 && !r.has_rex && reg >= 4;
  i->reg = static_cast<uint8_t>(i->high ? reg - 4 : reg | r.rex_bit(2));
}

// The operands of an access to memory. Returns false where there is none.
bool read_memory_form(reader *r, form sides, const cpu_regs &regs, insn *i) {
  unsigned reg = 0;
  if (sides == form::address) {
    i->memory.displacement = r->number(r->size == word_size::bits64 && !r->address32 ? 8 : 4);
  } else {
    if (!read_modrm(r, &reg, &i->memory)) return false;
    take_register(*r, reg, i);
  }
  i->constant = sides == form::constant;
  if (i->constant) {
    if (reg != 0) return false;
    i->data = r->signed_number(std::min(i->width / 8U, 4U));
  }
  i->memory.cut = r->address32;
  i->address = address_of(*r, i->memory, regs);
  return true;
}

}  // namespace

bool decode(const uint8_t *code, word_size size, const cpu_regs &regs, insn *out) {
  reader r{.start = code, .at = code, .size = size};
  if (!read_prefixes(&r)) return false;
  const auto *const op = read_opcode(&r);
  if (op == nullptr) return false;
  insn i;
  i.io = op->sides >= form::port;
  i.store = op->store;
  i.width = op->width != 0 ? op->width : r.operand_width();
  if (i.io) i.width = std::min(i.width, uint8_t{32});
  i.sign = op->extends == extension::sign;
  i.reg_width = op->extends == extension::none ? i.width : r.operand_width();
  i.reg = reg_ax;
  if (i.io) {
    i.address = op->sides == form::port ? r.byte() : cut(regs.gpr[reg_dx], 16);
  } else if (!read_memory_form(&r, op->sides, regs, &i)) {
    return false;
  }
  if (r.at - r.start > longest) return false;
  i.data = stored_data(i, regs.gpr[i.reg]);
  i.length = static_cast<uint8_t>(r.at - code);
  *out = i;
  return true;
}

uint64_t stored_data(const insn &i, uint64_t value) {
  return cut(i.constant ? i.data : value >> (i.high ? 8U : 0U), i.width);
}

// A 32-bit result clears the upper half of a 64-bit register; a shorter one leaves the other bits as they are.
uint64_t loaded_register(const insn &i, uint64_t before, uint64_t bus_data) {
  const uint64_t value = i.sign ? sign_extend(bus_data, i.width) : cut(bus_data, i.width);
  const unsigned shift = i.high ? 8 : 0;
  const uint64_t kept = i.reg_width >= 32 ? 0 : ~(cut(~uint64_t{0}, i.reg_width) << shift);
  return (before & kept) | cut(value, i.reg_width) << shift;
}

void fill_register(const insn &i, uint64_t bus_data, cpu_regs *regs) {
  regs->gpr[i.reg] = loaded_register(i, regs->gpr[i.reg], bus_data);
}

}  // namespace sim
