// startup.cpp: what runs before main, in one place and in this order.
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <unistd.h>

#include "platform/mfgd/cmn_lib/diag_util/libinit.h"
#include "platform/mfgd/cmn_lib/hw_acc/nvram/nvram_acc_velto.h"
#include "platform/mfgd/cmn_lib/hw_acc/obfl/obfl_acc.h"

// A closed standard descriptor would become that of the next file opened, /dev/mem first of all, and messages would be
// written there.
static void fill_standard_descriptors() {
  pollfd standard[] = {{STDIN_FILENO, 0, 0}, {STDOUT_FILENO, 0, 0}, {STDERR_FILENO, 0, 0}};
  if (poll(standard, 3, 0) <= 0) return;
  for (const pollfd &fd : standard) {
    if ((fd.revents & POLLNVAL) != 0) (void)open("/dev/null", O_RDWR);  // gets the lowest free number: this one
  }
}

[[gnu::constructor]] static void post_startup() {
  fill_standard_descriptors();
  // A reader of the output who goes away must not end a run that has memories to restore and records to write.
  (void)signal(SIGPIPE, SIG_IGN);
  // A pipe or a file gets each line when a terminal would.
  (void)setvbuf(stdout, nullptr, _IOLBF, 0);
  libinit();
  (void)obfl_libinit();
  (void)nvram_libinit();
}
