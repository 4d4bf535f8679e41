// Whole runs with the NVRAM and OBFL rows: what POST says, what it records, and what is in NVRAM and flash afterwards.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <csignal>
#include <cstdint>
#include <fstream>
#include <random>
#include <regex>
#include <string>
#include <vector>

#include "post/dorvan/cards.h"
#include "tests/support/run.h"

namespace {

using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;

constexpr size_t flash_size = 0x4000000;
constexpr size_t sector_size = 0x20000;
constexpr size_t nvram_size = 0x8000;

// The sectors that the OBFL test writes, in its order.
constexpr std::array tested_sectors = {6,  0,   2,  509, 4,   507, 8,   503, 16, 495,
                                       32, 479, 64, 447, 128, 383, 256, 255, 0,  511};

std::string noise(size_t size, unsigned seed) {
  std::mt19937 random(seed);
  std::string bytes(size, '\0');
  for (char &byte : bytes)
    byte = static_cast<char>(random());
  return bytes;
}

// A state directory whose memories hold noise, of the flash the tested sectors and a few others.
class full_board {
 public:
  full_board() {
    flash_.assign(flash_size, '\xFF');
    for (const int sector :
         {6, 0, 2, 509, 4, 507, 8, 503, 16, 495, 32, 479, 64, 447, 128, 383, 256, 255, 511, 1, 300}) {
      const std::string bytes = noise(sector_size, static_cast<unsigned>(sector));
      std::ranges::copy(bytes, flash_.begin() + sector * static_cast<std::ptrdiff_t>(sector_size));
    }
    for (unsigned i = 0; i < nvram_.size(); ++i)
      nvram_[i] = noise(nvram_size, 1000 + i);
    write("flash", flash_);
    for (size_t i = 0; i < nvram_.size(); ++i)
      write("nvram" + std::to_string(i), nvram_[i]);
  }

  outcome run(std::vector<std::string> args) const { return run_board(state_.path(), args); }

  [[nodiscard]] std::string nvram_before(size_t instance) const { return nvram_[instance]; }
  [[nodiscard]] std::string nvram_after(size_t instance) const { return read("nvram" + std::to_string(instance)); }
  [[nodiscard]] std::string sector_before(size_t sector) const {
    return flash_.substr(sector * sector_size, sector_size);
  }
  [[nodiscard]] std::string sector_after(size_t sector) const {
    return read("flash").substr(sector * sector_size, sector_size);
  }

  // The sectors that are not as they were.
  [[nodiscard]] std::vector<size_t> changed_sectors() const {
    const std::string now = read("flash");
    std::vector<size_t> changed;
    for (size_t sector = 0; sector < flash_size / sector_size; ++sector) {
      if (now.compare(sector * sector_size, sector_size, flash_, sector * sector_size, sector_size) != 0)
        changed.push_back(sector);
    }
    return changed;
  }

  // The NVRAM instances that are not as they were.
  [[nodiscard]] std::vector<size_t> changed_nvrams() const {
    std::vector<size_t> changed;
    for (size_t i = 0; i < nvram_.size(); ++i)
      if (nvram_after(i) != nvram_[i]) changed.push_back(i);
    return changed;
  }

 private:
  void write(const std::string &name, const std::string &bytes) const {
    std::ofstream(state_.path() / name, std::ios::binary) << bytes;
  }
  [[nodiscard]] std::string read(const std::string &name) const { return read_file(state_.path() / name); }

