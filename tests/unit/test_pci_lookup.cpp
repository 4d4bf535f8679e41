// Finding a hardware type's registers in the kernel's list of PCI functions.
#include <gtest/gtest.h>

#include <array>
#include <cstdio>
#include <string>

#include "platform/mfgd/cmn_lib/diag_util/diag_dbg.h"
#include "platform/mfgd/cmn_lib/hw_acc/hw_err.h"
#include "platform/mfgd/cmn_lib/hw_acc/mmap/mmap_pci_velto_or.h"
#include "platform/mfgd/hw_acc/hwtype_defs.h"
#include "tests/unit/fake_os.h"
#include "tests/unit/host.h"

namespace {

using columns = std::array<uint64_t, 7>;

std::string line(uint32_t busdevfn, uint32_t vendor_device, const columns &base = {}, const columns &size = {},
                 const char *tail = "\n") {
  std::array<char, 512> text{};
  (void)snprintf(text.data(), text.size(), "%04x\t%08x\t%x", busdevfn, vendor_device, 0x10);
  std::string result = text.data();
  for (const columns &group : {base, size}) {
    for (const uint64_t value : group) {
      (void)snprintf(text.data(), text.size(), "\t%16llx", static_cast<unsigned long long>(value));
      result += text.data();
    }
  }
  return result + tail;
}

constexpr uint32_t plx = 0x10B59030;
constexpr uint32_t mac = 0x8086105E;

class pci_lookup : public testing::Test {
 protected:
  pci_lookup() { fake_os = {}; }

  uint32_t lookup(uint32_t hwtype, uint32_t inst, uint32_t bar) {
    base = 0x11111111;
    len = 0x22222222;
    uint32_t rc = 0;
    messages = hooks_of([&] { rc = mmap_get_map_pci(hwtype, inst, bar, &base, &len); });
    return rc;
  }

  uint32_t base = 0;
  uint32_t len = 0;
  std::vector<hook_line> messages;
};

TEST_F(pci_lookup, takes_base_and_length_of_the_bar) {
  fake_os.pci_devices = line(0x0010, 0x80861234) +
                        line(0x2E00, plx, {0x9000007F, 0xA003, 0xF4000008, 0xF4010004, 0xF4020004, 0xF80000FC, 0},
                             {0x80, 0x100, 0x8000, 0x4000, 0x2000, 0x4000000, 0}, "\tdriver\n");
  struct {
    uint32_t bar, base, len;
  } const cases[] = {
      {0x10, 0x90000000 | 0x7C, 0x80},  // bit 0: I/O space, low two bits off
      {0x14, 0xA000, 0x100},           {0x18, 0xF4000000, 0x8000},
      {0x1C, 0xF4010000, 0x4000},  // a 64-bit flag in an odd BAR does not count
      {0x24, 0xF8000080, 0x4000000},   {0x26, 0xF8000080, 0x4000000},
      {0x27, 0xF8000080, 0x4000000},   {0x13, 0x90000000 | 0x7C, 0x80},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.bar);
    EXPECT_EQ(lookup(HWTYPE_PLX_PCI, 0, c.bar), HW_SUCCESS);
    EXPECT_EQ(base, c.base);
    EXPECT_EQ(len, c.len);
    EXPECT_EQ(messages, std::vector<hook_line>{});
  }
}

TEST_F(pci_lookup, refuses_a_64_bit_bar_only_where_the_upper_half_is_in_use) {
  const std::string message = "_pci_find_cb_base_len(): ERROR: PCI BAR 4 is a 64-bit memory space for 0x2e:0x1f:0x7\n";
  const columns size = {0, 0, 0, 0, 0x2000, 0, 0};
  fake_os.pci_devices = line(0x2EFF, plx, {0, 0, 0, 0, 0xF4020004, 0x1, 0}, size);
  EXPECT_EQ(lookup(HWTYPE_PLX_PCI, 0, 0x20), PCI_ERR_64_BIT_MEMORY_SPACE);
  EXPECT_EQ(len, 0x2000U);
  EXPECT_EQ(base, 0x11111111U);
  EXPECT_EQ(messages, (std::vector<hook_line>{{DIAG_LVL_ERR, message}}));
  for (const uint64_t bar : {0xF4020004U, 0xF4020005U}) {
    fake_os.pci_devices = line(0x2EFF, plx, {0, 0, 0, 0, bar, bar & 1, 0}, size);
    EXPECT_EQ(lookup(HWTYPE_PLX_PCI, 0, 0x20), HW_SUCCESS);
    EXPECT_EQ(base, (bar & 1) != 0 ? 0xF4020004 : 0xF4020000);
  }
}

