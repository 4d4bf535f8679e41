// The POST tests of the short run, entry by entry, on a board in this process.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>
#include <string>
#include <vector>

#include "platform/mfgd/cmn_lib/diag_util/diag_dbg.h"
#include "platform/mfgd/uspace/utils/sprom/sprom_layout.h"
#include "post/dorvan/sprom_dorvan.h"
#include "post/gige.h"
#include "post/hw_change_bits.h"
#include "post/pcie.h"
#include "post/pfm_card.h"
#include "post/post_result.h"
#include "post/post_tbl.h"
#include "post/seeprom.h"
#include "tests/support/board.h"

// The allocations of one size can be refused.
static size_t refused_size = 0;
extern "C" {
void *__real_malloc(size_t size);
void *__wrap_malloc(size_t size);
void *__wrap_malloc(size_t size) {
  return size == refused_size ? nullptr : __real_malloc(size);
}
}

namespace {

using testing::StartsWith;

// Puts a command in ethtool's place that notes its arguments and prints `report`.
void set_report(const test_board &board, const std::string &report) {
  const auto command = board.file("bin/ethtool");
  std::filesystem::remove(command);
  std::ofstream(board.file("report"), std::ios::binary) << report;
  std::ofstream(command) << "#!/bin/sh\necho \"$@\" >>" << board.file("calls") << "\ncat " << board.file("report")
                         << "\n";
  std::filesystem::permissions(command, std::filesystem::perms::owner_all);
}

std::string doubled(const std::string &report) {
  std::string text;
  for (const char c : report)
    text += c == '\n' ? std::string("\n\n") : std::string(1, c);
  return text;
}

struct report_case {
  const char *name;
  std::string report;
  int32_t status;
  bool dumped;  // else nothing is printed
};

const std::string long_word(200, 'P');

TEST(gige, judges_the_report) {
  const report_case cases[] = {
      {"first verdict counts", "The result is PASS\nFAIL\n", 0, false},
      {"FAIL before PASS", "FAIL\nPASS\nLoopback test 1\n", 1, true},
      {"verdict is a whole word", "PASSED FAILED xFAIL PASS", 0, false},
      {"zeros pass", "FAIL\nRegister test 0\nEeprom test 0\nLoopback test 0\nInterrupt test 0\nLink test 1\n", 0,
       false},
      {"ten passes, too", "FAIL\nLoopback test 10\n", 0, false},
      {"one without zero", "FAIL\nRegister test 0\nLoopback test 1\nInterrupt test 0\n", 1, true},
      {"no named sub-test", "FAIL\nLink test 0\n", 1, true},
      {"named before the verdict", "Register test 0\nFAIL\n", 1, true},
      {"on the verdict's own line", "FAIL Register test 0\n", 0, false},
      {"case counts", "FAIL\nregister test 0\n", 1, true},
      {"over-long word, cut after the verdict's length", "PASS" + long_word + "\nFAIL\nEeprom test 0", 0, false},
      {"a word of 131 letters leaves PASS behind", std::string(127, 'x') + "PASS", 0, false},
      {"piece of a long line is a line of its own", "FAIL\nEeprom test" + std::string(120, ' ') + "0\n", 1, false},
      {"NUL bytes hide what follows them on their line", std::string("FAIL\nEeprom test \0 0\n", 21), 1, false},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.name);
    const test_board board({}, 11079);
    set_report(board, c.report);
    int32_t status = -1;
    const std::string out = printed([&] { status = gige_test(0); });
    EXPECT_EQ(status, c.status);
    if (c.dumped) {
      EXPECT_EQ(out, "ethtool -t eth0\n" + doubled(c.report));
    } else {
      EXPECT_THAT(out, StartsWith(c.status != 0 ? "ethtool -t eth0\n" : ""));
    }
    EXPECT_FALSE(std::filesystem::exists(board.file("post/ethtool.log")));
  }
}

TEST(gige, tells_a_report_without_verdict) {
  for (const char *report : {"", "\n\n", "pass fail", "nothing"}) {
    const test_board board;
    set_report(board, report);
    EXPECT_EQ(printed([] { EXPECT_EQ(gige_test(0), 1); }), "Fail to parse /post/ethtool.log PASS/FAIL result\n");
    EXPECT_FALSE(std::filesystem::exists(board.file("post/ethtool.log")));
  }
}

