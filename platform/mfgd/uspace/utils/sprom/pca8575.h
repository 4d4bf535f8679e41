// pca8575.h: the I/O expander without registers (NXP PCA8575 data sheet).
//
// Sixteen quasi-bidirectional pins in two ports: a pin written high is a weak pull-up and can be read as an input. Of
// the device record `path` and `addr` count. No locks, no state, no messages.
//
// Results: >= 0 the service's, < 0 its failure unchanged, -1 without a transfer for an address other than 0x26, 0x27.
#pragma once

#include "platform/mfgd/uspace/utils/sprom/sprom.h"

extern "C" {
// Reads both ports to the 16-bit number *buf, port 0 as its low byte; it is stored to whatever the result and means
// something after a success only. Register and length are ignored.
[[nodiscard]] int32_t pca8575_rd(const smb_dev_t *dev, uint32_t reg, uint32_t length, void *buf);

// Writes the two bytes at buf to port 0 and port 1. Register and length are ignored.
[[nodiscard]] int32_t pca8575_wr(const smb_dev_t *dev, uint32_t reg, uint32_t length, const void *buf);
}