  temp_dir state_;
  std::string flash_;
  std::array<std::string, 3> nvram_;
};

std::string error(int id) {
  return "\n ERROR: Executing " + std::to_string(id) + " on dev 0\n";
}

std::string row(const char *name, const std::string &body) {
  return std::string("  Executing Mod 1 1 ") + name + " Test: \n" + body + "done (N seconds)\n";
}

std::string rows(const std::string &nvram, const std::string &obfl) {
  const bool failed = nvram != "." || obfl != ".";
  return "Starting system POST.....\nP(0x1) board\n" + row("SEEPROM", "...") + row("GigE Port", "....") +
         row("NVRAM", nvram) + row("OBFL", obfl) + row("PCIE", ".......") + "  Mod 1 1 Post " +
         (failed ? "Failed" : "Completed Successfully") + "\nPOST is completed\n";
}

std::string records(bool nvram_passes, bool obfl_passes) {
  return std::string("0:4:0:1\n0:4:1:1\n0:5:0:1\n0:5:1:1\n0:5:2:1\n0:5:3:1\n0:8:0:") + (nvram_passes ? "1" : "2") +
         "\n0:10:0:" + (obfl_passes ? "1" : "2") +
         "\n0:12:0:1\n0:12:1:1\n0:12:2:1\n0:12:3:1\n0:12:4:1\n0:12:5:1\n0:12:6:1\n";
}

// The output from the start line on.
std::string post_lines(const std::string &out) {
  const std::string text = steady(out);
  const size_t start = text.find("Starting system POST");
  return start == std::string::npos ? text : text.substr(start);
}

class every_card : public testing::TestWithParam<size_t> {};

TEST_P(every_card, passes_and_keeps_all_contents) {
  const full_board board;
  const outcome run = board.run({"--card", std::to_string(dorvan_cards[GetParam()].card_index)});
  EXPECT_EQ(run.status, 0);
  EXPECT_EQ(run.err, "");
  EXPECT_EQ(post_lines(run.out), rows(".", "."));
  EXPECT_EQ(run.records, records(true, true));
  EXPECT_THAT(board.changed_sectors(), IsEmpty());
  EXPECT_THAT(board.changed_nvrams(), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(full_post, every_card, testing::Range(size_t{0}, size_t{POST_FULL_RUNS}));

// Ends the OBFL row at once and without a change.
constexpr const char *short_obfl = "flash-erase-hangs";
const std::string short_obfl_row =
    ".Reached the max timeout but DQ5 bit not set\n## Error : obfl_sector_erase failed \n" + error(10);

struct nvram_case {
  const char *name;
  const char *card;
  std::vector<std::string> faults;
  std::string body;    // of the row; "." for a pass
  uint16_t lost_bits;  // data bits that instance 0 cannot hold
};

TEST(nvram_faults, are_told_and_cost_nothing_else) {
  const nvram_case cases[] = {
      {"data line stuck low in another instance",
       "11062",
       {"nvram-data-stuck instance=1 line=3 level=0"},
       ".0x00000000: Expected 0x8 Actual 0x0\nFailed above Data Bus Walking 1 Test for NVRAM 1 address 0x0\n" +
           error(8),
       0x0008},
      {"data line stuck high",
       "11096",
       {"nvram-data-stuck instance=0 line=15 level=1"},
       ".0x00000000: Expected 0x1 Actual 0x8001\nFailed above Data Bus Walking 1 Test for NVRAM 0 address 0x0\n" +
           error(8),
       0x8000},
      {"two instances fail, both are told",
       "11079",
       {"nvram-data-stuck instance=0 line=0 level=0", "nvram-data-stuck instance=2 line=0 level=0"},
       ".0x00000000: Expected 0x1 Actual 0x0\nFailed above Data Bus Walking 1 Test for NVRAM 0 address 0x0\n"
       "0x00000000: Expected 0x1 Actual 0x0\nFailed above Data Bus Walking 1 Test for NVRAM 2 address 0x0\n" +
           error(8),
       0x0001},
      {"an instance that the card does not test", "11061", {"nvram-data-stuck instance=1 line=3 level=0"}, ".", 0},
      {"address line stuck low",
       "11062",
       {"nvram-addr-stuck instance=0 line=3 level=0"},
       ".0x00000008: Expected 0xaaaa Actual 0x5555\n"
       "Failed above Addr Bus Walking 1 Test for NVRAM 0, address 0x8\n" +
           error(8),
       0},
      {"address lines shorted, high wins",
       "11062",
       {"nvram-addr-short instance=2 line=2 other=5 wins=1"},
       ".0x00000020: Expected 0xaaaa Actual 0x5555\n"
       "Writing 0x085555 at addr 0x084 -> 0x0820 addr alias failure for NVRAM 2\n" +
           error(8),
       0},
      {"a bad cell seen by the count",
       "11062",
       {"nvram-cell-stuck instance=0 offset=0x102 bit=1 level=0"},
       ".0x00000102: Expected 0x82 Actual 0x80\nFailed above increment data pattern test for NVRAM 0\n" + error(8),
       0},
      {"a bad cell seen by the inverted count",
       "11062",
       {"nvram-cell-stuck instance=0 offset=0x102 bit=2 level=0"},
       ".0x00000102: Expected 0xff7d Actual 0xff79\nFailed above inverted data pattern test for NVRAM 0\n" + error(8),
       0},
      {"a bad cell in the upper half is not looked for",
       "11062",
       {"nvram-cell-stuck instance=0 offset=0x6000 bit=0 level=0"},
       ".",
       0},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.name);
    const full_board board;
    std::vector<std::string> args{"--card", c.card, "--fault", short_obfl};
    for (const auto &fault : c.faults)
      args.insert(args.end(), {"--fault", fault});
    const outcome run = board.run(args);
    EXPECT_EQ(run.err, "");
    EXPECT_EQ(post_lines(run.out), rows(c.body, short_obfl_row));
    EXPECT_EQ(run.records, records(c.body == ".", false));
    // What a data line cannot carry is lost; every other bit is as it was.
    for (size_t instance = 0; instance < 3; ++instance) {
      const std::string before = board.nvram_before(instance);
      const std::string after = board.nvram_after(instance);
      size_t lost = 0;
      for (size_t i = 0; i < nvram_size; ++i) {
        const auto kept = static_cast<unsigned char>(~(i % 2 == 0 ? c.lost_bits : c.lost_bits >> 8));
        if (((before[i] ^ after[i]) & kept) != 0) ++lost;
      }
      const bool cell = c.faults[0].starts_with("nvram-cell") && instance == 0;
      EXPECT_LE(lost, cell ? 1U : 0U) << "instance " << instance;
    }
  }
}

struct obfl_case {
  const char *name;
  const char *fault;
  std::string body;
  std::vector<size_t> changed;  // sectors that are not as they were
};

std::string compare_error(uint32_t addr, unsigned written, unsigned read) {
  char text[160];
  (void)snprintf(text, sizeof text, "## Error: Addr 0x%08x, data 0x%08x : failed\nRead 0x%08x, failed bits 0x%08x\n",
                 addr, written, read, written ^ read);
  return text;
}

TEST(obfl_faults, are_told_and_cost_no_other_sector) {
  const std::string never = "Reached the max timeout but DQ5 bit not set\n";
  const std::string given_up = "Reached the max timeout and DQ5 bit is set\n";
  const std::string no_erase = "## Error : obfl_sector_erase failed \n";
  const std::string no_write = "## Error:obfl_wr_array failed\n";
  const std::string no_restore = "## Error : obfl_sector_wr failed \n";
  const obfl_case cases[] = {
      {"data line stuck low", "flash-data-stuck line=3 level=0", compare_error(0xC0006, 0x8, 0), {6}},
      {"data line stuck high", "flash-data-stuck line=12 level=1", compare_error(0xC0000, 0x1, 0x1001), {6}},
      {"data lines shorted", "flash-data-short line=2 other=5 wins=0", compare_error(0xC0004, 0x4, 0), {6}},
      {"a cell that cannot hold a one", "flash-cell-stuck offset=0xC0022 bit=0 level=0", given_up + no_erase, {6}},
      {"a cell of the second sector tested that cannot be programmed",
       "flash-cell-stuck offset=4 bit=1 level=1",
       given_up + no_write + given_up + no_restore,
       {0}},
      {"erase that never ends", "flash-erase-hangs", never + no_erase, {}},
      {"erase that the chip gives up", "flash-erase-hangs dq5=1", given_up + no_erase, {}},
      {"erase that never ends in a later sector", "flash-erase-hangs sector=509", never + no_erase, {}},
      {"program that never ends: erased, neither tested nor restored",
       "flash-program-hangs",
       never + no_write + never + no_restore,
       {6}},
      {"program that the chip gives up in sector 0",
       "flash-program-hangs dq5=1 sector=0",
       given_up + no_write + given_up + no_restore,
       {0}},
      {"program that clears a bit more",
       "flash-program-clears sector=6 offset=0 bit=0",
       compare_error(0xC0000, 1, 0),
       {6}},
      {"flash that does not answer", "flash-silent", compare_error(0xC0000, 1, 0xFFFF), {}},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.name);
    const full_board board;
    const outcome run = board.run({"--fault", c.fault});
    EXPECT_EQ(run.err, "");
    EXPECT_EQ(post_lines(run.out), rows(".", "." + c.body + error(10)));
    EXPECT_EQ(run.records, records(true, false));
    EXPECT_THAT(board.changed_nvrams(), IsEmpty());
    for (const size_t sector : board.changed_sectors())
      EXPECT_THAT(c.changed, testing::Contains(sector));
  }
}

// A sector whose sub-test failed is written back; a stuck data line loses its own bit on the way, and no other.
TEST(obfl_faults, restore_what_the_data_lines_carry) {
  const full_board board;
  (void)board.run({"--fault", "flash-data-stuck line=3 level=0"});
  std::string expected = board.sector_before(6);
  for (size_t i = 0; i < expected.size(); i += 2)
    expected[i] = static_cast<char>(expected[i] & ~0x08);
  EXPECT_TRUE(board.sector_after(6) == expected);
}

std::string failed_call(const std::string &call, const char *status) {
  const std::string report = "## Error : Failed " + call + "\n           with rc " + status + "\n";
  return report + report;
}

// Standard output up to the abort, without the call stack.
std::string before_abort(const std::string &out) {
  static const std::regex frame("## BT: [^\n]*\n");
  static const std::regex line(R"(## Assert:(\w+)\(\):\d+)");
  return std::regex_replace(std::regex_replace(steady(out), frame, ""), line, "## Assert:$1():LINE");
}

TEST(start_up, ends_when_a_device_cannot_be_reached) {
  const std::string map_call =
      "mmap_map_addr( info->m_inst_info[i].m_phys_addr, info->m_len, &info->m_inst_info[i].m_virt_addr)";
  const std::string find_call = "mmap_get_map_pci( HWTYPE_PLX_PCI, 0, bar, &addr, &len)";
  const auto init_failed = [&](const char *driver, const char *status) {
    return failed_call(map_call, status) + failed_call("cb->m_init( cb->m_parm)", status) +
           failed_call("hw_acc_init( dev)", status) + failed_call(std::string(driver) + "_sw_init()", status);
  };
  const std::string obfl_assert =
      "## Assert:obfl_libinit():LINE\n## Assert:obfl_libinit():LINE\n"
      "         :\"rc == HW_SUCCESS\" is false\n         :\"rc == HW_SUCCESS\" is false\n";
  const std::string nvram_assert = "nvram_libinit: Assertion `rc == HW_SUCCESS' failed.\n";
  const std::string flash_mapped = "devmemfd:0xN\nphys->virt: 0xf8000000-->0xADDR\n";
  const std::string refused = "devmemfd:0xN\nmmap_map_addr(): mmap() failed. Errno 1:Operation not permitted";
  const std::string not_found =
      "mmap_get_map_pci(): The device could not be found for vendorID: 4277 deviceID: 36912 instance: 0.\n";

  struct start_case {
    const char *fault;
    std::string out;
    std::string err;  // of post, after the source's path and line
  };
  const start_case cases[] = {
      {"cpuinfo-missing", "Unable to open /proc/cpuinfo for reading....\n", "_init_ptu: Assertion `0' failed.\n"},
      {"cpuinfo-no-rate", "Unable to find 'cpu MHz' in /proc/cpuinfo\n", "_init_ptu: Assertion `0' failed.\n"},
      {"cpuinfo-rate khz=0", "", "_init_ptu: Assertion `mhz != 0.0' failed.\n"},
      {"pci-list-unreadable",
       failed_call(find_call, "408 (HW_ERR_FILE_IO)") + failed_call("obfl_sw_init()", "408 (HW_ERR_FILE_IO)") +
           obfl_assert,
       ""},
      {"pci-missing bus=0x2e dev=0 func=0",
       not_found + failed_call(find_call, "3901 (PCI_ERR_DEVICE_NOT_FOUND)") +
           failed_call("obfl_sw_init()", "3901 (PCI_ERR_DEVICE_NOT_FOUND)") + obfl_assert,
       ""},
      {"bar-missing bar=5", "obfl_sw_init(): ERROR: OBFL_Flash0: no size in base address register 0x24\n",
       "mmap_acc_init: Assertion `len' failed.\n"},
      {"bar-missing bar=3",
       flash_mapped + "nvram_sw_init(): ERROR: RTC_NVRAM1: no size in base address register 0x1c\n",
       "mmap_acc_init: Assertion `len' failed.\n"},
      {"bar-64bit bar=2",
       flash_mapped + "_pci_find_cb_base_len(): ERROR: PCI BAR 2 is a 64-bit memory space for 0x2e:0x0:0x0\n" +
           failed_call(find_call, "3903 (PCI_ERR_64_BIT_MEMORY_SPACE)") +
           failed_call("nvram_sw_init()", "3903 (PCI_ERR_64_BIT_MEMORY_SPACE)"),
       nvram_assert},
      {"mem-absent",
       "mmap_map_addr(): failed to open /dev/mem. Errno 2:No such file or directory" +
           init_failed("obfl", "601 (MMAP_ERR_DEV_MEM)") + obfl_assert,
       ""},
      {"mem-mmap-refused", refused + init_failed("obfl", "602 (MMAP_ERR_MMAP)") + obfl_assert, ""},
      {"mem-mmap-refused nth=3",
       flash_mapped + "devmemfd:0xN\nphys->virt: 0xf4000000-->0xADDR\n" + refused +
           init_failed("nvram", "602 (MMAP_ERR_MMAP)"),
       nvram_assert},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.fault);
    const full_board board;
    const outcome run = board.run({"--fault", c.fault});
    EXPECT_EQ(run.status, 128 + SIGABRT);
    EXPECT_EQ(before_abort(run.out), c.out);
    EXPECT_THAT(run.err, HasSubstr(c.err));
    EXPECT_EQ(run.records, "");
    EXPECT_THAT(board.changed_sectors(), IsEmpty());
  }
}