TEST(gige, runs_the_command_of_the_device) {
  struct command_case {
    uint32_t card;
    int32_t short_form;
    const char *calls;  // of devices 0 to 3
  };
  constexpr command_case cases[] = {
      {11079, 0, "-t eth0\n-t eth1\n-t eth2\n-t eth5\n"},
      {11079, 1, "-t eth0 online\n-t eth1 online\n-t eth2 online\n-t eth5 online\n"},
      {11062, 0, "-t eth0\n-t eth5\n"},
      {11111, 1, "-t eth0 online\n-t eth5 online\n"},
  };
  for (const auto &c : cases) {
    const test_board board({}, c.card);
    set_report(board, "PASS");
    short_test = c.short_form;
    for (uint32_t device = 0; device < 4; ++device) {
      uint32_t result = POST_RESULT_NONE;
      EXPECT_EQ(dorvan_nic_lpback_test(0, &result, device, nullptr), 0U);
      EXPECT_EQ(result, POST_RESULT_PASS);
    }
    EXPECT_EQ(read_file(board.file("calls")), c.calls);
  }
  short_test = 0;
}

// The simulated controllers' own reports.
TEST(gige, fails_on_each_sub_test) {
  for (const char *test : {"register", "eeprom", "interrupt", "loopback", "link"}) {
    SCOPED_TRACE(test);
    const std::string fault = std::string("ethtool-fail port=eth5 test=") + test;
    const test_board board({fault.c_str()}, 11096);
    const uint32_t expected = std::string(test) == "link" ? 0 : 1;
    const std::string out = printed([&] {
      uint32_t result = POST_RESULT_NONE;
      EXPECT_EQ(dorvan_nic_lpback_test(0, &result, 3, nullptr), expected);
      EXPECT_EQ(result, expected != 0 ? POST_RESULT_FAIL : POST_RESULT_PASS);
      EXPECT_EQ(gige_test(2), 0);
    });
    if (expected == 0) {
      EXPECT_EQ(out, "");
    } else {
      EXPECT_THAT(out, StartsWith("ethtool -t eth5\nThe test result is FAIL\n\n"));
    }
  }
}

std::string pci_line(unsigned position, unsigned vendor, unsigned device) {
  char text[80];
  (void)snprintf(text, sizeof text, "%04x\t%04x%04x\t10\t        f0000000\t       0\n", position, vendor, device);
  return text;
}

// The list is read once a process.
void scan(const test_board &board, const std::string &list) {
  std::ofstream(board.file("proc/bus/pci/devices"), std::ios::binary) << list;
  ASSERT_EQ(pci_scan_devices(), 0);
}

bool found(uint8_t bus, uint8_t dev, uint8_t func, uint32_t vendor, uint32_t device) {
  const pci_dev_tbl_entry row{bus, dev, func, vendor, device, "row"};
  return pci_find_device(&row) == 0;
}

TEST(pcie_scan, takes_fields_apart) {
  isolated([] {
    const test_board board;
    scan(board, pci_line(0x2CFF, 0x8086, 0x10A9));
    EXPECT_TRUE(found(0x2C, 31, 7, 0x8086, 0x10A9));
    EXPECT_FALSE(found(0x2C, 31, 7, 0x8086, 0x10A8));
    EXPECT_FALSE(found(0x2C, 31, 7, 0x8087, 0x10A9));
    EXPECT_FALSE(found(0x2D, 31, 7, 0x8086, 0x10A9));
    EXPECT_FALSE(found(0x2C, 30, 7, 0x8086, 0x10A9));
    EXPECT_FALSE(found(0x2C, 31, 6, 0x8086, 0x10A9));
    EXPECT_FALSE(found(0, 0, 0, 0, 0));  // only filled entries are searched
  });
}

