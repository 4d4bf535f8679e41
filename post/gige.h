// gige.h: the Ethernet controllers' self-test, run through ethtool.
//
// Detects what the controller's register, EEPROM, interrupt and loopback tests report, a missing interface and a
// missing ethtool. Does not detect a bad link, plug or cable: a failure in which those four read 0 counts as a pass. A
// line with the digit 0 anywhere counts as a 0, so 10 passes, too.
#pragma once

#include <stdint.h>

extern "C" {
// Tests the device's interface: eth0, eth1, eth2, eth5 for devices 0 to 3; a PostTestFn.
uint32_t dorvan_nic_lpback_test(uint32_t reserved, uint32_t *result, uint32_t device, uint32_t *scratch);

// Runs `ethtool -t eth<port>`, online in the short test, and judges its report. Meanwhile, /post/ethtool.log holds
// the report. Ports that the card leaves untested pass.
// Returns 0 for a pass, 1 for a failure, the non-zero result of the card index read.
[[nodiscard]] int32_t gige_test(int port);
}
