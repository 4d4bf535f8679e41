// Whole runs with the NVRAM and OBFL rows: what POST says, what it records, and what is in NVRAM and flash afterwards.
#include "post/dorvan/cards.h"
#include "sim/devices/cut_audit.h"
#include "tests/board/post_output.h"
#include "tests/support/text.h"

namespace {

constexpr size_t flash_size = 0x4000000, sector_size = 0x20000, nvram_size = 0x8000;
const std::string nvrams[] = {"nvram0", "nvram1", "nvram2"};

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
    std::string &flash = m_before["flash"];
    flash.assign(flash_size, '\xFF');
    constexpr unsigned used[] = {6,   0,  2,   509, 4,   507, 8,   503, 16, 495, 32,
                                 479, 64, 447, 128, 383, 256, 255, 511, 1,  300};
    for (const unsigned sector : used)
      flash.replace(sector * sector_size, sector_size, noise(sector_size, sector));
    for (const std::string &name : nvrams)
      m_before[name] = noise(nvram_size, static_cast<unsigned char>(name.back()));
    reset();
  }

  // Everything is again as it was.
  void reset() const {
    forget_records();
    for (const auto &[name, bytes] : m_before)
      std::ofstream(file(name), std::ios::binary) << bytes;
  }
  void forget_records() const { std::filesystem::remove(file("post/result")); }

  outcome run(std::vector<std::string> args) const { return run_board(m_state.path(), args); }

  [[nodiscard]] std::string file(const std::string &name) const { return m_state.path() / name; }
  [[nodiscard]] std::string read(const std::string &name) const { return read_file(file(name)); }
  [[nodiscard]] const std::string &before(const std::string &memory) const { return m_before.at(memory); }

  // The NVRAM instances and flash sectors, by their numbers, that are not as they were.
  [[nodiscard]] std::vector<std::string> changed() const {
    std::vector<std::string> list;
    for (const auto &[name, bytes] : m_before) {
      const std::string now = read(name);
      const size_t unit = std::min(bytes.size(), sector_size);
      for (size_t at = 0; at < bytes.size(); at += unit)
        if (now.compare(at, unit, bytes, at, unit) != 0)
          list.push_back(name == "flash" ? std::to_string(at / unit) : name);
    }
    return list;
  }

 private:
  temp_dir m_state;
  std::map<std::string, std::string> m_before;
};

// Runs POST and compares what it prints and records.
void expect_run(const full_board &board, const std::vector<std::string> &args, const expected_run &expected) {
  const outcome run = board.run(args);
  expect_run(run, 0, ResultOf(steady, output_of(expected, false)));
  EXPECT_EQ(run.records, records_of(expected, false));
}

const std::string never = "Reached the max timeout but DQ5 bit not set\n";
const std::string given_up = "Reached the max timeout and DQ5 bit is set\n";
const std::string no_erase = "## Error : obfl_sector_erase failed \n";
const std::string no_write = "## Error:obfl_wr_array failed\n";
const std::string no_restore = "## Error : obfl_sector_wr failed \n";

// The OBFL row, which is the same for every card, ends at once and without a change.
const char short_obfl[] = "--fault=flash-erase-hangs";
const expected_run obfl_failed = {.said = {{"10:0", never + no_erase}}, .failed = {"10:0"}};

using lost_bits = std::array<uint8_t, 2>;  // of the low and the high byte of each word

std::string without(std::string bytes, const lost_bits &lost) {
  for (size_t i = 0; i < bytes.size(); ++i)
    bytes[i] = static_cast<char>(bytes[i] & ~lost[i % 2]);
  return bytes;
}

std::string data_line(size_t instance, const char *expected, const char *actual) {
  return std::string("0x00000000: Expected ") + expected + " Actual " + actual +
         "\nFailed above Data Bus Walking 1 Test for NVRAM " + std::to_string(instance) + " address 0x0\n";
}

