#include "post/obfl.h"

#include <alloca.h>
#include <stdio.h>

#include <array>
#include <bit>

#include "platform/mfgd/cmn_lib/diag_util/owner.h"
#include "platform/mfgd/cmn_lib/diag_util/signal_hold.h"
#include "post/post_tbl.h"

namespace {

constexpr uint32_t obfl_inst = 0;
constexpr uint32_t words_max = 16;

// Every high address line is tested on the sector where only it is set and on the one where only it is clear. The
// last round runs one line past the flash: its numbers end up in sectors 0 and 511.
constexpr uint16_t first_high_sector = 2;
constexpr uint16_t last_high_sector = 512;
constexpr uint16_t last_sector = 511;

obfl_addr_t sector_addr_of(uint16_t sector) {
  obfl_addr_t addr = {};
  addr.so.sector = sector & 0x1FF;
  return addr;
}

obfl_addr_t at(uint16_t sector, uint32_t offset) {
  obfl_addr_t addr = sector_addr_of(sector);
  addr.so.offset = offset & 0x1FFFF;
  return addr;
}

// Sixteen words and where they go.
struct list_t {
  std::array<uint32_t, words_max> offset;
  std::array<uint16_t, words_max> data;
};

template <typename Offset, typename Data>
consteval list_t make_list(Offset offset, Data data) {
  list_t list = {};
  for (uint32_t i = 0; i < words_max; ++i) {
    list.offset[i] = offset(i);
    list.data[i] = static_cast<uint16_t>(data(i));
  }
  return list;
}

// Walking one on write page 0, walking zero on write page 1.
constexpr list_t walking_one = make_list([](uint32_t w) { return 2 * w; }, [](uint32_t w) { return 1U << w; });
constexpr list_t walking_zero = make_list([](uint32_t w) { return 0x20 + 2 * w; },
                                          [](uint32_t w) { return std::rotl(uint16_t{0xFFFE}, static_cast<int>(w)); });

// One offset line set, one offset line clear; words are 16 bits wide, so line 0 is always clear.
constexpr list_t one_set = make_list([](uint32_t b) { return 2U << b; }, [](uint32_t b) { return b; });
constexpr list_t one_clear =
    make_list([](uint32_t b) { return 0x1FFFE & ~(1U << b); }, [](uint32_t b) { return 16 + b; });

// From the erase of a set-up to the end of the clean-up.
constinit signal_hold until_restored;

uint32_t erase_sector(uint32_t inst, uint16_t sector, obfl_timeout_t timeout) {
  if (obfl_sector_erase(inst, sector_addr_of(sector), timeout) == 0) return 0;
  puts("## Error : obfl_sector_erase failed ");
  return OBFL_TEST_ERASE_FAILED;
}

// A null buffer restores nothing: the sector stays erased.
uint32_t restore_sector(uint32_t inst, uint16_t sector, const uint16_t *buffer, obfl_timeout_t timeout) {
  const uint32_t erased = erase_sector(inst, sector, timeout);
  if (erased != 0) return erased;
  if (buffer == nullptr) return 0;
  if (obfl_sector_wr(inst, sector_addr_of(sector), buffer, timeout) == 0) return 0;
  puts("## Error : obfl_sector_wr failed ");
  return OBFL_TEST_WRITE_FAILED;
}

uint32_t test_list(const char *label, uint32_t inst, uint16_t sector, const list_t &list, obfl_timeout_t timeout) {
  std::array<obfl_addr_t, words_max> addr;
  for (uint32_t i = 0; i < words_max; ++i)
    addr[i] = at(sector, list.offset[i]);
  return obfl_test(label, inst, words_max, addr.data(), list.data.data(), timeout);
}

uint32_t run_sector_tests(uint16_t *buffer, obfl_timeout_t timeout) {
  uint32_t status = obfl_sector_test(dataline_test, obfl_inst, 6, buffer, timeout);
  if (status != 0) return status;
  status = obfl_sector_test(addressline_low_test, obfl_inst, 0, buffer, timeout);
  if (status != 0) return status;
  for (uint32_t sector = first_high_sector; sector <= last_high_sector; sector *= 2) {
    const auto one = static_cast<uint16_t>(sector);
    status = obfl_sector_test(addressline_high_test, obfl_inst, one, buffer, timeout);
    if (status != 0) return status;
    const auto zero = static_cast<uint16_t>(last_sector - sector);
    status = obfl_sector_test(addressline_high_test, obfl_inst, zero, buffer, timeout);
    if (status != 0) return status;
  }
  return 0;
}

}  // namespace

