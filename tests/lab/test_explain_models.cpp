// The models of post-explain against the memory tests themselves, on the simulated board: a fault that is injected is
// among the candidates, and a candidate that is injected prints the same.
#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <random>

#include "lab/explain.h"
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
  if (std::filesystem::exists(dir.path() / "flash")) return dir;
  for (const auto &[name, size] : {std::pair{"nvram0", 0x8000U}, std::pair{"flash", 0x4000000U}}) {
    std::mt19937 random(size);
    std::string bytes(size, '\0');
    std::ranges::generate(bytes, [&] { return static_cast<char>(random()); });
    std::ofstream(dir.path() / name, std::ios::binary) << bytes;
  }
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

TEST(explain_models, list_the_fault_that_made_the_lines) {
  // Of the flash, which takes seconds each, such as its test meets in the first sector.
  for (const std::string fault :
       {"nvram-data-stuck instance=0 line=4 level=0", "nvram-data-short instance=0 line=0 other=1 wins=1",
        "nvram-addr-stuck instance=0 line=3 level=1", "nvram-addr-short instance=0 line=4 other=7 wins=0",
        "nvram-cell-read-wrong instance=0 offset=0 bit=3 level=1",
        "nvram-cell-coupled-write instance=0 offset=0 bit=3 victim=0x1237 vbit=2 vlevel=1",
        "nvram-cell-coupled-transition instance=0 offset=0x41 bit=6 victim=0x1237 vbit=2 level=1 vlevel=1",
        "flash-data-floating line=9 commands=1", "flash-cfi word=0x25 value=0"}) {
    const auto text = printed(fault);
    EXPECT_NE(text, "") << fault;
    EXPECT_TRUE(lists(explain(memory_of(fault), text), fault)) << fault << "\n" << text;
  }
}

// ---- no candidate is made up

// Some of the candidates that do not depend on contents, the first and the last fault of each group. Those that hang in
// a later sector take a run up to there.
std::vector<std::string> sample(const lab::explanation &what, size_t most, unsigned seed) {
  std::mt19937 random(seed);
  std::vector<std::string> all;
  for (const auto &found : what.findings)
    for (const auto &group : found.faults)
      for (const bool last : {false, true})
        if (!group.contents && (group.text().find("-hangs sector=") == std::string::npos ||
                                group.text().find(" sector=6") != std::string::npos))
          all.push_back(group.one(last));
  std::vector<std::string> some;
  std::ranges::sample(all, std::back_inserter(some), static_cast<std::ptrdiff_t>(most), random);
  return some;
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
    const auto faults = sample(explain(one.which, one.text), one.tried, 1);
    EXPECT_EQ(faults.size(), one.tried);
    for (const auto &fault : faults)
      EXPECT_EQ(printed(fault), one.text) << fault;
  }
}

}  // namespace
