// Puts the functions of both catalogues into the library, whether or not another source includes them.
#include "platform/mfgd/hw_acc/hwtype_defs.h"
#include "platform/mfgd/hw_acc/intf_type_defs.h"
