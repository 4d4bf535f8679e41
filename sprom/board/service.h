// service.h: the layer between the library and the I2C service of libutils.so.
//
// The service is loaded when a bus is first used, so that image files work on machines without it. Each transaction is
// counted, and printed if steps are to be shown.
#pragma once

#include <stdint.h>

namespace tool {

// Whether there is a service.
[[nodiscard]] bool service_is_there();

// Whether the service takes the device of a request (sse_route). A service that does not uses identities, which several
// devices may share, and sends two address bytes to every EEPROM.
[[nodiscard]] bool service_has_routing();

// Has `gate` called before each transaction with an EEPROM, until it is null: a negative result is the transaction's.
using eeprom_gate_t = int32_t (*)();
void service_before_eeproms(eeprom_gate_t gate);

// How many transactions have succeeded so far.
[[nodiscard]] uint32_t service_done();

}  // namespace tool
