#include "platform/mfgd/uspace/utils/sprom/at24c512.h"

#include <array>
#include <span>

#include "platform/mfgd/uspace/utils/sprom/sse_dev.h"

namespace {

struct identity_t {
  const char *path;
  uint8_t unit;
  uint8_t instance;
};

// clang-format off
constexpr std::array<identity_t, 3> identities{{
    // path          unit instance
    {"/dev/i2c-1",   0,   0},
    {"/dev/i2c-17",  0,   1},
    {"/dev/i2c-23",  1,   0},
}};
// clang-format on
constexpr identity_t other_identity{nullptr, 2, 0};

const identity_t &identity_of(const smb_dev_t *dev) {
  for (const identity_t &identity : identities) {
    if (smb_path_is(dev, identity.path)) return identity;
  }
  return other_identity;
}

int32_t transfer(const smb_dev_t *dev, uint32_t op, uint8_t cmd, uint32_t xfer, uint8_t *data) {
  const identity_t &identity = identity_of(dev);
  sse_req_t req{.unit = identity.unit,
                .dev_type = SSE_DEV_AT24C512,
                .instance = identity.instance,
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
