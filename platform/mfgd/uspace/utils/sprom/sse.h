// sse.h: the I2C service of libutils.so.
#pragma once

#include <stddef.h>
#include <stdint.h>

// Operations of sse_call.
enum : uint32_t {
  SSE_OP_I2C_READ = 1075,
  SSE_OP_I2C_WRITE = 1076,
};

// Device kinds, sse_req_t::dev_type.
enum : uint32_t {
  SSE_DEV_AT24C512 = 7,
  SSE_DEV_PCA9539 = 15,
  SSE_DEV_PCA8575 = 16,
};

// Transfer kinds, sse_req_t::xfer: the codes of the Linux SMBus transfer sizes.
enum : uint32_t {
  SSE_XFER_BYTE = 1,       // one data byte without command byte
  SSE_XFER_BYTE_DATA = 2,  // command byte, one data byte
  SSE_XFER_WORD_DATA = 3,  // command byte, two data bytes; data[0] travels first
};

extern "C" {
// One I2C transaction. The service reads this record as 32-bit x86 lays it out.
struct sse_req_t {
  uint8_t unit;       // first part of the device identity
  uint32_t dev_type;  // SSE_DEV_*
  uint8_t instance;   // second part of the device identity
  uint16_t cmd;       // command byte sent before the data, 0 where there is none
  uint32_t xfer;      // SSE_XFER_*
  uint8_t *data;      // read into or written from
  uint8_t flags;      // always 0
};

// Makes the transaction that *req describes.
//   op   SSE_OP_I2C_READ or SSE_OP_I2C_WRITE
// Returns  >= 0  success
//          <  0  failure, a negative errno value
[[nodiscard]] int32_t sse_call(uint32_t op, sse_req_t *req);
}

static_assert(offsetof(sse_req_t, dev_type) == 4);
static_assert(offsetof(sse_req_t, instance) == 8);
static_assert(offsetof(sse_req_t, cmd) == 10);
static_assert(offsetof(sse_req_t, xfer) == 12);
static_assert(offsetof(sse_req_t, data) == 16);
static_assert(sizeof(void *) != 4 || (offsetof(sse_req_t, flags) == 20 && sizeof(sse_req_t) == 24));