uint32_t dorvan_obfl_test(uint32_t /*reserved*/, uint32_t *result, uint32_t /*device*/, uint32_t * /*scratch*/) {
  const uint32_t status = obfl_post_test();
  *result = post_result_of(status);
  return status;
}

uint32_t obfl_post_test() {
  const auto buffer = malloc_array<uint16_t>(OBFL_SECTOR_WORDS);
  if (!buffer) return OBFL_TEST_NO_MEMORY;
  return run_sector_tests(buffer.get(), get_timeout_val(obfl_inst));
}

uint32_t obfl_sector_test(obfl_subtest_t subtest, uint32_t inst, uint16_t sector, uint16_t *buffer,
                          obfl_timeout_t timeout) {
  const uint32_t setup = obfl_sector_setup(inst, sector, buffer, timeout);
  if (setup != 0) return setup;
  const uint32_t tested = subtest(inst, sector, timeout);
  const uint32_t cleanup = obfl_sector_cleanup(inst, sector, buffer, timeout);
  return tested != 0 ? tested : cleanup;
}

uint32_t obfl_sector_setup(uint32_t inst, uint16_t sector, uint16_t *buffer, obfl_timeout_t timeout) {
  if (buffer != nullptr) obfl_sector_rd(inst, sector_addr_of(sector), buffer);
  until_restored.take();
  const uint32_t erased = erase_sector(inst, sector, timeout);
  if (erased != 0) until_restored.release();
  return erased;
}

uint32_t obfl_sector_cleanup(uint32_t inst, uint16_t sector, const uint16_t *buffer, obfl_timeout_t timeout) {
  const uint32_t status = restore_sector(inst, sector, buffer, timeout);
  until_restored.release();
  return status;
}

uint32_t dataline_test(uint32_t inst, uint16_t sector, obfl_timeout_t timeout) {
  const uint32_t status = test_list("Dataline", inst, sector, walking_one, timeout);
  if (status != 0) return status;
  return test_list("Dataline", inst, sector, walking_zero, timeout);
}

uint32_t addressline_low_test(uint32_t inst, uint16_t sector, obfl_timeout_t timeout) {
  const uint32_t status = test_list("Low address lines", inst, sector, one_set, timeout);
  if (status != 0) return status;
  return test_list("Low address lines", inst, sector, one_clear, timeout);
}

uint32_t addressline_high_test(uint32_t inst, uint16_t sector, obfl_timeout_t timeout) {
  const obfl_addr_t addr = at(sector, 0xCAFE);
  return obfl_test("High address lines", inst, 1, &addr, &sector, timeout);
}

uint32_t obfl_test(const char * /*label*/, uint32_t inst, uint32_t n, const obfl_addr_t *addr, const uint16_t *data,
                   obfl_timeout_t timeout) {
  if (obfl_wr_array(inst, n, addr, data, timeout) != 0) {
    puts("## Error:obfl_wr_array failed");
    return OBFL_TEST_WRITE_FAILED;
  }
  // On the stack: once the words are in the flash, no lack of memory may keep them from being compared.
  auto *const read = static_cast<uint16_t *>(alloca(n * sizeof(uint16_t)));
  obfl_rd_array(inst, n, addr, read);
  for (uint32_t i = 0; i < n; ++i) {
    if (read[i] == data[i]) continue;
    const uint32_t failed_bits = uint32_t{data[i]} ^ read[i];
    printf("## Error: Addr 0x%08x, data 0x%08x : failed\n", addr[i].addr, data[i]);
    printf("Read 0x%08x, failed bits 0x%08x\n", read[i], failed_bits);
    return OBFL_TEST_READ_FAILED;
  }
  return 0;
}