// What is said, nothing for a pass; the bits that the line or cell cannot carry.
// clang-format off
struct nvram_case { const char *name; std::vector<std::string> faults; std::string said; lost_bits lost;
                    uint16_t card = 11062; };
const nvram_case nvram_cases[] = {
    {"data line stuck high", {"data-stuck instance=0 line=15 level=1"}, data_line(0, "0x1", "0x8001"), {0, 0x80}},
    {"address line stuck low", {"addr-stuck instance=0 line=3 level=0"},
     "0x00000008: Expected 0xaaaa Actual 0x5555\nFailed above Addr Bus Walking 1 Test for NVRAM 0, address 0x8\n", {}},
    {"address lines shorted, high wins", {"addr-short instance=2 line=2 other=5 wins=1"},
     "0x00000020: Expected 0xaaaa Actual 0x5555\nWriting 0x085555 at addr 0x084 -> 0x0820 addr alias failure for NVRAM 2\n", {}},
    {"a cell seen by the count", {"cell-stuck instance=0 offset=0x102 bit=1 level=0"},
     "0x00000102: Expected 0x82 Actual 0x80\nFailed above increment data pattern test for NVRAM 0\n", {0x02, 0}},
    {"a cell seen by the inverted count", {"cell-stuck instance=0 offset=0x102 bit=2 level=0"},
     "0x00000102: Expected 0xff7d Actual 0xff79\nFailed above inverted data pattern test for NVRAM 0\n", {0x04, 0}},
    {"a cell in the upper half", {"cell-stuck instance=0 offset=0x6000 bit=0 level=0"}, "", {0x01, 0}},
};
// clang-format on

// A broken line in every instance shows which of them the card tests.
nvram_case of_card(const dorvan_card_t &card) {
  nvram_case all{"all instances", {}, "", {0x08, 0}, card.card_index};
  for (size_t i = 0; i < std::size(nvrams); ++i) {
    all.faults.push_back("data-stuck instance=" + std::to_string(i) + " line=3 level=0");
    if (i < card.nvram_instances) all.said += data_line(i, "0x8", "0x0");
  }
  return all;
}

TEST(nvram_faults, are_told_and_cost_nothing_else) {
  std::vector<nvram_case> cases(std::begin(nvram_cases), std::end(nvram_cases));
  std::ranges::transform(dorvan_cards, std::back_inserter(cases), of_card);
  const full_board board;
  for (const nvram_case &c : cases) {
    SCOPED_TRACE(testing::Message() << c.name << ", card " << c.card);
    board.reset();
    std::vector<std::string> args{"--card", std::to_string(c.card), short_obfl};
    for (const auto &fault : c.faults)
      args.push_back("--fault=nvram-" + fault);
    expected_run expected = obfl_failed;
    expected.said["8:0"] = c.said;
    if (!c.said.empty()) expected.failed.insert("8:0");
    expect_run(board, args, expected);
    for (const std::string &name : nvrams)
      EXPECT_TRUE(without(board.read(name), c.lost) == without(board.before(name), c.lost)) << name;
  }
}

std::string compare_error(uint32_t addr, unsigned written, unsigned read) {
  return format("## Error: Addr 0x%08x, data 0x%08x : failed\nRead 0x%08x, failed bits 0x%08x\n", addr, written, read,
                written ^ read);
}

constexpr lost_bits all_bits{0xFF, 0xFF};

