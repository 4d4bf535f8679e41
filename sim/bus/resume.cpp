#include "sim/bus/resume.h"

#include <signal.h>

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "sim/host/real.h"

namespace sim {

#ifdef __x86_64__

void resume(const ucontext_t &, const void *) {}

#else

namespace {

constexpr unsigned autodisarm = 1U << 31;  // SS_AUTODISARM of <linux/signal.h>, which goes with no other header
constexpr greg_t flag_trap = 0x00100;
constexpr greg_t flag_nested = 0x04000;
constexpr greg_t flag_alignment = 0x40000;

// Whether the segment registers are those of the interrupted code.
bool keeps_segments(const ucontext_t &context) {
  greg_t cs = 0, ds = 0, es = 0, fs = 0, gs = 0, ss = 0;
  asm("movl %%cs, %0; movl %%ds, %1; movl %%es, %2" : "=r"(cs), "=r"(ds), "=r"(es));
  asm("movl %%fs, %0; movl %%gs, %1; movl %%ss, %2" : "=r"(fs), "=r"(gs), "=r"(ss));
  const auto &gregs = context.uc_mcontext.gregs;
  const auto same = [&](int reg, greg_t now) { return ((gregs[reg] ^ now) & 0xFFFF) == 0; };
  return same(REG_CS, cs) && same(REG_DS, ds) && same(REG_ES, es) && same(REG_FS, fs) && same(REG_GS, gs) &&
         same(REG_SS, ss);
}

// Where XSAVE's area stands behind fpregs, after FSAVE's, and what the kernel's frame tells of it.
constexpr size_t xsave_area = 112;
constexpr size_t xsave_description = xsave_area + 464;
constexpr size_t xsave_mask = xsave_description + offsetof(_fpx_sw_bytes, xstate_bv);

// Whether XRSTOR can restore the extended state: the kernel saved it by XSAVE, whole up to the mark at its end.
bool has_xsave(const ucontext_t &context) {
  constexpr unsigned long xstate_flag = 1;  // UC_FP_XSTATE
  constexpr uint32_t least_size = 512 + sizeof(_xsave_hdr);
  const auto *const state = reinterpret_cast<const char *>(context.uc_mcontext.fpregs);
  if ((context.uc_flags & xstate_flag) == 0 || state == nullptr) return false;
  _fpx_sw_bytes described{};
  memcpy(&described, state + xsave_description, sizeof described);
  const uint32_t size = described.xstate_size;
  if (described.magic1 != FP_XSTATE_MAGIC1 || size < least_size) return false;
  if (described.extended_size < size + FP_XSTATE_MAGIC2_SIZE) return false;
  uint32_t mark = 0;
  memcpy(&mark, state + xsave_area + size, sizeof mark);
  return mark == FP_XSTATE_MAGIC2;
}

// Another handler may have called ours, and has blocked what it blocks. The kernel's frame begins with the handler's
// return address and three arguments, before siginfo and context.
bool is_called_by_kernel(const ucontext_t &context, const void *caller) {
  constexpr size_t siginfo_size = 128;
  const void *returns_to = nullptr;
  memcpy(&returns_to, reinterpret_cast<const char *>(&context) - siginfo_size - 4 * sizeof(uint32_t),
         sizeof returns_to);
  return returns_to == caller;
}

// Whether nothing has to be restored but what go_on() restores. The signal mask is as it was: the handler blocks
// nothing. There is no shadow stack to be kept in step: the kernel gives none to 32-bit processes (arch_prctl refuses
// ARCH_SHSTK_ENABLE there).
bool is_plain(const ucontext_t &context) {
  const auto &gregs = context.uc_mcontext.gregs;
  // The way back leads over 16 bytes below the interrupted stack pointer. The page below may be no stack.
  if (static_cast<uintptr_t>(gregs[REG_ESP]) % page_size < 16) return false;
  if ((gregs[REG_EFL] & (flag_trap | flag_nested | flag_alignment)) != 0) return false;
  if ((static_cast<unsigned>(context.uc_stack.ss_flags) & autodisarm) != 0) return false;
  return keeps_segments(context) && has_xsave(context);
}

// Goes on with the interrupted code. The kernel's way back, rt_sigreturn, costs more than all the rest of an access on
// 32 bits. XRSTOR restores the extended state, and of that what the frame holds, no more: processors have state that
// the kernel saves only for threads that asked for it. The last registers come from the space below the stack pointer.
[[noreturn]] void go_on(const ucontext_t &context) {
  const auto greg = [](int reg) constexpr {
    return offsetof(ucontext_t, uc_mcontext.gregs) + sizeof(greg_t) * static_cast<size_t>(reg);
  };
  asm volatile(
      "movl %c[fpregs](%%ebx), %%ecx; movl %c[mask](%%ecx), %%eax; movl %c[mask]+4(%%ecx), %%edx;"
      "xrstor %c[area](%%ecx);"
      "movl %c[sp](%%ebx), %%esi; subl $16, %%esi;"
      "movl %c[ip](%%ebx), %%eax; movl %%eax, 12(%%esi);"
      "movl %c[flags](%%ebx), %%eax; movl %%eax, 8(%%esi);"
      "movl %c[ax](%%ebx), %%eax; movl %%eax, 4(%%esi);"
      "movl %c[bx](%%ebx), %%eax; movl %%eax, (%%esi);"
      "movl %c[di](%%ebx), %%edi; movl %c[bp](%%ebx), %%ebp; movl %c[dx](%%ebx), %%edx; movl %c[cx](%%ebx), %%ecx;"
      "movl %c[si](%%ebx), %%eax; movl %%esi, %%esp; movl %%eax, %%esi;"
      "popl %%ebx; popl %%eax; popfl; ret"
      :
      : "b"(&context), [fpregs] "i"(offsetof(ucontext_t, uc_mcontext.fpregs)), [mask] "i"(xsave_mask),
        [area] "i"(xsave_area), [sp] "i"(greg(REG_ESP)), [ip] "i"(greg(REG_EIP)), [flags] "i"(greg(REG_EFL)),
        [ax] "i"(greg(REG_EAX)), [bx] "i"(greg(REG_EBX)), [cx] "i"(greg(REG_ECX)), [dx] "i"(greg(REG_EDX)),
        [si] "i"(greg(REG_ESI)), [di] "i"(greg(REG_EDI)), [bp] "i"(greg(REG_EBP))
      : "memory");
  __builtin_unreachable();
}

}  // namespace

void resume(const ucontext_t &context, const void *caller) {
  if (is_called_by_kernel(context, caller) && is_plain(context)) go_on(context);
}

#endif

}  // namespace sim
