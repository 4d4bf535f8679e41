// switch_asic.h: the PCI vendor id of the board maker's own switch ASICs.
#pragma once

#include <stdint.h>

enum : uint16_t { SWITCH_ASIC_VENDOR_ID = 0x1E4D };
