// startup.cpp: what runs before main, in one place and in this order.
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <unistd.h>

#include "platform/mfgd/cmn_lib/diag_util/libinit.h"
#include "platform/mfgd/cmn_lib/hw_acc/nvram/nvram_acc_velto.h"
#include "platform/mfgd/cmn_lib/hw_acc/obfl/obfl_acc.h"
#include "post/ignored_signals.h"

// The next file opened, /dev/mem to begin with, would get the number of a closed standard descriptor, and messages
// would be written to it.
static void fill_standard_descriptors() {
  pollfd standard[] = {{STDIN_FILENO, 0, 0}, {STDOUT_FILENO, 0, 0}, {STDERR_FILENO, 0, 0}};
  if (poll(standard, 3, 0) <= 0) return;
  for (const pollfd &fd : standard) {
    if ((fd.revents & POLLNVAL) != 0) (void)open("/dev/null", O_RDWR);  // gets the lowest free number: this one
  }
}

[[gnu::constructor]] static void post_startup() {
  fill_standard_descriptors();
  for (const int number : ignored_signals)
    (void)signal(number, SIG_IGN);
  // A pipe or a file gets each line when a terminal would.
  (void)setvbuf(stdout, nullptr, _IOLBF, 0);
  libinit();
  (void)obfl_libinit();
  (void)nvram_libinit();
}
