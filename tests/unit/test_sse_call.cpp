// The I2C service on bus devices that this test plays: the linker sends its open, ioctl and clock here.
#include <errno.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <linux/i2c-dev.h>
#include <linux/i2c.h>
#include <time.h>

#include <array>
#include <cstdio>
#include <map>
#include <string>
#include <vector>

#include "platform/libutils/sse.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr int first_fd = 1000;

struct {
  std::vector<std::string> log;    // what reached the bus devices
  std::vector<std::string> paths;  // opened, by descriptor
  unsigned long funcs = I2C_FUNC_I2C;
  int open_error = 0;
  int funcs_error = 0;
  int error = 0;           // of each transfer ...
  int errors = INT32_MAX;  // ... for so many
  int done = -1;           // result of I2C_RDWR in place of the number of messages
  int64_t now_us = 0;
  int64_t transfer_us = 100;
} bus;

std::string hex(const uint8_t *bytes, size_t count) {
  std::string text;
  char byte[4];
  for (size_t i = 0; i < count; ++i) {
    std::snprintf(byte, sizeof byte, " %02x", unsigned{bytes[i]});
    text += byte;
  }
  return text;
}

std::string at(int fd, unsigned long addr) {
  char text[16];
  std::snprintf(text, sizeof text, ":%02lx", addr);
  return bus.paths.at(static_cast<size_t>(fd - first_fd)) + text;
}

// Fails the transfer if the test asks for it.
bool failing() {
  bus.now_us += bus.transfer_us;
  if (bus.error == 0 || bus.errors-- <= 0) return false;
  errno = bus.error;
  return true;
}

int rdwr(int fd, const i2c_rdwr_ioctl_data &transaction) {
  std::string line = "i2c " + at(fd, transaction.msgs[0].addr);
  for (const i2c_msg &msg : std::vector<i2c_msg>(transaction.msgs, transaction.msgs + transaction.nmsgs)) {
    EXPECT_EQ(msg.addr, transaction.msgs[0].addr);
    if (msg.flags == I2C_M_RD) {
      for (unsigned i = 0; i < msg.len; ++i)
        msg.buf[i] = static_cast<uint8_t>(0xD1 + i);
      line += " r" + std::to_string(msg.len);
    } else {
      EXPECT_EQ(msg.flags, 0);
      line += " w" + hex(msg.buf, msg.len);
    }
  }
  bus.log.push_back(line);
  if (failing()) return -1;
  return bus.done >= 0 ? bus.done : static_cast<int>(transaction.nmsgs);
}

int smbus(const i2c_smbus_ioctl_data &transaction) {
  const bool read = transaction.read_write == I2C_SMBUS_READ;
  const size_t count = transaction.size == I2C_SMBUS_WORD_DATA       ? 2
                       : transaction.size == I2C_SMBUS_BYTE && !read ? 0
                                                                     : 1;
  const bool command = transaction.size != I2C_SMBUS_BYTE || !read;
  bus.log.push_back("smbus " + std::to_string(transaction.size) + (command ? hex(&transaction.command, 1) : "") +
                    (read ? " r" : " w" + hex(transaction.data->block, count)));
  if (failing()) return -1;
  if (read) transaction.data->word = 0xD2D1;
  return 0;
}

struct sse_service : testing::Test {
  std::array<uint8_t, 2> data{0xA1, 0xA2};
  sse_req_t req{0, SSE_DEV_AT24C512, 0, 0x12, SSE_XFER_BYTE_DATA, data.data(), 0};
  sse_service() {
    // Descriptors stay open for the whole program.
    auto paths = std::move(bus.paths);
    bus = {};
    bus.paths = std::move(paths);
  }
  int32_t call(uint32_t op, uint32_t dev_type, uint32_t xfer, const char *path = "/dev/i2c-90", uint32_t addr = 0x33) {
    bus.log.clear();
    data = {0xA1, 0xA2};
    req.dev_type = dev_type;
    req.xfer = xfer;
    sse_route(path, addr);
    return sse_call(op, &req);
  }
};

}  // namespace