TEST_F(pci_lookup, reads_columns_as_scanf_does_and_lacking_columns_of_the_line_before) {
  fake_os.pci_devices =
      line(0x0010, 0x80861234, {}, {0, 0, 0x7000, 0, 0, 0, 0}) + "2e00\t10b59030\t10\t0\t0\t38f4000000\n";
  EXPECT_EQ(lookup(HWTYPE_PLX_PCI, 0, 0x18), HW_SUCCESS);
  EXPECT_EQ(base, sizeof(long) == 8 ? 0xF4000000U : 0xFFFFFFFCU);
  EXPECT_EQ(len, 0x7000U);
  fake_os.pci_devices = "2e00\t10b59030\t0x\t0x\t0\tf4000000\n";
  EXPECT_EQ(lookup(HWTYPE_PLX_PCI, 0, 0x18), HW_SUCCESS);
  EXPECT_EQ(base, 0xF4000000U);
}

TEST_F(pci_lookup, counts_instances_in_list_order) {
  std::string list;
  for (const uint32_t at : {0x0008U, 0x0009U, 0x00F8U, 0x0200U})
    list += line(at, mac, {at << 8, 0, 0, 0, 0, 0, 0}) + line(at + 2, 0x80861521);
  fake_os.pci_devices = list;
  for (const auto &[inst, at] : {std::pair{0U, 0x0008U}, {1U, 0x0009U}, {2U, 0x00F8U}, {3U, 0x0200U}}) {
    fake_os.pci_opened = 0;
    EXPECT_EQ(lookup(HWTYPE_INTEL_MAC_82571, inst, 0x10), HW_SUCCESS);
    EXPECT_EQ(base, at << 8);
    EXPECT_EQ(fake_os.pci_opened, static_cast<int>(inst) + 2);
  }
  EXPECT_EQ(lookup(HWTYPE_INTEL_MAC_82571, 4, 0x10), PCI_ERR_DEVICE_NOT_FOUND);
  const std::string message =
      "mmap_get_map_pci(): The device could not be found for vendorID: 32902 deviceID: 4190 instance: 4.\n";
  EXPECT_EQ(messages, (std::vector<hook_line>{{DIAG_LVL_ERR, message}}));
  EXPECT_EQ(base, 0x11111111U);
  EXPECT_EQ(len, 0x22222222U);
}

TEST_F(pci_lookup, tells_what_is_missing) {
  fake_os.pci_devices = line(0x2E00, plx, {}, {});
  const std::string instance_1 =
      "_pci_get_vendor_device_id(): ERROR: Unable to find memory map for hardware type 92(HWTYPE_PLX_PCI         - "
      "PLX Technology PCI Bridge), inst: 1\n";
  EXPECT_EQ(lookup(HWTYPE_PLX_PCI, 1, 0x24), PCI_ERR_INST_NOT_FOUND);
  EXPECT_EQ(messages, (std::vector<hook_line>{{DIAG_LVL_ERR, instance_1}}));
  EXPECT_EQ(lookup(HWTYPE_INTEL_MAC_82571, 5, 0x10), PCI_ERR_INST_NOT_FOUND);
  EXPECT_EQ(lookup(HWTYPE_RTC_NVRAM, 0, 0x10), PCI_ERR_UNKNOWN_PCI_DEVICE);
  EXPECT_EQ(messages, std::vector<hook_line>{});
  EXPECT_EQ(fake_os.pci_opened, 0);
  fake_os.pci_devices.reset();
  EXPECT_EQ(lookup(HWTYPE_PLX_PCI, 0, 0x24), HW_ERR_FILE_IO);
  EXPECT_EQ(messages, std::vector<hook_line>{});
  EXPECT_EQ(base, 0x11111111U);
  EXPECT_EQ(len, 0x22222222U);
}

