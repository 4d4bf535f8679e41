#include "sim/bus/trampoline.h"

#include <algorithm>
#include <atomic>
#include <cstring>

#include "sim/base/real.h"

namespace sim {

namespace {

#ifdef __x86_64__
constexpr size_t registers = 16;
#else
constexpr size_t registers = 8;
#endif

}  // namespace

// What a trampoline pushes. The stack pointer's place holds that of the move.
struct trampoline_frame {
  uintptr_t gpr[registers];
  uintptr_t flags;
};

}  // namespace sim

// --- The code -------------------------------------------------------------------------------------------------------

extern "C" {
// The code of every trampoline but the move's copy. A label is at the end of each place that is filled in.
extern const uint8_t sim_trampoline[], sim_trampoline_site[], sim_trampoline_enter[], sim_trampoline_back[],
    sim_trampoline_copy[];
// Carries an access out with the vector state saved. The registers rbp and rbx (32 bits: ebp, ebx) hold frame and site,
// eax afterwards whether it is done; the others change.
void sim_trampoline_access();

[[gnu::used, gnu::visibility("hidden")]] int sim_is_answered(const sim::trampoline_frame *frame,
                                                             const sim::jump_site *site);
[[gnu::used, gnu::visibility("hidden")]] int sim_access(sim::trampoline_frame *frame, const sim::jump_site *site);
}

// Offsets that the assembly uses.
static_assert(offsetof(sim::jump_site, vectors) == 0);
static_assert(offsetof(sim::vector_state, way) == 0);
static_assert(offsetof(sim::vector_state, mask) == 4);
static_assert(offsetof(sim::vector_state, bytes) == 8);
static_assert(static_cast<int>(sim::save_way::xsave) == 1);

