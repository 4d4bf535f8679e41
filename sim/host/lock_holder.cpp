#include "sim/host/lock_holder.h"

#include <sys/prctl.h>
#include <sys/wait.h>
#include <time.h>

#include <algorithm>
#include <array>
#include <csignal>

#include "sim/host/files.h"
#include "sim/host/real.h"

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

std::string lock_path(const std::string &directory, const fault &f) {
  const auto *const row = std::ranges::find(lock_rows, f.word("lock"), &lock_row::word);
  return directory + "/" + row->name + "-" + std::string(f.word("kind")) + ".lock";
}

// Takes an exclusive lock on the file's first byte, tells through the pipe whether it has it, and keeps it.
[[noreturn]] void hold(const std::string &path, uint64_t ms, int told) {
  (void)prctl(PR_SET_PDEATHSIG, SIGKILL);
  const int fd = sys::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  struct flock lock {};
  lock.l_type = F_WRLCK;
  lock.l_whence = SEEK_SET;
  lock.l_len = 1;
  const bool held = fd >= 0 && fcntl(fd, F_SETLK, &lock) == 0;
  const char answer = held ? 1 : 0;
  if (::syscall(SYS_write, told, &answer, 1) != 1 || !held) _exit(1);
  const timespec pause{static_cast<time_t>(ms / 1000), static_cast<long>(ms % 1000 * 1000000)};
  (void)nanosleep(&pause, nullptr);
  _exit(0);
}

}  // namespace

std::optional<std::vector<pid_t>> lock_holders_start(const options &opts, std::string *error) {
  std::vector<pid_t> holders;
  for (const auto &f : opts.faults) {
    if (f.id != fault_id::lock_held) continue;
    const auto directory = opts.state + "/var/lock";
    const auto path = lock_path(directory, f);
    if (!make_directories(directory, error)) return std::nullopt;
    auto told = make_pipe();
    const pid_t pid = fork();
    if (pid == 0) hold(path, f.get("ms"), told.writing.fd());
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

}  // namespace sim
