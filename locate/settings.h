// settings.h: what the command line asks of the probes.
#pragma once

#include <csignal>
#include <cstdint>
#include <string>

namespace locate {

struct settings {
  uint32_t rounds = 1;                         // over the lines of an NVRAM, at least, and over words of the flash
  bool cells = false;                          // march over the cells of the NVRAM
  bool write = false;                          // two sectors of the flash may be erased, written and restored
  bool progress = false;                       // show it on the terminal
  uint32_t wait_ms = 10'000;                   // for a lock of another process
  std::string state = "/var/lib/post-locate";  // the directory of the journals
};

// Whether a signal that would end the process waits for its end, which a signal_hold puts off.
[[nodiscard]] inline bool stop_is_wanted() {
  sigset_t waiting;
  (void)sigpending(&waiting);
  for (const int number : {SIGHUP, SIGINT, SIGQUIT, SIGTERM}) {
    struct sigaction action {};
    const bool ignored = sigaction(number, nullptr, &action) == 0 && action.sa_handler == SIG_IGN;
    if (sigismember(&waiting, number) == 1 && !ignored) return true;
  }
  return false;
}

}  // namespace locate