// XSAVE and XSAVEC leave bytes of their header as they are that XRSTOR wants to be 0. Bit 0 there is 0 if x87 is as
// after FNINIT. 0x1F80 is MXCSR at a program's start.
#ifdef __x86_64__
static_assert(sizeof(sim::trampoline_frame) + 128 == 264);
static_assert(offsetof(sim::trampoline_frame, gpr[4]) == 32);
asm(R"(
  .pushsection .rodata.sim_trampoline, "a"
  .macro sim_restore
  popq %rax; popq %rcx; popq %rdx; popq %rbx; popq %rbp; popq %rbp; popq %rsi; popq %rdi
  popq %r8; popq %r9; popq %r10; popq %r11; popq %r12; popq %r13; popq %r14; popq %r15
  popfq
  leaq 128(%rsp), %rsp
  .endm
sim_trampoline:
  leaq -128(%rsp), %rsp
  pushfq
  pushq %r15; pushq %r14; pushq %r13; pushq %r12; pushq %r11; pushq %r10; pushq %r9; pushq %r8
  pushq %rdi; pushq %rsi; pushq %rbp; pushq %rsp; pushq %rbx; pushq %rdx; pushq %rcx; pushq %rax
  cld
  leaq 264(%rsp), %rax
  movq %rax, 32(%rsp)
  movq %rsp, %rbp
  andq $-16, %rsp
  movabsq $0x1111111111111111, %rbx
sim_trampoline_site:
  movabsq $0x1111111111111111, %rax
sim_trampoline_enter:
  callq *%rax
  movq %rbp, %rsp
  testl %eax, %eax
  jz 1f
  sim_restore
  .byte 0xE9; .long 0
sim_trampoline_back:
1:
  sim_restore
sim_trampoline_copy:
  .popsection

  .pushsection .text.sim_trampoline, "ax", @progbits
  .p2align 4
  .type sim_trampoline_access, @function
sim_trampoline_access:
  .cfi_startproc
  .cfi_undefined %rip
  endbr64
  subq $8, %rsp
  movq %rbp, %rdi
  movq %rbx, %rsi
  call sim_is_answered
  testl %eax, %eax
  jz 6f
  movq (%rbx), %r12
  movq %rsp, %r13
  movl 8(%r12), %eax
  subq %rax, %rsp
  andq $-64, %rsp
  movl 4(%r12), %eax
  xorl %edx, %edx
  cmpl $1, (%r12)
  jb 1f
  movq %rdx, 512(%rsp); movq %rdx, 520(%rsp); movq %rdx, 528(%rsp); movq %rdx, 536(%rsp)
  movq %rdx, 544(%rsp); movq %rdx, 552(%rsp); movq %rdx, 560(%rsp); movq %rdx, 568(%rsp)
  je 2f
  xsavec64 (%rsp)
  jmp 3f
1:
  fxsave64 (%rsp)
  jmp 4f
2:
  xsave64 (%rsp)
3:
  testb $1, 512(%rsp)
  jz 5f
4:
  fninit
5:
  subq $16, %rsp
  movl $0x1F80, (%rsp)
  ldmxcsr (%rsp)
  movq %rbp, %rdi
  movq %rbx, %rsi
  call sim_access
  movl %eax, %ecx
  addq $16, %rsp
  movl 4(%r12), %eax
  xorl %edx, %edx
  cmpl $1, (%r12)
  jb 1f
  xrstor64 (%rsp)
  jmp 2f
1:
  fxrstor64 (%rsp)
2:
  movq %r13, %rsp
  movl %ecx, %eax
6:
  addq $8, %rsp
  ret
  .cfi_endproc
  .size sim_trampoline_access, . - sim_trampoline_access
  .popsection
)");
#else
static_assert(sizeof(sim::trampoline_frame) == 36);
static_assert(offsetof(sim::trampoline_frame, gpr[4]) == 16);
// The program may have put anything into es, which C relies on.
asm(R"(
  .pushsection .rodata.sim_trampoline, "a"
  .macro sim_restore
  popl %eax; popl %ecx; popl %edx; popl %ebx; popl %ebp; popl %ebp; popl %esi; popl %edi
  popfl
  .endm
sim_trampoline:
  pushfl
  pushl %edi; pushl %esi; pushl %ebp; pushl %esp; pushl %ebx; pushl %edx; pushl %ecx; pushl %eax
  cld
  leal 36(%esp), %eax
  movl %eax, 16(%esp)
  movl %esp, %ebp
  andl $-16, %esp
  movl $0x11111111, %ebx
sim_trampoline_site:
  movl $0x11111111, %eax
sim_trampoline_enter:
  calll *%eax
  movl %ebp, %esp
  testl %eax, %eax
  jz 1f
  sim_restore
  .byte 0xE9; .long 0
sim_trampoline_back:
1:
  sim_restore
sim_trampoline_copy:
  .popsection

  .pushsection .text.sim_trampoline, "ax", @progbits
  .p2align 4
  .type sim_trampoline_access, @function
sim_trampoline_access:
  .cfi_startproc
  .cfi_undefined %eip
  endbr32
  subl $4, %esp
  pushl %ebx
  pushl %ebp
  call sim_is_answered
  addl $12, %esp
  testl %eax, %eax
  jz 6f
  movl (%ebx), %esi
  movl %esp, %edi
  subl 8(%esi), %esp
  andl $-64, %esp
  movl 4(%esi), %eax
  xorl %edx, %edx
  cmpl $1, (%esi)
  jb 1f
  movl %edx, 512(%esp); movl %edx, 516(%esp); movl %edx, 520(%esp); movl %edx, 524(%esp)
  movl %edx, 528(%esp); movl %edx, 532(%esp); movl %edx, 536(%esp); movl %edx, 540(%esp)
  movl %edx, 544(%esp); movl %edx, 548(%esp); movl %edx, 552(%esp); movl %edx, 556(%esp)
  movl %edx, 560(%esp); movl %edx, 564(%esp); movl %edx, 568(%esp); movl %edx, 572(%esp)
  je 2f
  xsavec (%esp)
  jmp 3f
1:
  fxsave (%esp)
  jmp 4f
2:
  xsave (%esp)
3:
  testb $1, 512(%esp)
  jz 5f
4:
  fninit
5:
  movl %es, %eax
  movl %ss, %edx
  pushl %eax
  cmpw %ax, %dx
  je 1f
  movl %edx, %es
1:
  pushl $0x1F80
  ldmxcsr (%esp)
  pushl %ebx
  pushl %ebp
  call sim_access
  movl %eax, %ecx
  addl $12, %esp
  popl %eax
  movl %es, %edx
  cmpw %ax, %dx
  je 1f
  movl %eax, %es
1:
  movl 4(%esi), %eax
  xorl %edx, %edx
  cmpl $1, (%esi)
  jb 1f
  xrstor (%esp)
  jmp 2f
1:
  fxrstor (%esp)
2:
  movl %edi, %esp
  movl %ecx, %eax
6:
  ret
  .cfi_endproc
  .size sim_trampoline_access, . - sim_trampoline_access
  .popsection
)");
#endif

// --- What it calls --------------------------------------------------------------------------------------------------

#define GENERAL_REGISTERS_ONLY \
  __attribute__((target("general-regs-only"), no_sanitize("address"), no_sanitize("undefined")))

