// Whole runs with the NVRAM and OBFL rows: what POST says, what it records, and what is in NVRAM and flash afterwards.
#include <gmock/gmock.h>

#include <algorithm>
#include <array>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <random>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "post/dorvan/cards.h"
#include "sim/devices/cut_audit.h"
#include "tests/board/post_output.h"
#include "tests/support/run.h"

namespace {

using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;

constexpr size_t flash_size = 0x4000000;
constexpr size_t sector_size = 0x20000;
constexpr size_t nvram_size = 0x8000;

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
    m_flash.assign(flash_size, '\xFF');
    for (const int sector : {6, 0, 2, 509, 4, 507, 8, 503, 16, 495, 32, 479, 64, 447, 128, 383, 256, 255, 511, 1, 300})
      m_flash.replace(static_cast<size_t>(sector) * sector_size, sector_size,
                      noise(sector_size, static_cast<unsigned>(sector)));
    for (unsigned i = 0; i < m_nvram.size(); ++i)
      m_nvram[i] = noise(nvram_size, 1000 + i);
    reset();
  }

  // Everything is again as it was.
  void reset() const {
    forget_records();
    write("flash", m_flash);
    for (size_t i = 0; i < m_nvram.size(); ++i)
      write("nvram" + std::to_string(i), m_nvram[i]);
  }

  outcome run(std::vector<std::string> args) const { return run_board(m_state.path(), args); }

  void forget_records() const { std::filesystem::remove(m_state.path() / "post/result"); }

  [[nodiscard]] std::string file(const std::string &name) const { return m_state.path() / name; }
  [[nodiscard]] std::string read(const std::string &name) const { return read_file(m_state.path() / name); }
  [[nodiscard]] const std::string &before(const std::string &memory) const {
    return memory == "flash" ? m_flash : m_nvram[static_cast<size_t>(memory.back() - '0')];
  }
  [[nodiscard]] std::string nvram_before(size_t instance) const { return m_nvram[instance]; }
  [[nodiscard]] std::string nvram_after(size_t instance) const { return read("nvram" + std::to_string(instance)); }
  [[nodiscard]] std::string flash_before() const { return m_flash; }
  [[nodiscard]] std::string flash_after() const { return read("flash"); }

  // The sectors that are not as they were.
  [[nodiscard]] std::vector<size_t> changed_sectors() const {
    const std::string now = flash_after();
    std::vector<size_t> changed;
    for (size_t at = 0; at < flash_size; at += sector_size)
      if (now.compare(at, sector_size, m_flash, at, sector_size) != 0) changed.push_back(at / sector_size);
    return changed;
  }

  // The NVRAM instances that are not as they were.
  [[nodiscard]] std::vector<size_t> changed_nvrams() const {
    std::vector<size_t> changed;
    for (size_t i = 0; i < m_nvram.size(); ++i)
      if (nvram_after(i) != m_nvram[i]) changed.push_back(i);
    return changed;
  }

 private:
  void write(const std::string &name, const std::string &bytes) const {
    std::ofstream(m_state.path() / name, std::ios::binary) << bytes;
  }

  temp_dir m_state;
  std::string m_flash;
  std::array<std::string, 3> m_nvram;
};

// Runs POST and compares what it prints and records. Returns the run.
outcome expect_run(const full_board &board, const std::vector<std::string> &args, const expected_run &expected) {
  outcome run = board.run(args);
  EXPECT_EQ(run.status, 0);
  EXPECT_EQ(run.err, "");
  EXPECT_EQ(steady(run.out), output_of(expected, false));
  EXPECT_EQ(run.records, records_of(expected, false));
  return run;
}

class every_card : public testing::TestWithParam<size_t> {};

