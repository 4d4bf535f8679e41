// Whole short runs: each fault of the identity reads, the SEEPROM, GigE and PCIe rows, with exact output and records.
#include "post/dorvan/cards.h"
#include "tests/board/post_output.h"

namespace {

const std::string no_sprom = "Error in opening /dev/sprom for reading. Default card_index to 65535\n";
const std::string no_verdict = "Fail to parse /post/ethtool.log PASS/FAIL result\n";
const std::string no_log = "Fail to open /post/ethtool.log\n";
const std::string no_eeprom = "err: could not read sup sprom, defaulting to KVR P1\n";
const std::string detection = "## Info : Based on P0 board detection.\n";

// What the PCIe test says of missing functions: description and position of each.
std::string missing(const std::vector<std::pair<const char *, const char *>> &functions) {
  std::string text = "\n";
  for (const auto &[description, position] : functions)
    text += std::string("## Failed: PCI device - ") + description + "\n           (" + position + ")\n";
  return text + detection;
}

// clang-format off
struct short_case { const char *name; std::vector<std::string> args; expected_run run = {}; };
const short_case cases[] = {
    {"EEPROM absent: revision P1 assumed, both images fail", {"--fault=i2c-absent bus=1 addr=0x52"},
     {.before_board = no_eeprom, .failed = {"4:0", "4:1"}}},
    {"EEPROM fails once during the start-up read: the SEEPROM row reads it anew", {"--fault=i2c-fail bus=1 addr=0x52 nth=200 times=1"},
     {.before_board = no_eeprom}},
    {"EEPROM fails in the backplane image", {"--fault=i2c-fail bus=1 addr=0x52 nth=340 times=1"},
     {.failed = {"4:1"}}},
    {"no SPROM driver: nothing identifies the card", {"--fault=sprom-absent"},
     {.board = "P(0x0) board\n", .before_board = no_sprom,
      .said = {{"4:0", no_sprom}, {"4:1", no_sprom}, {"4:2", no_sprom}, {"5:0", no_sprom}, {"5:1", no_sprom}, {"5:2", no_sprom}, {"5:3", no_sprom},
               {"12:0", no_sprom}},
      .failed = {"5:0", "5:1", "5:2", "5:3"}, .unrecorded = {"4"}}},
    {"a refusing SPROM driver: an unknown card", {"--fault=sprom-refuse"},
     {.board = "P(0x0) board\n", .said = {{"12:0", "Invalid card detected\n" + detection}}, .unrecorded = {"4"}}},
    {"a corrupt block of the supervisor's image", {"--fault=sprom-corrupt image=sup block=sensor"},
     {.said = {{"4:0", "Supervisor Extra Sensor block checksum mismatch.  Found 0x2301, expected 0x2382.\n"}}, .failed = {"4:0"}}},
    {"a corrupt block of the backplane's image", {"--fault=sprom-corrupt image=bp block=main"},
     {.said = {{"4:1", "Backplane Main block checksum mismatch.  Found 0x008f, expected 0x018e.\n"}}, .failed = {"4:1"}}},
    {"no ethtool", {"--fault=ethtool-missing"},
     {.said = {{"5:0", no_verdict}, {"5:3", no_verdict}}, .failed = {"5:0", "5:3"}}},
    {"no /post: neither records nor logs", {"--fault=post-missing"},
     {.said = {{"5:0", no_log}, {"5:3", no_log}}, .failed = {"5:0", "5:3"},
      .after_record = "Could not open file post_results.txt\nERROR: Failed to open /post/result (0)\n"}},
    {"row 4 of the functions fails device 5", {"--card=11061", "--fault=pci-missing bus=1 dev=0 func=3"},
     {.said = {{"12:0", missing({{"Intel Gigabit Ethernet Controller", "bus:01, dev:00, func:03, vendId:8086, devId:0436"}})}},
      .failed = {"12:5"}}},
    {"the right function with another device id is missing", {"--card=11096", "--fault=pci-wrong-id bus=4 dev=0 func=0 device=0x1521"},
     {.said = {{"12:0", missing({{"Intel 82576EB Inband Gigabit Ethernet Controller", "bus:04, dev:00, func:00, vendId:8086, devId:1523"}})}},
      .failed = {"12:2"}}},
    {"two functions missing share the newline and the last line",
     {"--card=11079", "--fault=pci-missing bus=2 dev=0 func=0", "--fault=pci-missing bus=9 dev=0 func=0"},
     {.said = {{"12:0", missing({{"Intel 82576EB Gigabit Ethernet Controller", "bus:02, dev:00, func:00, vendId:8086, devId:1521"},
                                 {"Lorwen ASIC - Velto Switch Central Switch Fabric ASIC", "bus:09, dev:00, func:00, vendId:1E4D, devId:0077"}})}},
      .failed = {"12:0", "12:6"}}},
    {"a function behind the sixth reaches no device", {"--card=11111", "--change-bits=2", "--fault=pci-missing bus=0x2C dev=0 func=0"},
     {.board = "P(0x2) board\n",
      .said = {{"12:0", missing({{"Intel 82576EB Inband Gigabit Ethernet Controller", "bus:2C, dev:00, func:00, vendId:8086, devId:1523"}})}}}},
    {"change bits 3 are no known revision: nothing is compared", {"--change-bits=3", "--fault=pci-missing bus=2 dev=0 func=0"},
     {.board = "P(0x3) board\n"}},
    {"change bits are 64 bits wide: not revision 0", {"--change-bits=0x100000000", "--fault=pci-missing bus=2 dev=0 func=0"},
     {.board = "P(0x100000000) board\n"}},
};
// clang-format on

TEST(short_post, tells_what_a_test_finds) {
  for (const short_case &c : cases) {
    SCOPED_TRACE(c.name);
    const temp_dir state;
    auto args = c.args;
    args.insert(args.end(), {"--", "-s"});
    const outcome run = run_board(state.path(), args);
    EXPECT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(steady(run.out), output_of(c.run, true));
    EXPECT_EQ(run.records, records_of(c.run, true));
  }
}

std::string missing_function(const pci_dev_tbl_entry &row) {
  return " --fault 'pci-missing bus=" + std::to_string(row.bus) + " dev=" + std::to_string(row.dev) +
         " func=" + std::to_string(row.func) + "'";
}

// Every card of the table is known to the POST, to the simulated board, which has lists of its own, to the sprom tool,
// the lab and the manual page. Records of earlier runs stay in front.
TEST(cards, are_known_everywhere) {
  const std::string manual = read_file(POST_SOURCE_DIR "/docs/board-sim.1");
  for (const dorvan_card_t &row : dorvan_cards) {
    const std::string card = std::to_string(row.card_index);
    SCOPED_TRACE(card);
    EXPECT_THAT(manual, HasSubstr(card));
    const temp_dir state;
    std::string records;
    for (const std::string revision : {"0", "1", "2"}) {
      std::filesystem::remove_all(state.path() / "eeprom-1-52");
      const outcome run = run_board(state.path(), {"--card", card, "--change-bits", revision, "--", "-S"});
      EXPECT_EQ(steady(run.out), output_of({.board = "P(0x" + revision + ") board\n"}, true));
      EXPECT_EQ(run.records, records += records_of({}, true));
    }
    EXPECT_THAT(run_board(state.path(), {"--card", card, "--", POST_BIN_DIR "/sprom", "list"}).out,
                HasSubstr("SUPERVISOR"));
#ifdef POST_HAS_LAB
    expect_run(run_shell(state.path(), "post-campaign --card " + card + " --mode short" +
                                           missing_function(row.pci_p1[0]) + missing_function(row.pci_p1[5])),
               0, AllOf(HasSubstr("found"), Not(HasSubstr("blamed"))), _);
#endif
  }
}

// The standard output of a short run that a shell starts with `redirections`.
std::string run_in_shell(const std::string &args, const std::string &redirections) {
  const temp_dir dir;
  return run_shell(dir.path(), "board-sim " + args + " -- -s " + redirections).out;
}

// A device in a closed standard descriptor's place would get the messages written there.
TEST(short_post, opens_no_device_as_a_standard_descriptor) {
  const std::string out = run_in_shell("", "<&- 2>&-");
  EXPECT_THAT(out, StartsWith("devmemfd:0x"));
  EXPECT_GT(strtoul(out.c_str() + strlen("devmemfd:"), nullptr, 16), 2U);
}

// Each dot and line is out before a command writes to the same pipe.
TEST(short_post, keeps_its_order_with_the_commands) {
  EXPECT_THAT(run_in_shell("--fault post-missing", "2>&1 | cat"), ContainsRegex("GigE Port Test: \n"
                                                                                "\\.[^\n]*ethtool\\.log[^\n]*\n"
                                                                                "Fail to open /post/ethtool\\.log\n"
                                                                                "rm: [^\n]*\n"
                                                                                "\n ERROR: Executing 5 on dev 0\n"));
}

}  // namespace
