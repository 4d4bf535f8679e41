// service.h: what stands between the library and the I2C service of libutils.so.
//
// The service is loaded when a bus is first asked for, so that image files are at hand on machines without it. Each
// transaction is counted, and told where steps are to be told.
#pragma once

#include <stdint.h>

namespace tool {

// Whether the service can be told the device of a request (sse_route). One that cannot goes by identities, of which
// several devices share one, and sends two address bytes to every EEPROM.
[[nodiscard]] bool service_has_routing();

// How many transactions have succeeded so far.
[[nodiscard]] uint32_t service_done();

}  // namespace tool
