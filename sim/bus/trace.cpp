// trace.cpp: the bus log.
#include "sim/bus/trace.h"

#include <array>
#include <charconv>
#include <cstring>

#include "sim/host/real.h"

namespace sim {

namespace {

constinit int log_fd = -1;
constinit int64_t started_nsec = 0;

// A line that is built in place: the trap handler may not allocate. What does not fit is cut.
class line {
 public:
  line() {
    const auto usec = (monotonic_nsec() - started_nsec) / 1000;
    number(static_cast<uint64_t>(usec / 1000000), 10);
    text(".");
    const auto fraction = static_cast<uint64_t>(usec % 1000000) + 1000000;
    const auto point = m_used;
    number(fraction, 10);
    // The leading 1 kept the zeros of the fraction.
    std::memmove(&m_text[point], &m_text[point + 1], m_used - point - 1);
    m_used--;
  }

  void text(const char *add) {
    const auto length = std::min(std::strlen(add), room());
    std::memcpy(&m_text[m_used], add, length);
    m_used += length;
  }
  void number(uint64_t value, int base) {
    const auto result = std::to_chars(&m_text[m_used], &m_text[m_used] + room(), value, base);
    if (result.ec == std::errc{}) m_used = static_cast<size_t>(result.ptr - m_text.data());
  }
  void byte(uint8_t value) {
    constexpr const char *digits = "0123456789abcdef";
    const char pair[] = {digits[value >> 4], digits[value & 15], '\0'};
    text(pair);
  }
  void head(const char *device, char kind, uint64_t width, uint64_t offset) {
    const char kind_text[] = {' ', kind, ' ', '\0'};
    text(" ");
    text(device);
    text(kind_text);
    number(width, 10);
    text(" 0x");
    number(offset, 16);
    text(" 0x");
  }
  // One write, so that lines of several processes do not mix.
  void end() {
    m_text[m_used++] = '\n';
    (void)!::syscall(SYS_write, log_fd, m_text.data(), m_used);
  }

 private:
  [[nodiscard]] size_t room() const { return m_text.size() - 1 - m_used; }

  std::array<char, 1024> m_text;
  size_t m_used = 0;
};

}  // namespace

bool trace_open(const std::string &path) {
  if (log_fd >= 0) (void)sys::close(log_fd);
  log_fd = -1;
  if (path.empty()) return true;
  started_nsec = monotonic_nsec();
  log_fd = sys::keep(sys::open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC));
  return log_fd >= 0;
}

bool trace_active() {
  return log_fd >= 0;
}

void trace_access(const char *device, char kind, unsigned width, uint64_t offset, uint64_t data) {
  if (log_fd < 0) return;
  const keep_errno kept;
  line out;
  out.head(device, kind, width, offset);
  out.number(data, 16);
  out.end();
}

void trace_message(const char *device, char kind, uint64_t offset, std::span<const uint8_t> bytes) {
  if (log_fd < 0) return;
  const keep_errno kept;
  line out;
  out.head(device, kind, bytes.size() * 8, offset);
  if (bytes.empty()) out.text("0");
  for (const auto byte : bytes)
    out.byte(byte);
  out.end();
}

}  // namespace sim
