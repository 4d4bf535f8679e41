// device.h: a memory on the local bus: found in the kernel's list of PCI functions, claimed by its driver's locks and
// mapped. Nothing here ends the program: what POST's start-up cannot do without is looked at first and reported.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "locate/finding.h"
#include "locate/settings.h"
#include "models/nor_flash.h"
#include "platform/mfgd/cmn_lib/hw_acc/hw_acc.h"
#include "platform/mfgd/cmn_lib/hw_acc/mmap/mmap_acc.h"
#include "platform/mfgd/cmn_lib/hw_acc/mmap/mmap_pci_velto_or.h"
#include "platform/mfgd/cmn_lib/hw_acc/nvram/nvram_acc_velto.h"
#include "platform/mfgd/cmn_lib/hw_acc/obfl/obfl_acc.h"

namespace locate {

// A memory behind one of the bridge's base address registers.
struct memory_row {
  const char *part;     // "nvram0"; also the word of its lock in the fault table
  const char *driver;   // whose locks it has
  unsigned instance;    // of the driver
  unsigned bar;         // 0 to 5
  uint32_t max_length;  // bytes; of a longer region only these are used
};

// clang-format off
inline constexpr std::array<memory_row, 4> memories{{
    // part     driver               instance bar longest
    {"nvram0", RTC_NVRAM_DEV_NAME,  0, 2, 0x8000},
    {"nvram1", RTC_NVRAM_DEV_NAME,  1, 3, 0x8000},
    {"nvram2", RTC_NVRAM_DEV_NAME,  2, 4, 0x8000},
    {"flash",  OBFL_FLASH_DEV_NAME, 0, 5, models::flash_bytes},
}};
// clang-format on
inline constexpr const memory_row &flash_row = memories.back();

// Low bits of a base address register (PCI Local Bus Specification 3.0, section 6.2.5.1).
enum : uint32_t { bar_is_io = 0x1, bar_is_64bit = 0x4, bar_flags = 0xF };

// Words on a bus; what is measured goes through these two cycles.
class word_bus {
 public:
  word_bus() = default;
  word_bus(const word_bus &) = delete;
  word_bus &operator=(const word_bus &) = delete;
  virtual ~word_bus() = default;

  // One bus cycle of 16 bits at an even byte offset.
  [[nodiscard]] virtual uint16_t read(uint32_t offset) = 0;
  virtual void write(uint32_t offset, uint16_t word) = 0;

  [[nodiscard]] virtual uint32_t length() const = 0;  // bytes, a power of two
};

// The kernel's list of PCI functions. Returns whether it can be read; if not, *result has why.
[[nodiscard]] bool list_functions(std::vector<pci_dev_line_t> *lines, part_result *result);
// The bridge's line of it. Returns whether it is there; if not, *result has why.
[[nodiscard]] bool find_bridge(pci_dev_line_t *bridge, part_result *result);
// The driver's locks: one for readers and one for writers.
//   kind  "read" or "write"
[[nodiscard]] std::string lock_name(const memory_row &row, const char *kind);
// The process that has the lock of a file, as "process 42 (post)"; "" for none.
[[nodiscard]] std::string lock_holder(int fd);

class device : public word_bus {
 public:
  // Unmaps it and drops the locks.
  ~device() override;

  // Finds the memory, takes its locks against other processes, waiting `how.wait_ms` at most, and maps it. Returns
  // whether it can be accessed; if not, *result has why.
  [[nodiscard]] bool open(const memory_row &row, const settings &how, part_result *result);

  [[nodiscard]] uint16_t read(uint32_t offset) override;
  void write(uint32_t offset, uint16_t word) override;
  [[nodiscard]] uint32_t length() const override { return m_length; }
  [[nodiscard]] uint64_t accesses() const { return m_accesses; }

 private:
  [[nodiscard]] bool find(const memory_row &row, uint32_t *base, part_result *result);
  [[nodiscard]] bool claim(const memory_row &row, const settings &how, part_result *result);
  [[nodiscard]] bool map(const memory_row &row, uint32_t base, part_result *result);

  hw_acc_cb_t m_access{};
  mmap_info_t m_info{};  // of one instance
  bool m_mapped = false;
  std::array<int32_t, 2> m_locks{-1, -1};
  uint32_t m_length = 0;
  uint64_t m_accesses = 0;
};

}  // namespace locate