namespace sim {

namespace {

constinit std::atomic<cpu_bus *> answering = nullptr;
constinit device_range ranges[most_ranges] = {};
constinit size_t range_count = 0;

GENERAL_REGISTERS_ONLY __attribute__((always_inline)) inline uintptr_t address_of(const trampoline_frame *frame,
                                                                                  const jump_site *site) {
  const auto &m = site->move.memory;
  return static_cast<uintptr_t>(m.displacement) + m.base_factor * frame->gpr[m.base] +
         m.index_factor * frame->gpr[m.index];
}

template <class T>
void put(T *to, T value) {
  __atomic_store_n(to, value, __ATOMIC_RELEASE);
}

}  // namespace

void trampoline_bus(cpu_bus *bus) {
  answering.store(bus);
}

void trampoline_ranges(std::span<const device_range> now) {
  const size_t count = std::min(now.size(), most_ranges);
  put(&range_count, size_t{0});
  for (size_t i = 0; i < count; ++i) {
    put(&ranges[i].begin, now[i].begin);
    put(&ranges[i].end, now[i].end);
    put(&ranges[i].loads, now[i].loads);
    put(&ranges[i].stores, now[i].stores);
  }
  put(&range_count, count);
}

}  // namespace sim

// The vector registers still hold the program's values here: nothing is called, and only general registers are used.
GENERAL_REGISTERS_ONLY int sim_is_answered(const sim::trampoline_frame *frame, const sim::jump_site *site) {
  const uintptr_t address = sim::address_of(frame, site);
  const size_t count = __atomic_load_n(&sim::range_count, __ATOMIC_ACQUIRE);
  for (const auto *range = sim::ranges; range != sim::ranges + count; ++range) {
    if (address < __atomic_load_n(&range->begin, __ATOMIC_RELAXED)) continue;
    if (address >= __atomic_load_n(&range->end, __ATOMIC_RELAXED)) continue;
    return __atomic_load_n(site->move.store ? &range->stores : &range->loads, __ATOMIC_RELAXED) ? 1 : 0;
  }
  return 0;
}

int sim_access(sim::trampoline_frame *frame, const sim::jump_site *site) {
  const sim::keep_errno kept;
  auto *const bus = sim::answering.load();
  if (bus == nullptr) return 0;
  const uintptr_t address = sim::address_of(frame, site);
  const auto &move = site->move;
  uintptr_t &reg = frame->gpr[move.reg];
  if (move.store) return bus->store(address, move.width, sim::stored_data(move, reg)) ? 1 : 0;
  uint64_t loaded = 0;
  if (!bus->load(address, move.width, &loaded)) return 0;
  reg = static_cast<uintptr_t>(sim::loaded_register(move, reg, loaded));
  return 1;
}

// --- Trampolines ----------------------------------------------------------------------------------------------------

namespace sim {

namespace {

size_t offset_of(const uint8_t *label) {
  return static_cast<size_t>(label - sim_trampoline);
}

void fill(std::span<uint8_t> code, const uint8_t *end_of_place, uintptr_t value) {
  memcpy(&code[offset_of(end_of_place) - sizeof value], &value, sizeof value);
}

void put_jump(const jump_site &site, std::span<uint8_t> code, size_t at) {
  make_jump(site.begin + at, site.ip + site.move.length, code.subspan(at).first<jump_bytes>());
}

}  // namespace

size_t trampoline_copy_offset() {
  return offset_of(sim_trampoline_copy);
}

size_t trampoline_bytes(size_t move_bytes) {
  return trampoline_copy_offset() + move_bytes + jump_bytes;
}

void make_jump(uintptr_t from, uintptr_t to, std::span<uint8_t, jump_bytes> code) {
  const auto distance = static_cast<uint32_t>(to - from - jump_bytes);
  code[0] = 0xE9;
  memcpy(&code[1], &distance, sizeof distance);
}

void trampoline_make(const jump_site &site, std::span<uint8_t> code) {
  const size_t copy = trampoline_copy_offset();
  memcpy(code.data(), sim_trampoline, copy);
  fill(code, sim_trampoline_site, reinterpret_cast<uintptr_t>(&site));
  fill(code, sim_trampoline_enter, reinterpret_cast<uintptr_t>(&sim_trampoline_access));
  put_jump(site, code, offset_of(sim_trampoline_back) - jump_bytes);
  memcpy(&code[copy], site.code.data(), site.move.length);
  put_jump(site, code, copy + site.move.length);
}

}  // namespace sim
