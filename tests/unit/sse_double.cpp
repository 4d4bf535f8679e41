#include "tests/unit/sse_double.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>

#include "platform/mfgd/uspace/utils/sprom/sse.h"

sse_double sse;

namespace {

std::string hex(unsigned number) {
  char text[8];
  std::snprintf(text, sizeof text, " %02x", number);
  return text;
}

// Carries the transaction out; false if no such device answers or the device does not know it.
bool transact(bool read, const sse_req_t &req) {
  const sse_double::identity id{req.dev_type, req.unit, req.instance};
  if (const auto it = sse.eeproms.find(id); it != sse.eeproms.end()) {
    auto &[bytes, counter] = it->second;
    if (read && req.xfer == SSE_XFER_BYTE) {
      req.data[0] = bytes[counter++];
    } else if (!read && req.xfer >= SSE_XFER_BYTE_DATA) {
      counter = static_cast<uint16_t>(req.cmd << 8 | req.data[0]);
      if (req.xfer == SSE_XFER_WORD_DATA) bytes[counter++] = req.data[1];
    } else {
      return false;
    }
    return true;
  }
  if (const auto it = sse.pca9539s.find(id); it != sse.pca9539s.end() && req.cmd < 8) {
    for (size_t i = 0; i < 2; ++i) {
      uint8_t &reg = it->second.at(req.cmd ^ i);
      (read ? req.data[i] : reg) = read ? reg : req.data[i];
    }
    return req.xfer == SSE_XFER_WORD_DATA;
  }
  if (const auto it = sse.pca8575s.find(id); it != sse.pca8575s.end()) {
    if (read) std::copy_n(it->second.begin(), 2, req.data);
    if (!read) it->second = {static_cast<uint8_t>(req.cmd), req.data[0]};
    return req.xfer == (read ? SSE_XFER_WORD_DATA : SSE_XFER_BYTE_DATA);
  }
  return false;
}

}  // namespace

int32_t sse_call(uint32_t op, sse_req_t *req) {
  const bool read = op == SSE_OP_I2C_READ;
  EXPECT_TRUE(read || op == SSE_OP_I2C_WRITE);
  EXPECT_EQ(req->flags, 0);
  EXPECT_TRUE(req->xfer >= SSE_XFER_BYTE && req->xfer <= SSE_XFER_WORD_DATA);

  const bool ok = sse.calls++ != sse.fail_at && transact(read, *req);
  std::string line = std::string{read ? "r " : "w "} + std::to_string(req->dev_type) + ":" + std::to_string(req->unit) +
                     "." + std::to_string(req->instance);
  EXPECT_TRUE(req->xfer != SSE_XFER_BYTE || req->cmd == 0);
  line += req->xfer == SSE_XFER_BYTE ? " --" : hex(req->cmd);
  if (ok || !read) {
    for (size_t i = 0; i < (req->xfer == SSE_XFER_WORD_DATA ? 2 : 1); ++i)
      line += hex(req->data[i]);
  }
  sse.log.push_back(line + (ok ? "" : " !"));
  return ok ? sse.ok_result : sse.fail_result;
}
