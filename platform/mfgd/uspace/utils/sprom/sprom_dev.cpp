#include "platform/mfgd/uspace/utils/sprom/sprom_dev.h"
