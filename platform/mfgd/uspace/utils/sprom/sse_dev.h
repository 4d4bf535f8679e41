// sse_dev.h: I2C service transactions with the device of a record; for the drivers of this directory.
//
// The service's identities are coarser than the records: several device paths share one, and none says how many bytes a
// device's address has. A service with sse_route gets them from the record first; one that has no sse_route
// uses only the identity.
#pragma once

#include <string.h>

#include <array>
#include <span>
#include <string_view>

#include "platform/libutils/sse.h"
#include "platform/mfgd/uspace/utils/sprom/sprom.h"

// Not every service has it.
// NOLINTNEXTLINE(readability-redundant-declaration): the one of its header is not weak
extern "C" [[gnu::weak]] void sse_route(const char *path, uint32_t addr, uint32_t addr_len);

// A device as requests name it.
struct sse_identity_t {
  uint32_t dev_type;  // SSE_DEV_*
  uint8_t unit;
  uint8_t instance;
  bool operator==(const sse_identity_t &) const = default;
};

// What a device kind's identities follow from.
struct sse_row_t {
  uint32_t addr;     // 0 for any
  const char *path;  // null for any
  sse_identity_t identity;
};

// clang-format off
// First match wins.
inline constexpr std::array<sse_row_t, 4> sse_eeproms{{
    // addr  path            dev_type           unit instance
    {0,      "/dev/i2c-1",  {SSE_DEV_AT24C512,  0,   0}},
    {0,      "/dev/i2c-17", {SSE_DEV_AT24C512,  0,   1}},
    {0,      "/dev/i2c-23", {SSE_DEV_AT24C512,  1,   0}},
    {0,      nullptr,       {SSE_DEV_AT24C512,  2,   0}},
}};
inline constexpr std::array<sse_row_t, 10> sse_pca9539s{{
    {0x74,   "/dev/i2c-4",  {SSE_DEV_PCA9539,   0,   0}},
    {0x74,   nullptr,       {SSE_DEV_PCA9539,   0,   4}},
    {0x75,   "/dev/i2c-4",  {SSE_DEV_PCA9539,   0,   1}},
    {0x75,   "/dev/i2c-8",  {SSE_DEV_PCA9539,   0,   3}},
    {0x75,   "/dev/i2c-24", {SSE_DEV_PCA9539,   0,   7}},
    {0x75,   nullptr,       {SSE_DEV_PCA9539,   0,   5}},
    {0x76,   "/dev/i2c-4",  {SSE_DEV_PCA9539,   0,   2}},
    {0x76,   "/dev/i2c-8",  {SSE_DEV_PCA9539,   0,   8}},
    {0x76,   "/dev/i2c-24", {SSE_DEV_PCA9539,   0,   9}},
    {0x76,   nullptr,       {SSE_DEV_PCA9539,   0,   6}},
}};
inline constexpr std::array<sse_row_t, 6> sse_pca8575s{{
    {0x26,   "/dev/i2c-4",  {SSE_DEV_PCA8575,   0,   0}},
    {0x26,   "/dev/i2c-8",  {SSE_DEV_PCA8575,   0,   1}},
    {0x26,   "/dev/i2c-24", {SSE_DEV_PCA8575,   0,   4}},
    {0x26,   nullptr,       {SSE_DEV_PCA8575,   0,   3}},
    {0x27,   "/dev/i2c-8",  {SSE_DEV_PCA8575,   0,   2}},
    {0x27,   nullptr,       {SSE_DEV_PCA8575,   0,   5}},
}};
// clang-format on

// The identity of a record's device, or null if its kind has none for it.
[[nodiscard]] inline const sse_identity_t *sse_identity_of(std::span<const sse_row_t> rows, const smb_dev_t *dev) {
  const std::string_view path{dev->path, strnlen(dev->path, sizeof dev->path)};
  for (const sse_row_t &row : rows) {
    if ((row.addr == 0 || row.addr == dev->addr) && (row.path == nullptr || row.path == path)) return &row.identity;
  }
  return nullptr;
}

// Makes the transaction *req with the device *dev. Returns the service's result unchanged.
[[nodiscard]] inline int32_t sse_call_dev(const smb_dev_t *dev, uint32_t op, sse_req_t *req) {
  if (sse_route != nullptr) sse_route(dev->path, dev->addr, dev->addr_len);
  return sse_call(op, req);
}
