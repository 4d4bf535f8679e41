#include "sim/bus/trace.h"

#include <signal.h>

#include <algorithm>
#include <array>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <optional>

#include "sim/base/lock.h"
#include "sim/base/real.h"
#include "sim/bus/waves.h"

namespace sim {

namespace {

// Takes the signal of a pipe without a reader away: it ends the log, not the program.
class broken_pipe_guard {
 public:
  broken_pipe_guard() {
    sigemptyset(&m_signal);
    sigaddset(&m_signal, SIGPIPE);
    (void)pthread_sigmask(SIG_BLOCK, &m_signal, &m_before);
  }
  broken_pipe_guard(const broken_pipe_guard &) = delete;
  broken_pipe_guard &operator=(const broken_pipe_guard &) = delete;
  ~broken_pipe_guard() {
    const timespec now{};
    (void)sigtimedwait(&m_signal, nullptr, &now);
    // By its own signal only: setting a mask gives up a hold on the signals that the C library reserves.
    if (sigismember(&m_before, SIGPIPE) == 0) (void)pthread_sigmask(SIG_UNBLOCK, &m_signal, nullptr);
  }

 private:
  sigset_t m_signal{};
  sigset_t m_before{};
};

class bus_log {
 public:
  bus_log(int fd, const std::string &path, uint64_t limit, std::span<const uint32_t> i2c_buses)
      : m_file(fd), m_path(path) {
    struct stat st {};
    m_plain = ::fstat(fd, &st) == 0 && S_ISREG(st.st_mode);
    const uint64_t used = m_plain ? static_cast<uint64_t>(st.st_size) : 0;
    m_left = limit == 0 ? UINT64_MAX : limit - std::min(limit, used);
    if (path.ends_with(".vcd")) m_waves.emplace();
    if (m_waves && used == 0) put(waves::header(i2c_buses));
  }

  void take(const bus_cycle &cycle) {
    if (m_waves) return draw([&](waves &to) { return to.cycle(cycle); });
    const std::lock_guard held(m_lock);
    const auto usec = (monotonic_nsec() - m_started_nsec) / 1000;
    char time[32];
    (void)std::snprintf(time, sizeof(time), "%" PRId64 ".%06" PRId64 " ", usec / 1000000, usec % 1000000);
    put(time + cycle_text(cycle) + "\n");
  }

  // Adds to the waveforms, if that is what the log holds.
  template <class Text>
  void draw(Text text) {
    if (!m_waves) return;
    const std::lock_guard held(m_lock);
    join_others();
    const auto drawn = text(*m_waves);
    if (!drawn.empty()) put(drawn);
  }

  [[nodiscard]] bool is_open() const { return !m_ended; }

 private:
  bus_lock m_lock;
  const file m_file;
  const std::string m_path;
  const int64_t m_started_nsec = monotonic_nsec();
  bool m_plain = false;
  uint64_t m_left = 0;
  bool m_ended = false;
  std::optional<waves> m_waves;
  off_t m_size = 0;  // of the file, as this program left it

  // Where another program has written to the file, its time goes on.
  void join_others() {
    const off_t size = m_plain ? ::lseek(m_file.fd(), 0, SEEK_END) : m_size;
    if (size == m_size) return;
    const file reading{sys::open(m_path.c_str(), O_RDONLY | O_CLOEXEC)};
    std::array<char, 0x1000> tail{};
    const auto from = std::max<off_t>(size - static_cast<off_t>(tail.size()), 0);
    const auto length = ::pread(reading.fd(), tail.data(), tail.size(), from);
    const std::string_view text(tail.data(), static_cast<size_t>(std::max<ssize_t>(length, 0)));
    const auto mark = text.rfind("\n#");
    if (mark != std::string_view::npos) m_waves->go_on_from(std::strtoull(&text[mark + 2], nullptr, 10));
    m_size = size;
  }

  void put(const std::string &line) {
    if (line.size() > m_left) return end("it has reached its limit");
    m_left -= line.size();
    if (m_plain) return write(line);
    const broken_pipe_guard guard;
    write(line);
  }

  // One write, so that lines of several processes do not mix.
  void write(const std::string &line) {
    ssize_t done = 0;
    do {
      done = ::syscall(SYS_write, m_file.fd(), line.data(), line.size());
    } while (done < 0 && errno == EINTR);
    m_size += std::max<ssize_t>(done, 0);
    if (done < static_cast<ssize_t>(line.size())) end(done < 0 ? std::strerror(errno) : std::strerror(ENOSPC));
  }

  void end(const char *why) {
    m_ended = true;
    (void)std::fprintf(stderr, "board-sim: the log %s ends here: %s\n", m_path.c_str(), why);
  }
};

// A pointer without destructor: accesses at the very end of a program are still logged.
constinit bus_log *running = nullptr;

template <class Text>
void draw(Text text) {
  if (!bus_is_watched()) return;
  const keep_errno kept;
  running->draw(text);
}

std::string &row() {
  static auto *const name = new std::string;
  return *name;
}

}  // namespace

std::string cycle_text(const bus_cycle &cycle) {
  char text[64];
  (void)std::snprintf(text, sizeof(text), " %c %u 0x%" PRIx64 " 0x", cycle.kind, cycle.width, cycle.offset);
  std::string line = std::string(cycle.device) + text;
  for (const auto byte : cycle.message) {
    (void)std::snprintf(text, sizeof(text), "%02x", byte);
    line += text;
  }
  if (!cycle.message.empty()) return line;
  (void)std::snprintf(text, sizeof(text), "%" PRIx64, cycle.data);
  return line + text;
}

bool bus_is_watched() {
  return running != nullptr && running->is_open();
}

void bus_passed(const bus_cycle &cycle) {
  if (!bus_is_watched()) return;
  const keep_errno kept;
  running->take(cycle);
}

std::optional<std::string_view> row_begun_by(std::string_view text) {
  constexpr std::string_view begin = "  Executing ";
  if (!text.starts_with(begin)) return std::nullopt;
  text.remove_prefix(begin.size());
  return text.substr(0, text.find(':'));
}

void row_begins(std::string_view name) {
  row() = name;
  draw([](waves &to) { return to.row(row()); });
}

const std::string &row_now() {
  return row();
}

void i2c_stop_passed(uint32_t bus) {
  draw([&](waves &to) { return to.i2c_stop(bus); });
}

void flash_ready_passed(bool ready) {
  draw([&](waves &to) { return to.flash_ready(ready); });
}

bool log_open(const std::string &path, uint64_t limit, std::span<const uint32_t> i2c_buses) {
  log_close();
  const int fd = sys::keep(sys::open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC));
  if (fd >= 0) running = new bus_log(fd, path, limit, i2c_buses);
  return fd >= 0;
}

void log_close() {
  delete running;
  running = nullptr;
}

}  // namespace sim
