// The audit of power cuts on a memory of 64 words, in blocks of half that.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <sstream>
#include <string>
#include <vector>

#include "sim/board/board.h"
#include "sim/devices/cut_audit.h"
#include "sim/devices/lines.h"

namespace {

using testing::HasSubstr;

constexpr uint32_t block = 64;

// A memory whose word at an offset is that offset plus 1, and its audit.
struct audited {
  std::array<uint8_t, 2 * block> memory{};
  sim::cut_audit audit;

  audited() : audit((fill(), "mem"), memory, block, "cut") {}
  void fill() {
    for (uint32_t at = 0; at < memory.size(); at += 2)
      sim::word_set(memory, at, static_cast<uint16_t>(at + 1));
  }
  void write(uint32_t at, uint16_t word) {
    audit.write({at, sim::word_get(memory, at), word});
    sim::word_set(memory, at, word);
    audit.done();
  }
  void program(const char *what, std::vector<sim::word_write> words) {
    audit.cycle();
    audit.tears(what, words, 2000);
    for (const auto &w : words)
      sim::word_set(memory, w.at, w.wanted);
    audit.done();
  }
  void erase(const char *what, uint32_t first) {
    audit.cycle();
    audit.tears(what, first, block, 6000);
    std::ranges::fill(std::span(memory).subspan(first, block), uint8_t{0xFF});
    audit.done();
  }
};

TEST(sim_cut_audit, counts_what_erase_and_program_put_at_risk) {
  audited a;
  EXPECT_EQ(a.audit.table(), "");
  a.audit.cycle();
  a.audit.settle("query");
  a.audit.cycle();  // leads to the erase
  a.erase("erase", block);
  a.program("program", {{block, 0xFFFF, block + 1}, {block + 2, 0xFFFF, 0}});
  a.program("program", {{block, block + 1, block + 1}});
  uint64_t erased = 0;
  for (uint32_t at = block + 4; at < 2 * block; at += 2)
    erased += sim::cut_sum(at, 0xFFFF);
  const auto hex = [](uint64_t sum) {
    std::ostringstream text;
    text << "0x" << std::hex << sum;
    return text.str();
  };
  // clang-format off
  EXPECT_EQ(a.audit.table(),
            "mem\t\tquery\t1\t0\t0.000\t0.000\t0.000\t0.000\t0\t--fault \"cut nth=1\"\n"
            "cut\tcut nth=1\t0\t0x0\t0\t0x0\t0x0\n"
            "mem\t\terase\t2\t1\t20.000\t6.000\t6.000\t60.000\t32\t--fault \"cut nth=3\"\n"
            "cut\tcut nth=2\t0\t0x0\t0\t0x0\t0x0\n"
            "cut\tcut nth=3\t0\t0x0\t32\t0x40\t0x40\n"
            "mem\t\tprogram\t2\t2\t40.000\t4.000\t4.000\t40.000\t32\t--fault \"cut nth=4\"\n"
            "cut\tcut nth=4\t30\t" + hex(erased) + "\t32\t0x40\t0x4\n"
            "cut\tcut nth=5\t31\t" + hex(erased + sim::cut_sum(block + 2, 0)) + "\t31\t0x40\t0x2\n"
            "mem\t\tall\t5\t3\t60.000\t10.000\t10.000\t100.000\t32\t--fault \"cut nth=4\"\n");
  // clang-format on
}

TEST(sim_cut_audit, tells_passes_over_the_memory_from_single_words) {
  audited a;
  a.write(0, 7);
  a.write(0, 1);
  a.write(4, 5);  // as it was
  for (const bool back : {false, true})
    for (uint32_t at = 0; at < 40; at += 2)
      a.write(at, static_cast<uint16_t>(back ? at + 1 : 0));
  const auto table = a.audit.table();
  EXPECT_THAT(table, HasSubstr("mem\t\tsingle words\t3\t2\t4.651\t0.000\t0.000\t0.000\t1\t"));
  EXPECT_THAT(table, HasSubstr("mem\t\tpass 1\t20\t20\t46.512\t0.000\t0.000\t0.000\t20\t"));
  EXPECT_THAT(table, HasSubstr("mem\t\tpass 2\t20\t20\t46.512\t0.000\t0.000\t0.000\t20\t--fault \"cut nth=24\"\n"));
}

TEST(sim_cut_audit, asks_for_healthy_memories) {
  std::string error;
  for (const std::string fault : {"nvram-data-stuck instance=0 line=0 level=0", "flash-power-cut nth=1"}) {
    const auto opts = sim::options_parse(std::vector<std::string>{"--cut-audit=a", "--fault=" + fault}, &error);
    EXPECT_EQ(sim::board_check(*opts), "fault '" + fault + "': '--cut-audit' needs healthy memories");
  }
}

}  // namespace
