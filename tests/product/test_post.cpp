// The POST tests of the short run, entry by entry, on a board in this process.
#include "platform/mfgd/cmn_lib/diag_util/diag_dbg.h"
#include "platform/mfgd/uspace/utils/sprom/sprom_layout.h"
#include "post/dorvan/pfm_card.h"
#include "post/dorvan/sprom_dorvan.h"
#include "post/gige.h"
#include "post/hw_change_bits.h"
#include "post/pcie.h"
#include "post/post_result.h"
#include "post/post_tbl.h"
#include "post/seeprom.h"
#include "tests/support/board.h"
#include "tests/support/opened.h"

// The linker hands malloc, free and sprom_init_dorvan to this file.
static size_t refused_size = 0;  // of allocations
static int blocks = 0;           // allocated and not released
static bool no_descriptor = false;
extern "C" {
void *__real_malloc(size_t size), *__wrap_malloc(size_t size);
void __real_free(void *block), __wrap_free(void *block);
decltype(sprom_init_dorvan) __real_sprom_init_dorvan, __wrap_sprom_init_dorvan;

void *__wrap_malloc(size_t size) {
  if (size == refused_size) return nullptr;
  ++blocks;
  return __real_malloc(size);
}
void __wrap_free(void *block) {
  if (block != nullptr) --blocks;
  __real_free(block);
}
sprom_t *__wrap_sprom_init_dorvan(uint32_t type, uint32_t slot, uint32_t index) {
  return no_descriptor ? nullptr : __real_sprom_init_dorvan(type, slot, index);
}
}

