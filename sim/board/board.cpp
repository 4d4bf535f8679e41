#include "sim/board/board.h"

#include <linux/i2c-dev.h>

#include <algorithm>
#include <cassert>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <vector>

#include "faults/text.h"
#include "sim/base/fault_counts.h"
#include "sim/base/files.h"
#include "sim/base/real.h"
#include "sim/board/cpuinfo.h"
#include "sim/board/devmem.h"
#include "sim/board/i2c_board.h"
#include "sim/board/pci_list.h"
#include "sim/bus/trace.h"
#include "sim/devices/flash.h"
#include "sim/devices/sprom_driver.h"

namespace sim {

namespace {

// The launcher measures once for all programs of a run.
uint64_t rate_in_khz() {
  static uint64_t measured = 0;
  if (const char *const given = std::getenv("BOARD_SIM_TSC_KHZ")) measured = std::strtoull(given, nullptr, 10);
  if (measured == 0) measured = tsc_khz();
  return measured;
}

// A file that represents a device.
struct device_file {
  dev_t file_system;
  ino_t inode;
  sim::device device;
  uint32_t number;  // of an I2C bus
};

std::vector<device_file> find_device_files(const options &opts) {
  std::vector<std::string> paths{"/dev/sprom", "/dev/mem"};
  for (const auto number : i2c_bus_numbers(opts))
    paths.push_back("/dev/i2c-" + std::to_string(number));
  std::vector<device_file> found;
  for (const auto &path : paths) {
    const auto to = redirect(opts, path, false);
    const file at{sys::open(to->path.c_str(), O_PATH | O_CLOEXEC)};
    struct stat st {};
    if (at.is_open() && ::fstat(at.fd(), &st) == 0) found.push_back({st.st_dev, st.st_ino, to->device, to->number});
  }
  return found;
}

struct board {
  explicit board(const options &from) : opts(from), sprom(opts), memory(opts) {}
  board(const board &) = delete;
  board &operator=(const board &) = delete;
  ~board() { log_close(); }

