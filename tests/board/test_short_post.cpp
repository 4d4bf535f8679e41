// Whole short runs: each fault of the identity reads, the SEEPROM, GigE and PCIe rows, with exact output and records.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "post/dorvan/cards.h"
#include "sim/bus/layout.h"
#include "tests/support/run.h"

namespace {

// What the drivers say while they map their devices, before the POST starts.
std::string mapping_lines() {
  std::string text;
  for (const size_t i : {3U, 0U, 1U, 2U}) {
    char line[80];
    snprintf(line, sizeof line, "devmemfd:0xN\nphys->virt: 0x%x-->0xADDR\n", sim::windows[i].base);
    text += line;
  }
  return text;
}

std::string start(const char *board = "P(0x1) board\n", const char *before = "") {
  return mapping_lines() + "Starting system POST.....\n" + before + board;
}

std::string row(const char *name, const std::string &body) {
  return std::string("  Executing Mod 1 1 ") + name + " Test: \n" + body + "done (N seconds)\n";
}

std::string rows(const std::string &seeprom, const std::string &gige, const std::string &pcie, bool failed) {
  return row("SEEPROM", seeprom) + row("GigE Port", gige) + row("PCIE", pcie) + "  Mod 1 1 Post " +
         (failed ? "Failed" : "Completed Successfully") + "\nPOST is completed\n";
}

std::string error(int id, int device) {
  return "\n ERROR: Executing " + std::to_string(id) + " on dev " + std::to_string(device) + "\n";
}

// The records of a short run; `failed` holds those that failed, as "id:device".
std::string records(const std::vector<std::string> &failed = {}, bool seeprom = true) {
  std::string text;
  const auto add = [&](int id, int devices) {
    for (int device = 0; device < devices; ++device) {
      const std::string key = std::to_string(id) + ":" + std::to_string(device);
      const bool fails = std::ranges::find(failed, key) != failed.end();
      text += "0:" + key + (fails ? ":2\n" : ":1\n");
    }
  };
  if (seeprom) add(4, 2);
  add(5, 4);
  add(12, 7);
  return text;
}

std::string times(int count, const std::string &text) {
  std::string all;
  for (int i = 0; i < count; ++i)
    all += text;
  return all;
}

const std::string no_sprom = "Error in opening /dev/sprom for reading. Default card_index to 65535\n";
const std::string detection = "## Info : Based on P0 board detection.\n";

std::string missing(const char *description, const char *position) {
  return std::string("## Failed: PCI device - ") + description + "\n           (" + position + ")\n";
}

struct short_case {
  const char *name;
  std::vector<std::string> args;
  std::string out;
  std::string records;
};

std::vector<short_case> short_cases() {
  const std::string ok4 = "...";
  const std::string ok5 = "....";
  const std::string ok12 = ".......";
  return {
      {"healthy", {}, start() + rows(ok4, ok5, ok12, false), records()},
      {"healthy before revision P1",
       {"--change-bits", "0"},
       start("P(0x0) board\n") + rows(ok4, ok5, ok12, false),
       records()},
      {"change bits are 64 bits wide: not revision 0, so nothing is compared",
       {"--change-bits", "0x100000000", "--fault", "pci-missing bus=2 dev=0 func=0"},
       start("P(0x100000000) board\n") + rows(ok4, ok5, ok12, false),
       records()},
      {"EEPROM absent: revision P1 assumed, both images fail",
       {"--fault", "i2c-absent bus=1 addr=0x52"},
       start("P(0x1) board\n", "err: could not read sup sprom, defaulting to KVR P1\n") +
           rows("." + error(4, 0) + "." + error(4, 1) + ".", ok5, ok12, true),
       records({"4:0", "4:1"})},
      {"EEPROM fails once during the start-up read: the SEEPROM row reads it anew",
       {"--fault", "i2c-fail bus=1 addr=0x52 nth=200 times=1"},
       start("P(0x1) board\n", "err: could not read sup sprom, defaulting to KVR P1\n") + rows(ok4, ok5, ok12, false),
       records()},
      {"EEPROM fails in the backplane image",
       {"--fault", "i2c-fail bus=1 addr=0x52 nth=340 times=1"},
       start() + rows(".." + error(4, 1) + ".", ok5, ok12, true),
       records({"4:1"})},
      {"change bits 2 are revision P1, too",
       {"--card", "11111", "--change-bits", "2", "--fault", "pci-missing bus=0x2C dev=0 func=0"},
       start("P(0x2) board\n") + rows(ok4, ok5,
                                      ".\n" +
                                          missing("Intel 82576EB Inband Gigabit Ethernet Controller",
                                                  "bus:2C, dev:00, func:00, vendId:8086, devId:1523") +
                                          detection + "......",
                                      false),
       records()},
      {"change bits 3 are no known revision",
       {"--change-bits", "3", "--fault", "pci-missing bus=2 dev=0 func=0"},
       start("P(0x3) board\n") + rows(ok4, ok5, ok12, false),
       records()},
      {"a row behind the sixth missing reaches no device",
       {"--fault", "pci-missing bus=0x30 dev=1 func=0"},
       start() + rows(ok4, ok5,
                      ".\n" +
                          missing("PLX8618 PCIe/PCIe bridge: PLX Technology, Inc.",
                                  "bus:30, dev:01, func:00, vendId:10B5, devId:8618") +
                          detection + "......",
                      false),
       records()},
      {"row 4 missing fails device 5",
       {"--card", "11061", "--fault", "pci-missing bus=1 dev=0 func=3"},
       start() +
           rows(ok4, ok5,
                ".\n" +
                    missing("Intel Gigabit Ethernet Controller", "bus:01, dev:00, func:03, vendId:8086, devId:0436") +
                    detection + "....." + error(12, 5) + ".",
                true),
       records({"12:5"})},
      {"two rows missing share the newline and the last line",
       {"--card", "11079", "--fault", "pci-missing bus=2 dev=0 func=0", "--fault", "pci-missing bus=9 dev=0 func=0"},
       start() + rows(ok4, ok5,
                      ".\n" +
                          missing("Intel 82576EB Gigabit Ethernet Controller",
                                  "bus:02, dev:00, func:00, vendId:8086, devId:1521") +
                          missing("Lorwen ASIC - Velto Switch Central Switch Fabric ASIC",
                                  "bus:09, dev:00, func:00, vendId:1E4D, devId:0077") +
                          detection + error(12, 0) + "......" + error(12, 6),
                      true),
       records({"12:0", "12:6"})},
      {"the right function with another device id is missing",
       {"--card", "11096", "--fault", "pci-wrong-id bus=4 dev=0 func=0 device=0x1521"},
       start() + rows(ok4, ok5,
                      ".\n" +
                          missing("Intel 82576EB Inband Gigabit Ethernet Controller",
                                  "bus:04, dev:00, func:00, vendId:8086, devId:1523") +
                          detection + ".." + error(12, 2) + "....",
                      true),
       records({"12:2"})},
      {"no SPROM driver: nothing identifies the card",
       {"--fault", "sprom-absent"},
       mapping_lines() + "Starting system POST.....\n" + no_sprom + "P(0x0) board\n" +
           rows(times(3, "." + no_sprom),
                "." + no_sprom + error(5, 0) + "." + no_sprom + error(5, 1) + "." + no_sprom + error(5, 2) + "." +
                    no_sprom + error(5, 3),
                "." + no_sprom + "......", true),
       records({"5:0", "5:1", "5:2", "5:3"}, false)},
      {"a refusing SPROM driver: an unknown card",
       {"--fault", "sprom-refuse"},
       start("P(0x0) board\n") + rows(ok4, ok5, ".Invalid card detected\n" + detection + "......", false),
       records({}, false)},
      {"no ethtool",
       {"--fault", "ethtool-missing"},
       start() + rows(ok4,
                      ".Fail to parse /post/ethtool.log PASS/FAIL result\n" + error(5, 0) +
                          "...Fail to parse /post/ethtool.log PASS/FAIL result\n" + error(5, 3),
                      ok12, true),
       records({"5:0", "5:3"})},
      {"a failing link alone passes",
       {"--fault", "ethtool-fail port=eth0 test=link"},
       start() + rows(ok4, ok5, ok12, false),
       records()},
      {"no /post: neither records nor logs",
       {"--fault", "post-missing"},
       start() + rows(
                     "." + times(1, "Could not open file post_results.txt\nERROR: Failed to open /post/result (0)\n") +
                         ".Could not open file post_results.txt\nERROR: Failed to open /post/result (0)\n.",
                     [] {
                       const std::string lost =
                           "Could not open file post_results.txt\nERROR: Failed to open /post/result (0)\n";
                       const std::string closed = "Fail to open /post/ethtool.log\n";
                       return "." + closed + error(5, 0) + lost + "." + lost + "." + lost + "." + closed + error(5, 3) +
                              lost;
                     }(),
                     times(7, ".Could not open file post_results.txt\nERROR: Failed to open /post/result (0)\n"), true),
       ""},
  };
}

TEST(short_post, tells_each_fault_in_output_and_records) {
  for (const auto &c : short_cases()) {
    SCOPED_TRACE(c.name);
    const temp_dir state;
    auto args = c.args;
    args.insert(args.end(), {"--", "-s"});
    const outcome run = run_board(state.path(), args);
    EXPECT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(steady(run.out), c.out);
    EXPECT_EQ(run.records, c.records);
  }
}

// Whatever knows cards knows every card of the table: the POST and the simulated board, which has lists of its own, the
// sprom tool and the manual page.
TEST(cards, are_known_everywhere) {
  const std::string manual = read_file(POST_SOURCE_DIR "/docs/board-sim.1");
  for (const dorvan_card_t &row : dorvan_cards) {
    const std::string card = std::to_string(row.card_index);
    SCOPED_TRACE(card);
    EXPECT_THAT(manual, testing::HasSubstr(card));
    const temp_dir state;
    for (const char *revision : {"0", "1", "2"}) {
      std::filesystem::remove_all(state.path() / "eeprom-1-52");
      std::filesystem::remove(state.path() / "post/result");
      const outcome run = run_board(state.path(), {"--card", card, "--change-bits", revision, "--", "-S"});
      const std::string board = std::string("P(0x") + revision + ") board\n";
      EXPECT_EQ(steady(run.out), start(board.c_str()) + rows("...", "....", ".......", false));
      EXPECT_EQ(run.records, records());
    }
    EXPECT_THAT(run_board(state.path(), {"--card", card, "--", POST_BIN_DIR "/sprom", "list"}).out,
                testing::HasSubstr("SUPERVISOR"));
  }
}

// A corrupt byte of each block of both images names its block, with the checksum that the image would need.
TEST(short_post, names_the_corrupt_block) {
  struct block {
    const char *image;
    const char *block;
    const char *label;
    int device;
    size_t base;  // of the image in the EEPROM
    size_t offset;
  };
  constexpr block blocks[] = {
      {"sup", "header", "Supervisor Common Header", 0, 0, 0},
      {"sup", "main", "Supervisor Main", 0, 0, 160},
      {"sup", "sensor", "Supervisor Extra Sensor", 0, 0, 263},
      {"bp", "header", "Backplane Common Header", 1, 0x1000, 0},
      {"bp", "main", "Backplane Main", 1, 0x1000, 160},
      {"bp", "wwn", "Backplane WWN", 1, 0x1000, 199},
      {"bp", "license", "Backplane License", 1, 0x1000, 455},
  };
  for (const auto &b : blocks) {
    SCOPED_TRACE(b.label);
    const temp_dir state;
    const outcome run = run_board(
        state.path(),
        {"--fault", std::string("sprom-corrupt image=") + b.image + " block=" + b.block + " offset=8 xor=0x55", "--",
         "-s"});
    const std::string chip = read_file(state.path() / "eeprom-1-52");
    ASSERT_EQ(chip.size(), 0x10000U);
    const auto byte = [&](size_t at) {
      return static_cast<unsigned>(static_cast<unsigned char>(chip[b.base + b.offset + at]));
    };
    const unsigned stored = byte(4) << 8 | byte(5);
    const unsigned computed = (stored - byte(8) + (byte(8) ^ 0x55U)) & 0xFFFF;
    char line[120];
    snprintf(line, sizeof line, "%s block checksum mismatch.  Found 0x%04x, expected 0x%04x.\n", b.label, stored,
             computed);
    const std::string dots =
        b.device == 0 ? std::string(".") + line + error(4, 0) + ".." : std::string("..") + line + error(4, 1) + ".";
    EXPECT_EQ(steady(run.out), start() + rows(dots, "....", ".......", true));
    EXPECT_EQ(run.records, records({"4:" + std::to_string(b.device)}));
  }
}

// Records of earlier runs stay in front.
TEST(short_post, appends_its_records) {
  const temp_dir state;
  EXPECT_EQ(run_board(state.path(), {"--", "-s"}).records, records());
  EXPECT_EQ(run_board(state.path(), {"--", "-s"}).records, records() + records());
}

// The first argument alone counts, and of that the first two characters.
TEST(short_post, reads_one_flag) {
  struct flag_case {
    std::vector<std::string> args;
    std::string warning;
    bool full;
  };
  const auto unsupported = [](char flag) {
    return std::string("Warning: Unsupported flag \"-") + flag + "\"! Ignoring it\n";
  };
  const flag_case cases[] = {
      {{"-Sx", "-y"}, "", false},
      {{"-x", "-s"}, unsupported('x'), true},
      {{"-"}, unsupported('\0'), true},
      {{"s", "-s"}, "", true},
      {{""}, "", true},
      {{}, "", true},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(testing::PrintToString(c.args));
    const temp_dir state;
    // With a line of the flash stuck, its test ends at once.
    std::vector<std::string> args{"--fault", "flash-data-stuck line=0 level=0", "--", POST_BIN_DIR "/post"};
    args.insert(args.end(), c.args.begin(), c.args.end());
    const outcome run = run_board(state.path(), args);
    EXPECT_EQ(run.status, 0);
    EXPECT_THAT(steady(run.out), testing::StartsWith(mapping_lines() + c.warning + "Starting system POST.....\n"));
    EXPECT_EQ(run.out.find("NVRAM Test") != std::string::npos, c.full);
    EXPECT_EQ(run.records.find("\n0:10:0:2\n") != std::string::npos, c.full);
  }
}

// The standard output of a short run that a shell starts with `redirections`.
std::string run_in_shell(const std::string &args, const std::string &redirections) {
  const temp_dir state;
  const std::string command =
      "exec " POST_BIN_DIR "/board-sim --state " + state.path().string() + " " + args + " -- -s " + redirections;
  const std::unique_ptr<FILE, int (*)(FILE *)> out(popen(command.c_str(), "r"), pclose);
  std::string text;
  for (int c; (c = fgetc(out.get())) != EOF;)
    text.push_back(static_cast<char>(c));
  return text;
}

// A device in a closed standard descriptor's place would get the messages written there.
TEST(short_post, opens_no_device_as_a_standard_descriptor) {
  const std::string out = run_in_shell("", "<&- 2>&-");
  EXPECT_THAT(out, testing::StartsWith("devmemfd:0x"));
  EXPECT_GT(strtoul(out.c_str() + strlen("devmemfd:"), nullptr, 16), 2U);
}

// Each dot and line is out before a command writes to the same pipe.
TEST(short_post, keeps_its_order_with_the_commands) {
  EXPECT_THAT(run_in_shell("--fault post-missing", "2>&1"), testing::ContainsRegex("GigE Port Test: \n"
                                                                                   "\\.[^\n]*ethtool\\.log[^\n]*\n"
                                                                                   "Fail to open /post/ethtool\\.log\n"
                                                                                   "rm: [^\n]*\n"
                                                                                   "\n ERROR: Executing 5 on dev 0\n"));
}

}  // namespace