TEST(pcie_scan, keeps_nothing_of_the_line_before) {
  isolated([] {
    const test_board board;
    scan(board, pci_line(0x0100, 0x8086, 0x1521) + "0200\n\n" + "junk\n" + pci_line(0x0308, 0x10B5, 0x9030));
    EXPECT_TRUE(found(1, 0, 0, 0x8086, 0x1521));
    EXPECT_FALSE(found(2, 0, 0, 0x8086, 0x1521));
    EXPECT_TRUE(found(2, 0, 0, 0, 0));
    EXPECT_TRUE(found(0, 0, 0, 0, 0));  // the empty line's entry
    EXPECT_TRUE(found(3, 1, 0, 0x10B5, 0x9030));
    const std::string dump = printed([] { EXPECT_EQ(pci_dump_devices(), 0); });
    EXPECT_EQ(dump,
              "## Info  : Dumping PCI devices\n"
              "    Bus  Dev  Func  VendorID  DeviceID\n"
              "    ===  ===  ====  ========  ========\n"
              " 0. 01   00   00    8086      1521\n"
              " 1. 02   00   00    0000      0000\n"
              " 2. 00   00   00    0000      0000\n"
              " 3. 00   00   00    0000      0000\n"
              " 4. 03   01   00    10B5      9030\n");
  });
}

TEST(pcie_scan, stores_150_lines) {
  isolated([] {
    const test_board board;
    std::string list;
    for (unsigned i = 0; i < 151; ++i)
      list += pci_line(0x100 + i, 0x8086, i);
    scan(board, list);
    EXPECT_TRUE(found(1, 149 >> 3, 149 & 7, 0x8086, 149));
    EXPECT_FALSE(found(1, 150 >> 3, 150 & 7, 0x8086, 150));
  });
}

TEST(pcie_scan, reads_an_over_long_line_in_pieces) {
  isolated([] {
    const test_board board;
    // The second piece begins after 1022 characters.
    scan(board, std::string(1022, ' ') + "0408 10b59030 0 0 0 0\n");
    EXPECT_TRUE(found(4, 1, 0, 0x10B5, 0x9030));
    EXPECT_TRUE(found(0, 0, 0, 0, 0));
  });
}

TEST(pcie_scan, tries_an_unreadable_list_again) {
  isolated([] {
    const test_board board({"pci-list-unreadable"});
    EXPECT_EQ(printed([] { EXPECT_EQ(pci_scan_devices(), -1); }), "Unable to open /proc/bus/pci/devices\n");
    EXPECT_EQ(printed([] { EXPECT_EQ(pci_dump_devices(), -1); }), "Unable to open /proc/bus/pci/devices\n");
  });
}

// A failed scan is not repeated by the entry: every device passes.
TEST(pcie_entry, compares_once) {
  isolated([] {
    const test_board board({"pci-list-unreadable"});
    const std::string out = printed([] {
      for (uint32_t device = 0; device < 7; ++device) {
        uint32_t result = POST_RESULT_NONE;
        EXPECT_EQ(dorvan_pcie_test(0, &result, device, nullptr), 0U);
        EXPECT_EQ(result, POST_RESULT_PASS);
      }
    });
    EXPECT_EQ(out, "Unable to open /proc/bus/pci/devices\n");
  });
}

TEST(pcie_entry, maps_rows_to_bits) {
  isolated([] {
    const test_board board({}, 11061);
    scan(board, "");
    uint32_t mask = 0x40000010;
    (void)printed([&] { EXPECT_EQ(pciscan_test(&mask), 1); });
    EXPECT_EQ(mask, 0x4000FFFFU);  // rows 0 to 14 are bits 0 to 3 and 5 to 15; others stay as they were
    (void)printed([] {
      uint32_t result = POST_RESULT_NONE;
      EXPECT_EQ(dorvan_pcie_test(0, &result, 5, nullptr), 32U);
      EXPECT_EQ(result, POST_RESULT_FAIL);
      EXPECT_EQ(dorvan_pcie_test(0, &result, 4, nullptr), 0U);
      EXPECT_EQ(result, POST_RESULT_PASS);
      EXPECT_EQ(dorvan_pcie_test(0, &result, 37, nullptr), 32U);  // numbers wrap at 32
    });
  });
}

TEST(card_identity, keeps_the_preset_when_the_driver_gives_none) {
  uint16_t value = 1234;
  {
    const test_board board({"sprom-refuse"});
    EXPECT_EQ(printed([&] { EXPECT_EQ(pfm_get_card_index(&value), 0U); }), "");
    EXPECT_EQ(value, 1234);
  }
  {
    const test_board board({"sprom-absent"});
    EXPECT_EQ(printed([&] { EXPECT_EQ(pfm_get_hw_changes_bits(&value), 1U); }),
              "Error in opening /dev/sprom for reading. Default hw_changes_bits to 1234\n");
  }
  const test_board board({}, 11099);
  EXPECT_EQ(pfm_get_card_index(&value), 0U);
  EXPECT_EQ(value, 11099);
  EXPECT_EQ(pfm_get_hw_changes_bits(&value), 0U);
  EXPECT_EQ(value, 1);
}

