#include "post/nvram.h"

#include <stddef.h>
#include <stdio.h>

#include <array>
#include <bit>
#include <span>

#include "platform/mfgd/cmn_lib/diag_util/owner.h"
#include "platform/mfgd/cmn_lib/diag_util/signal_hold.h"
#include "platform/mfgd/cmn_lib/hw_acc/hw_err.h"
#include "platform/mfgd/cmn_lib/hw_acc/mmap/mmap_pci_velto_or.h"
#include "platform/mfgd/cmn_lib/hw_acc/nvram/nvram_acc_velto.h"
#include "platform/mfgd/hw_acc/hwtype_defs.h"
#include "post/dorvan/cards.h"
#include "post/dorvan/pfm_card.h"
#include "post/post_tbl.h"

namespace {

constexpr uint32_t status_failed = 0xFFFFFFFF;
constexpr uint32_t status_no_memory = 6;

constexpr uint16_t pattern = 0xAAAA;
constexpr uint16_t antipattern = 0x5555;

// Driver statuses do not matter here: the data decides.
uint16_t rd(uint32_t inst, uint32_t offset) {
  uint16_t value = 0;
  (void)nvram_rd(inst, offset, &value);
  return value;
}

void wr(uint32_t inst, uint32_t offset, uint16_t value) {
  (void)nvram_wr(inst, offset, value);
}

uint16_t inverse(uint16_t value) {
  return static_cast<uint16_t>(~value);
}

// Reads the word once. Where it differs from the expected one, prints both and returns false.
bool check(uint32_t inst, uint32_t offset, uint16_t expected) {
  const uint16_t actual = rd(inst, offset);
  if (actual == expected) return true;
  memory_error(expected, offset, actual);
  return false;
}

// A one walks over the data lines.
bool data_phase(uint32_t inst) {
  const uint16_t saved = rd(inst, 0);
  for (uint32_t bit = 0; bit < 16; ++bit) {
    const auto walking = static_cast<uint16_t>(1U << bit);
    wr(inst, 0, walking);
    if (check(inst, 0, walking)) continue;
    printf("Failed above Data Bus Walking 1 Test for NVRAM %d address 0x%x\n", inst, 0U);
    return false;
  }
  wr(inst, 0, saved);
  return true;
}

// Byte offsets with one address line set each, from the second line on.
constexpr std::array<uint32_t, 31> line_offsets = [] {
  std::array<uint32_t, 31> offsets{};
  for (uint32_t line = 0; line < offsets.size(); ++line)
    offsets[line] = 2U << line;
  return offsets;
}();

// Those of the lines that the region's address mask has without a gap.
std::span<const uint32_t> lines_of(uint32_t words) {
  return std::span(line_offsets).first(static_cast<size_t>(std::countr_one((words - 1) >> 1)));
}

bool alias_error(uint32_t inst, uint32_t written, uint32_t changed) {
  printf("Writing 0x08%x at addr 0x08%x -> 0x08%x addr alias failure for NVRAM %d\n", uint32_t{antipattern}, written,
         changed, inst);
  return false;
}

// Whether a write at `written` left the pattern everywhere else. The word there is read like the others.
bool check_alias(uint32_t inst, std::span<const uint32_t> lines, uint32_t written) {
  if (!check(inst, 0, pattern)) return alias_error(inst, written, 0);
  for (const uint32_t offset : lines) {
    if (offset == written)
      (void)rd(inst, offset);
    else if (!check(inst, offset, pattern))
      return alias_error(inst, written, offset);
  }
  return true;
}

bool check_lines(uint32_t inst, std::span<const uint32_t> lines) {
  for (const uint32_t offset : lines)
    wr(inst, offset, pattern);
  wr(inst, 0, antipattern);
  for (const uint32_t offset : lines) {
    if (check(inst, offset, pattern)) continue;
    printf("Failed above Addr Bus Walking 1 Test for NVRAM %d, address 0x%x\n", inst, offset);
    return false;
  }
  wr(inst, 0, pattern);
  for (const uint32_t offset : lines) {
    wr(inst, offset, antipattern);
    if (!check_alias(inst, lines, offset)) return false;
    wr(inst, offset, pattern);
  }
  return true;
}

// A one walks over the address lines. What it changed is written back when it passes; otherwise the caller does.
bool address_phase(uint32_t inst, uint32_t words) {
  const std::span<const uint32_t> lines = lines_of(words);
  const auto saved = malloc_array<uint16_t>(lines.size() + 1);
  if (!saved) return false;
  saved[0] = rd(inst, 0);
  for (size_t i = 0; i < lines.size(); ++i)
    saved[i + 1] = rd(inst, lines[i]);
  if (lines.empty()) {
    wr(inst, 0, antipattern);
    wr(inst, 0, pattern);
  } else if (!check_lines(inst, lines)) {
    return false;
  }
  wr(inst, 0, saved[0]);
  for (size_t i = 0; i < lines.size(); ++i)
    wr(inst, lines[i], saved[i + 1]);
  return true;
}

// The pattern that belongs to a byte offset: 1, 2, 3, ... from word to word.
uint16_t counted(uint32_t offset) {
  return static_cast<uint16_t>(offset / 2 + 1);
}

// Fills the lower half of the region with a count, then with its inverse.
bool pattern_phase(uint32_t inst, uint32_t words) {
  for (uint32_t offset = 0; offset < words; offset += 2)
    wr(inst, offset, counted(offset));
  for (uint32_t offset = 0; offset < words; offset += 2) {
    if (!check(inst, offset, counted(offset))) {
      printf("Failed above increment data pattern test for NVRAM %d\n", inst);
      return false;
    }
    wr(inst, offset, inverse(counted(offset)));
  }
  for (uint32_t offset = 0; offset < words; offset += 2) {
    if (check(inst, offset, inverse(counted(offset)))) continue;
    printf("Failed above inverted data pattern test for NVRAM %d\n", inst);
    return false;
  }
  return true;
}

uint32_t test_instance(uint32_t inst) {
  uint32_t base = 0;
  uint32_t length = 0;
  const uint32_t rc = mmap_get_map_pci(HWTYPE_PLX_PCI, 0, 0x18 + 4 * inst, &base, &length);
  if (rc != HW_SUCCESS) {
    printf("Failed to find the region of NVRAM %d: rc %u (%s)\n", inst, rc, hw_err_to_str(rc));
    return status_failed;
  }
  const uint32_t words = length / 2;
  if (words == 0) return 0;
  const uint32_t to_save = words + length % 2;  // every word that begins in the region
  const auto saved = malloc_array<uint16_t>(to_save);
  if (!saved) return status_no_memory;
  for (uint32_t i = 0; i < to_save; ++i)
    saved[i] = rd(inst, 2 * i);
  const signal_hold::scope until_restored;
  const bool passed = data_phase(inst) && address_phase(inst, words) && pattern_phase(inst, words);
  for (uint32_t i = 0; i < to_save; ++i)
    wr(inst, 2 * i, saved[i]);
  return passed ? 0 : status_failed;
}

static_assert(std::ranges::max(dorvan_cards, {}, &dorvan_card_t::nvram_instances).nvram_instances <=
              RTC_NVRAM_INST_MAX);

// How many of the instances the card's test covers: all of them on an unknown card.
uint32_t instances_of(uint16_t card_index) {
  const dorvan_card_t *const card = dorvan_card(card_index);
  return card != nullptr ? card->nvram_instances : RTC_NVRAM_INST_MAX;
}

}  // namespace

void memory_error(uint16_t expected, uint32_t offset, uint16_t actual) {
  printf("0x%08x: Expected 0x%x Actual 0x%x\n", offset, uint32_t{expected}, uint32_t{actual});
}

uint32_t mem_test_nvram() {
  uint16_t card_index = PFM_CARD_UNKNOWN;
  const uint32_t rc = pfm_get_card_index(&card_index);
  if (rc != 0) return rc;
  uint32_t status = 0;
  for (uint32_t inst = 0; inst < instances_of(card_index); ++inst) {
    const uint32_t inst_status = test_instance(inst);
    if (inst_status == status_no_memory) return inst_status;
    if (inst_status != 0) status = inst_status;
  }
  return status;
}

uint32_t dorvan_nvram_test(uint32_t /*reserved*/, uint32_t *result, uint32_t /*device*/, uint32_t * /*scratch*/) {
  const uint32_t status = mem_test_nvram();
  *result = post_result_of(status);
  return status;
}