TEST(start_up, names_the_function_in_the_call_stack) {
  const full_board board;
  const outcome run = board.run({"--fault", "mem-absent"});
  EXPECT_THAT(run.out, HasSubstr("/post(obfl_libinit+0x"));
}

// What was printed before the abort is in the file, in order.
TEST(locks, end_the_process_when_they_cannot_be_created) {
  struct lock_case {
    const char *fault;
    const char *error;
  };
  for (const auto &c : {lock_case{"lock-dir-missing", "2, No such file or directory"},
                        lock_case{"lock-dir-read-only", "30, Read-only file system"}}) {
    SCOPED_TRACE(c.fault);
    const full_board board;
    const outcome run = board.run({"--fault", c.fault});
    EXPECT_EQ(run.status, 128 + SIGABRT);
    EXPECT_THAT(run.out,
                EndsWith(std::string("  Executing Mod 1 1 NVRAM Test: \n."
                                     "ERROR lock_create(): error creating lock: /var/lock/RTC_NVRAM0-read.lock\n"
                                     ": OS Error: errno: ") +
                         c.error + " \nlock_create(\"RTC_NVRAM0-read\") failed\n"));
    EXPECT_THAT(run.err, HasSubstr("_mmap_rd_lk_acq: Assertion `(0)' failed.\n"));
    EXPECT_THAT(board.changed_nvrams(), IsEmpty());
  }
}

