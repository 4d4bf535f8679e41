// obfl_acc.h: the on-board failure logging flash, a 64 MiB parallel NOR flash with a 16-bit data bus.
//
// The flash speaks the AMD command set and answers the JEDEC Common Flash Interface query (JESD68.01). It has 512
// sectors of 65536 words; programming goes through a write buffer that takes one page of 16 words at a time and can
// only clear bits, so a sector is erased before it is written. There is one flash, instance 0.
//
// Every erase and every page program holds the write lock from its first bus cycle until the flash is ready, every read
// call holds the read lock; get_timeout_val takes none. Argument and address checks are diagnostic assertions.
//
// After HW_ERR_TIMEOUT the flash is as it was at the last poll; the driver does not reset it. Of that sector or page
// the contents are not defined. A chip still at work (DQ5 clear) answers every read with its status and ignores
// commands until it is ready by itself. One that has given up (DQ5 set, as the message says) does so until it is reset:
// no later call succeeds before that.
#pragma once

#include <stddef.h>
#include <stdint.h>

#define OBFL_FLASH_DEV_NAME "OBFL_Flash"

enum : uint32_t {
  OBFL_INST_MAX = 1,
  OBFL_WORD_SIZE = 2,         // bytes of one access
  OBFL_WRITE_PAGE_SIZE = 32,  // bytes of one write-buffer page
  OBFL_SECTOR_SIZE = 0x20000,
  OBFL_PAGE_WORDS = OBFL_WRITE_PAGE_SIZE / OBFL_WORD_SIZE,
  OBFL_SECTOR_WORDS = OBFL_SECTOR_SIZE / OBFL_WORD_SIZE,
  OBFL_SECTOR_PAGES = OBFL_SECTOR_SIZE / OBFL_WRITE_PAGE_SIZE,
};

// The only wait of an operation whose typical time is 0 or does not fit 32 bits in microseconds: such a time comes from
// a flash that does not answer its query. About what flashes of this family need.
enum : uint32_t {
  OBFL_ERASE_FALLBACK_US = 512000,
  OBFL_WRITE_FALLBACK_US = 512,  // of a page program
};

extern "C" {
// A byte offset into the flash. A sector address is one whose so.offset is 0.
union obfl_addr_t {
  uint32_t addr;
  struct {
    uint32_t offset : 17;  // byte within the sector
    uint32_t sector : 9;
    uint32_t mbz : 6;  // must be zero
  } so;
  union {
    struct {
      uint32_t mbz : 1;  // must be zero: words are aligned
      uint32_t word : 4;
    } wr;
    __extension__ struct {
      uint32_t : 5;        // wr
      uint32_t page : 12;  // write page within the sector
      uint32_t sector : 9;
      uint32_t mbz : 6;
    };
  } pw;
};

// Times of the flash, from get_timeout_val.
struct obfl_timeout_t {
  uint32_t typ_erase_ms;
  uint32_t max_erase_ms;
  uint32_t typ_wr_us;  // one page
  uint32_t max_wr_us;
};

// Starts the driver before main. Returns HW_SUCCESS. A driver that cannot start fails a diagnostic assertion after its
// reports.
uint32_t obfl_libinit();

// Finds the flash behind the last base address register of the board's PLX PCI 9030 bridge and maps it. Does nothing
// once that has succeeded. A region of length 0 fails a standard assertion after a message.
// Returns HW_SUCCESS, HW_ERR_MALLOC, or the status of the look-up or mapping that failed, which was reported. Nothing
// is mapped when the look-up fails.
[[nodiscard]] uint32_t obfl_sw_init();

// Unmaps the flash; the driver is of no use afterwards. Returns HW_SUCCESS.
uint32_t obfl_sw_finish();

// Reads the flash's times from its query table and leaves it in read mode. `inst` is not checked.
// Times are the low 32 bits of 2^n: 0 where that is 2^32 or more.
[[nodiscard]] obfl_timeout_t get_timeout_val(uint32_t inst);

// The address of the sector that holds `addr`, which must be a word's (asserted).
[[nodiscard]] obfl_addr_t obfl_get_sector_addr(obfl_addr_t addr);

// Erase, write or read the sector at `sector_addr`.
//   src  65536 words; the sector must have been erased
//   dst  receives 65536 words
// Return HW_SUCCESS, or HW_ERR_TIMEOUT after a message when the flash is still busy at the end of its maximum time. An
// erase may have erased any part of the sector by then. A write ends at the first page that fails; earlier ones stay
// written, later ones erased.
[[nodiscard]] uint32_t obfl_sector_erase(uint32_t inst, obfl_addr_t sector_addr, obfl_timeout_t timeout);
[[nodiscard]] uint32_t obfl_sector_wr(uint32_t inst, obfl_addr_t sector_addr, const uint16_t *src,
                                      obfl_timeout_t timeout);
void obfl_sector_rd(uint32_t inst, obfl_addr_t sector_addr, uint16_t *dst);

// Writes wr_data[i] at wr_addr[i], in order, for i below n_cpt, which must not be 0. Neighbouring entries of one page,
// at most 16, are programmed together. `inst` is not checked, each address just before its use.
// Returns HW_SUCCESS, or HW_ERR_TIMEOUT after a message, with which the call ends; what was written before stays.
[[nodiscard]] uint32_t obfl_wr_array(uint32_t inst, uint32_t n_cpt, const obfl_addr_t *wr_addr, const uint16_t *wr_data,
                                     obfl_timeout_t timeout);

// Reads the word at rd_addr[i] into rd_data[i], in order, for i below `count`, which may be 0. Each address is checked
// just before it is read.
void obfl_rd_array(uint32_t inst, uint32_t count, const obfl_addr_t *rd_addr, uint16_t *rd_data);

// The same for one word.
[[nodiscard]] uint32_t obfl_wr_word(uint32_t inst, obfl_addr_t wr_addr, uint16_t wr_data, obfl_timeout_t timeout);
void obfl_rd_word(uint32_t inst, obfl_addr_t rd_addr, uint16_t *rd_data);

// Steps. None but _obfl_wr_page takes a lock.

// One bus cycle at a byte offset. _obfl_wr returns the access's status.
uint32_t _obfl_wr(uint32_t inst, uint32_t offset, uint16_t data);
void _obfl_rd(uint32_t inst, uint32_t offset, uint16_t *data);

// Programs up to 16 words of one page of the sector at `sector_addr`; nothing for none. Returns as obfl_wr_array.
[[nodiscard]] uint32_t _obfl_wr_page(uint32_t inst, obfl_addr_t sector_addr, const obfl_addr_t *wr_addr,
                                     const uint16_t *wr_data, uint32_t word_count, obfl_timeout_t timeout);

// Wait until the operation that runs at `addr` has ended. Polls come a typical time apart, the first one as long after
// the call, and as many are made as typical times fit into the maximum, at least one. Without a usable typical time
// there is one, after OBFL_ERASE_FALLBACK_US or OBFL_WRITE_FALLBACK_US.
// Return HW_SUCCESS, or HW_ERR_TIMEOUT after a message.
[[nodiscard]] uint32_t _obfl_erase_wait(uint32_t inst, obfl_addr_t addr, obfl_timeout_t timeout);
[[nodiscard]] uint32_t _obfl_write_wait(uint32_t inst, obfl_addr_t addr, obfl_timeout_t timeout);
}

static_assert(sizeof(obfl_addr_t) == 4);
static_assert(sizeof(obfl_timeout_t) == 16);
