// The three catalogues: status codes, hardware types, interface types.
#include <gtest/gtest.h>

#include <set>

#include "platform/mfgd/cmn_lib/hw_acc/hw_err.h"
#include "platform/mfgd/hw_acc/hwtype_defs.h"
#include "platform/mfgd/hw_acc/intf_type_defs.h"
#include "tests/support/host.h"

namespace {

TEST(catalogues, keep_their_numbers_and_texts) {
  using lookup = const char *(*)(uint32_t);
  struct {
    lookup name, desc;
    uint32_t value;
    const char *texts[2];
  } const cases[] = {
      // clang-format off
      {hw_err_to_str,    hw_err_get_desc, 0,          {"HW_SUCCESS",               "Success"}},
      {hw_err_to_str,    hw_err_get_desc, 416,        {"HW_ERR_READ_PARITY_ERROR", "Detect parity error when read"}},
      {hw_err_to_str,    hw_err_get_desc, 606,        {"COSIM_ERR_WRONG_MSG_TYPE", "Wrong mesage type"}},
      {hw_err_to_str,    hw_err_get_desc, 200,        {"HW_ERR_UNKNOWN",           "Unknown Error Code"}},
      {hw_err_to_str,    hw_err_get_desc, 293,        {"",                         ""}},
      {hw_err_to_str,    hw_err_get_desc, 0x10190,    {"",                         ""}},  // 400 in its low half
      {hwtype_to_str,    hwtype_desc,     33,         {"HWTYPE_OBFL_FLASH",        "OBFL_Flash"}},
      {hwtype_to_str,    hwtype_desc,     85,         {"HWTYPE_SYS_WL_SMBUS",      "Whitmore Lake SMBus Controller"}},
      {hwtype_to_str,    hwtype_desc,     153,        {"HWTYPE_MAX",               "Maximum hardware type"}},
      {intf_type_to_str, intf_type_desc,  33,         {"INTF_TYPE_FP_SFP",         "Front Panel Port to SFP"}},
      // clang-format on
  };
  for (const auto &c : cases) {
    EXPECT_STREQ(c.name(c.value), c.texts[0]) << c.value;
    EXPECT_STREQ(c.desc(c.value), c.texts[1]) << c.value;
  }
  EXPECT_STREQ(hw_err_get_desc(605), "Requested  instance of the MMAP device not found");
}

TEST(catalogues, have_all_rows_and_no_name_twice) {
  std::set<std::string> names;
  for (uint32_t code = 0; code < 0x10000; ++code)
    names.insert(hw_err_to_str(code));
  EXPECT_EQ(names.size(), 36U + 1U) << "the empty one counts";
  for (uint32_t value = 0; value < 154; ++value)
    EXPECT_TRUE(names.insert(hwtype_to_str(value)).second && *hwtype_desc(value) != '\0') << value;
  for (uint32_t value = 0; value < 76; ++value)
    EXPECT_TRUE(names.insert(intf_type_to_str(value)).second && *intf_type_desc(value) != '\0') << value;
}

TEST(catalogues, assert_on_values_without_a_row) {
  const std::string hw = "(id >= 0) && (id < __n_hwtype_entries)";
  const std::string intf = "(id >= 0) && (id < __n_intf_type_entries)";
  expect_assertion([] { (void)hwtype_to_str(154); }, "hw_acc/hwtype_defs.h", "hwtype_to_str", hw);
  expect_assertion([] { (void)hwtype_desc(0xFFFFFFFF); }, "hw_acc/hwtype_defs.h", "hwtype_desc", hw);
  expect_assertion([] { (void)intf_type_desc(76); }, "hw_acc/intf_type_defs.h", "intf_type_desc", intf);
}

}  // namespace
