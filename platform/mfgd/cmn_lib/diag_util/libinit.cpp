#include "platform/mfgd/cmn_lib/diag_util/libinit.h"

#include <mcheck.h>

#include "platform/mfgd/cmn_lib/diag_util/ptu_velto_or.h"
#include "platform/mfgd/cmn_lib/diag_util/timer.h"

extern "C" void libinit() {
  _init_ptu();
  _init_libtimer();
  mtrace();
}
