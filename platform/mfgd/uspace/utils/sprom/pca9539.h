// pca9539.h: the I/O expander with registers (NXP PCA9539 data sheet).
//
// Two ports of eight pins. Every transfer is a register pair as a 16-bit number: bit n is pin n of port 0, bit 8 + n
// pin n of port 1. Of the device record `path` and `addr` count. No locks, no state, no messages.
//
// Results: >= 0 the service's, < 0 its failure unchanged, -1 without a transfer for an address other than 0x74 to 0x76.
#pragma once

#include "platform/mfgd/uspace/utils/sprom/sprom.h"

// Register pairs; the number is port 0's register.
enum : uint32_t {
  PCA9539_INPUT = 0,
  PCA9539_OUTPUT = 2,
  PCA9539_POLARITY = 4,  // 1: the input register shows the pin inverted
  PCA9539_CONFIG = 6,    // 1: input, 0: output
};

extern "C" {
// Reads the pair that begins at register `reg` to the 16-bit number *buf, which is stored to whatever the result and
// means something after a success only. The length is ignored.
[[nodiscard]] int32_t pca9539_rd(const smb_dev_t *dev, uint32_t reg, uint32_t length, void *buf);

// Writes the 16-bit number *buf to the pair that begins at register `reg`. The length is ignored.
[[nodiscard]] int32_t pca9539_wr(const smb_dev_t *dev, uint32_t reg, uint32_t length, const void *buf);

// Writes the low 16 bits of `value` to the pair that begins at register `reg`.
[[nodiscard]] int32_t pca9539_write_reg(const smb_dev_t *dev, uint32_t reg, uint32_t value);

// Reads one register. Returns its value, 0 to 255, or a negative result.
[[nodiscard]] int32_t pca9539_reg_rd(const smb_dev_t *dev, uint32_t reg);

// Sets up the pins in `mask` and leaves the others as they are: output levels, then directions, so that a pin that
// becomes an output drives its level from the first moment, then polarity (pins that are inputs inverted, outputs
// plain). What was written before a failure stays.
//   output  levels, 1 high
//   config  directions, 1 input
// Returns  0    done
//          < 0  the first negative result
[[nodiscard]] int32_t pca9539_init(const smb_dev_t *dev, uint16_t mask, uint16_t output, uint16_t config);
}
