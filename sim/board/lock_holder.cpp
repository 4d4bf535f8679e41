#include "sim/board/lock_holder.h"

#include <sys/prctl.h>
#include <sys/wait.h>
#include <time.h>

#include <algorithm>
#include <array>
#include <csignal>
#include <cstring>

#include "sim/base/files.h"
#include "sim/base/real.h"

namespace sim {

namespace {

// The locks of a device, by the fault's word.
struct lock_row {
  const char *word;
  const char *name;
};

// clang-format off
constexpr std::array lock_rows{std::to_array<lock_row>({
    {"nvram0", "RTC_NVRAM0"},
    {"nvram1", "RTC_NVRAM1"},
    {"nvram2", "RTC_NVRAM2"},
    {"flash",  "OBFL_Flash0"},
})};
// clang-format on

std::string lock_path(const options &opts, const fault &f) {
  const auto *const row = std::ranges::find(lock_rows, f.word(parm::lock), &lock_row::word);
  return opts.state + "/var/lock/" + row->name + "-" + std::string(f.word(parm::kind)) + ".lock";
}

// The whole of a lock is its file's first byte.
struct flock first_byte() {
  struct flock lock {};
  lock.l_type = F_WRLCK;
  lock.l_whence = SEEK_SET;
  lock.l_len = 1;
  return lock;
}

void sleep_ms(uint64_t ms) {
  const timespec pause{static_cast<time_t>(ms / 1000), static_cast<long>(ms % 1000 * 1000000)};
  (void)nanosleep(&pause, nullptr);
}

// Takes the lock, reports through the pipe whether it has it, and keeps it.
[[noreturn]] void hold(const std::string &path, const fault &f, int told) {
  (void)prctl(PR_SET_PDEATHSIG, SIGKILL);
  const int fd = sys::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  auto lock = first_byte();
  const bool held = fd >= 0 && sys::fcntl(fd, F_SETLK, reinterpret_cast<intptr_t>(&lock)) == 0;
  const char answer = held ? 1 : 0;
  if (::syscall(SYS_write, told, &answer, 1) != 1 || !held) _exit(1);
  while (f.count->load() == 0)
    sleep_ms(1);
  sleep_ms(f.get(parm::ms));
  _exit(0);
}

bool takes_lock(int cmd, const void *arg) {
  constexpr std::array setting{F_SETLK, F_SETLKW, F_SETLK64, F_SETLKW64, F_OFD_SETLK, F_OFD_SETLKW, 6, 7};
  short type = F_UNLCK;  // the first field in every layout of the record
  if (std::ranges::find(setting, cmd) == setting.end() || arg == nullptr) return false;
  std::memcpy(&type, arg, sizeof(type));
  return type != F_UNLCK;
}

bool is_file(int fd, const std::string &path) {
  struct statx open {
  }, named{};
  return ::syscall(SYS_statx, fd, "", AT_EMPTY_PATH, STATX_INO, &open) == 0 &&
         ::syscall(SYS_statx, AT_FDCWD, path.c_str(), 0, STATX_INO, &named) == 0 && open.stx_ino == named.stx_ino &&
         open.stx_dev_major == named.stx_dev_major && open.stx_dev_minor == named.stx_dev_minor;
}

bool is_held(int fd) {
  auto lock = first_byte();
  return sys::fcntl(fd, F_GETLK, reinterpret_cast<intptr_t>(&lock)) == 0 && lock.l_type != F_UNLCK;
}

}  // namespace

std::optional<std::vector<pid_t>> lock_holders_start(const options &opts, std::string *error) {
  std::vector<pid_t> holders;
  for (const auto &f : opts.faults) {
    if (f.id != fault_id::lock_held) continue;
    const auto directory = opts.state + "/var/lock";
    const auto path = lock_path(opts, f);
    if (!make_directories(directory, error)) return std::nullopt;
    auto told = make_pipe();
    const pid_t pid = fork();
    if (pid == 0) hold(path, f, told.writing.fd());
    told.writing.close();
    char answer = 0;
    const bool held = pid > 0 && ::syscall(SYS_read, told.reading.fd(), &answer, 1) == 1 && answer == 1;
    if (pid > 0) holders.push_back(pid);
    if (held) continue;
    *error = path + ": cannot be locked";
    for (const auto other : holders) {
      (void)kill(other, SIGKILL);
      (void)waitpid(other, nullptr, 0);
    }
    return std::nullopt;
  }
  return holders;
}

void lock_asked(const options &opts, int fd, int cmd, const void *arg) {
  if (opts.find(fault_id::lock_held) == nullptr || !takes_lock(cmd, arg)) return;
  const keep_errno kept;
  for (const auto &f : opts.faults)
    if (f.id == fault_id::lock_held && is_file(fd, lock_path(opts, f)) && is_held(fd)) f.fired();
}

}  // namespace sim
