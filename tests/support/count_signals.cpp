// Preloaded into a program on the simulated board: counts the signals that the board's handler gets, and prints the
// number to standard error at the program's end.
#include <dlfcn.h>
#include <signal.h>

#include <cstdio>

namespace {

struct sigaction board_action {};
volatile sig_atomic_t signals = 0;

void count(int number, siginfo_t *info, void *context) {
  signals = signals + 1;
  board_action.sa_sigaction(number, info, context);
}

[[gnu::destructor]] void report() {
  if (signals != 0) (void)fprintf(stderr, "%d signals\n", static_cast<int>(signals));
}

}  // namespace

extern "C" int sigaction(int number, const struct sigaction *action, struct sigaction *before) noexcept {
  static const auto next = reinterpret_cast<decltype(&sigaction)>(dlsym(RTLD_NEXT, "sigaction"));
  if (number != SIGSEGV) return next(number, action, before);
  struct sigaction counting {};
  const bool is_boards = action != nullptr && (action->sa_flags & SA_SIGINFO) != 0;
  if (action != nullptr) counting = *action;
  if (is_boards) counting.sa_sigaction = count;
  struct sigaction found {};
  const int result = next(number, action != nullptr ? &counting : nullptr, &found);
  if (found.sa_sigaction == count) found = board_action;
  if (before != nullptr) *before = found;
  if (is_boards) board_action = *action;
  return result;
}
