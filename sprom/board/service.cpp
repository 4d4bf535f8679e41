#include "sprom/board/service.h"

#include <dlfcn.h>
#include <errno.h>

#include <optional>
#include <string>

#include "platform/mfgd/uspace/utils/sprom/sse_dev.h"
#include "sprom/base/output.h"
#include "sprom/board/board.h"
#include "sprom/image/fields.h"

namespace tool {
namespace {

struct service_t {
  decltype(&sse_call) call;    // null if there is no service
  decltype(&sse_route) route;  // null if it has none
};

service_t load() {
  void *const library = dlopen("libutils.so", RTLD_NOW);
  const auto call = library == nullptr ? nullptr : reinterpret_cast<decltype(&sse_call)>(dlsym(library, "sse_call"));
  if (call == nullptr) {
    complain("no I2C service: %s", dlerror());
    return {};
  }
  return {call, reinterpret_cast<decltype(&sse_route)>(dlsym(library, "sse_route"))};
}

constinit std::optional<service_t> loaded;

const service_t &service() {
  if (!loaded) loaded = load();
  return *loaded;
}

constinit uint32_t done = 0;
constinit eeprom_gate_t eeprom_gate = nullptr;
std::string device;  // of the next transaction, for messages

std::string bytes_of(const sse_req_t &req) {
  const std::span data{req.data, req.xfer == SSE_XFER_WORD_DATA ? 2U : 1U};
  const auto command = static_cast<uint8_t>(req.cmd);
  std::string bytes;
  if (req.xfer != SSE_XFER_BYTE) bytes = hex_bytes({&command, 1}, "") + " ";
  return bytes + hex_bytes(data, " ");
}

// The caller who reads reports the bytes of an EEPROM's read, by their number.
void tell(uint32_t op, const sse_req_t &req, int32_t result) {
  const bool is_read = op == SSE_OP_I2C_READ;
  if (!are_steps_told() || (is_read && req.xfer == SSE_XFER_BYTE && result >= 0)) return;
  std::string step = device + (is_read ? ": read" : ": write");
  if (!is_read || result >= 0) step += " " + bytes_of(req);
  if (result < 0) step += ": " + error_text(result);
  tell_step("%s", step.c_str());
}

}  // namespace

bool service_is_there() {
  return service().call != nullptr;
}

bool service_has_routing() {
  return service().route != nullptr;
}

void service_before_eeproms(eeprom_gate_t gate) {
  eeprom_gate = gate;
}

uint32_t service_done() {
  return done;
}

}  // namespace tool

// The library's calls of the service come here.
extern "C" {

int32_t sse_call(uint32_t op, sse_req_t *req) {
  const auto call = tool::service().call;
  if (call == nullptr) return -ELIBACC;
  if (req->dev_type == SSE_DEV_AT24C512 && tool::eeprom_gate != nullptr) {
    if (const int32_t refused = tool::eeprom_gate(); refused < 0) return refused;
  }
  const int32_t result = call(op, req);
  if (result >= 0) ++tool::done;
  tool::tell(op, *req, result);
  return result;
}

void sse_route(const char *path, uint32_t addr, uint32_t addr_len) {
  tool::device = tool::device_text(path, addr);
  if (tool::service().route != nullptr) tool::service().route(path, addr, addr_len);
}

}  // extern "C"
