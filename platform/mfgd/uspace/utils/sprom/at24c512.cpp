#include "platform/mfgd/uspace/utils/sprom/at24c512.h"

#include <array>
#include <span>

#include "platform/mfgd/uspace/utils/sprom/sse_dev.h"

namespace {

int32_t transfer(const smb_dev_t *dev, uint32_t op, uint8_t cmd, uint32_t xfer, uint8_t *data) {
  const sse_identity_t *identity = sse_identity_of(sse_eeproms, dev);  // the last row is anyone's
  sse_req_t req{.unit = identity->unit,
                .dev_type = identity->dev_type,
                .instance = identity->instance,
                .cmd = cmd,
                .xfer = xfer,
                .data = data,
                .flags = 0};
  return sse_call_dev(dev, op, &req);
}

// The EEPROM's two address bytes: the high one goes as the command byte, the low one as the first data byte.
constexpr uint8_t address_high(uint32_t offset) {
  return static_cast<uint8_t>(offset >> 8);
}
constexpr uint8_t address_low(uint32_t offset) {
  return static_cast<uint8_t>(offset);
}

}  // namespace

extern "C" {

int32_t at24c512_rd(const smb_dev_t *dev, uint32_t offset, uint32_t length, void *buf) {
  uint8_t data = address_low(offset);
  int32_t result = transfer(dev, SSE_OP_I2C_WRITE, address_high(offset), SSE_XFER_BYTE_DATA, &data);
  if (result < 0) return result;

  for (uint8_t &byte : std::span{static_cast<uint8_t *>(buf), length}) {
    data = 0;
    result = transfer(dev, SSE_OP_I2C_READ, 0, SSE_XFER_BYTE, &data);
    if (result < 0) return result;
    byte = data;
  }
  return result;
}

int32_t at24c512_wr(const smb_dev_t *dev, uint32_t offset, uint32_t length, const void *buf) {
  for (const uint8_t byte : std::span{static_cast<const uint8_t *>(buf), length}) {
    std::array<uint8_t, 2> data{address_low(offset), byte};
    const int32_t result = transfer(dev, SSE_OP_I2C_WRITE, address_high(offset), SSE_XFER_WORD_DATA, data.data());
    if (result < 0) return result;
    ++offset;
  }
  return 0;
}

}  // extern "C"
