// trap.cpp: the SIGSEGV handler.
#include "sim/bus/trap.h"

#include <signal.h>
#include <ucontext.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "sim/base/real.h"
#include "sim/bus/patch.h"
#include "sim/bus/trampoline.h"

namespace sim {

namespace {

constinit cpu_bus *bus = nullptr;
constinit struct sigaction previous {};

#ifdef __x86_64__
constexpr word_size size_here = word_size::bits64;
constexpr std::array greg_of{REG_RAX, REG_RCX, REG_RDX, REG_RBX, REG_RSP, REG_RBP, REG_RSI, REG_RDI,
                             REG_R8,  REG_R9,  REG_R10, REG_R11, REG_R12, REG_R13, REG_R14, REG_R15};
constexpr int greg_ip = REG_RIP;
#else
constexpr word_size size_here = word_size::bits32;
constexpr std::array greg_of{REG_EAX, REG_ECX, REG_EDX, REG_EBX, REG_ESP, REG_EBP, REG_ESI, REG_EDI};
constexpr int greg_ip = REG_EIP;
#endif

uintptr_t ip_of(const ucontext_t &context) {
  return static_cast<uintptr_t>(context.uc_mcontext.gregs[greg_ip]);
}

void load_registers(const ucontext_t &context, cpu_regs *regs) {
  const auto &gregs = context.uc_mcontext.gregs;
  for (size_t i = 0; i < greg_of.size(); ++i)
    regs->gpr[i] = static_cast<uintptr_t>(gregs[greg_of[i]]);
  regs->ip = ip_of(context);
}

void store_registers(const cpu_regs &regs, ucontext_t *context) {
  auto &gregs = context->uc_mcontext.gregs;
  for (size_t i = 0; i < greg_of.size(); ++i)
    gregs[greg_of[i]] = static_cast<greg_t>(regs.gpr[i]);
  gregs[greg_ip] = static_cast<greg_t>(regs.ip);
}

// One write, and no buffer of the program's, whose standard error may be anything.
__attribute__((format(printf, 1, 0))) void vcomplain(const char *format, va_list arguments) {
  std::array<char, 512> text{};
  vsnprintf(text.data(), text.size(), format, arguments);
  std::array<char, 544> line{};
  const int length = snprintf(line.data(), line.size(), "board-sim: %s\n", text.data());
  (void)!sys::write(STDERR_FILENO, line.data(), static_cast<size_t>(length));
}

__attribute__((format(printf, 1, 2))) void complain(const char *format, ...) {
  va_list arguments;
  va_start(arguments, format);
  vcomplain(format, arguments);
  va_end(arguments);
}

[[noreturn]] void die_of_instruction(uintptr_t ip, const char *why) {
  // Bytes up to the page's end: the next page may not exist.
  const size_t count = std::min(longest_insn, page_size - ip % page_size);
  std::array<char, 3 * longest_insn + 1> bytes{};
  for (size_t i = 0; i < count; ++i) {
    uint8_t byte = 0;
    memcpy(&byte, reinterpret_cast<const void *>(ip + i), 1);
    snprintf(&bytes[3 * i], 4, " %02x", byte);
  }
  trap_die("%s: instruction at %#zx, bytes%s", why, static_cast<size_t>(ip), bytes.data());
}

void step_over(const insn &i, uint64_t loaded, cpu_regs *regs, ucontext_t *context) {
  if (!i.store) fill_register(i, loaded, regs);
  regs->ip += i.length;
  store_registers(*regs, context);
}

// A load or store at a fault address that belongs to a device. Instructions are not fetched from there.
bool memory_access(const siginfo_t &info, ucontext_t *context) {
  const auto fault = reinterpret_cast<uintptr_t>(info.si_addr);
  const auto ip = ip_of(*context);
  if (!bus->holds(fault) || bus->holds(ip)) return false;

  cpu_regs regs;
  insn i;
  if (!decode_interrupted(*context, &regs, &i) || i.io)
    die_of_instruction(ip, "an instruction that is no plain move met a device");
  const auto address = static_cast<uintptr_t>(i.address);
  if (fault - address >= i.width / 8U) die_of_instruction(ip, "fault address and operand differ");
  if (try_patch(ip, i)) return true;
  uint64_t loaded = 0;
  const bool done = i.store ? bus->store(address, i.width, i.data) : bus->load(address, i.width, &loaded);
  if (done) step_over(i, loaded, &regs, context);
  return done;
}

// General protection faults carry no address.
bool port_access(ucontext_t *context) {
  cpu_regs regs;
  insn i;
  if (!decode_interrupted(*context, &regs, &i) || !i.io) return false;
  const auto port = static_cast<uint16_t>(i.address);
  if (!bus->port_allowed()) {
    complain("I/O port %#x used without the I/O privilege", port);
    return false;
  }
  uint32_t loaded = 0;
  if (i.store) {
    bus->port_out(port, i.width, static_cast<uint32_t>(i.data));
  } else {
    loaded = bus->port_in(port, i.width);
  }
  step_over(i, loaded, &regs, context);
  return true;
}

// Not ours: what would have happened without us. With the default action, the instruction faults once more. The fault
// of a patched move's copy is that of the move.
void pass_on(int number, siginfo_t *info, ucontext_t *context) {
  auto &ip = context->uc_mcontext.gregs[greg_ip];
  ip = static_cast<greg_t>(patched_origin(static_cast<uintptr_t>(ip)));
  if ((previous.sa_flags & SA_SIGINFO) != 0) {
    previous.sa_sigaction(number, info, context);
  } else if (previous.sa_handler != SIG_DFL && previous.sa_handler != SIG_IGN) {
    previous.sa_handler(number);
  } else {
    patch_undo(static_cast<uintptr_t>(ip));
    signal(number, SIG_DFL);
    if (info->si_code <= 0) (void)raise(number);  // sent by a process, not by an instruction
  }
}

void handle(int number, siginfo_t *info, void *parm) {
  const int saved_errno = errno;
  auto *const context = static_cast<ucontext_t *>(parm);
  bool done = false;
  if (bus != nullptr && info->si_code > 0)
    done = info->si_code == SI_KERNEL ? port_access(context) : memory_access(*info, context);
  if (!done) pass_on(number, info, context);
  errno = saved_errno;
}

bool is_ours(const struct sigaction &action) {
  return (action.sa_flags & SA_SIGINFO) != 0 && action.sa_sigaction == handle;
}

}  // namespace

bool decode_interrupted(const ucontext_t &context, cpu_regs *regs, insn *i) {
  load_registers(context, regs);
  return decode(code_of_move(ip_of(context)), size_here, *regs, i);
}

void trap_install(cpu_bus *to, bool may_patch) {
  bus = to;
  patch_start(to, may_patch);
  struct sigaction now {};
  (void)sigaction(SIGSEGV, nullptr, &now);
  if (is_ours(now)) return;
  previous = now;
  struct sigaction action {};
  action.sa_sigaction = handle;
  action.sa_flags = SA_SIGINFO | SA_NODEFER | SA_ONSTACK;
  sigemptyset(&action.sa_mask);
  if (sigaction(SIGSEGV, &action, nullptr) != 0) trap_die("no handler for SIGSEGV: %s", strerror(errno));
  // A fault while its signal is blocked ends the process.
  sigaddset(&action.sa_mask, SIGSEGV);
  (void)pthread_sigmask(SIG_UNBLOCK, &action.sa_mask, nullptr);
}

void trap_remove() {
  bus = nullptr;
  patch_start(nullptr, false);
  struct sigaction now {};
  (void)sigaction(SIGSEGV, nullptr, &now);
  if (is_ours(now)) (void)sigaction(SIGSEGV, &previous, nullptr);
}

void trap_die(const char *format, ...) {
  va_list arguments;
  va_start(arguments, format);
  vcomplain(format, arguments);
  va_end(arguments);
  abort();
}

}  // namespace sim
