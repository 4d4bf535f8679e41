// Instructions of any bytes. The first two bytes choose mode and registers.
#include <algorithm>
#include <memory>

#include "fuzz/fuzz.h"
#include "sim/bus/decode.h"

namespace {

constexpr size_t longest = 15;  // AMD64 Architecture Programmer's Manual, volume 3, "Instruction Encoding"

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size < 3) return 0;
  const auto mode = (data[0] & 1U) != 0 ? sim::word_size::bits64 : sim::word_size::bits32;
  sim::cpu_regs regs;
  for (size_t i = 0; i < regs.gpr.size(); ++i)
    regs.gpr[i] = (data[1] + i) * 0x0123456789ABCDEFU >> (mode == sim::word_size::bits64 ? 0U : 32U);
  regs.ip = 0x400000;
  // After the input come bytes that end any instruction.
  uint8_t code[64] = {};
  std::copy_n(data + 2, std::min(size - 2, sizeof code), code);
  sim::insn i;
  if (!sim::decode(code, mode, regs, &i)) return 0;

  MUST_HOLD(i.length != 0 && i.length <= longest);
  MUST_HOLD(i.width == 8 || i.width == 16 || i.width == 32 || (i.width == 64 && mode == sim::word_size::bits64));
  MUST_HOLD(i.reg_width >= i.width && i.reg_width <= 64 && i.reg < 16);
  MUST_HOLD(!i.high || (i.reg_width == 8 && i.reg < 4));
  MUST_HOLD(i.width == 64 || i.data >> i.width == 0);
  MUST_HOLD(!i.io || (i.address <= 0xFFFF && i.width <= 32));
  MUST_HOLD(mode == sim::word_size::bits64 || i.address <= UINT32_MAX);

  // No byte more is read than the instruction has.
  const auto whole = std::make_unique<uint8_t[]>(i.length);
  std::copy_n(code, i.length, whole.get());
  sim::insn again;
  MUST_HOLD(sim::decode(whole.get(), mode, regs, &again));
  MUST_HOLD(again.length == i.length && again.address == i.address && again.data == i.data);

  // A load changes no register but its own.
  sim::cpu_regs after = regs;
  fill_register(i, 0x8091A2B3C4D5E6F7, &after);
  for (size_t r = 0; r < regs.gpr.size(); ++r)
    MUST_HOLD(r == i.reg || after.gpr[r] == regs.gpr[r]);
  return 0;
}
