// sprom.h: the records through which every SPROM is reached, and the image kinds.
#pragma once

#include <stdint.h>

// Image kinds, sprom_t::type.
enum : uint32_t {
  SPROM_TYPE_SUP = 1,   // supervisor
  SPROM_TYPE_BP = 2,    // backplane
  SPROM_TYPE_LC = 3,    // line card or module
  SPROM_TYPE_PS = 4,    // power supply
  SPROM_TYPE_DIMM = 5,  // no layout in this library
  SPROM_TYPE_FAN = 6,   // fan; has a layout, but no image size
};

// Board families. Other numbers mean none.
enum : uint32_t {
  SPROM_PLATFORM_PELLIN = 0,
  SPROM_PLATFORM_TOSK = 2,
};

extern "C" {
// One I2C device, EEPROM or I/O expander.
struct smb_dev_t {
  char path[36];      // bus device path, NUL-padded
  uint32_t addr;      // 7-bit I2C address
  uint32_t base;      // offset of the SPROM image within the device, bytes
  uint32_t addr_len;  // bytes of the device's internal address; only for the service: requests always carry two
  uint32_t data_len;  // bytes of one data item; descriptive, not consulted
  uint32_t flags;     // 0; not consulted
};

// Reads `length` bytes from device offset `offset` to buf, or writes them. Negative on failure.
using smb_rd_t = int32_t (*)(const smb_dev_t *dev, uint32_t offset, uint32_t length, void *buf);
using smb_wr_t = int32_t (*)(const smb_dev_t *dev, uint32_t offset, uint32_t length, const void *buf);

// How one device is reached.
struct smb_acc_t {
  const smb_dev_t *dev;
  smb_rd_t smb_rd;
  smb_wr_t smb_wr;
};

// Write-protect hook. The library does not look at its result; a hook without a result of its own returns 0.
using sprom_hook_t = int32_t (*)(void);

// One SPROM. The descriptors are tables; only `valid` and what `buf` points to change at run time.
struct sprom_t {
  const smb_acc_t *smb_acc;
  sprom_hook_t we;   // write enable: lifts the hardware write protection; may be null
  sprom_hook_t wd;   // write disable: restores it; may be null
  const char *name;  // label, such as "SUPERVISOR"
  uint32_t type;     // SPROM_TYPE_*
  uint32_t valid;    // 1 while buf holds the image in host order
  uint8_t *buf;      // image cache of at least the image size, or null
};
}

static_assert(sizeof(smb_dev_t) == 56);
static_assert(sizeof(void *) != 4 || (sizeof(smb_acc_t) == 12 && sizeof(sprom_t) == 28));