extern "C" {
int __wrap_open(const char *path, int flags);
int __wrap_open64(const char *path, int flags);
int __wrap_ioctl(int fd, unsigned long request, void *arg);
int __wrap_clock_gettime(clockid_t clock, timespec *now);

int __wrap_open(const char *path, int flags) {
  EXPECT_EQ(flags, O_RDWR | O_CLOEXEC);
  errno = bus.open_error;
  if (bus.open_error != 0) return -1;
  bus.paths.emplace_back(path);
  return first_fd + static_cast<int>(bus.paths.size()) - 1;
}

int __wrap_open64(const char *path, int flags) {
  return __wrap_open(path, flags);
}

int __wrap_ioctl(int fd, unsigned long request, void *arg) {
  switch (request) {
    case I2C_FUNCS:
      errno = bus.funcs_error;
      if (bus.funcs_error != 0) return -1;
      *static_cast<unsigned long *>(arg) = bus.funcs;
      return 0;
    case I2C_SLAVE:
      bus.log.push_back("slave " + at(fd, reinterpret_cast<unsigned long>(arg)));
      return 0;
    case I2C_RDWR:
      return rdwr(fd, *static_cast<i2c_rdwr_ioctl_data *>(arg));
    case I2C_SMBUS:
      return smbus(*static_cast<i2c_smbus_ioctl_data *>(arg));
    default:
      ADD_FAILURE() << request;
      return -1;
  }
}

int __wrap_clock_gettime(clockid_t clock, timespec *now) {
  EXPECT_EQ(clock, CLOCK_MONOTONIC);
  *now = {static_cast<time_t>(bus.now_us / 1'000'000), static_cast<long>(bus.now_us % 1'000'000 * 1000)};
  return 0;
}
}