// The sector may be another one than before, in these bits.
// clang-format off
const struct { const char *name; std::string fault, said; size_t sector; lost_bits lost; } obfl_cases[] = {
    {"data line stuck low",              "data-stuck line=3 level=0",           compare_error(0xC0006, 0x8, 0),      6, {0x08, 0}},
    {"a cell that cannot hold a one",    "cell-stuck offset=0xC0022 bit=0 level=0", given_up + no_erase,             6, all_bits},
    {"a cell that cannot be programmed", "cell-stuck offset=4 bit=1 level=1",   given_up + no_write + given_up + no_restore, 0, all_bits},
    {"erase that never ends",            "erase-hangs",                         never + no_erase,                    6, {}},
    {"erase that the chip gives up",     "erase-hangs dq5=1",                   given_up + no_erase,                 6, {}},
    {"erase of a later sector",          "erase-hangs sector=509",              never + no_erase,                    509, {}},
    {"program that never ends",          "program-hangs",                       never + no_write + never + no_restore, 6, all_bits},
    {"program that the chip gives up",   "program-hangs dq5=1 sector=0",        given_up + no_write + given_up + no_restore, 0, all_bits},
    {"program that clears a bit more",   "program-clears sector=6 offset=0 bit=0", compare_error(0xC0000, 1, 0),     6, {0x01, 0}},
    {"flash that does not answer",       "silent",                              compare_error(0xC0000, 1, 0xFFFF),   6, {}},
};
// clang-format on

const char one_nvram[] = "--card=11061";  // tests no other, which takes less time

