// An I2C service in place of libutils.so, for programs that run as a process: devices are files of a directory, named
// after bus and address (i2c-1-52); one that has no file does not answer. Faults come by environment variables.
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <map>
#include <optional>
#include <string>

#include "platform/mfgd/uspace/utils/sprom/sse.h"

namespace {

struct state_t {
  std::string device;                        // of the next transaction
  std::map<std::string, uint16_t> counters;  // of the EEPROMs
  long writes = 0;                           // bytes written to EEPROMs so far
  long reads = 0;                            // bytes read from them
  bool is_pulled = false;
};

state_t &state() {
  static state_t the_state;
  return the_state;
}

std::string variable(const char *name) {
  const char *value = getenv(name);
  return value == nullptr ? "" : value;
}

bool is_number(const char *name, long number) {
  const std::string value = variable(name);
  return !value.empty() && strtol(value.c_str(), nullptr, 0) == number;
}

void log_line(uint32_t op, const sse_req_t &req) {
  FILE *log = fopen((variable("SSE_DIR") + "/log").c_str(), "a");
  if (log == nullptr) abort();
  const char *verb = op == SSE_OP_I2C_READ ? "read" : "write";
  fprintf(log, "%s %s %02x %u", verb, state().device.c_str(), req.cmd, req.xfer);
  if (op == SSE_OP_I2C_WRITE) fprintf(log, " %02x", req.data[0]);
  if (op == SSE_OP_I2C_WRITE && req.xfer == SSE_XFER_WORD_DATA) fprintf(log, " %02x", req.data[1]);
  fprintf(log, "\n");
  fclose(log);
}

class device_t {
 public:
  device_t() : m_fd(open((variable("SSE_DIR") + "/" + state().device).c_str(), O_RDWR | O_CLOEXEC)) {}
  ~device_t() {
    if (m_fd >= 0) close(m_fd);
  }
  device_t(const device_t &) = delete;
  device_t &operator=(const device_t &) = delete;

  bool answers() const { return m_fd >= 0; }
  void get(uint8_t *data, size_t size, off_t at) const {
    if (pread(m_fd, data, size, at) != static_cast<ssize_t>(size)) abort();
  }
  void put(const uint8_t *data, size_t size, off_t at) const {
    if (pwrite(m_fd, data, size, at) != static_cast<ssize_t>(size)) abort();
  }

 private:
  int m_fd;
};

int32_t write_byte(const device_t &device, uint16_t at, const uint8_t *byte) {
  const long number = state().writes++;
  if (is_number("SSE_INTERRUPT", number)) raise(SIGINT);
  if (is_number("SSE_PULL", number)) state().is_pulled = true;
  if (state().is_pulled || is_number("SSE_FAIL_WRITE", number)) return -ENXIO;
  state().counters[state().device] = static_cast<uint16_t>(at + 1);
  if (!variable("SSE_PROTECTED").empty() || is_number("SSE_DEAD_CELL", at)) return 0;
  device.put(byte, 1, at);
  return 0;
}

int32_t eeprom(const device_t &device, uint32_t op, const sse_req_t &req) {
  uint16_t &counter = state().counters[state().device];
  const auto at = static_cast<uint16_t>(req.cmd << 8 | req.data[0]);
  if (op == SSE_OP_I2C_WRITE && req.xfer == SSE_XFER_WORD_DATA) return write_byte(device, at, &req.data[1]);
  if (op == SSE_OP_I2C_WRITE && req.xfer == SSE_XFER_BYTE_DATA) {
    counter = at;
    return 0;
  }
  if (op != SSE_OP_I2C_READ || req.xfer != SSE_XFER_BYTE) abort();
  if (is_number("SSE_FAIL_READ", state().reads++)) return -ENXIO;
  device.get(req.data, 1, counter++);
  return 1;  // as good as 0
}

// Eight registers.
int32_t expander(const device_t &device, uint32_t op, const sse_req_t &req) {
  if (req.dev_type != SSE_DEV_PCA9539 || req.xfer != SSE_XFER_WORD_DATA || req.cmd > 6 || req.cmd % 2 != 0) abort();
  if (op == SSE_OP_I2C_READ) {
    device.get(req.data, 2, req.cmd);
  } else {
    device.put(req.data, 2, req.cmd);
  }
  return 0;
}

}  // namespace

extern "C" {

[[gnu::visibility("default")]] void sse_route(const char *path, uint32_t addr) {
  char name[64];
  (void)snprintf(name, sizeof name, "%s-%02x", strrchr(path, '/') + 1, addr);
  state().device = name;
}

[[gnu::visibility("default")]] int32_t sse_call(uint32_t op, sse_req_t *req) {
  log_line(op, *req);
  const device_t device;
  if (!device.answers() || state().is_pulled) return -ENXIO;
  return req->dev_type == SSE_DEV_AT24C512 ? eeprom(device, op, *req) : expander(device, op, *req);
}

}  // extern "C"