TEST_F(pci_lookup, both_tables_hold_the_same_types) {
  EXPECT_EQ(mmap_is_cat1(), 0U);
  for (size_t i = 0; i < std::size(mmap_pci_map); ++i) {
    EXPECT_EQ(mmap_pci_map[i].m_hwtype, mmap_pci_map_cat1[i].m_hwtype);
    EXPECT_EQ(mmap_pci_map[i].m_vendor_id, mmap_pci_map_cat1[i].m_vendor_id);
    EXPECT_EQ(mmap_pci_map[i].m_device_id, mmap_pci_map_cat1[i].m_device_id);
    EXPECT_EQ(mmap_pci_map[i].m_num_inst, mmap_pci_map_cat1[i].m_num_inst);
  }
}

TEST_F(pci_lookup, asserts_its_arguments) {
  const auto call = [this](uint32_t hwtype, uint32_t bar) {
    return [this, hwtype, bar] { (void)mmap_get_map_pci(hwtype, 0, bar, &base, &len); };
  };
  const char *const file = "mmap/mmap_pci_velto_or.cpp";
  const char *const op = "mmap_get_map_pci";
  for (const uint32_t hwtype : {153U, 0xFFFFFFFFU})
    expect_assertion(call(hwtype, 0x24), file, op, "(id >= HWTYPE_NULL) && (id < HWTYPE_MAX)");
  for (const uint32_t bar : {0U, 0x0CU, 0x0FU, 0x28U, 0xFFFFFFFFU})
    expect_assertion(call(HWTYPE_PLX_PCI, bar), file, op, "(bar >= 0x10) && (bar <= 0x24)");
  expect_assertion([this] { (void)mmap_get_map_pci(92, 0, 0x24, &base, nullptr); }, file, op, "base && len");
  expect_assertion([this] { (void)pci_find_by_vendor_device(0, 0, &base, &base, &base, nullptr); }, file,
                   "pci_find_by_vendor_device", "pci_if && pci_bus && pci_dev && pci_func");
}

TEST_F(pci_lookup, searches_from_a_position_on) {
  struct position {
    uint32_t bus, dev, func;
    bool operator==(const position &) const = default;
  };
  struct {
    const char *name;
    position from;
    uint32_t rc;
    position to;
    int opened;
  } const cases[] = {
      {"from the start", {0, 0, 0}, HW_SUCCESS, {1, 2, 3}, 1},
      {"from itself", {1, 2, 3}, HW_SUCCESS, {1, 2, 3}, 1},
      {"behind it", {1, 2, 4}, HW_SUCCESS, {3, 0, 1}, 1},
      {"function carries", {1, 1, 8}, HW_SUCCESS, {1, 2, 3}, 1},
      {"device carries", {0, 31, 8}, HW_SUCCESS, {1, 2, 3}, 1},
      {"past the last bus", {255, 31, 8}, PCI_ERR_DEVICE_NOT_FOUND, {256, 0, 0}, 0},
      // Every line of a later bus resets the device and the function, whatever it is.
      {"none left", {3, 0, 2}, PCI_ERR_DEVICE_NOT_FOUND, {3, 0, 0}, 1},
  };
  fake_os.pci_devices = line(0x0008, plx) + line(0x0113, mac) + line(0x0301, mac) + line(0x0408, plx);
  for (const auto &c : cases) {
    SCOPED_TRACE(c.name);
    fake_os.pci_opened = 0;
    uint32_t pci_if = 7;
    position at = c.from;
    EXPECT_EQ(pci_find_by_vendor_device(0x8086, 0x105E, &pci_if, &at.bus, &at.dev, &at.func), c.rc);
    EXPECT_EQ(at, c.to) << at.bus << ":" << at.dev << "." << at.func;
    EXPECT_EQ(fake_os.pci_opened, c.opened);
    EXPECT_EQ(pci_if, c.opened != 0 ? 0U : 7U);
  }
}

TEST_F(pci_lookup, takes_the_pieces_of_a_long_line_for_lines) {
  // A piece has 1022 characters. With 1020 blanks before it, the function's number 2e00 is cut to 2e and 00.
  for (const auto &[blanks, bus] : {std::pair{1022U, 0x2EU}, {1020U, 0U}}) {
    fake_os.pci_devices = std::string(blanks, ' ') + line(0x2E00, plx);
    uint32_t pci_if = 0;
    uint32_t at[3] = {};
    EXPECT_EQ(pci_find_by_vendor_device(0x10B5, 0x9030, &pci_if, &at[0], &at[1], &at[2]), HW_SUCCESS);
    EXPECT_EQ(at[0], bus);
  }
}

}  // namespace
