// driver_board.h: a driver on the simulated board. Its bus cycles, locks, waits and PCI look-ups come in one log; the
// linker hands what drivers call besides the bus to this file.
#pragma once

#include "platform/mfgd/cmn_lib/diag_util/diag_dbg.h"
#include "platform/mfgd/cmn_lib/diag_util/spin.h"
#include "platform/mfgd/cmn_lib/hw_acc/hw_err.h"
#include "platform/mfgd/cmn_lib/hw_acc/mmap/mmap_acc.h"
#include "platform/mfgd/cmn_lib/hw_acc/mmap/mmap_pci_velto_or.h"
#include "tests/support/board.h"

inline std::function<void(hw_acc_cb_t *)> change_acc;  // changes what mmap_acc_init filled
inline int failing_malloc = 0;                         // how many calls on, from 1; 0 for none
inline int blocks = 0;                                 // allocated and not released
inline void *info = nullptr;                           // the record that mmap_acc_init filled last

inline test_board &board() {
  static test_board only({"--trace"});
  return only;
}

inline void note(const std::string &event) {
  std::ofstream(board().file("trace"), std::ios::app) << "0 " << event << "\n";
}

// The log since the last call: the bus cycles as board-sim writes them, and as lines among them
//   +w NAME, +r NAME, -NAME    an exclusive or a shared lock that was waited for, a release
//   wait 512                   a busy wait in microseconds; it returns at once
//   pci 18                     the PCI look-up of a base address register
//   map NAME 3 x 2 LEN BASES   a call of mmap_acc_init
//   unmap, release             a call of m_fini; the release of the record that mmap_acc_init filled
//   without  first letters of the lines that are left out
inline std::string events(const std::string &without = "") {
  std::string log;
  for (const std::string &line : board().log())
    if (without.find(line[0]) == std::string::npos) log += line + "\n";
  return log;
}

struct word_t {
  uint32_t offset, data;
};
using words_t = std::vector<word_t>;

// The cycles of 16 bits by which these words are moved.
//   kind  device and direction: "flash w", "nvram0 r"
inline std::string cycles(const std::string &kind, const words_t &words) {
  std::string lines;
  for (const auto &[offset, data] : words)
    lines += kind + format(" 16 0x%x 0x%x\n", offset, data);
  return lines;
}

// Runs `body` in a child process on a board with this option of board-sim. All boards share one state directory.
inline void on_board(const std::string &option, const std::function<void()> &body) {
  (void)board();
  isolated([&] {
    std::ofstream(board().file("trace")).close();
    board().start({option.c_str(), "--trace"});
    body();
  });
}

// A driver is not started by a mapping that fails, nor without memory, and names its mapping.
//   op, use  what needs a started driver, and a call of it
//   map      the call by which it maps its device
inline void expect_start(uint32_t (*init)(), uint32_t (*libinit)(), const char *op, const std::function<void()> &use,
                         const std::string &map) {
  on_board("--fault=mem-mmap-refused", [&] {
    for (int times = 0; times < 2; ++times) {
      EXPECT_EQ(init(), MMAP_ERR_MMAP);
      EXPECT_THAT(events(), HasSubstr("\nmap "));
    }
  });
  on_board("--card=11062", [&] {
    expect_assertion(use, "hw_acc/hw_acc_p.h", op, "_hw_acc_init");
    failing_malloc = 1;
    EXPECT_EQ(stdout_of([&] { EXPECT_EQ(init(), HW_ERR_MALLOC); }), "");
    EXPECT_THAT(hooks_of([&] { EXPECT_EQ(libinit(), HW_SUCCESS); }, true), Contains(hook_line{7, map}));
  });
}

extern "C" {

decltype(fcntl) __real_fcntl, __wrap_fcntl;
void *__real_malloc(size_t size), *__wrap_malloc(size_t size);
void __real_free(void *block), __wrap_free(void *block);
decltype(mmap_get_map_pci) __real_mmap_get_map_pci, __wrap_mmap_get_map_pci;
decltype(mmap_acc_init) __real_mmap_acc_init, __wrap_mmap_acc_init;
decltype(diag_spin_usec) __wrap_diag_spin_usec;

int __wrap_fcntl(int fd, int cmd, ...) {
  va_list args;
  va_start(args, cmd);
  const auto parm = va_arg(args, struct flock *);
  va_end(args);
  if (is_of_coverage(fd)) return __real_fcntl(fd, cmd, parm);
  const std::string file = std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(fd)).filename();
  if (cmd == F_SETLKW) note((parm->l_type == F_RDLCK ? "+r " : "+w ") + file);
  if (cmd == F_SETLK) note((parm->l_type == F_UNLCK ? "-" : "+? ") + file);
  return __real_fcntl(fd, cmd, parm);
}

void *__wrap_malloc(size_t size) {
  if (failing_malloc != 0 && --failing_malloc == 0) return nullptr;
  ++blocks;
  return __real_malloc(size);
}

void __wrap_free(void *block) {
  if (block != nullptr) --blocks;
  if (block != nullptr && block == info) {
    info = nullptr;
    note("release");
  }
  __real_free(block);
}

uint32_t __wrap_mmap_get_map_pci(uint32_t hwtype, uint32_t inst, uint32_t bar, uint32_t *base, uint32_t *len) {
  note(format("pci %x", bar));
  return __real_mmap_get_map_pci(hwtype, inst, bar, base, len);
}

uint32_t __wrap_mmap_acc_init(mmap_info_t *record, const char *name, uint32_t num_inst, const uint32_t *base_addr,
                              uint32_t len, uint32_t width, hw_acc_cb_t *cb) {
  note(format("map %s %u x %u %x %x..%x", name, num_inst, width, len, base_addr[0], base_addr[num_inst - 1]));
  const uint32_t rc = __real_mmap_acc_init(record, name, num_inst, base_addr, len, width, cb);
  info = record;
  cb->m_fini = [](void *parm) { return note("unmap"), _mmap_fini(parm); };
  if (change_acc) change_acc(cb);
  return rc;
}

void __wrap_diag_spin_usec(uint32_t usec) {
  note(format("wait %u", usec));
}
}
