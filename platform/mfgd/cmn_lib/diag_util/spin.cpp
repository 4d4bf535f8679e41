#include "platform/mfgd/cmn_lib/diag_util/spin.h"
