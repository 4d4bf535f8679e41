// nvram_acc_velto.h: the battery-backed RAM of the real-time clock, 16 bits wide.
//
// Three regions behind base address registers 2, 3 and 4 of the board's PLX PCI 9030 bridge are its instances 0, 1 and
// 2. Each access is a lock between processes, one bus cycle, and the release: a read followed by a write of the same
// word is two locked operations.
#pragma once

#include <stdint.h>

#define RTC_NVRAM_DEV_NAME "RTC_NVRAM"

enum : uint32_t { RTC_NVRAM_INST_MAX = 3 };

extern "C" {
// Starts the driver before main. Returns HW_SUCCESS. A driver that cannot start fails a standard assertion after its
// reports.
uint32_t nvram_libinit();

// Finds and maps the regions, all three with the length of the largest. Once it has succeeded, another call only looks
// the regions up again.
// A region of length 0 fails a standard assertion after a message. It must not borrow the length of the others: the
// bridge decodes nothing for it, its base address is not one of NVRAM, and the test would write to what is there, at
// base 0 to main memory.
// Returns HW_SUCCESS, HW_ERR_MALLOC, or the status of the look-up or mapping that failed, which was reported. Nothing
// is mapped when a look-up fails.
[[nodiscard]] uint32_t nvram_sw_init();

// Reads or writes the word at byte `offset` of instance `Inst`; neither is checked.
//   val  receives the word; some value also when the read fails
// Returns HW_SUCCESS, or the access's status after its reports. An access before nvram_sw_init fails a standard
// assertion.
uint32_t nvram_rd(uint32_t Inst, uint32_t offset, uint16_t *val);
uint32_t nvram_wr(uint32_t Inst, uint32_t offset, uint16_t val);

// The accesses without the lock. *val receives all that the access method delivers.
[[nodiscard]] uint32_t _nvram_rd(uint32_t Inst, uint32_t offset, uint32_t *val);
[[nodiscard]] uint32_t _nvram_wr(uint32_t Inst, uint32_t offset, uint16_t val);

// Unmaps the regions; the driver is of no use afterwards. Returns HW_SUCCESS.
uint32_t nvram_sw_finish();
}