  // Returns false and says why in *error.
  bool power_up(std::string *error) {
    if (!make_board_files(opts, rate_in_khz(), error) || !counts.open(&opts, error)) return false;
    device_files = find_device_files(opts);
    i2c = i2c_board::make(opts, memory.port(), error);
    if (!i2c) return false;
    if (!opts.trace.empty() && !log_open(opts.trace, opts.trace_limit, i2c_bus_numbers(opts))) {
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
  std::vector<device_file> device_files;
};

constinit board *running = nullptr;

constexpr size_t longest_message = 8192;  // of read() and write(), as in i2c-dev

const fault *smbus_only(const options &opts, uint32_t bus) {
  for (const auto &f : opts.faults)
    if (f.id == fault_id::i2c_smbus_only && f.get(parm::bus, bus) == bus) return &f;
  return nullptr;
}

// The device of a descriptor, or null.
const device_file *device_of(int fd) {
  const keep_errno kept;
  struct stat st {};
  if (running == nullptr || ::fstat(fd, &st) != 0) return nullptr;
  const auto found = std::ranges::find_if(
      running->device_files, [&](const device_file &f) { return f.file_system == st.st_dev && f.inode == st.st_ino; });
  return found == running->device_files.end() ? nullptr : &*found;
}

uint8_t i2c_address(int fd) {
  return static_cast<uint8_t>(::lseek(fd, 0, SEEK_CUR));
}

int i2c_ioctl(int fd, uint32_t number, unsigned long request, void *arg) {
  i2c_client client(running->i2c->bus(number), smbus_only(running->opts, number));
  (void)client.ioctl(I2C_SLAVE, reinterpret_cast<void *>(uintptr_t{i2c_address(fd)}));
  const int result = client.ioctl(request, arg);
  if (result == 0 && (request == I2C_SLAVE || request == I2C_SLAVE_FORCE))
    (void)::lseek(fd, static_cast<off_t>(reinterpret_cast<uintptr_t>(arg)), SEEK_SET);
  return result;
}

bool is_met(fault_need need, const options &opts, const fault &f, const char **lack) {
  for (const auto rows : {pci_needs(), i2c_needs(), flash_needs()}) {
    const auto row = std::ranges::find(rows, need, &need_row::need);
    if (row == rows.end()) continue;
    *lack = row->lack;
    return row->is_met(opts, f);
  }
  assert(false && "every need has a row");
  return false;
}

// Why the board cannot have the fault, "" if it can.
std::string check_fault(const options &opts, const fault &f) {
  // Audited is what healthy memories keep.
  const bool in_memory = f.row().part == fault_part::nvram || f.row().part == fault_part::flash;
  if (!opts.cut_audit.empty() && in_memory) return "'--cut-audit' needs healthy memories";
  const char *lack = "";
  for (const auto need : f.row().needs())
    if (!is_met(need, opts, f, &lack)) return lack;
  return "";
}

// Shorter waits leave less real time to a busy device.
std::string waits_check(const options &opts) {
  if (!opts.short_waits || opts.busy == busy::polls) return "";
  return "'--waits short' needs busy times that are counted in polls";
}

// Of the row that ends.
void write_occasions(const std::string &row) {
  if (running == nullptr || running->opts.occasions.empty()) return;
  const auto lines = occasions_report(running->opts, row);
  const file to{sys::open(running->opts.occasions.c_str(), O_WRONLY | O_APPEND | O_CLOEXEC)};
  if (to.is_open() && sys::write(to.fd(), lines.data(), lines.size()) == static_cast<ssize_t>(lines.size())) return;
  (void)std::fprintf(stderr, "board-sim: %s\n", os_error(running->opts.occasions).c_str());
}

}  // namespace

std::string board_check(const options &opts) {
  for (const auto &f : opts.faults) {
    const auto wrong = check_fault(opts, f);
    if (!wrong.empty()) return "fault " + quoted(f.text) + ": " + wrong;
  }
  return waits_check(opts);
}

bool board_start(const options &opts, std::string *error) {
  board_stop();
  *error = board_check(opts);
  if (!error->empty()) return false;
  if (!opts.state.starts_with('/')) {
    *error = "the state directory '" + opts.state + "' is not absolute";
    return false;
  }
  auto made = std::make_unique<board>(opts);
  if (!made->power_up(error)) return false;
  running = made.release();
  return true;
}

void board_stop() {
  delete running;
  running = nullptr;
}

void board_program_prints(std::string_view text) {
  const auto name = row_begun_by(text);
  if (!name) return;
  write_occasions(row_now());
  row_begins(*name);
}

void board_program_ends() {
  write_occasions(row_now());
  if (running != nullptr) running->memory.write_audit();
}

const options *board_options() {
  return running == nullptr ? nullptr : &running->opts;
}

int device_open(const redirection &to, int flags) {
  // Writes of the C library that bypass the board must fail.
  return sys::open(to.path.c_str(), O_RDONLY | (flags & O_CLOEXEC) | device_mark((flags & O_ACCMODE) == O_RDWR));
}

int device_mark(bool writable) {
  return writable ? O_APPEND : 0;
}

std::optional<int> device_ioctl(int fd, unsigned long request, void *arg) {
  const auto *const to = device_of(fd);
  if (to == nullptr) return std::nullopt;
  if (to->device == device::i2c) return i2c_ioctl(fd, to->number, request, arg);
  if (to->device == device::sprom) return running->sprom.ioctl(request, arg);
  return fail(ENOTTY);
}

std::optional<ssize_t> device_transfer(int fd, bool reading, void *data, size_t length) {
  const auto *const to = device_of(fd);
  if (to == nullptr) return std::nullopt;
  if (to->device != device::i2c) return fail(EINVAL);
  if (smbus_only(running->opts, to->number)) return fail(EOPNOTSUPP);
  const size_t count = std::min<size_t>(length, longest_message);
  i2c_message message{i2c_address(fd), reading, {static_cast<uint8_t *>(data), count}};
  const int error = running->i2c->bus(to->number)->transfer({&message, 1});
  return error != 0 ? fail(error) : static_cast<ssize_t>(count);
}

std::optional<void *> device_mmap(size_t length, int prot, int flags, int fd, uint64_t offset) {
  const auto *const to = device_of(fd);
  if (to == nullptr || to->device != device::mem) return std::nullopt;
  const bool may_write = (sys::fcntl(fd, F_GETFL, 0) & device_mark(true)) != 0;
  return running->memory.map(length, prot, flags, offset, may_write);
}

std::optional<int> device_mprotect(void *addr, size_t length, int prot) {
  if (running == nullptr) return std::nullopt;
  return running->memory.protect(addr, length, prot);
}

std::optional<void *> device_mremap(void *addr, size_t length, size_t new_length, int flags, void *to) {
  if (running == nullptr) return std::nullopt;
  return running->memory.remap(addr, length, new_length, flags, to);
}

bool device_munmap(void *addr, size_t length) {
  return running != nullptr && running->memory.unmap(addr, length);
}

void device_mapped_over(const void *addr, size_t length) {
  if (running != nullptr) running->memory.mapped_over(addr, length);
}

std::optional<int> device_iopl(int level) {
  if (running == nullptr) return std::nullopt;
  return running->memory.set_io_level(level);
}

}  // namespace sim
