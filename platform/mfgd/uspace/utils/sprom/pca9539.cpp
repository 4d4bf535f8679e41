#include "platform/mfgd/uspace/utils/sprom/pca9539.h"

#include <array>

#include "platform/mfgd/uspace/utils/sprom/sse_dev.h"

namespace {

// clang-format off
// First match wins; a null path stands for any.
constexpr std::array<sse_expander_t, 10> expanders{{
    // addr  path           instance
    {0x74,   "/dev/i2c-4",  0},
    {0x74,   nullptr,       4},
    {0x75,   "/dev/i2c-4",  1},
    {0x75,   "/dev/i2c-8",  3},
    {0x75,   "/dev/i2c-24", 7},
    {0x75,   nullptr,       5},
    {0x76,   "/dev/i2c-4",  2},
    {0x76,   "/dev/i2c-8",  8},
    {0x76,   "/dev/i2c-24", 9},
    {0x76,   nullptr,       6},
}};
// clang-format on

int32_t transfer(const smb_dev_t *dev, const sse_expander_t &expander, uint32_t op, uint32_t reg, uint8_t *data) {
  sse_req_t req{.unit = 0,
                .dev_type = SSE_DEV_PCA9539,
                .instance = expander.instance,
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
  const sse_expander_t *expander = sse_find_expander(expanders, dev);
  if (expander == nullptr) return -1;
  std::array<uint8_t, 2> data{};
  const int32_t result = transfer(dev, *expander, SSE_OP_I2C_READ, reg, data.data());
  memcpy(buf, data.data(), data.size());
  return result;
}

int32_t pca9539_wr(const smb_dev_t *dev, uint32_t reg, uint32_t, const void *buf) {
  const sse_expander_t *expander = sse_find_expander(expanders, dev);
  if (expander == nullptr) return -1;
  std::array<uint8_t, 2> data{};
  memcpy(data.data(), buf, data.size());
  return transfer(dev, *expander, SSE_OP_I2C_WRITE, reg, data.data());
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
