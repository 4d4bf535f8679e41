// The three catalogues: status codes, hardware types, interface types.
#include <gtest/gtest.h>

#include <set>
#include <string>

#include "platform/mfgd/cmn_lib/hw_acc/hw_err.h"
#include "platform/mfgd/hw_acc/hwtype_defs.h"
#include "platform/mfgd/hw_acc/intf_type_defs.h"
#include "tests/unit/host.h"

namespace {

struct row {
  uint32_t value;
  const char *name;
  const char *desc;
};

TEST(hw_err, names_codes_and_nothing_else) {
  // clang-format off
  constexpr row rows[] = {
      {0,          "HW_SUCCESS",                 "Success"},
      {400,        "HW_ERR_BASE",                "Base of HW_ACC Library error codes"},
      {408,        "HW_ERR_FILE_IO",             "File I/O error"},
      {412,        "HW_ERR_ACC_CMP_VALUE",       "Accessibility Test failure -- compare value incorrect"},
      {416,        "HW_ERR_READ_PARITY_ERROR",   "Detect parity error when read"},
      {601,        "MMAP_ERR_DEV_MEM",           "open(/dev/mem) failed"},
      {605,        "MMAP_ERR_INST_NOT_FOUND",    "Requested  instance of the MMAP device not found"},
      {606,        "COSIM_ERR_WRONG_MSG_TYPE",   "Wrong mesage type"},
      {3904,       "PCI_ERR_UNKNOWN_PCI_DEVICE", "Requested device is not a known PCI device"},
      {200,        "HW_ERR_UNKNOWN",             "Unknown Error Code"},
      {201,        "",                           ""},
      {293,        "",                           ""},
      {417,        "",                           ""},
      {399,        "",                           ""},
      {0x10190,    "",                           ""},  // 400 in its low half
      {0xFFFFFFFF, "",                           ""},
  };
  // clang-format on
  for (const row &r : rows) {
    EXPECT_STREQ(hw_err_to_str(r.value), r.name) << r.value;
    EXPECT_STREQ(hw_err_get_desc(r.value), r.desc) << r.value;
  }
}

TEST(hw_err, has_36_codes_with_names_of_their_own) {
  std::set<std::string> names;
  for (uint32_t code = 0; code < 0x10000; ++code) {
    if (*hw_err_to_str(code) == '\0') continue;
    EXPECT_TRUE(names.insert(hw_err_to_str(code)).second) << code;
  }
  EXPECT_EQ(names.size(), 36U);
}

using lookup = const char *(*)(uint32_t);

// Every row starts with the prefix, is described, and is the only one of its name.
void expect_rows(uint32_t count, lookup name, lookup desc, const std::string &prefix) {
  std::set<std::string> names;
  for (uint32_t value = 0; value < count; ++value) {
    EXPECT_EQ(std::string(name(value)).rfind(prefix, 0), 0U) << value;
    EXPECT_STRNE(desc(value), "") << value;
    EXPECT_TRUE(names.insert(name(value)).second) << value;
  }
}

TEST(hwtype, keeps_the_numbers_of_the_types_in_use) {
  // clang-format off
  constexpr row rows[] = {
      {0,   "HWTYPE_NULL",            "NULL HWTYPE"},
      {1,   "HWTYPE_ALL",             "All Components"},
      {4,   "HWTYPE_LOOKUP_START",    "LOOKUP_START"},
      {10,  "HWTYPE_LOOKUP_END",      "LOOKUP_END"},
      {11,  "HWTYPE_DATAPATH_START",  "DATAPATH_START"},
      {20,  "HWTYPE_DATAPATH_END",    "DATAPATH_END"},
      {32,  "HWTYPE_RTC_NVRAM",       "RTC_NVRAM"},
      {33,  "HWTYPE_OBFL_FLASH",      "OBFL_Flash"},
      {40,  "HWTYPE_INTEL_MAC_82571", "Intel MAC 82571"},
      {85,  "HWTYPE_SYS_WL_SMBUS",    "Whitmore Lake SMBus Controller"},
      {92,  "HWTYPE_PLX_PCI",         "PLX Technology PCI Bridge"},
      {151, "HWTYPE_CHASSIS",         "Generic Chassis Type"},
      {152, "HWTYPE_EXAMPLE",         "Example"},
      {153, "HWTYPE_MAX",             "Maximum hardware type"},
  };
  // clang-format on
  for (const row &r : rows) {
    EXPECT_STREQ(hwtype_to_str(r.value), r.name);
    EXPECT_STREQ(hwtype_desc(r.value), r.desc);
  }
  EXPECT_EQ(__n_hwtype_entries, 154U);
  expect_rows(154, hwtype_to_str, hwtype_desc, "HWTYPE_");
}

TEST(intf_type, keeps_the_numbers_of_the_types_in_use) {
  constexpr row rows[] = {{0, "INTF_TYPE_NULL", "NULL INTF"},
                          {1, "INTF_TYPE_ALL", "All Interface types"},
                          {33, "INTF_TYPE_FP_SFP", "Front Panel Port to SFP"}};
  for (const row &r : rows) {
    EXPECT_STREQ(intf_type_to_str(r.value), r.name);
    EXPECT_STREQ(intf_type_desc(r.value), r.desc);
  }
  EXPECT_EQ(__n_intf_type_entries, 76U);
  expect_rows(76, intf_type_to_str, intf_type_desc, "INTF_TYPE_");
}

TEST(catalogues, assert_on_values_without_a_row) {
  const std::string hw = "(id >= 0) && (id < __n_hwtype_entries)";
  const std::string intf = "(id >= 0) && (id < __n_intf_type_entries)";
  for (const uint32_t value : {154U, 0xFFFFFFFFU})
    expect_assertion([=] { (void)hwtype_to_str(value); }, "hwtype_defs.h", "hwtype_to_str", hw);
  expect_assertion([] { (void)hwtype_desc(154); }, "hwtype_defs.h", "hwtype_desc", hw);
  expect_assertion([] { (void)intf_type_to_str(76); }, "intf_type_defs.h", "intf_type_to_str", intf);
  expect_assertion([] { (void)intf_type_desc(0x80000000); }, "intf_type_defs.h", "intf_type_desc", intf);
}

}  // namespace
