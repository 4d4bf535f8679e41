#include "lab/explain/nvram_test.h"

#include <cstdarg>
#include <cstdio>

#include "models/cells.h"
#include "platform/mfgd/cmn_lib/hw_acc/hw_err.h"
#include "platform/mfgd/cmn_lib/hw_acc/mmap/mmap_pci_velto_or.h"
#include "platform/mfgd/cmn_lib/hw_acc/nvram/nvram_acc_velto.h"
#include "post/dorvan/cards.h"
#include "post/dorvan/pfm_card.h"
#include "post/nvram.h"

namespace lab {
namespace {

constexpr uint32_t every_word = UINT32_MAX;

// The memory that this thread's test runs on.
struct memory_under_test {
  memory_under_test(const nvram_defect &what, const nvram_contents &contents, std::vector<nvram_access> *accesses)
      : defect(what), record(accesses) {
    for (uint32_t offset = 0; offset < nvram_bytes; offset += 2)
      models::word_set(bytes, offset, contents.fill);
    for (const auto &word : contents.words)
      models::word_set(bytes, word.offset, word.value);
    if (what.fault == nullptr) return;
    chip = models::nvram(models::memory(bytes), {what.fault, 1});
    const bool cell = models::is_cell_fault(what.fault->id);
    first = cell ? what.fault->offset & ~1U : every_word;
    second = cell && models::is_coupling_fault(what.fault->id) ? what.fault->victim & ~1U : first;
  }

  // Other words behave as in a good memory.
  [[nodiscard]] bool is_bad(uint32_t offset) const {
    return defect.fault != nullptr && (first == every_word || offset == first || offset == second);
  }

  uint16_t read(uint32_t offset) {
    uint16_t value = is_bad(offset) ? chip.read(offset) : models::word_get(bytes, offset);
    if (defect.silent) value = 0xFFFF;
    if (reads++ == defect.bad_read) value ^= defect.inverted;
    if (record != nullptr) record->push_back({offset, false, value});
    return value;
  }

  void write(uint32_t offset, uint16_t value) {
    if (record != nullptr) record->push_back({offset, true, value});
    if (is_bad(offset)) return chip.write(offset, value);
    models::word_set(bytes, offset, value);
  }

  const nvram_defect &defect;
  std::vector<nvram_access> *record;
  std::vector<uint8_t> bytes = std::vector<uint8_t>(nvram_bytes);
  models::nvram chip;
  uint32_t first = 0;
  uint32_t second = 0;
  size_t reads = 0;
  std::string printed;
};

thread_local memory_under_test *under_test = nullptr;

// What a print of the test becomes; other prints of this program go their way.
__attribute__((format(printf, 1, 0))) int print(const char *format, va_list values) {
  if (under_test == nullptr) return std::vfprintf(stdout, format, values);
  char text[512];
  const int length = std::vsnprintf(text, sizeof text, format, values);
  under_test->printed += text;
  return length;
}

}  // namespace

std::string run_nvram_test(const nvram_defect &defect, const nvram_contents &contents,
                           std::vector<nvram_access> *record) {
  memory_under_test memory(defect, contents, record);
  under_test = &memory;
  (void)mem_test_nvram();
  under_test = nullptr;
  return std::move(memory.printed);
}

}  // namespace lab

// What the test calls: the driver, the region, the card and the C library's printing.
extern "C" {

uint32_t nvram_rd(uint32_t /*Inst*/, uint32_t offset, uint16_t *val) {
  *val = lab::under_test->read(offset);
  return HW_SUCCESS;
}

uint32_t nvram_wr(uint32_t /*Inst*/, uint32_t offset, uint16_t val) {
  lab::under_test->write(offset, val);
  return HW_SUCCESS;
}

uint32_t mmap_get_map_pci(uint32_t /*hwtype*/, uint32_t /*inst*/, uint32_t /*bar*/, uint32_t *base, uint32_t *len) {
  *base = 0;
  *len = lab::nvram_bytes;
  return HW_SUCCESS;
}

const char *hw_err_to_str(uint32_t /*code*/) {
  return "";
}

// A card with one instance.
uint32_t pfm_get_card_index(uint16_t *card_index) {
  *card_index = std::ranges::find(dorvan_cards, 1U, &dorvan_card_t::nvram_instances)->card_index;
  return 0;
}

// The linker leads the test's calls of printf here (--wrap).
int __wrap_printf(const char *format, ...) __attribute__((format(printf, 1, 2)));
int __wrap___printf_chk(int flag, const char *format, ...) __attribute__((format(printf, 2, 3)));
int __wrap___vprintf_chk(int flag, const char *format, va_list values) __attribute__((format(printf, 2, 0)));

int __wrap_printf(const char *format, ...) {
  va_list values;
  va_start(values, format);
  const int length = lab::print(format, values);
  va_end(values);
  return length;
}

int __wrap___printf_chk(int /*flag*/, const char *format, ...) {
  va_list values;
  va_start(values, format);
  const int length = lab::print(format, values);
  va_end(values);
  return length;
}

int __wrap___vprintf_chk(int /*flag*/, const char *format, va_list values) {
  return lab::print(format, values);
}
}
