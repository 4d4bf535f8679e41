// sse_dev.h: I2C service transactions with the device of a record; for the drivers of this directory.
//
// The service's identities are coarser than the records: several device paths share one. A service that can take the
// record's own bus and address is told them beforehand; one that has no sse_route goes by the identity alone.
#pragma once

#include <string.h>

#include <string_view>

#include "platform/mfgd/uspace/utils/sprom/sprom.h"
#include "platform/mfgd/uspace/utils/sprom/sse.h"

extern "C" [[gnu::weak]] void sse_route(const char *path, uint32_t addr);

// Whether the record's device path is exactly `path`.
inline bool smb_path_is(const smb_dev_t *dev, std::string_view path) {
  return std::string_view{dev->path, strnlen(dev->path, sizeof dev->path)} == path;
}

// Makes the transaction *req with the device *dev. Returns the service's result unchanged.
[[nodiscard]] inline int32_t sse_call_dev(const smb_dev_t *dev, uint32_t op, sse_req_t *req) {
  if (sse_route != nullptr) sse_route(dev->path, dev->addr);
  return sse_call(op, req);
}
