#include "platform/mfgd/uspace/utils/sprom/pca9539.h"

#include <array>

#include "platform/mfgd/uspace/utils/sprom/sse_dev.h"

namespace {

int32_t transfer(const smb_dev_t *dev, const sse_identity_t &identity, uint32_t op, uint32_t reg, uint8_t *data) {
  sse_req_t req{.unit = identity.unit,
                .dev_type = identity.dev_type,
                .instance = identity.instance,
                .cmd = static_cast<uint16_t>(reg),
                .xfer = SSE_XFER_WORD_DATA,
                .data = data,
                .flags = 0};
  return sse_call_dev(dev, op, &req);
}

// Reads a register pair and writes it back with the bits of `mask` taken from `value`.
int32_t update_pair(const smb_dev_t *dev, uint32_t reg, uint16_t mask, uint16_t value) {
  uint16_t pair = 0;
  const int32_t result = pca9539_rd(dev, reg, sizeof pair, &pair);
  if (result < 0) return result;
  pair = static_cast<uint16_t>((pair & ~mask) | (value & mask));
  return pca9539_wr(dev, reg, sizeof pair, &pair);
}

}  // namespace

extern "C" {

int32_t pca9539_rd(const smb_dev_t *dev, uint32_t reg, uint32_t, void *buf) {
  const sse_identity_t *identity = sse_identity_of(sse_pca9539s, dev);
  if (identity == nullptr) return -1;
  std::array<uint8_t, 2> data{};
  const int32_t result = transfer(dev, *identity, SSE_OP_I2C_READ, reg, data.data());
  memcpy(buf, data.data(), data.size());
  return result;
}

int32_t pca9539_wr(const smb_dev_t *dev, uint32_t reg, uint32_t, const void *buf) {
  const sse_identity_t *identity = sse_identity_of(sse_pca9539s, dev);
  if (identity == nullptr) return -1;
  std::array<uint8_t, 2> data{};
  memcpy(data.data(), buf, data.size());
  return transfer(dev, *identity, SSE_OP_I2C_WRITE, reg, data.data());
}

int32_t pca9539_write_reg(const smb_dev_t *dev, uint32_t reg, uint32_t value) {
  const auto pair = static_cast<uint16_t>(value);
  return pca9539_wr(dev, reg, sizeof pair, &pair);
}

int32_t pca9539_reg_rd(const smb_dev_t *dev, uint32_t reg) {
  uint16_t pair = 0;
  const int32_t result = pca9539_rd(dev, reg, sizeof pair, &pair);
  return result < 0 ? result : pair & 0xFF;
}

int32_t pca9539_init(const smb_dev_t *dev, uint16_t mask, uint16_t output, uint16_t config) {
  int32_t result = update_pair(dev, PCA9539_OUTPUT, mask, output);
  if (result < 0) return result;
  result = update_pair(dev, PCA9539_CONFIG, mask, config);
  if (result < 0) return result;
  result = update_pair(dev, PCA9539_POLARITY, mask, config);
  return result < 0 ? result : 0;
}

}  // extern "C"
