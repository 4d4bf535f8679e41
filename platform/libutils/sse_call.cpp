#include <errno.h>
#include <fcntl.h>
#include <linux/i2c-dev.h>
#include <linux/i2c.h>
#include <string.h>
#include <sys/ioctl.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <string_view>

#include "platform/libutils/sse.h"

namespace {

struct identity_t {
  uint32_t dev_type;
  uint8_t unit;
  uint8_t instance;
  const char *path;
  uint16_t addr;
};

// Instances 4 (PCA9539), 3 and 5 (PCA8575) belong to boards with other buses.
// clang-format off
constexpr std::array<identity_t, 17> identities{{
    // dev_type          unit instance  path            addr
    {SSE_DEV_AT24C512,   0,   0,        "/dev/i2c-1",   0x52},
    {SSE_DEV_AT24C512,   0,   1,        "/dev/i2c-17",  0x52},
    {SSE_DEV_AT24C512,   1,   0,        "/dev/i2c-23",  0x52},
    {SSE_DEV_AT24C512,   2,   0,        "/dev/i2c-7",   0x52},
    {SSE_DEV_PCA9539,    0,   0,        "/dev/i2c-4",   0x74},
    {SSE_DEV_PCA9539,    0,   1,        "/dev/i2c-4",   0x75},
    {SSE_DEV_PCA9539,    0,   2,        "/dev/i2c-4",   0x76},
    {SSE_DEV_PCA9539,    0,   3,        "/dev/i2c-8",   0x75},
    {SSE_DEV_PCA9539,    0,   5,        "/dev/i2c-7",   0x75},
    {SSE_DEV_PCA9539,    0,   6,        "/dev/i2c-20",  0x76},
    {SSE_DEV_PCA9539,    0,   7,        "/dev/i2c-24",  0x75},
    {SSE_DEV_PCA9539,    0,   8,        "/dev/i2c-8",   0x76},
    {SSE_DEV_PCA9539,    0,   9,        "/dev/i2c-24",  0x76},
    {SSE_DEV_PCA8575,    0,   0,        "/dev/i2c-4",   0x26},
    {SSE_DEV_PCA8575,    0,   1,        "/dev/i2c-8",   0x26},
    {SSE_DEV_PCA8575,    0,   2,        "/dev/i2c-8",   0x27},
    {SSE_DEV_PCA8575,    0,   4,        "/dev/i2c-24",  0x26},
}};
// clang-format on

constexpr size_t path_size = 36;
constexpr uint32_t addr_max = 0x7F;
constexpr int64_t write_cycle_ns = int64_t{SSE_EEPROM_WRITE_CYCLE_MS} * 1'000'000;
constexpr int min_polls = 8;

struct bus_t {
  char path[path_size];  // "" for a free entry
  int fd;
  unsigned long funcs;  // I2C_FUNC_*
};

// Where a transaction goes.
struct target_t {
  const char *path;
  uint32_t addr;
  uint32_t addr_len;
};

struct route_t {
  bool set;
  char path[path_size];  // "" for a path that cannot be a bus device's
  uint32_t addr;
  uint32_t addr_len;
};

// The bytes of a transaction: those sent, then, with another start, those fetched.
struct wire_t {
  std::array<uint8_t, 3> out;
  uint16_t out_len;
  uint16_t in_len;
};

// One entry for each bus device opened so far; they stay open.
constinit std::array<bus_t, 64> buses{};
constinit route_t next_route{};

int open_bus(const char *path, bus_t *bus) {
  const int fd = open(path, O_RDWR | O_CLOEXEC);
  if (fd < 0) return -errno;
  if (ioctl(fd, I2C_FUNCS, &bus->funcs) < 0) {
    const int result = -errno;
    close(fd);
    return result;
  }
  bus->fd = fd;
  strcpy(bus->path, path);
  return 0;
}

// Stores the open bus of that path in *bus; 0 or a negative errno value.
int find_bus(const char *path, const bus_t **bus) {
  for (bus_t &entry : buses) {
    if (entry.path[0] == '\0') {
      const int result = open_bus(path, &entry);
      if (result < 0) return result;
    }
    if (std::string_view{entry.path} == path) {
      *bus = &entry;
      return 0;
    }
  }
  return -EMFILE;
}

bool sends_command(uint32_t op, const sse_req_t &req) {
  if (req.xfer == SSE_XFER_BYTE) return false;
  // To a PCA8575 a command byte would be an output to its port 0.
  return op != SSE_OP_I2C_READ || req.dev_type != SSE_DEV_PCA8575;
}

// An EEPROM with one address byte would take the high one for its address and the low one for data.
bool has_high_byte_too_many(uint32_t op, const sse_req_t &req, uint32_t addr_len) {
  return op == SSE_OP_I2C_WRITE && req.dev_type == SSE_DEV_AT24C512 && addr_len == 1;
}

// Lays the request out in *wire; 0 or a negative errno value.
int lay_out(uint32_t op, const sse_req_t &req, uint32_t addr_len, wire_t *wire) {
  const uint16_t count = req.xfer == SSE_XFER_WORD_DATA ? 2 : 1;
  *wire = {};
  if (sends_command(op, req)) {
    if (!has_high_byte_too_many(op, req, addr_len)) {
      wire->out[wire->out_len++] = static_cast<uint8_t>(req.cmd);
    } else if (req.cmd != 0) {
      return -EINVAL;
    }
  }
  if (op == SSE_OP_I2C_READ) {
    wire->in_len = count;
    return 0;
  }
  std::copy_n(req.data, count, wire->out.begin() + wire->out_len);
  wire->out_len = static_cast<uint16_t>(wire->out_len + count);
  return 0;
}

int transfer_messages(const bus_t &bus, uint16_t addr, wire_t *wire, uint8_t *in) {
  std::array<i2c_msg, 2> msgs{};
  i2c_rdwr_ioctl_data transaction{msgs.data(), 0};
  if (wire->out_len != 0) msgs[transaction.nmsgs++] = {addr, 0, wire->out_len, wire->out.data()};
  if (wire->in_len != 0) msgs[transaction.nmsgs++] = {addr, I2C_M_RD, wire->in_len, in};

  const int done = ioctl(bus.fd, I2C_RDWR, &transaction);
  if (done < 0) return -errno;
  return static_cast<uint32_t>(done) == transaction.nmsgs ? 0 : -EIO;
}

// The first byte sent is SMBus's command, and the code of the size is the number of bytes moved.
int transfer_smbus(const bus_t &bus, uint16_t addr, const wire_t &wire, uint8_t *in) {
  // SMBus knows no read of two bytes without a command byte.
  if (wire.out_len == 0 && wire.in_len > 1) return -EOPNOTSUPP;
  if (ioctl(bus.fd, I2C_SLAVE, static_cast<unsigned long>(addr)) < 0) return -errno;

  i2c_smbus_data data{};
  i2c_smbus_ioctl_data transaction{};
  transaction.read_write = wire.in_len != 0 ? I2C_SMBUS_READ : I2C_SMBUS_WRITE;
  transaction.command = wire.out[0];
  transaction.size = uint32_t{wire.out_len} + wire.in_len;
  transaction.data = &data;
  memcpy(&data, &wire.out[1], wire.out.size() - 1);  // a word's low byte travels first
  if (ioctl(bus.fd, I2C_SMBUS, &transaction) < 0) return -errno;
  memcpy(in, &data, wire.in_len);
  return 0;
}

int transfer(const bus_t &bus, uint16_t addr, wire_t wire, uint8_t *in) {
  if ((bus.funcs & I2C_FUNC_I2C) != 0) return transfer_messages(bus, addr, &wire, in);
  return transfer_smbus(bus, addr, wire, in);
}

int64_t now_ns() {
  timespec now{};
  (void)clock_gettime(CLOCK_MONOTONIC, &now);  // cannot fail: the clock exists
  return int64_t{now.tv_sec} * 1'000'000'000 + now.tv_nsec;
}

// Adapter drivers report a missing acknowledge as either of these.
bool not_acknowledged(int result) {
  return result == -ENXIO || result == -EREMOTEIO;
}

// Acknowledge polling, for the write cycle's time and for a number of polls at least: a process that has to wait for
// the processor would otherwise give a device up after a single question.
int transfer_when_ready(const bus_t &bus, uint16_t addr, const wire_t &wire, uint8_t *in) {
  const int64_t deadline = now_ns() + write_cycle_ns;
  for (int polls = 1;; ++polls) {
    const int64_t now = now_ns();
    const int result = transfer(bus, addr, wire, in);
    if (!not_acknowledged(result) || (now >= deadline && polls >= min_polls)) return result;
  }
}

bool is_valid(uint32_t op, const sse_req_t *req) {
  return (op == SSE_OP_I2C_READ || op == SSE_OP_I2C_WRITE) && req != nullptr && req->data != nullptr &&
         req->cmd <= 0xFF && req->xfer >= SSE_XFER_BYTE && req->xfer <= SSE_XFER_WORD_DATA;
}

// Stores where the transaction goes in *target; 0 or a negative errno value.
int find_target(const route_t &route, const sse_req_t &req, target_t *target) {
  if (route.set) {
    if (route.path[0] == '\0' || route.addr > addr_max) return -EINVAL;
    *target = {route.path, route.addr, route.addr_len};
    return 0;
  }
  const auto *identity = std::find_if(identities.begin(), identities.end(), [&req](const identity_t &row) {
    return row.dev_type == req.dev_type && row.unit == req.unit && row.instance == req.instance;
  });
  if (identity == identities.end()) return -ENODEV;
  *target = {identity->path, identity->addr, 2};  // of the EEPROMs; expanders have no high address byte
  return 0;
}

}  // namespace

extern "C" {

[[gnu::visibility("default")]] int32_t sse_call(uint32_t op, sse_req_t *req) {
  const route_t route = next_route;
  next_route.set = false;
  if (!is_valid(op, req)) return -EINVAL;

  target_t target{};
  int result = find_target(route, *req, &target);
  if (result < 0) return result;
  wire_t wire;
  result = lay_out(op, *req, target.addr_len, &wire);
  if (result < 0) return result;
  const bus_t *bus = nullptr;
  result = find_bus(target.path, &bus);
  if (result < 0) return result;

  const auto addr = static_cast<uint16_t>(target.addr);
  if (req->dev_type == SSE_DEV_AT24C512) return transfer_when_ready(*bus, addr, wire, req->data);
  return transfer(*bus, addr, wire, req->data);
}

[[gnu::visibility("default")]] void sse_route(const char *path, uint32_t addr, uint32_t addr_len) {
  next_route = {};
  if (path == nullptr) return;
  next_route.set = true;
  next_route.addr = addr;
  next_route.addr_len = addr_len;
  const size_t length = strnlen(path, path_size);
  if (length < path_size) memcpy(next_route.path, path, length);
}

}  // extern "C"
