// switch_asic.h: PCI identity of the switch ASICs.
#pragma once

#include <stdint.h>

// The board maker's own PCI vendor id.
constexpr uint16_t SWITCH_ASIC_VENDOR_ID = 0x1E4D;
