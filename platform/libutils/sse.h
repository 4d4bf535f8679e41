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
  SSE_DEV_AT24C512 = 7,  // EEPROM
  SSE_DEV_PCA9539 = 15,  // I/O expander with registers
  SSE_DEV_PCA8575 = 16,  // I/O expander without registers
};

// Transfer kinds, sse_req_t::xfer: the codes of the Linux SMBus transfer sizes.
enum : uint32_t {
  SSE_XFER_BYTE = 1,       // one data byte without command byte
  SSE_XFER_BYTE_DATA = 2,  // command byte, one data byte
  SSE_XFER_WORD_DATA = 3,  // command byte, two data bytes; data[0] travels first
};

// The longest write cycle of the board's EEPROMs in ms, during which they do not answer (Atmel AT24C512 data sheet, AC
// characteristics: tWR; the smaller ones take no longer).
enum : uint32_t { SSE_EEPROM_WRITE_CYCLE_MS = 10 };

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

// Makes the I2C transaction that *req describes, with the device that sse_route named or else the one that the
// identity (dev_type, unit, instance) means.
//   op   SSE_OP_I2C_READ or SSE_OP_I2C_WRITE
// A read of a PCA8575 sends no command byte, as the device has no registers. A write to an EEPROM that was routed as
// one with a single address byte leaves out the command byte, the high byte of the address. An EEPROM that does not
// answer may be busy with its write cycle and is asked again for the time of one, and eight times at least, before the
// call fails; nothing else is retried. Not for use by several threads.
// Returns  >= 0         success
//          -EINVAL      unknown operation or transfer kind, no request, no data, command above 0xFF, bad sse_route, an
//                       address of more bytes than the EEPROM has
//          -ENODEV      no device has this identity
//          -EOPNOTSUPP  the bus adapter cannot make this transaction
//          <  0         the bus device's error, a negative errno value; -ENXIO if the device does not answer
[[nodiscard]] int32_t sse_call(uint32_t op, sse_req_t *req);

// Names the device of the next sse_call, and of that one only; the request's identity then does not matter. Only this
// system's own service has this operation; a caller declares it weak and does without where it is missing.
//   path      bus device, such as "/dev/i2c-1", 1 to 35 characters, copied; null goes back to the identity
//   addr      7-bit I2C address
//   addr_len  bytes of the device's internal address: 1 for an EEPROM of up to 256 bytes; any other number means
//             2, which is what requests to EEPROMs carry
void sse_route(const char *path, uint32_t addr, uint32_t addr_len);
}

static_assert(offsetof(sse_req_t, dev_type) == 4);
static_assert(offsetof(sse_req_t, instance) == 8);
static_assert(offsetof(sse_req_t, cmd) == 10);
static_assert(offsetof(sse_req_t, xfer) == 12);
static_assert(offsetof(sse_req_t, data) == 16);
static_assert(sizeof(void *) != 4 || (offsetof(sse_req_t, flags) == 20 && sizeof(sse_req_t) == 24));