TEST_P(every_card, passes_and_keeps_all_contents) {
  const full_board board;
  (void)expect_run(board, {"--card", std::to_string(dorvan_cards[GetParam()].card_index)}, {});
  EXPECT_THAT(board.changed_sectors(), IsEmpty());
  EXPECT_THAT(board.changed_nvrams(), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(full_post, every_card, testing::Range(size_t{0}, size_t{POST_FULL_RUNS}));

const std::string never = "Reached the max timeout but DQ5 bit not set\n";
const std::string given_up = "Reached the max timeout and DQ5 bit is set\n";
const std::string no_erase = "## Error : obfl_sector_erase failed \n";
const std::string no_write = "## Error:obfl_wr_array failed\n";
const std::string no_restore = "## Error : obfl_sector_wr failed \n";

// The OBFL row ends at once and without a change.
const char short_obfl[] = "--fault=flash-erase-hangs";

struct nvram_case {
  const char *name;
  const char *card;
  std::vector<std::string> faults;
  std::string said;                  // nothing for a pass
  std::array<uint8_t, 2> lost = {};  // bits of the low and the high byte that an instance cannot hold
};

std::string data_line(int instance, unsigned expected, unsigned actual) {
  char text[160];
  (void)snprintf(text, sizeof text,
                 "0x00000000: Expected 0x%x Actual 0x%x\n"
                 "Failed above Data Bus Walking 1 Test for NVRAM %d address 0x0\n",
                 expected, actual, instance);
  return text;
}

// clang-format off
const nvram_case nvram_cases[] = {
    {"data line stuck low", "11062", {"nvram-data-stuck instance=1 line=3 level=0"},
     data_line(1, 0x8, 0), {0x08, 0}},
    {"data line stuck high", "11096", {"nvram-data-stuck instance=0 line=15 level=1"},
     data_line(0, 0x1, 0x8001), {0, 0x80}},
    {"two instances", "11079", {"nvram-data-stuck instance=0 line=0 level=0", "nvram-data-stuck instance=2 line=0 level=0"},
     data_line(0, 0x1, 0) + data_line(2, 0x1, 0), {0x01, 0}},
    {"an instance that the card does not test", "11061", {"nvram-data-stuck instance=1 line=3 level=0"}, ""},
    {"address line stuck low", "11062", {"nvram-addr-stuck instance=0 line=3 level=0"},
     "0x00000008: Expected 0xaaaa Actual 0x5555\nFailed above Addr Bus Walking 1 Test for NVRAM 0, address 0x8\n"},
    {"address lines shorted, high wins", "11062", {"nvram-addr-short instance=2 line=2 other=5 wins=1"},
     "0x00000020: Expected 0xaaaa Actual 0x5555\nWriting 0x085555 at addr 0x084 -> 0x0820 addr alias failure for NVRAM 2\n"},
    {"a cell seen by the count", "11062", {"nvram-cell-stuck instance=0 offset=0x102 bit=1 level=0"},
     "0x00000102: Expected 0x82 Actual 0x80\nFailed above increment data pattern test for NVRAM 0\n", {0x02, 0}},
    {"a cell seen by the inverted count", "11062", {"nvram-cell-stuck instance=0 offset=0x102 bit=2 level=0"},
     "0x00000102: Expected 0xff7d Actual 0xff79\nFailed above inverted data pattern test for NVRAM 0\n", {0x04, 0}},
    {"a cell in the upper half", "11062", {"nvram-cell-stuck instance=0 offset=0x6000 bit=0 level=0"}, "", {0x01, 0}},
};
// clang-format on

// What a line or cell cannot carry is lost; every other bit is as it was.
TEST(nvram_faults, are_told_and_cost_nothing_else) {
  for (const auto &c : nvram_cases) {
    SCOPED_TRACE(c.name);
    const full_board board;
    std::vector<std::string> args{"--card", c.card, short_obfl};
    for (const auto &fault : c.faults)
      args.push_back("--fault=" + fault);
    expected_run expected = {.said = {{"8:0", c.said}, {"10:0", never + no_erase}}, .failed = {"10:0"}};
    if (!c.said.empty()) expected.failed.insert("8:0");
    (void)expect_run(board, args, expected);
    for (size_t instance = 0; instance < 3; ++instance) {
      const std::string before = board.nvram_before(instance);
      const std::string after = board.nvram_after(instance);
      size_t lost = 0;
      for (size_t i = 0; i < nvram_size; ++i)
        if ((static_cast<uint8_t>(before[i] ^ after[i]) & ~c.lost[i % 2]) != 0) ++lost;
      EXPECT_EQ(lost, 0U) << "instance " << instance;
    }
  }
}

std::string compare_error(uint32_t addr, unsigned written, unsigned read) {
  char text[160];
  (void)snprintf(text, sizeof text, "## Error: Addr 0x%08x, data 0x%08x : failed\nRead 0x%08x, failed bits 0x%08x\n",
                 addr, written, read, written ^ read);
  return text;
}

// Name, fault, what is said, and the sectors that are not as they were.
// clang-format off
const std::tuple<const char *, const char *, std::string, std::vector<size_t>> obfl_cases[] = {
    {"data line stuck low",             "flash-data-stuck line=3 level=0",           compare_error(0xC0006, 0x8, 0), {6}},
    {"data line stuck high",            "flash-data-stuck line=12 level=1",          compare_error(0xC0000, 0x1, 0x1001), {6}},
    {"data lines shorted",              "flash-data-short line=2 other=5 wins=0",    compare_error(0xC0004, 0x4, 0), {6}},
    {"a cell that cannot hold a one",   "flash-cell-stuck offset=0xC0022 bit=0 level=0", given_up + no_erase, {6}},
    {"a cell that cannot be programmed", "flash-cell-stuck offset=4 bit=1 level=1",  given_up + no_write + given_up + no_restore, {0}},
    {"erase that never ends",           "flash-erase-hangs",                         never + no_erase, {}},
    {"erase that the chip gives up",    "flash-erase-hangs dq5=1",                   given_up + no_erase, {}},
    {"erase of a later sector",         "flash-erase-hangs sector=509",              never + no_erase, {}},
    {"program that never ends",         "flash-program-hangs",                       never + no_write + never + no_restore, {6}},
    {"program that the chip gives up",  "flash-program-hangs dq5=1 sector=0",        given_up + no_write + given_up + no_restore, {0}},
    {"program that clears a bit more",  "flash-program-clears sector=6 offset=0 bit=0", compare_error(0xC0000, 1, 0), {6}},
    {"flash that does not answer",      "flash-silent",                              compare_error(0xC0000, 1, 0xFFFF), {}},
};
// clang-format on

TEST(obfl_faults, are_told_and_cost_no_other_sector) {
  for (const auto &[name, fault, said, changed] : obfl_cases) {
    SCOPED_TRACE(name);
    const full_board board;
    (void)expect_run(board, {"--fault", fault}, {.said = {{"10:0", said}}, .failed = {"10:0"}});
    EXPECT_THAT(board.changed_nvrams(), IsEmpty());
    EXPECT_THAT(board.changed_sectors(), testing::IsSubsetOf(changed));
  }
}

// A sector whose sub-test failed is written back; a stuck data line loses its own bit on the way, and no other.
TEST(obfl_faults, restore_what_the_data_lines_carry) {
  const full_board board;
  (void)board.run({"--fault", "flash-data-stuck line=3 level=0"});
  std::string expected = board.flash_before();
  for (size_t i = 6 * sector_size; i < 7 * sector_size; i += 2)
    expected[i] = static_cast<char>(expected[i] & ~0x08);
  EXPECT_TRUE(board.flash_after() == expected);
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

std::string init_failed(const char *driver, const char *status) {
  return failed_call("mmap_map_addr( info->m_inst_info[i].m_phys_addr, info->m_len, &info->m_inst_info[i].m_virt_addr)",
                     status) +
         failed_call("cb->m_init( cb->m_parm)", status) + failed_call("hw_acc_init( dev)", status) +
         failed_call(std::string(driver) + "_sw_init()", status);
}

std::string find_failed(const char *driver, const char *status) {
  return failed_call("mmap_get_map_pci( HWTYPE_PLX_PCI, 0, bar, &addr, &len)", status) +
         failed_call(std::string(driver) + "_sw_init()", status);
}

const std::string obfl_assert =
    "## Assert:obfl_libinit():LINE\n## Assert:obfl_libinit():LINE\n"
    "         :\"rc == HW_SUCCESS\" is false\n         :\"rc == HW_SUCCESS\" is false\n";
const char nvram_assert[] = "nvram_libinit: Assertion `rc == HW_SUCCESS' failed.\n";
const char len_assert[] = "mmap_acc_init: Assertion `len' failed.\n";
const std::string flash_mapped = "devmemfd:0xN\nphys->virt: 0xf8000000-->0xADDR\n";
const std::string nvram0_mapped = "devmemfd:0xN\nphys->virt: 0xf4000000-->0xADDR\n";
const std::string refused = "devmemfd:0xN\nmmap_map_addr(): mmap() failed. Errno 1:Operation not permitted";

// Fault, output, and the errors of post, after the source's path and line.
// clang-format off
const std::tuple<const char *, std::string, const char *> start_cases[] = {
    {"cpuinfo-missing", "Unable to open /proc/cpuinfo for reading....\n", "_init_ptu: Assertion `0' failed.\n"},
    {"cpuinfo-no-rate", "Unable to find 'cpu MHz' in /proc/cpuinfo\n", "_init_ptu: Assertion `0' failed.\n"},
    {"cpuinfo-rate khz=0", "", "_init_ptu: Assertion `mhz != 0.0' failed.\n"},
    {"pci-list-unreadable", find_failed("obfl", "408 (HW_ERR_FILE_IO)") + obfl_assert, ""},
    {"pci-missing bus=0x2e dev=0 func=0",
     "mmap_get_map_pci(): The device could not be found for vendorID: 4277 deviceID: 36912 instance: 0.\n" +
     find_failed("obfl", "3901 (PCI_ERR_DEVICE_NOT_FOUND)") + obfl_assert, ""},
    {"bar-missing bar=5", "obfl_sw_init(): ERROR: OBFL_Flash0: no size in base address register 0x24\n", len_assert},
    {"bar-missing bar=3",
     flash_mapped + "nvram_sw_init(): ERROR: RTC_NVRAM1: no size in base address register 0x1c\n", len_assert},
    {"bar-64bit bar=2",
     flash_mapped + "_pci_find_cb_base_len(): ERROR: PCI BAR 2 is a 64-bit memory space for 0x2e:0x0:0x0\n" +
     find_failed("nvram", "3903 (PCI_ERR_64_BIT_MEMORY_SPACE)"), nvram_assert},
    {"mem-absent",
     "mmap_map_addr(): failed to open /dev/mem. Errno 2:No such file or directory" +
     init_failed("obfl", "601 (MMAP_ERR_DEV_MEM)") + obfl_assert, ""},
    {"mem-mmap-refused", refused + init_failed("obfl", "602 (MMAP_ERR_MMAP)") + obfl_assert, ""},
    {"mem-mmap-refused nth=3",
     flash_mapped + nvram0_mapped + refused + init_failed("nvram", "602 (MMAP_ERR_MMAP)"), nvram_assert},
};
// clang-format on

TEST(start_up, ends_when_a_device_cannot_be_reached) {
  for (const auto &[fault, out, err] : start_cases) {
    SCOPED_TRACE(fault);
    const temp_dir state;
    const outcome run = run_board(state.path(), {"--fault", fault});
    EXPECT_EQ(run.status, 128 + SIGABRT);
    EXPECT_EQ(before_abort(run.out), out);
    EXPECT_THAT(run.err, HasSubstr(err));
    EXPECT_EQ(run.records, "");
  }
}

TEST(start_up, names_the_function_in_the_call_stack) {
  const temp_dir state;
  EXPECT_THAT(run_board(state.path(), {"--fault", "mem-absent"}).out, HasSubstr("/post(obfl_libinit+0x"));
}

// What was printed before the abort is in the file, in order.
TEST(locks, end_the_process_when_they_cannot_be_created) {
  for (const auto &[fault, error] : {std::pair{"lock-dir-missing", "2, No such file or directory"},
                                     {"lock-dir-read-only", "30, Read-only file system"}}) {
    SCOPED_TRACE(fault);
    const full_board board;
    const outcome run = board.run({"--fault", fault});
    EXPECT_EQ(run.status, 128 + SIGABRT);
    EXPECT_THAT(run.out,
                EndsWith(std::string("  Executing Mod 1 1 NVRAM Test: \n."
                                     "ERROR lock_create(): error creating lock: /var/lock/RTC_NVRAM0-read.lock\n"
                                     ": OS Error: errno: ") +
                         error + " \nlock_create(\"RTC_NVRAM0-read\") failed\n"));
    EXPECT_THAT(run.err, HasSubstr("_mmap_rd_lk_acq: Assertion `(0)' failed.\n"));
    EXPECT_THAT(board.changed_nvrams(), IsEmpty());
  }
}

TEST(locks, are_waited_for) {
  const full_board board;
  (void)expect_run(board, {"--fault", "lock-held lock=nvram1 kind=write ms=300", short_obfl},
                   {.said = {{"10:0", never + no_erase}}, .failed = {"10:0"}});
}

// Power cuts: real ones against the audit of a whole run.

struct cut {
  std::string fault, memory;
  uint64_t certain = 0, at_most = 0, first = 0, length = 0, sum = 0;
};

// The cuts that an audit lists.
std::vector<cut> cuts_in(const std::string &audit) {
  std::vector<cut> list;
  std::istringstream lines(audit);
  for (std::string line; std::getline(lines, line);) {
    std::smatch m;
    if (!std::regex_match(line, m,
                          std::regex("cut\t(\\S+ (?:instance=(.) )?nth=\\d+)\t(\\d+)\t(\\S+)\t(\\d+)\t(\\S+)\t(\\S+)")))
      continue;
    const auto number = [&](size_t i) -> uint64_t { return std::stoull(m[i], nullptr, 0); };
    list.push_back(
        {m[1], m[2].matched ? "nvram" + m.str(2) : "flash", number(3), number(5), number(6), number(7), number(4)});
  }
  return list;
}

// What a cut left of its memory is what the audit says: outside of what it tears exactly so, inside no more than that.
void expect_audited(const cut &c, const std::string &before, const std::string &after) {
  constexpr size_t block = 0x1000;
  size_t certain = 0, torn = 0;
  uint64_t sum = 0;
  ASSERT_EQ(after.size(), before.size());
  for (size_t at = 0; at < after.size(); at += 2) {
    while (at % block == 0 && at < after.size() && std::memcmp(&after[at], &before[at], block) == 0)
      at += block;
    if (at == after.size()) break;
    if (after.compare(at, 2, before, at, 2) == 0) continue;
    const bool inside = at >= c.first && at - c.first < c.length;
    const auto word = static_cast<uint8_t>(after[at]) | static_cast<uint8_t>(after[at + 1]) << 8;
    if (!inside) sum += sim::cut_sum(static_cast<uint32_t>(at), static_cast<uint16_t>(word));
    ++(inside ? torn : certain);
  }
  EXPECT_EQ(certain, c.certain);
  EXPECT_EQ(sum, c.sum);
  EXPECT_LE(certain + torn, c.at_most);
}

// Of tools/cut-audit: how many cuts, all over the run, and where the audit goes. Else they are few, most of them early,
// where a run is short.
std::string asked_for(const char *variable, const std::string &otherwise) {
  const char *const asked = std::getenv(variable);
  return asked == nullptr ? otherwise : asked;
}

TEST(power_cut, loses_what_the_audit_says_and_hinders_no_run_after_it) {
  const full_board board;
  const auto audit = asked_for("POST_CUT_AUDIT", board.file("audit"));
  (void)expect_run(board, {"--cut-audit", audit}, {});
  const auto all = cuts_in(read_file(audit));
  ASSERT_GT(all.size(), 200U);
  const size_t asked = std::stoul(asked_for("POST_CUTS", "0")), count = asked != 0            ? asked
                                                                        : POST_FULL_RUNS == 1 ? 4
                                                                                              : 8;
  for (size_t i = 0; i < count; ++i) {
    const double part = static_cast<double>(i) / static_cast<double>(count);
    const cut &c = all[static_cast<size_t>(static_cast<double>(all.size()) * (asked != 0 ? part : part * part * part))];
    SCOPED_TRACE(c.fault + " seed=" + std::to_string(i));
    board.reset();
    const outcome run = board.run({"--fault", c.fault + " seed=" + std::to_string(i)});
    EXPECT_EQ(run.status, 128 + SIGKILL);
    for (const std::string name : {"nvram0", "nvram1", "nvram2", "flash"})
      expect_audited(c.memory == name ? c : cut{}, board.before(name), board.read(name));
    const std::string flash = board.read("flash");
    const auto nvrams = board.changed_nvrams();
    board.forget_records();
    if (asked != 0 && i % 8 == 0)
      (void)expect_run(board, {}, {});
    else
      (void)expect_run(board, {short_obfl}, {.said = {{"10:0", never + no_erase}}, .failed = {"10:0"}});
    EXPECT_TRUE(board.read("flash") == flash) << "the next run keeps what it finds";
    EXPECT_EQ(board.changed_nvrams(), nvrams);
  }
}

}  // namespace
