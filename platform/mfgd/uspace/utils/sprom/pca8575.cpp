#include "platform/mfgd/uspace/utils/sprom/pca8575.h"

#include <array>

#include "platform/mfgd/uspace/utils/sprom/sse_dev.h"

extern "C" {

int32_t pca8575_rd(const smb_dev_t *dev, uint32_t, uint32_t, void *buf) {
  const sse_identity_t *identity = sse_identity_of(sse_pca8575s, dev);
  if (identity == nullptr) return -1;
  std::array<uint8_t, 2> data{};
  sse_req_t req{.unit = identity->unit,
                .dev_type = identity->dev_type,
                .instance = identity->instance,
                .cmd = 0,
                .xfer = SSE_XFER_WORD_DATA,
                .data = data.data(),
                .flags = 0};
  const int32_t result = sse_call_dev(dev, SSE_OP_I2C_READ, &req);
  memcpy(buf, data.data(), data.size());
  return result;
}

int32_t pca8575_wr(const smb_dev_t *dev, uint32_t, uint32_t, const void *buf) {
  const sse_identity_t *identity = sse_identity_of(sse_pca8575s, dev);
  if (identity == nullptr) return -1;
  std::array<uint8_t, 2> ports{};
  memcpy(ports.data(), buf, ports.size());
  // Without registers, the service's command byte is the byte for port 0.
  sse_req_t req{.unit = identity->unit,
                .dev_type = identity->dev_type,
                .instance = identity->instance,
                .cmd = ports[0],
                .xfer = SSE_XFER_BYTE_DATA,
                .data = &ports[1],
                .flags = 0};
  return sse_call_dev(dev, SSE_OP_I2C_WRITE, &req);
}

}  // extern "C"