namespace {

TEST_F(sse_service, makes_one_transaction_of_the_kind_asked_for) {
  struct form {
    uint32_t op, dev_type, xfer;
    const char *i2c, *smbus;
    std::array<uint8_t, 2> data;
  };
  // clang-format off
  const form forms[]{
      {SSE_OP_I2C_WRITE,  7, 1, "w a1",       "1 a1 w",       {0xA1, 0xA2}},
      {SSE_OP_I2C_WRITE,  7, 2, "w 12 a1",    "2 12 w a1",    {0xA1, 0xA2}},
      {SSE_OP_I2C_WRITE, 15, 3, "w 12 a1 a2", "3 12 w a1 a2", {0xA1, 0xA2}},
      {SSE_OP_I2C_WRITE, 16, 2, "w 12 a1",    "2 12 w a1",    {0xA1, 0xA2}},
      {SSE_OP_I2C_READ,   7, 1, "r1",         "1 r",          {0xD1, 0xA2}},
      {SSE_OP_I2C_READ,  15, 2, "w 12 r1",    "2 12 r",       {0xD1, 0xA2}},
      {SSE_OP_I2C_READ,  15, 3, "w 12 r2",    "3 12 r",       {0xD1, 0xD2}},
      {SSE_OP_I2C_READ,  16, 3, "r2",         nullptr,        {0xD1, 0xD2}}};
  // clang-format on
  for (const form &form : forms) {
    SCOPED_TRACE(form.i2c);
    bus.funcs = I2C_FUNC_I2C | I2C_FUNC_SMBUS_EMUL;
    EXPECT_EQ(call(form.op, form.dev_type, form.xfer, "/dev/i2c-90"), 0);
    EXPECT_THAT(bus.log, ElementsAre(std::string{"i2c /dev/i2c-90:33 "} + form.i2c));
    EXPECT_EQ(data, form.data);

    bus.funcs = I2C_FUNC_SMBUS_BYTE | I2C_FUNC_SMBUS_BYTE_DATA | I2C_FUNC_SMBUS_WORD_DATA;
    if (form.smbus == nullptr) {
      // Its only SMBus form would drive the pins low.
      EXPECT_EQ(call(form.op, form.dev_type, form.xfer, "/dev/i2c-91"), -EOPNOTSUPP);
      EXPECT_THAT(bus.log, IsEmpty());
      continue;
    }
    EXPECT_EQ(call(form.op, form.dev_type, form.xfer, "/dev/i2c-91"), 0);
    EXPECT_THAT(bus.log, ElementsAre("slave /dev/i2c-91:33", std::string{"smbus "} + form.smbus));
    EXPECT_EQ(data, form.data);
  }
}

TEST_F(sse_service, finds_devices_by_identity_unless_told_the_bus_once) {
  const std::map<std::array<uint32_t, 3>, const char *> identities{
      {{7, 0, 0}, "/dev/i2c-1:52"},   {{7, 0, 1}, "/dev/i2c-17:52"},  {{7, 1, 0}, "/dev/i2c-23:52"},
      {{7, 2, 0}, "/dev/i2c-7:52"},   {{15, 0, 0}, "/dev/i2c-4:74"},  {{15, 0, 1}, "/dev/i2c-4:75"},
      {{15, 0, 2}, "/dev/i2c-4:76"},  {{15, 0, 3}, "/dev/i2c-8:75"},  {{15, 0, 5}, "/dev/i2c-7:75"},
      {{15, 0, 6}, "/dev/i2c-20:76"}, {{15, 0, 7}, "/dev/i2c-24:75"}, {{15, 0, 8}, "/dev/i2c-8:76"},
      {{15, 0, 9}, "/dev/i2c-24:76"}, {{16, 0, 0}, "/dev/i2c-4:26"},  {{16, 0, 1}, "/dev/i2c-8:26"},
      {{16, 0, 2}, "/dev/i2c-8:27"},  {{16, 0, 4}, "/dev/i2c-24:26"}};
  for (const uint32_t dev_type : {7U, 8U, 15U, 16U}) {
    for (const uint32_t unit : {0U, 1U, 2U, 3U}) {
      for (uint32_t instance = 0; instance < 11; ++instance) {
        req.dev_type = dev_type;
        req.unit = static_cast<uint8_t>(unit);
        req.instance = static_cast<uint8_t>(instance);
        const auto it = identities.find({dev_type, unit, instance});
        bus.log.clear();
        EXPECT_EQ(sse_call(SSE_OP_I2C_WRITE, &req), it != identities.end() ? 0 : -ENODEV);
        if (it == identities.end()) continue;
        EXPECT_THAT(bus.log, ElementsAre(std::string{"i2c "} + it->second + " w 12 a1"));
      }
    }
  }
  const size_t opened = bus.paths.size();
  req = {0, SSE_DEV_PCA9539, 0, 0x12, SSE_XFER_BYTE_DATA, data.data(), 0};
  bus.log.clear();
  sse_route("/dev/i2c-20", 0x77);
  EXPECT_EQ(sse_call(SSE_OP_I2C_WRITE, &req), 0);
  EXPECT_EQ(sse_call(SSE_OP_I2C_WRITE, &req), 0);
  sse_route("/dev/i2c-20", 0x77);
  sse_route(nullptr, 0);
  EXPECT_EQ(sse_call(SSE_OP_I2C_WRITE, &req), 0);
  sse_route("/dev/i2c-20", 0x77);
  EXPECT_EQ(sse_call(0, &req), -EINVAL);  // takes the route with it
  EXPECT_EQ(sse_call(SSE_OP_I2C_WRITE, &req), 0);
  EXPECT_THAT(bus.log, ElementsAre("i2c /dev/i2c-20:77 w 12 a1", "i2c /dev/i2c-4:74 w 12 a1",
                                   "i2c /dev/i2c-4:74 w 12 a1", "i2c /dev/i2c-4:74 w 12 a1"));
  EXPECT_EQ(bus.paths.size(), opened);  // each bus is opened once
}

TEST_F(sse_service, refuses_bad_requests_without_touching_a_bus) {
  const size_t opened = bus.paths.size();
  for (const uint32_t op : {0U, 1074U, 1077U})
    EXPECT_EQ(call(op, 7, 2), -EINVAL);
  for (const uint32_t xfer : {0U, 4U, 0x103U})
    EXPECT_EQ(call(SSE_OP_I2C_READ, 7, xfer), -EINVAL);
  EXPECT_EQ(call(SSE_OP_I2C_WRITE, 7, 2, "/dev/i2c-90", 0x80), -EINVAL);
  EXPECT_EQ(call(SSE_OP_I2C_WRITE, 7, 2, ""), -EINVAL);
  EXPECT_EQ(call(SSE_OP_I2C_WRITE, 7, 2, std::string(36, '1').c_str()), -EINVAL);
  EXPECT_EQ(sse_call(SSE_OP_I2C_WRITE, nullptr), -EINVAL);
  req.cmd = 0x100;
  EXPECT_EQ(call(SSE_OP_I2C_WRITE, 7, 2), -EINVAL);
  req.cmd = 0;
  req.data = nullptr;
  EXPECT_EQ(sse_call(SSE_OP_I2C_WRITE, &req), -EINVAL);
  EXPECT_EQ(bus.paths.size(), opened);
  EXPECT_THAT(bus.log, IsEmpty());
}

TEST_F(sse_service, tells_a_bus_devices_errors) {
  bus.open_error = ENOENT;
  EXPECT_EQ(call(SSE_OP_I2C_WRITE, 15, 2, "/dev/i2c-92"), -ENOENT);
  bus.open_error = 0;
  bus.funcs_error = ENOTTY;
  EXPECT_EQ(call(SSE_OP_I2C_WRITE, 15, 2, "/dev/i2c-92"), -ENOTTY);
  EXPECT_THAT(bus.log, IsEmpty());
  bus.funcs_error = 0;
  EXPECT_EQ(call(SSE_OP_I2C_WRITE, 15, 2, "/dev/i2c-92"), 0);  // nothing of the failures is kept
  bus.done = 1;
  EXPECT_EQ(call(SSE_OP_I2C_READ, 15, 3, "/dev/i2c-92"), -EIO);
}

TEST_F(sse_service, asks_a_busy_eeprom_again_for_its_write_cycle) {
  for (const int error : {ENXIO, EREMOTEIO, EIO, ETIMEDOUT}) {
    const bool no_answer = error == ENXIO || error == EREMOTEIO;
    bus.error = error;
    bus.errors = 3;
    EXPECT_EQ(call(SSE_OP_I2C_WRITE, 7, 3), no_answer ? 0 : -error);
    EXPECT_EQ(bus.log, std::vector<std::string>(no_answer ? 4 : 1, "i2c /dev/i2c-90:33 w 12 a1 a2"));
    for (const uint32_t expander : {15U, 16U}) {
      bus.errors = 3;
      EXPECT_EQ(call(SSE_OP_I2C_WRITE, expander, 2), -error);
      EXPECT_EQ(bus.log.size(), 1U);
    }
  }
  bus.error = ENXIO;
  bus.errors = INT32_MAX;
  bus.now_us = 5'999'995'000;  // the second turns meanwhile
  EXPECT_EQ(call(SSE_OP_I2C_READ, 7, 1), -ENXIO);
  EXPECT_EQ(bus.log.size(), 101U);  // 100 µs each: from 0 to 10 ms
  // Held up for long at each transfer, the device still gets its chances.
  bus.transfer_us = 50'000;
  bus.errors = 7;
  EXPECT_EQ(call(SSE_OP_I2C_READ, 7, 1), 0);
  EXPECT_EQ(bus.log.size(), 8U);
  bus.errors = 8;
  EXPECT_EQ(call(SSE_OP_I2C_READ, 7, 1), -ENXIO);
  EXPECT_EQ(bus.log.size(), 8U);
}

}  // namespace
