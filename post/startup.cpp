// startup.cpp: what runs before main, in one place and in this order.
#include <stdio.h>

#include "platform/mfgd/cmn_lib/diag_util/libinit.h"
#include "platform/mfgd/cmn_lib/hw_acc/nvram/nvram_acc_velto.h"
#include "platform/mfgd/cmn_lib/hw_acc/obfl/obfl_acc.h"

[[gnu::constructor]] static void post_startup() {
  // A pipe or a file gets each line when a terminal would.
  (void)setvbuf(stdout, nullptr, _IOLBF, 0);
  libinit();
  (void)obfl_libinit();
  (void)nvram_libinit();
}
