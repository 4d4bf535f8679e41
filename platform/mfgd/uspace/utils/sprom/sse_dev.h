// sse_dev.h: I2C service transactions with the device of a record; for the drivers of this directory.
//
// The service's identities are coarser than the records: several device paths share one. A service that can take the
// record's own bus and address is told them beforehand; one that has no sse_route goes by the identity alone.
#pragma once

#include <string.h>

#include <span>
#include <string_view>

#include "platform/libutils/sse.h"
#include "platform/mfgd/uspace/utils/sprom/sprom.h"

extern "C" [[gnu::weak]] void sse_route(const char *path, uint32_t addr);

// An expander's identity within its device kind.
struct sse_expander_t {
  uint32_t addr;
  const char *path;  // null for any
  uint8_t instance;
};

// Whether the record's device path is exactly `path`.
[[nodiscard]] inline bool smb_path_is(const smb_dev_t *dev, std::string_view path) {
  return std::string_view{dev->path, strnlen(dev->path, sizeof dev->path)} == path;
}

// The first row that fits the record, or null if there is none.
[[nodiscard]] inline const sse_expander_t *sse_find_expander(std::span<const sse_expander_t> rows,
                                                             const smb_dev_t *dev) {
  for (const sse_expander_t &row : rows) {
    if (row.addr == dev->addr && (row.path == nullptr || smb_path_is(dev, row.path))) return &row;
  }
  return nullptr;
}

// Makes the transaction *req with the device *dev. Returns the service's result unchanged.
[[nodiscard]] inline int32_t sse_call_dev(const smb_dev_t *dev, uint32_t op, sse_req_t *req) {
  if (sse_route != nullptr) sse_route(dev->path, dev->addr);
  return sse_call(op, req);
}