TEST(locks, are_waited_for) {
  const full_board board;
  const outcome run = board.run({"--fault", "lock-held lock=nvram1 kind=write ms=300", "--fault", short_obfl});
  EXPECT_EQ(post_lines(run.out), rows(".", short_obfl_row));
}

// A run that dies leaves the sector under test to be lost, and no other.
class killed_at : public testing::TestWithParam<int> {};

TEST_P(killed_at, loses_at_most_the_sector_under_test) {
  constexpr int cycles_of_sector_test = 86000;  // six of each erase, 21 of each page program
  const full_board board;
  const outcome run = board.run({"--fault", "flash-power-cut nth=" + std::to_string(GetParam())});
  EXPECT_EQ(run.status, 128 + SIGKILL);
  EXPECT_THAT(run.out, HasSubstr("OBFL Test: \n."));
  const auto changed = board.changed_sectors();
  ASSERT_LE(changed.size(), 1U);
  const int at = GetParam() / cycles_of_sector_test;
  for (const size_t sector : changed)
    EXPECT_TRUE(static_cast<int>(sector) == tested_sectors[static_cast<size_t>(at)] ||
                (at > 0 && static_cast<int>(sector) == tested_sectors[static_cast<size_t>(at - 1)]))
        << sector;
  EXPECT_THAT(board.changed_nvrams(), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(full_post, killed_at,
                         testing::Values(1, 4, 5, 9, 10, 11, 12, 30, 31, 52, 53, 60, 61, 80, 1000, 20000, 60000, 86100,
                                         86110, 86200, 90000, 130000, 172500, 180000, 260000));

}  // namespace