TEST(card_identity, maps_cards_to_platform_types) {
  struct platform_case {
    uint16_t card;
    uint32_t type;
  };
  constexpr platform_case cases[] = {
      {0x2B35, 14}, {0x2B36, 16}, {0x2B47, 18},  {0x2B48, 20}, {0x2B58, 22},
      {0x2B5B, 24}, {0x2B67, 16}, {0x2B34, ~0U}, {0, ~0U},     {0xFFFF, ~0U},
  };
  for (const auto &c : cases)
    EXPECT_EQ(pfm_get_sprom_platform_type(c.card), c.type) << c.card;
}

// Write errors cost the record, not the run.
TEST(post_result, appends_lines) {
  const test_board board;
  post_result_write(0, 12, 5, 2);
  post_result_write(-1, 255, -7, 1);
  EXPECT_EQ(read_file(board.file("post/result")), "0:12:5:2\n-1:255:-7:1\n");
  post_fd_write(nullptr, 0, 0, 0, 0);
}

TEST(seeprom, needs_the_right_kind) {
  const test_board board;
  uint32_t result = POST_RESULT_NONE;
  dorvan_sprom_bp.type = SPROM_TYPE_LC;
  testing::internal::CaptureStderr();
  EXPECT_EQ(dorvan_brd_seeprom_test(0, &result, 1, nullptr), 2U);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "Err: Sprom type does not match\n");
  EXPECT_EQ(result, POST_RESULT_FAIL);
  dorvan_sprom_bp.type = SPROM_TYPE_BP;
  EXPECT_EQ(dorvan_brd_seeprom_test(0, &result, 1, nullptr), 0U);
  EXPECT_EQ(result, POST_RESULT_PASS);
  EXPECT_EQ(dorvan_brd_seeprom_test(0, &result, 2, nullptr), 0U);
  EXPECT_EQ(result, POST_RESULT_NONE);
}

TEST(seeprom, fails_without_memory) {
  const test_board board;
  for (const uint32_t device : {0U, 1U}) {
    uint32_t result = POST_RESULT_NONE;
    refused_size = device == 0 ? SPROM_SIZE_SUP : SPROM_SIZE_BP;
    EXPECT_EQ(static_cast<int32_t>(dorvan_brd_seeprom_test(0, &result, device, nullptr)), -12);
    EXPECT_EQ(result, POST_RESULT_FAIL);
  }
  refused_size = 0;
}

TEST(hw_change_bits, stay_0_without_a_card_or_memory) {
  for (const uint32_t card : {4711U, 11062U}) {
    const test_board board({}, card);
    refused_size = SPROM_SIZE_SUP;
    EXPECT_EQ(printed([] { post_read_hw_change_bits(); }), "");
    EXPECT_EQ(dorvan_post_hw_change_bits_get(), 0U);
  }
  refused_size = 0;
}

TEST(dorvan_sproms, have_two_slots) {
  for (uint32_t a = 0; a < 3; ++a) {
    for (uint32_t b = 0; b < 3; ++b) {
      const sprom_t *const expected = a != b   ? nullptr
                                      : a == 0 ? &dorvan_sprom_bp
                                      : a == 1 ? &dorvan_sprom_sup
                                               : nullptr;
      EXPECT_EQ(sprom_init_dorvan(0xFFFFFFFF, a, b), expected) << a << "," << b;
    }
  }
}

TEST(output_hooks, print_all_but_traces) {
  EXPECT_EQ(printed([] { EXPECT_EQ(cli_printf("%s %d\n", "cli", -1), 7); }), "cli -1\n");
  for (const int32_t level : {0, 3, 6, 7, 8})
    EXPECT_EQ(printed([=] { diag_dbg_print(level, "%s %d\n", "dbg", 2); }), level == 7 ? "" : "dbg 2\n") << level;
}

}  // namespace
