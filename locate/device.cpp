#include "locate/device.h"

#include <fcntl.h>
#include <sys/types.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <bit>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>

#include "locate/hooks.h"
#include "platform/mfgd/cmn_lib/diag_util/lock.h"
#include "platform/mfgd/cmn_lib/diag_util/owner.h"
#include "platform/mfgd/cmn_lib/hw_acc/hw_err.h"
#include "platform/mfgd/hw_acc/hwtype_defs.h"

namespace locate {
namespace {

constexpr uint32_t word_bytes = 2;

uint32_t bridge_id() {
  const auto *const row = std::ranges::find(mmap_pci_map, HWTYPE_PLX_PCI, &mmap_pci_map_t::m_hwtype);
  return uint32_t{row->m_vendor_id} << 16 | row->m_device_id;
}

uint32_t take_line(pci_dev_line_t *line, void *list) {
  static_cast<std::vector<pci_dev_line_t> *>(list)->push_back(*line);
  return HW_SUCCESS;
}

int64_t now_ms() {
  timespec now{};
  (void)clock_gettime(CLOCK_MONOTONIC, &now);
  return int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1'000'000;
}

// Takes a lock within the time. The driver would wait for ever.
bool take_in_time(int32_t lock, uint32_t limit_ms) {
  constexpr timespec pause{0, 5'000'000};
  const auto until = now_ms() + limit_ms;
  while (lock_get_wr_lock(lock) != 0) {
    if (now_ms() >= until) return false;
    (void)nanosleep(&pause, nullptr);
  }
  return true;
}

}  // namespace

bool list_functions(std::vector<pci_dev_line_t> *lines, part_result *result) {
  errno = 0;
  if (_pci_scan_devices_file(take_line, lines) != HW_ERR_FILE_IO) return true;
  const int error = errno;
  return add_obstacle(
      {.sentence = std::string("The list of PCI functions cannot be read: ") + std::strerror(error) + ".",
       .evidence = {"/proc/bus/pci/devices, errno " + std::to_string(error)},
       .candidates = {"pci-list-unreadable errno=" + std::to_string(error)},
       .next = "run as root, on a kernel with /proc/bus/pci"},
      result);
}

bool find_bridge(pci_dev_line_t *bridge, part_result *result) {
  std::vector<pci_dev_line_t> lines;
  if (!list_functions(&lines, result)) return false;
  const auto id = bridge_id();
  const auto found = std::ranges::find(lines, id, &pci_dev_line_t::m_vendor_device);
  if (found == lines.end())
    return add_obstacle(
        {.sentence = "The local-bus bridge is not in the list of PCI functions.",
         .evidence = {"no function has vendor " + hex(id >> 16, 4) + " and device " + hex(id & 0xFFFF, 4)},
         .next = "see the part pci; check the bridge's supply, reset, clock and configuration EEPROM",
         .places = {"bridge"}},
        result);
  *bridge = *found;
  return true;
}

std::string lock_name(const memory_row &row, const char *kind) {
  return row.driver + std::to_string(row.instance) + "-" + kind;
}

std::string lock_holder(int fd) {
  struct flock lock {};
  lock.l_type = F_WRLCK;
  lock.l_whence = SEEK_SET;
  lock.l_len = 1;
  if (fcntl(fd, F_GETLK, &lock) != 0 || lock.l_type == F_UNLCK) return "";
  const auto pid = std::to_string(lock.l_pid);
  std::string name;
  std::ifstream comm("/proc/" + pid + "/comm");
  if (!std::getline(comm, name)) return "process " + pid;
  return "process " + pid + " (" + name + ")";
}

bool device::open(const memory_row &row, const settings &how, part_result *result) {
  uint32_t base = 0;
  return find(row, &base, result) && claim(row, how, result) && map(row, base, result);
}

bool device::find(const memory_row &row, uint32_t *base, part_result *result) {
  pci_dev_line_t bridge{};
  if (!find_bridge(&bridge, result)) return false;
  const uint32_t value = bridge.m_base[row.bar];
  const auto bar = std::to_string(row.bar);
  finding wrong{
      .evidence = {"base address register " + bar + " is " + hex(value, 8) + ", size " + hex(bridge.m_size[row.bar])},
      .next = "check the bridge's configuration EEPROM, which sets the registers' sizes",
      .places = {"bridge"}};
  const auto refuse = [&](const char *kind, const std::string &sentence) {
    wrong.sentence = sentence;
    wrong.candidates = {kind + (" bar=" + bar)};
    return add_obstacle(std::move(wrong), result);
  };
  m_length = std::bit_floor(std::min(bridge.m_size[row.bar], row.max_length));
  *base = value & ~bar_flags;
  if ((value & bar_is_io) != 0)
    return refuse("bar-io", "The bridge's base address register " + bar + " maps I/O space, not memory.");
  if ((value & bar_is_64bit) != 0 && row.bar % 2 == 0 && bridge.m_base[row.bar + 1] != 0)
    return refuse("bar-64bit", "The bridge's base address register " + bar + " is above 4 GiB.");
  if (*base == 0 || m_length < word_bytes)
    return refuse("bar-missing", "The bridge's base address register " + bar + " has no address or no size.");
  return true;
}

bool device::claim(const memory_row &row, const settings &how, part_result *result) {
  constexpr std::array kinds{"read", "write"};
  for (size_t i = 0; i < kinds.size(); ++i) {
    const auto name = lock_name(row, kinds[i]);
    m_locks[i] = lock_create(name.c_str());
    if (m_locks[i] < 0) {
      const int error = errno;
      (void)take_report();
      return add_obstacle({.sentence = "The lock " + name + " cannot be made: " + std::strerror(error) + ".",
                           .evidence = {"/var/lock/" + name + ".lock, errno " + std::to_string(error)},
                           .candidates = {error == ENOENT ? "lock-dir-missing" : "lock-dir-read-only"},
                           .next = "run as root, with a directory /var/lock that can be written"},
                          result);
    }
    if (take_in_time(m_locks[i], how.wait_ms)) continue;
    auto holder = lock_holder(m_locks[i]);
    if (holder.empty()) holder = "a process that has ended since";
    return add_obstacle({.sentence = "The lock " + name + " is held by " + holder + ".",
                         .evidence = {"waited " + std::to_string(how.wait_ms) + " ms for it"},
                         .candidates = {std::string("lock-held lock=") + row.part + " kind=" + kinds[i]},
                         .next = "let " + holder + " end, or end it, and repeat"},
                        result);
  }
  return true;
}

bool device::map(const memory_row &row, uint32_t base, part_result *result) {
  finding wrong{.evidence = {"physical address " + hex(base, 8) + ", " + hex(m_length) + " bytes"},
                .next = "run as root, on a kernel that lets /dev/mem map devices"};
  // The mapping layer keeps the error of an open that fails to itself.
  if (devmemfd < 0) {
    const unique_fd memory(::open("/dev/mem", O_RDWR | O_DSYNC | O_CLOEXEC));
    if (!memory) {
      const int error = errno;
      wrong.sentence = std::string("/dev/mem cannot be opened: ") + std::strerror(error) + ".";
      wrong.candidates = {"mem-absent errno=" + std::to_string(error)};
      return add_obstacle(std::move(wrong), result);
    }
  }
  uint32_t rc = mmap_acc_init(&m_info, row.driver, 1, &base, m_length, word_bytes, &m_access);
  if (rc == HW_SUCCESS) rc = m_access.m_init(m_access.m_parm);
  m_mapped = rc == HW_SUCCESS;
  if (m_mapped) return true;
  wrong.sentence = std::string("The memory cannot be mapped: ") + hw_err_to_str(rc) + ".";
  wrong.evidence.push_back(take_report());
  wrong.candidates = {"mem-mmap-refused"};
  return add_obstacle(std::move(wrong), result);
}

device::~device() {
  if (m_mapped) (void)m_access.m_fini(m_access.m_parm);
  for (const auto lock : m_locks)
    if (lock >= 0) (void)lock_destroy(lock);
}

uint16_t device::read(uint32_t offset) {
  uint32_t data = 0;
  ++m_accesses;
  (void)m_access.m_rd(0, offset, &data, m_access.m_parm);
  return static_cast<uint16_t>(data);
}

void device::write(uint32_t offset, uint16_t word) {
  ++m_accesses;
  (void)m_access.m_wr(0, offset, word, m_access.m_parm);
}

}  // namespace locate
