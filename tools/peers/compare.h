// compare.h: what those programs have in common that hold a model of ours against another's.
#pragma once

#include <sys/mman.h>
#include <unistd.h>

#include <cinttypes>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <span>
#include <string>
#include <vector>

#include "faults/random.h"
#include "tools/peers/qemu.h"

// The same for the same seed.
class random_numbers {
 public:
  explicit random_numbers(uint64_t seed) : m_state(seed) {}
  uint32_t below(uint32_t limit) { return static_cast<uint32_t>(sim::random_next(&m_state) >> 32U) % limit; }
  uint8_t byte() { return static_cast<uint8_t>(below(0x100)); }
  bool one_in(uint32_t count) { return below(count) == 0; }

 private:
  uint64_t m_state;
};

// A difference that is wanted, and so must be seen.
struct listed {
  const char *what;
  const char *why;
  uint64_t seen = 0;
};

// What a comparison has found.
class findings {
 public:
  explicit findings(std::span<listed> differences) : m_listed(differences) {}

  void see(size_t difference) { m_listed[difference].seen++; }

  // A difference that is not listed. The first of them are printed.
  __attribute__((format(printf, 2, 3))) void differ(const char *format, ...) {
    if (m_differences++ >= 20) return;
    va_list args;
    va_start(args, format);
    (void)std::vprintf(format, args);
    va_end(args);
  }
  [[nodiscard]] bool none() const { return m_differences == 0; }

  // Returns the exit status of the program, which is called `name`.
  [[nodiscard]] int report(const char *name) const {
    bool all_seen = true;
    for (const listed &d : m_listed) {
      std::printf("  listed: %s (seen %" PRIu64 " times)\n    %s\n", d.what, d.seen, d.why);
      all_seen = all_seen && d.seen != 0;
    }
    if (!all_seen) std::printf("%s: a difference that is listed was not seen\n", name);
    std::printf("%s: %" PRIu64 " differences that are not listed\n", name, m_differences);
    return none() && all_seen ? 0 : 1;
  }

 private:
  std::span<listed> m_listed;
  uint64_t m_differences = 0;
};

// Makes a file in memory. Returns a path to it, for this process and its children.
inline std::string make_file(std::span<const uint8_t> contents) {
  const int fd = memfd_create("file", 0);
  if (fd < 0 || ::write(fd, contents.data(), contents.size()) != static_cast<ssize_t>(contents.size()))
    give_up("a file in memory cannot be written");
  return "/dev/fd/" + std::to_string(fd);
}
