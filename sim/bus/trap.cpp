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

#include "sim/bus/decode.h"
#include "sim/bus/resume.h"
#include "sim/host/real.h"

namespace sim {

namespace {

constinit trap_bus bus{};
constinit bool installed = false;
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

constexpr size_t longest_insn = 15;

uintptr_t ip_of(const ucontext_t &context) {
  return static_cast<uintptr_t>(context.uc_mcontext.gregs[greg_ip]);
}

void load_registers(const ucontext_t &context, cpu_regs *regs) {
  const auto &gregs = context.uc_mcontext.gregs;
  for (size_t i = 0; i < greg_of.size(); i++)
    regs->gpr[i] = static_cast<uintptr_t>(gregs[greg_of[i]]);
  regs->ip = ip_of(context);
}

void store_registers(const cpu_regs &regs, ucontext_t *context) {
  auto &gregs = context->uc_mcontext.gregs;
  for (size_t i = 0; i < greg_of.size(); i++)
    gregs[greg_of[i]] = static_cast<greg_t>(regs.gpr[i]);
  gregs[greg_ip] = static_cast<greg_t>(regs.ip);
}

[[noreturn]] void die_of_instruction(uintptr_t ip, const char *why) {
  // Bytes up to the page's end: the next page may not exist.
  const size_t count = std::min(longest_insn, page_size - ip % page_size);
  std::array<char, 3 * longest_insn + 1> bytes{};
  for (size_t i = 0; i < count; i++) {
    uint8_t byte = 0;
    memcpy(&byte, reinterpret_cast<const void *>(ip + i), 1);
    snprintf(&bytes[3 * i], 4, " %02x", byte);
  }
  trap_die("%s: instruction at %#zx, bytes%s", why, static_cast<size_t>(ip), bytes.data());
}

uint64_t bus_read(const insn &i) {
  if (i.io) return bus.port_in(static_cast<uint16_t>(i.address), i.width);
  const auto address = static_cast<uintptr_t>(i.address);
  if (i.width < 64) return bus.read(address, i.width);
  const uint64_t low = bus.read(address, 32);
  return low | uint64_t{bus.read(address + 4, 32)} << 32;
}

void bus_write(const insn &i) {
  const auto address = static_cast<uintptr_t>(i.address);
  const auto low = static_cast<uint32_t>(i.data);
  if (i.io) return bus.port_out(static_cast<uint16_t>(address), i.width, low);
  if (i.width < 64) return bus.write(address, i.width, low);
  bus.write(address, 32, low);
  bus.write(address + 4, 32, static_cast<uint32_t>(i.data >> 32));
}

void carry_out(const insn &i, cpu_regs *regs, ucontext_t *context) {
  if (i.store) {
    bus_write(i);
  } else {
    fill_register(i, bus_read(i), regs);
  }
  regs->ip += i.length;
  store_registers(*regs, context);
}

// A load or store at a fault address that belongs to a device.
bool memory_access(const siginfo_t &info, ucontext_t *context) {
  const auto fault = reinterpret_cast<uintptr_t>(info.si_addr);
  if (!bus.covers(fault, 1, false) && !bus.covers(fault, 1, true)) return false;

  cpu_regs regs;
  load_registers(*context, &regs);
  insn i;
  const auto ip = static_cast<uintptr_t>(regs.ip);
  if (!decode(reinterpret_cast<const uint8_t *>(ip), size_here, regs, &i) || i.io)
    die_of_instruction(ip, "an instruction that is no plain move met a device");
  const size_t bytes = i.width / 8U;
  if (fault - i.address >= bytes) die_of_instruction(ip, "fault address and operand differ");
  const auto address = static_cast<uintptr_t>(i.address);
  if (!bus.covers(address, bytes, i.store)) return false;
  carry_out(i, &regs, context);
  return true;
}

// General protection faults carry no address.
bool port_access(ucontext_t *context) {
  cpu_regs regs;
  load_registers(*context, &regs);
  insn i;
  const auto ip = static_cast<uintptr_t>(regs.ip);
  if (!decode(reinterpret_cast<const uint8_t *>(ip), size_here, regs, &i) || !i.io) return false;
  if (!bus.port_allowed()) {
    std::array<char, 160> text{};
    const int length = snprintf(text.data(), text.size(), "board-sim: I/O port %#x used without the I/O privilege\n",
                                static_cast<unsigned>(i.address));
    (void)!write(STDERR_FILENO, text.data(), static_cast<size_t>(length));
    return false;
  }
  carry_out(i, &regs, context);
  return true;
}

// Not ours: what would have happened without us. With the default action, the instruction faults once more.
void pass_on(int number, siginfo_t *info, void *context) {
  if ((previous.sa_flags & SA_SIGINFO) != 0) {
    previous.sa_sigaction(number, info, context);
  } else if (previous.sa_handler != SIG_DFL && previous.sa_handler != SIG_IGN) {
    previous.sa_handler(number);
  } else {
    signal(number, SIG_DFL);
    if (info->si_code <= 0) (void)raise(number);  // sent by a process, not by an instruction
  }
}

void handle(int number, siginfo_t *info, void *parm) {
  const int saved_errno = errno;
  auto *const context = static_cast<ucontext_t *>(parm);
  const bool done =
      info->si_code == SI_KERNEL ? port_access(context) : info->si_code > 0 && memory_access(*info, context);
  if (!done) pass_on(number, info, parm);
  errno = saved_errno;
  if (done) resume(*context);
}

}  // namespace

void trap_install(const trap_bus &b) {
  bus = b;
  if (installed) return;
  struct sigaction action {};
  action.sa_sigaction = handle;
  action.sa_flags = SA_SIGINFO | SA_NODEFER | SA_ONSTACK;
  sigemptyset(&action.sa_mask);
  if (sigaction(SIGSEGV, &action, &previous) != 0) trap_die("no handler for SIGSEGV: %s", strerror(errno));
  installed = true;
}

void trap_remove() {
  if (!installed) return;
  sigaction(SIGSEGV, &previous, nullptr);
  installed = false;
}

void trap_die(const char *format, ...) {
  std::array<char, 512> text{};
  va_list arguments;
  va_start(arguments, format);
  vsnprintf(text.data(), text.size(), format, arguments);
  va_end(arguments);
  std::array<char, 544> line{};
  const int length = snprintf(line.data(), line.size(), "board-sim: %s\n", text.data());
  (void)!write(STDERR_FILENO, line.data(), static_cast<size_t>(length));
  abort();
}

}  // namespace sim
