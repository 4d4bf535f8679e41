#include "sim/board/board.h"

#include <cstdio>
#include <cstdlib>
#include <map>
#include <memory>
#include <string_view>
#include <vector>

#include "sim/board/fault_counts.h"
#include "sim/board/i2c_board.h"
#include "sim/bus/devmem.h"
#include "sim/bus/trace.h"
#include "sim/devices/flash.h"
#include "sim/devices/pci_list.h"
#include "sim/devices/sprom_driver.h"
#include "sim/host/cpuinfo.h"
#include "sim/host/files.h"
#include "sim/host/real.h"

namespace sim {

namespace {

// The launcher measures once for all programs of a run.
uint64_t rate_in_khz() {
  static uint64_t measured = 0;
  if (const char *const given = std::getenv("BOARD_SIM_TSC_KHZ")) measured = std::strtoull(given, nullptr, 10);
  if (measured == 0) measured = tsc_khz();
  return measured;
}

// A descriptor that stands for a device.
struct handle {
  sim::device device = device::none;
  std::unique_ptr<i2c_client> i2c;
};

struct board {
  explicit board(const options &from) : opts(from), sprom(opts), memory(opts) {}
  board(const board &) = delete;
  board &operator=(const board &) = delete;
  ~board() { log_close(); }

  // Returns false and says why in *error.
  bool power_up(std::string *error) {
    if (!make_board_files(opts, rate_in_khz(), error) || !counts.open(&opts, error)) return false;
    i2c = i2c_board::make(opts, memory.port(), error);
    if (!i2c) return false;
    if (!opts.trace.empty() && !log_open(opts.trace, opts.trace_limit)) {
      *error = os_error(opts.trace);
      return false;
    }
    return memory.power_up(error);
  }

  options opts;
  fault_counts counts;
  sprom_driver sprom;
  devmem memory;
  std::unique_ptr<i2c_board> i2c;
  std::map<int, handle> handles;
};

constinit board *running = nullptr;

void complain(const std::string &what) {
  (void)std::fprintf(stderr, "board-sim: %s\n", what.c_str());
}

const fault *smbus_only(const options &opts, uint32_t bus) {
  for (const auto &f : opts.faults)
    if (f.id == fault_id::i2c_smbus_only && f.get("bus", bus) == bus) return &f;
  return nullptr;
}

// The handle of a descriptor, or null. One that was closed behind the board's back and given to another file is
// told by its flags.
handle *handle_of(int fd) {
  if (running == nullptr) return nullptr;
  const auto found = running->handles.find(fd);
  if (found == running->handles.end()) return nullptr;
  const int flags = sys::fcntl(fd, F_GETFL, 0);
  if (flags >= 0 && (flags & O_PATH) != 0) return &found->second;
  running->handles.erase(found);
  return nullptr;
}

// Whether the descriptor is an open /dev/mem. A duplicate, or one that came from another program, has no handle, but
// names the same file.
bool is_mem(int fd) {
  if (running == nullptr) return false;
  const keep_errno kept;
  const int flags = sys::fcntl(fd, F_GETFL, 0);
  if (flags < 0 || (flags & O_PATH) == 0) return false;
  const file own{sys::open((running->opts.state + "/dev/mem").c_str(), O_PATH | O_CLOEXEC)};
  struct stat given {};
  struct stat expected {};
  return ::fstat(fd, &given) == 0 && ::fstat(own.fd(), &expected) == 0 && given.st_dev == expected.st_dev &&
         given.st_ino == expected.st_ino;
}

bool names(std::string_view entry, std::string_view variable) {
  return entry.starts_with(variable) && entry.substr(variable.size()).starts_with('=');
}

}  // namespace

std::string board_check(const options &opts) {
  auto wrong = pci_check(opts);
  if (wrong.empty()) wrong = flash_check(opts);
  return wrong.empty() ? i2c_board::check(opts) : wrong;
}

bool board_start(const options &opts) {
  board_stop();
  const auto wrong = board_check(opts);
  if (!wrong.empty()) {
    complain(wrong);
    return false;
  }
  if (!opts.state.starts_with('/')) {
    complain("the state directory '" + opts.state + "' is not absolute");
    return false;
  }
  auto made = std::make_unique<board>(opts);
  std::string error;
  if (!made->power_up(&error)) {
    complain(error);
    return false;
  }
  running = made.release();
  return true;
}

void board_stop() {
  delete running;
  running = nullptr;
}

const options *board_options() {
  return running == nullptr ? nullptr : &running->opts;
}

int device_open(const redirection &to, int flags) {
  const int fd = sys::open(to.path.c_str(), O_PATH | (flags & O_CLOEXEC));
  if (fd < 0) return fd;
  handle opened{to.device, nullptr};
  if (to.device == device::i2c)
    opened.i2c = std::make_unique<i2c_client>(running->i2c->bus(to.number), smbus_only(running->opts, to.number));
  running->handles[fd] = std::move(opened);
  return fd;
}

void device_close(int fd) {
  if (running != nullptr) running->handles.erase(fd);
}

std::optional<int> device_ioctl(int fd, unsigned long request, void *arg) {
  auto *const to = handle_of(fd);
  if (to == nullptr) return std::nullopt;
  if (to->device == device::i2c) return to->i2c->ioctl(request, arg);
  if (to->device == device::sprom) return running->sprom.ioctl(request, arg);
  errno = ENOTTY;
  return -1;
}

char **shell_environment() {
  static std::vector<std::string> texts;
  static std::vector<char *> pointers;
  texts.clear();
  pointers.clear();
  for (char **entry = environ; *entry != nullptr; entry++)
    if (!names(*entry, "LD_PRELOAD") && !names(*entry, "PATH") && !names(*entry, options_variable))
      texts.emplace_back(*entry);
  texts.push_back("PATH=" + command_directory(running->opts));
  texts.push_back(std::string(options_variable) + "=" + options_format(running->opts));
  for (auto &text : texts)
    pointers.push_back(text.data());
  pointers.push_back(nullptr);
  return pointers.data();
}

std::optional<void *> device_mmap(size_t length, int prot, int flags, int fd, uint64_t offset) {
  if (!is_mem(fd)) return std::nullopt;
  return running->memory.map(length, prot, flags, offset);
}

bool device_munmap(void *addr, size_t length) {
  return running != nullptr && running->memory.unmap(addr, length);
}

std::optional<int> device_iopl(int level) {
  if (running == nullptr) return std::nullopt;
  return running->memory.set_io_level(level);
}

}  // namespace sim