namespace {

// Puts a command in ethtool's place that notes its arguments, and whether it ignores SIGPIPE or SIGXFSZ, and prints
// `report`.
void set_report(const test_board &board, const std::string &report) {
  const auto command = board.file("bin/ethtool");
  std::filesystem::remove(command);
  std::ofstream(board.file("report"), std::ios::binary) << report;
  const std::string calls = shell_word(board.file("calls"));
  std::ofstream(command) << "#!/bin/sh\necho \"$@\" >>" << calls << "\ncat " << shell_word(board.file("report"))
                         << "\ngrep -Eq 'SigIgn:.*[13579bdf](...|......)$' /proc/$$/status && echo ignores >>" << calls
                         << "\n";
  std::filesystem::permissions(command, std::filesystem::perms::owner_all);
}

const std::string dumped = "the report";  // with a head line
const std::string no_verdict = "Fail to parse /post/ethtool.log PASS/FAIL result\n";
const std::string long_line = "FAIL\nEeprom test" + std::string(120, ' ') + "0\n";

// clang-format off
struct report_case { const char *name; std::string report; int32_t status; std::string printed = {}; };
const report_case report_cases[] = {
    {"first verdict counts",         "The result is PASS\nFAIL\n", 0},
    {"FAIL before PASS",             "FAIL\nPASS\nLoopback test 1\n", 1, dumped},
    {"verdict is a whole word",      "PASSED FAILED xFAIL PASS", 0},
    {"zeros pass",                   "FAIL\nRegister test 0\nEeprom test 0\nLoopback test 0\nInterrupt test 0\nLink test 1\n", 0},
    {"ten passes, too",              "FAIL\nLoopback test 10\n", 0},
    {"one without zero",             "FAIL\nRegister test 0\nLoopback test 1\nInterrupt test 0\n", 1, dumped},
    {"the register test counts",     "FAIL\nRegister test 1\n", 1, dumped},
    {"the EEPROM test counts",       "FAIL\nEeprom test 1\n", 1, dumped},
    {"the interrupt test counts",    "FAIL\nInterrupt test 1\n", 1, dumped},
    {"no named sub-test",            "FAIL\nLink test 0\n", 1, dumped},
    {"named before the verdict",     "Register test 0\nFAIL\n", 1, dumped},
    {"on the verdict's own line",    "FAIL Register test 0\n", 0},
    {"case counts",                  "FAIL\nregister test 0\n", 1, dumped},
    {"a word of over 127 letters is cut", "PASS" + std::string(200, 'P') + "\nFAIL\nEeprom test 0", 0},
    {"and may leave PASS behind",    std::string(127, 'x') + "PASS", 0},
    {"each piece of a long line is a line", long_line, 1, "ethtool -t eth5\nFAIL\n\n" + long_line.substr(5, 127) + "\n" + long_line.substr(132) + "\n"},
    {"a NUL byte hides the rest of its line", std::string("FAIL\nEeprom test \0 0\n", 21), 1, "ethtool -t eth5\nFAIL\n\nEeprom test \n"},
    {"other words",                  "pass fail\n", 1, no_verdict},
};
// clang-format on

TEST(gige, judges_the_report) {
  for (const auto &c : report_cases) {
    SCOPED_TRACE(c.name);
    const test_board board({}, 11079);
    set_report(board, c.report);
    short_test = 1;
    const std::string out = printed([&] { EXPECT_EQ(gige_test(5), c.status); });
    short_test = 0;
    const auto doubled = std::regex_replace(c.report, std::regex("\n"), "\n\n");
    EXPECT_EQ(out, c.printed == dumped ? "ethtool -t eth5\n" + doubled : c.printed);
    EXPECT_FALSE(std::filesystem::exists(board.file("post/ethtool.log")));
  }
}

TEST(gige, runs_the_command_of_the_device_and_removes_its_own_log_alone) {
  // The calls of devices 0 to 3.
  // clang-format off
  constexpr struct { uint32_t card; int32_t is_short; const char *calls; } cases[] = {
      {11079, 0, "-t eth0\n-t eth1\n-t eth2\n-t eth5\n"},
      {11079, 1, "-t eth0 online\n-t eth1 online\n-t eth2 online\n-t eth5 online\n"},
      {11062, 0, "-t eth0\n-t eth5\n"},
      {11111, 1, "-t eth0 online\n-t eth5 online\n"},
  };
  // clang-format on
  const auto before = std::pair{signal(SIGPIPE, SIG_IGN), signal(SIGXFSZ, SIG_IGN)};
  struct sigaction own = {{SIG_IGN}, {}, SA_NODEFER, nullptr};
  (void)sigaction(SIGPIPE, &own, nullptr);
  for (const auto &[card, is_short, calls] : cases) {
    const test_board board({}, card);
    set_report(board, "PASS");
    short_test = is_short;
    for (uint32_t device = 0; device < 4; ++device) {
      uint32_t result = POST_RESULT_NONE;
      const std::ofstream former(board.file("post/ethtool.log"));
      EXPECT_EQ(dorvan_nic_lpback_test(0, &result, device, nullptr), 0U);
      EXPECT_EQ(result, POST_RESULT_PASS);
      const bool untested = strstr(calls, "eth1") == nullptr && (device == 1 || device == 2);
      EXPECT_EQ(std::filesystem::exists(board.file("post/ethtool.log")), untested);
    }
    EXPECT_EQ(read_file(board.file("calls")), calls);
  }
  short_test = 0;
  const test_board board({"sprom-absent"});
  const std::ofstream former(board.file("post/ethtool.log"));
  EXPECT_NE(printed([] { EXPECT_EQ(gige_test(0), 1); }), "");
  EXPECT_TRUE(std::filesystem::exists(board.file("post/ethtool.log")));
  EXPECT_TRUE(sigaction(SIGPIPE, nullptr, &own) == 0 && (own.sa_flags & SA_NODEFER) != 0);
  EXPECT_EQ(signal(SIGPIPE, before.first), SIG_IGN);
  EXPECT_EQ(signal(SIGXFSZ, before.second), SIG_IGN);
}

std::string pci_line(unsigned position, unsigned vendor, unsigned device) {
  return format("%04x\t%04x%04x\t10\t        f0000000\t       0\n", position, vendor, device);
}

// The list is read once a process.
void scan(const test_board &board, const std::string &list) {
  std::ofstream(board.file("proc/bus/pci/devices"), std::ios::binary) << list;
  ASSERT_EQ(pci_scan_devices(), 0);
}

std::string lines_of_151_functions() {
  std::string list;
  for (unsigned i = 0; i < 151; ++i)
    list += pci_line(0x100 + i, 0x8086, i);
  return list;
}

const pci_dev_tbl_entry nothing = {};

// The dump is null where it does not matter.
// clang-format off
struct scan_case { const char *name; std::string list; std::vector<pci_dev_tbl_entry> found, not_found;
                   const char *dump = nullptr; };
const scan_case scan_cases[] = {
    {"the columns are taken apart, and all of them count", pci_line(0x2CFF, 0x8086, 0x10A9),
     {{0x2C, 31, 7, 0x8086, 0x10A9, ""}},
     {{0x2C, 31, 7, 0x8086, 0x10A8, ""}, {0x2C, 31, 7, 0x8087, 0x10A9, ""}, {0x2D, 31, 7, 0x8086, 0x10A9, ""},
      {0x2C, 30, 7, 0x8086, 0x10A9, ""}, {0x2C, 31, 6, 0x8086, 0x10A9, ""}, nothing}},
    {"a short line keeps nothing of the one before",
     pci_line(0x0100, 0x8086, 0x1521) + "0200\n\njunk\n" + pci_line(0x0308, 0x10B5, 0x9030),
     {{1, 0, 0, 0x8086, 0x1521, ""}, {2, 0, 0, 0, 0, ""}, nothing, {3, 1, 0, 0x10B5, 0x9030, ""}},
     {{2, 0, 0, 0x8086, 0x1521, ""}},
     "## Info  : Dumping PCI devices\n    Bus  Dev  Func  VendorID  DeviceID\n    ===  ===  ====  ========  ========\n"
     " 0. 01   00   00    8086      1521\n"
     " 1. 02   00   00    0000      0000\n"
     " 2. 00   00   00    0000      0000\n"
     " 3. 00   00   00    0000      0000\n"
     " 4. 03   01   00    10B5      9030\n"},
    {"150 lines are stored", lines_of_151_functions(),
     {{1, 18, 5, 0x8086, 149, ""}}, {{1, 18, 6, 0x8086, 150, ""}}},
    {"an over-long line comes in pieces of 1022 characters", std::string(1022, ' ') + "0408 10b59030 0 0 0 0\n",
     {{4, 1, 0, 0x10B5, 0x9030, ""}, nothing}, {}},
};
// clang-format on

TEST(pcie_scan, finds_what_the_list_has) {
  for (const auto &c : scan_cases) {
    SCOPED_TRACE(c.name);
    isolated([&] {
      const test_board board;
      scan(board, c.list);
      for (const auto &row : c.found)
        EXPECT_EQ(pci_find_device(&row), 0) << row.device;
      for (const auto &row : c.not_found)
        EXPECT_EQ(pci_find_device(&row), -1) << row.device;
      const std::string dump = printed([] { EXPECT_EQ(pci_dump_devices(), 0); });
      EXPECT_TRUE(c.dump == nullptr || dump == c.dump) << dump;
    });
  }
}

// The list comes first, then the card; without them nothing is compared, the mask stays as it is and the devices pass.
// An unreadable list is tried again, but not by the entry.
TEST(pcie_scan, compares_nothing_without_list_and_card) {
  // clang-format off
  const struct { std::vector<const char *> faults; uint32_t card; int32_t status; const char *said; } cases[] = {
      {{"pci-list-unreadable", "sprom-absent"}, 11062, -1, "Unable to open /proc/bus/pci/devices\n"},
      {{},                                      4711,  1,  "Invalid card detected\n## Info : Based on P0 board detection.\n"},
  };
  // clang-format on
  for (const auto &c : cases) {
    SCOPED_TRACE(c.said);
    isolated([&] {
      const test_board board(c.faults, c.card);
      uint32_t mask = 0x40000010, result = POST_RESULT_NONE;
      for (int times = 0; times < 2; ++times)
        EXPECT_EQ(printed([&] { EXPECT_EQ(pciscan_test(&mask), c.status); }), c.said);
      EXPECT_EQ(mask, 0x40000010U);
      const std::string dump = printed([&] { EXPECT_EQ(pci_dump_devices(), c.status < 0 ? -1 : 0); });
      EXPECT_TRUE(c.status >= 0 || dump == c.said) << dump;
      const auto all = [&] {
        for (uint32_t device = 0; device < 7; ++device)
          EXPECT_EQ(dorvan_pcie_test(0, &result, device, nullptr) + result, POST_RESULT_PASS);
      };
      EXPECT_EQ(printed(all), c.said);
    });
  }
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
  const test_board board({"sprom-refuse"});
  EXPECT_EQ(printed([&] { EXPECT_EQ(pfm_get_card_index(&value), 0U); }), "");
  board.start({"sprom-absent"});
  EXPECT_EQ(printed([&] { EXPECT_EQ(pfm_get_hw_changes_bits(&value), 1U); }),
            "Error in opening /dev/sprom for reading. Default hw_changes_bits to 1234\n");
  EXPECT_EQ(value, 1234);
  board.start({}, 11099);
  EXPECT_EQ(pfm_get_card_index(&value), 0U);
  EXPECT_EQ(value, 11099);
  EXPECT_EQ(pfm_get_hw_changes_bits(&value), 0U);
  EXPECT_EQ(value, 1);
  EXPECT_EQ(opened_with()["/dev/sprom"] & O_ACCMODE, O_RDWR);
}

// What is opened or allocated for one use is closed and released after it.
TEST(resources, are_free_again) {
  isolated([] {
    const test_board board;
    uint32_t word = 0;
    uint16_t card = 0;
    const std::function<void()> uses[] = {
        [&] { (void)pfm_get_card_index(&card); },
        [] { (void)pci_scan_devices(); },
        [] { post_result_write(0, 4, 0, 1); },
        post_read_hw_change_bits,
        [&] { (void)dorvan_brd_seeprom_test(0, &word, 1, nullptr); },
    };
    size_t before = 0;
    for (const char *const fault : {"i2c-absent bus=1 addr=0x52", "sprom-refuse after=1000"}) {
      board.start({fault});
      (void)printed(std::end(uses)[-1]);  // the I2C service keeps its bus open
      before = open_descriptors();
      const int blocks_before = blocks;
      for (const auto &use : uses) {
        (void)printed(use);
        EXPECT_EQ(open_descriptors(), before) << &use - uses;
        EXPECT_EQ(blocks, blocks_before) << &use - uses;
      }
    }
    for (const std::string report : {"PASS", "FAIL\nEeprom test 0\n", "FAIL\nEeprom test 1\n", ""}) {
      set_report(board, report);
      (void)printed([] { (void)gige_test(0); });
      EXPECT_EQ(open_descriptors(), before) << report;
    }
  });
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
  for (const auto &[slot, index] : {std::pair{0U, 1U}, {1U, 0U}, {2U, 2U}})
    EXPECT_EQ(sprom_init_dorvan(16, slot, index), nullptr);
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

TEST(hw_change_bits, are_1_without_a_descriptor_and_0_without_a_card_or_memory) {
  for (const uint32_t card : {4711U, 11062U}) {
    const test_board board({}, card);
    refused_size = SPROM_SIZE_SUP;
    EXPECT_EQ(printed([] { post_read_hw_change_bits(); }), "");
    EXPECT_EQ(dorvan_post_hw_change_bits_get(), 0U);
  }
  refused_size = 0;
  const test_board board;
  no_descriptor = true;
  EXPECT_EQ(printed([] { post_read_hw_change_bits(); }), "err: could not init sup sprom, defaulting to KVR P1\n");
  EXPECT_EQ(dorvan_post_hw_change_bits_get(), 1U);
  no_descriptor = false;
}

TEST(output_hooks, suppress_level_7_alone) {
  EXPECT_EQ(printed([] {
              EXPECT_EQ(cli_printf("%s %d\n", "text", 10), 8);
              for (const int32_t level : {DIAG_LVL_DEBUG + 1, DIAG_LVL_DEBUG + 0, DIAG_LVL_INFO + 0, 5, 0, -7})
                diag_dbg_print(level, "%d\n", level);
            }),
            "text 10\n8\n6\n5\n0\n-7\n");
}

}  // namespace
