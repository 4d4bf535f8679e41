// The models of post-explain against the memory tests themselves, on the simulated board: a fault that is injected is
// among the candidates, and a candidate that is injected prints the same.
#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <random>

#include "lab/explain.h"
#include "lab/explain_faults.h"
#include "platform/mfgd/cmn_lib/hw_acc/nvram/nvram_acc_velto.h"
#include "platform/mfgd/cmn_lib/hw_acc/obfl/obfl_acc.h"
#include "post/nvram.h"
#include "post/obfl.h"
#include "tests/lab/lab_texts.h"
#include "tests/support/board.h"

// The tests take a lock for each access; here nobody else wants it, and without it they are ten times as fast.
extern "C" {
decltype(fcntl) __wrap_fcntl;
int __wrap_fcntl(int /*fd*/, int /*cmd*/, ...) {
  return 0;
}
}

namespace {

enum class memory { nvram, flash };

memory memory_of(const std::string &fault) {
  const bool flash = fault.starts_with("flash-") || fault == "bar-io bar=5";
  return flash ? memory::flash : memory::nvram;
}

// A state directory whose memories hold noise.
const temp_dir &noise() {
  static const temp_dir dir;
  static const bool made = [] {
    std::mt19937 random(1);
    for (const auto &[name, size] :
         {std::pair{"nvram0", 0x8000U}, std::pair{"nvram1", 0x8000U}, std::pair{"flash", 0x4000000U}}) {
      std::string bytes(size, '\0');
      for (auto &byte : bytes)
        byte = static_cast<char>(random());
      std::ofstream(dir.path() / name, std::ios::binary) << bytes;
    }
    return true;
  }();
  (void)made;
  return dir;
}

// What the memory's test prints on a board with the fault. Each run finds what the last one left.
std::string printed(const std::string &fault) {
  const auto state = noise().path();  // made here, for all children
  const auto run = run_child([&] {
    std::string error;
    auto options = board_options(state, {fault.c_str()});
    options.card = 11061;  // one NVRAM instance
    if (!sim::board_start(options, &error)) _exit(2);
    uint32_t result = 0;
    if (memory_of(fault) == memory::nvram) {
      (void)nvram_sw_init();
      (void)dorvan_nvram_test(0, &result, 0, nullptr);
    } else {
      (void)obfl_sw_init();
      (void)dorvan_obfl_test(0, &result, 0, nullptr);
    }
    sim::board_stop();
  });
  EXPECT_EQ(run.status, 0) << fault << run.err;
  // What is printed when the region is mapped belongs to the start.
  const auto at = run.out.rfind("phys->virt");
  return at == std::string::npos ? run.out : run.out.substr(run.out.find('\n', at) + 1);
}

// A whole log in which the memory's test printed this.
std::string log_of(memory which, const std::string &text) {
  const std::string row = which == memory::nvram ? "NVRAM Test: \n." : "OBFL Test: \n.";
  const std::string id = which == memory::nvram ? "8" : "10";
  return edited(full_log, {{row, row + text + "\n ERROR: Executing " + id + " on dev 0\n"}});
}

lab::explanation explain(memory which, const std::string &text) {
  const auto log = lab::parse_run_log(log_of(which, text));
  return lab::explain_run(&log.runs.at(0));
}

bool lists(const lab::explanation &what, const std::string &fault) {
  const auto parsed = lab::parse_fault_text(fault);
  return std::ranges::any_of(what.findings, [&](const auto &found) {
    return std::ranges::any_of(found.faults, [&](const auto &group) { return group.holds(parsed); });
  });
}

std::mt19937 &chance() {
  static std::mt19937 random(1);
  return random;
}

std::vector<std::string> some_of(const std::vector<std::string> &all, size_t count) {
  std::vector<std::string> some;
  std::ranges::sample(all, std::back_inserter(some), static_cast<std::ptrdiff_t>(count), chance());
  return some;
}

std::vector<std::string> lines_of_nvram() {
  std::vector<std::string> faults;
  for (const auto &fault : lab::line_faults(1, 14))
    faults.push_back(lab::line_group("nvram", fault).text() + " instance=0");
  return faults;
}

// Words that the test treats in ways of their own: the first, one with a single address line, a plain one.
std::vector<std::string> cells_of_nvram() {
  std::vector<std::string> faults;
  for (const std::string at : {"offset=0 bit=3", "offset=0x41 bit=6", "offset=0x1236 bit=0"}) {
    for (const auto &variant : lab::cell_variants(lab::memory_kind::nvram)) {
      auto fault = std::string(variant.name) + " instance=0 " + at;
      if (variant.fault.two_cells()) fault += " victim=0x1237 vbit=2";
      if (!variant.levels[0].empty()) fault += " level=" + std::string(variant.levels[0]);
      if (!variant.levels[1].empty()) fault += " vlevel=" + std::string(variant.levels[1]);
      faults.push_back(fault);
    }
  }
  return faults;
}

// Faults of the flash that its test meets in the first sector, so that a run is short.
const std::vector<std::string> faults_of_flash{
    "flash-data-stuck line=6 level=1 commands=1",
    "flash-data-short line=5 other=7 wins=1 commands=1",
    "flash-data-floating line=9 commands=1",
    "flash-addr-short line=2 other=4 wins=1 commands=1",
    "flash-addr-stuck line=3 level=1",
    "bar-io bar=5",
    "flash-cfi word=0x25 value=0",
    "flash-slow erase=40",
    "flash-erase-hangs dq5=1",
    "flash-program-hangs dq5=1",
    "flash-erase-ignored sector=6",
    "flash-program-clears sector=6 offset=0x25 bit=0",
    "flash-cell-stuck offset=0xC0101 bit=0 level=0",
    "flash-cell-transition offset=0xC0005 bit=2 level=0",
    "flash-cell-read-deceptive offset=0xC003F bit=6",
    "flash-cell-write-disturb offset=0xC0003 bit=5",
    "flash-cell-coupled offset=0xC0000 bit=1 victim=0xC0025 vbit=2",
    "flash-cell-coupled-state offset=0x3000000 bit=0 victim=0xC0006 vbit=3",
    "flash-cell-coupled-transition offset=0xC0100 bit=0 victim=0xC0004 vbit=1",
};

TEST(explain_models, list_the_fault_that_made_the_lines) {
  struct {
    std::vector<std::string> faults;
    size_t seen;  // at least so many of them print something
  } const cases[] = {
      {some_of(lines_of_nvram(), 4), 2},
      {some_of(cells_of_nvram(), 6), 2},
      {some_of(faults_of_flash, 2), 1},  // seconds each: a sector is saved and written back
  };
  for (const auto &[faults, at_least] : cases) {
    size_t seen = 0;
    for (const auto &fault : faults) {
      const auto text = printed(fault);
      if (text.empty()) continue;
      ++seen;
      EXPECT_TRUE(lists(explain(memory_of(fault), text), fault)) << fault << "\n" << text;
    }
    EXPECT_GE(seen, at_least);
  }
}

// ---- no candidate is made up

// Some of the candidates that do not depend on contents, the first and the last fault of each group. Those that hang in
// a later sector take a run up to there.
std::vector<std::string> sample(const lab::explanation &what, size_t most) {
  std::vector<std::string> all;
  for (const auto &found : what.findings)
    for (const auto &group : found.faults)
      for (const bool last : {false, true})
        if (!group.contents && (group.text().find("-hangs sector=") == std::string::npos ||
                                group.text().find(" sector=6") != std::string::npos))
          all.push_back(group.one(last));
  return some_of(all, most);
}

struct evidence {
  const char *name;
  memory which;
  std::string text;
  size_t tried;  // candidates
};

TEST(explain_models, every_candidate_gives_the_lines) {
  const evidence cases[] = {
      {"a data line or a cell", memory::nvram,
       "0x00000000: Expected 0x8 Actual 0x0\nFailed above Data Bus Walking 1 Test for NVRAM 0 address 0x0\n", 2},
      {"an address line", memory::nvram,
       "0x00000100: Expected 0xaaaa Actual 0x5555\nFailed above Addr Bus Walking 1 Test for NVRAM 0, address 0x100\n",
       2},
      {"two address lines", memory::nvram,
       "0x00000004: Expected 0xaaaa Actual 0x5555\nWriting 0x085555 at addr 0x082 -> 0x084 addr alias failure for "
       "NVRAM 0\n",
       1},
      {"a cell in the count", memory::nvram,
       "0x00001236: Expected 0x91c Actual 0x918\nFailed above increment data pattern test for NVRAM 0\n", 2},
      {"a cell in the inverse", memory::nvram,
       "0x00000012: Expected 0xfff5 Actual 0xfff7\nFailed above inverted data pattern test for NVRAM 0\n", 2},
      {"a flash line or cell", memory::flash,
       "## Error: Addr 0x000c0006, data 0x00000008 : failed\nRead 0x00000000, failed bits 0x00000008\n", 1},
      {"a silent flash", memory::flash,
       "## Error: Addr 0x000c0000, data 0x00000001 : failed\nRead 0x0000ffff, failed bits 0x0000fffe\n", 1},
      {"an erase without end", memory::flash,
       "Reached the max timeout but DQ5 bit not set\n## Error : obfl_sector_erase failed \n", 1},
      {"an erase that is given up", memory::flash,
       "Reached the max timeout and DQ5 bit is set\n## Error : obfl_sector_erase failed \n", 1},
  };
  for (const auto &one : cases) {
    SCOPED_TRACE(one.name);
    const auto faults = sample(explain(one.which, one.text), one.tried);
    EXPECT_EQ(faults.size(), one.tried);
    for (const auto &fault : faults)
      EXPECT_EQ(printed(fault), one.text) << fault;
  }
}

}  // namespace