// A sector whose sub-test failed is written back, as far as the data lines carry it.
TEST(obfl_faults, are_told_and_cost_no_other_sector) {
  const full_board board;
  for (const auto &[name, fault, said, sector, lost] : obfl_cases) {
    SCOPED_TRACE(name);
    board.reset();
    expect_run(board, {one_nvram, "--fault=flash-" + fault}, {.said = {{"10:0", said}}, .failed = {"10:0"}});
    EXPECT_THAT(board.changed(), testing::IsSubsetOf({std::to_string(sector)}));
    const std::string before = board.before("flash").substr(sector * sector_size, sector_size);
    const std::string after = board.read("flash").substr(sector * sector_size, sector_size);
    EXPECT_TRUE(without(after, lost) == without(before, lost));
  }
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

std::string map_failed(const char *driver) {
  std::string text = "devmemfd:0xN\nmmap_map_addr(): mmap() failed. Errno 1:Operation not permitted";
  for (const std::string call :
       {"mmap_map_addr( info->m_inst_info[i].m_phys_addr, info->m_len, &info->m_inst_info[i].m_virt_addr)",
        "cb->m_init( cb->m_parm)", "hw_acc_init( dev)", driver})
    text += failed_call(call, "602 (MMAP_ERR_MMAP)");
  return text;
}

// The errors come after the source's path and line.
// clang-format off
const struct { const char *fault; std::string out; const char *err; } start_cases[] = {
    {"cpuinfo-missing", "Unable to open /proc/cpuinfo for reading....\n", "_init_ptu: Assertion `0' failed.\n"},
    {"pci-missing bus=0x2e dev=0 func=0",
     "mmap_get_map_pci(): The device could not be found for vendorID: 4277 deviceID: 36912 instance: 0.\n" +
     find_failed("obfl", "3901 (PCI_ERR_DEVICE_NOT_FOUND)") + obfl_assert, ""},
    {"bar-missing bar=5", "obfl_sw_init(): ERROR: OBFL_Flash0: no size in base address register 0x24\n", len_assert},
    {"bar-missing bar=3",
     flash_mapped + "nvram_sw_init(): ERROR: RTC_NVRAM1: no size in base address register 0x1c\n", len_assert},
    {"bar-64bit bar=2",
     flash_mapped + "_pci_find_cb_base_len(): ERROR: PCI BAR 2 is a 64-bit memory space for 0x2e:0x0:0x0\n" +
     find_failed("nvram", "3903 (PCI_ERR_64_BIT_MEMORY_SPACE)"), nvram_assert},
    {"mem-mmap-refused", map_failed("obfl_sw_init()") + obfl_assert, ""},
    {"mem-mmap-refused nth=2", flash_mapped + map_failed("nvram_sw_init()"), nvram_assert},
};
// clang-format on

TEST(start_up, ends_when_a_device_cannot_be_reached) {
  for (const auto &[fault, out, err] : start_cases) {
    SCOPED_TRACE(fault);
    const temp_dir state;
    const outcome run = run_board(state.path(), {"--fault", fault});
    expect_run(run, 128 + SIGABRT, ResultOf(before_abort, out), HasSubstr(err));
    EXPECT_EQ(run.records, "");
    // The call stack names functions.
    EXPECT_EQ(run.out.find("/post(obfl_libinit+0x") != std::string::npos, out.ends_with(obfl_assert));
  }
}

// Power cuts: real ones against the audit of a whole run.

struct cut {
  std::string fault, memory;
  uint64_t certain = 0, at_most = 0, first = 0, length = 0, sum = 0;
};

// The cuts that an audit lists.
std::vector<cut> cuts_in(const std::string &audit) {
  std::vector<cut> list;
  for (const std::string &line : lines_of(audit)) {
    const auto column = lines_of(line, '\t');
    if (column.size() != 7 || column[0] != "cut") continue;
    const auto number = [&](size_t i) -> uint64_t { return std::stoull(column[i], nullptr, 0); };
    const auto instance = column[1].find("instance=");
    const auto memory = instance == std::string::npos ? "flash" : "nvram" + column[1].substr(instance + 9, 1);
    list.push_back({column[1], memory, number(2), number(4), number(5), number(6), number(3)});
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

// Lines of the audit of a whole run: what each kind of phase puts at risk, and all of a memory.
// clang-format off
const char *const audit_lines[] = {
    "nvram0\tMod 1 1 NVRAM Test\tsingle words\t72\t72\t0.219\t0.000\t0.000\t0.000\t14\t--fault \"nvram-power-cut instance=0 nth=31\"",
    "nvram1\tMod 1 1 NVRAM Test\tpass 3\t16384\t8192\t24.945\t0.000\t0.000\t0.000\t8190\t--fault \"nvram-power-cut instance=1 nth=16457\"",
    "nvram0\t\tall\t32840\t24648\t75.055\t0.000\t0.000\t0.000\t8192\t--fault \"nvram-power-cut instance=0 nth=16457\"",
    "flash\tMod 1 1 OBFL Test\tother commands\t4\t0\t0.000\t0.000\t0.000\t0.000\t0\t--fault \"flash-power-cut nth=1\"",
    "flash\tMod 1 1 OBFL Test\tsector 6 erase\t6\t6\t0.000\t1024.000\t1024.000\t1.990\t65536\t--fault \"flash-power-cut nth=58\"",
    "flash\tMod 1 1 OBFL Test\tsector 6 program\t42\t42\t0.002\t0.256\t0.256\t0.000\t65534\t--fault \"flash-power-cut nth=11\"",
    "flash\t\tall\t1720871\t1720767\t99.994\t51451.520\t51451.520\t100.000\t65536\t--fault \"flash-power-cut nth=1634855\"",
};
// clang-format on

// tools/cut-audit asks for so many cuts, all over the run, and for the audit. Else they are few, most of them early,
// where a run is short.
TEST(power_cut, loses_what_the_audit_says_and_hinders_no_run_after_it) {
  const full_board board;
  const char *const wanted = std::getenv("POST_CUT_AUDIT");
  const auto audit = wanted == nullptr ? board.file("audit") : wanted;
  expect_run(board, {"--cut-audit", audit}, {});
  EXPECT_THAT(board.changed(), IsEmpty());
  for (const std::string line : audit_lines)
    EXPECT_THAT(read_file(audit), HasSubstr("\n" + line + "\n"));
  const auto all = cuts_in(read_file(audit));
  ASSERT_GT(all.size(), 200U);
  const size_t asked = number_from("POST_CUTS", 0), count = asked != 0 ? asked : POST_POWER_CUTS;
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
    const auto changed = board.changed();
    board.forget_records();
    if (asked != 0 && i % 8 == 0)
      expect_run(board, {}, {});
    else
      expect_run(board, {short_obfl}, obfl_failed);
    EXPECT_TRUE(board.read("flash") == flash) << "the next run keeps what it finds";
    EXPECT_EQ(board.changed(), changed);
  }
}

}  // namespace
