// post-locate on the simulated board: what is wrong with SPROMs, Ethernet, PCI and the system, and what POST misses.
#include "tests/locate/contents.h"
#include "tests/support/run.h"

namespace {

// A run of post-locate on a new board.
outcome locate(const std::vector<std::string> &board, const std::vector<std::string> &parts) {
  const temp_dir state;
  auto args = board;
  args.insert(args.end(), {"--", POST_BIN_DIR "/post-locate", "--wait", "1", "--json", "-"});
  args.insert(args.end(), parts.begin(), parts.end());
  return run_board(state.path(), args);
}

struct fault_row {
  const char *part;
  const char *fault;
  const char *says;  // in the report; null: the fault as it was asked for
  const char *card = "11062";
};

// clang-format off
constexpr std::array fault_rows{std::to_array<fault_row>({
    // part      fault                                                   what the report has
    {"system",   "post-missing",                                         nullptr},
    {"system",   "sprom-absent",                                         nullptr},
    {"system",   "sprom-refuse after=9",                                 "\"sprom-refuse\""},
    {"system",   "cpuinfo-missing",                                      nullptr},
    {"system",   "cpuinfo-no-rate",                                      nullptr},
    {"system",   "cpuinfo-rate khz=1",                                   nullptr},
    {"system",   "cpuinfo-rate khz=10000000",                            nullptr},
    {"system",   "lock-held lock=nvram1 kind=read",                      nullptr},
    {"system",   "lock-held lock=flash kind=write",                      nullptr},
    {"system",   "bar-missing bar=0",                                    nullptr},
    {"system",   "bar-64bit bar=5",                                      nullptr},
    {"system",   "bar-io bar=4",                                         nullptr},
    {"system",   "mem-absent errno=2",                                   nullptr},
    {"system",   "pci-list-unreadable errno=13",                         nullptr},
    {"system",   "flash-cfi word=0x20 value=0",                          "\"flash-cfi word=0x20 value=0x0\""},
    {"system",   "flash-cfi word=0x21 value=0xFF",                       nullptr},
    {"sproms",   "i2c-bus-absent bus=1",                                 nullptr},
    {"sproms",   "i2c-smbus-only",                                       "\"i2c-smbus-only bus=1\""},
    {"sproms",   "i2c-absent bus=1 addr=0x52",                           nullptr},
    {"sproms",   "i2c-fail bus=1 addr=0x52 nth=1",                       "address write of the supervisor's image"},
    {"sproms",   "i2c-fail bus=1 addr=0x52 nth=335",                     "byte 0x014D of the supervisor's image"},
    {"sproms",   "i2c-fail bus=1 addr=0x52 nth=336",                     "address write of the backplane's image"},
    {"sproms",   "i2c-fail bus=1 addr=0x52 nth=600 times=0 errno=110",   nullptr},
    {"sproms",   "i2c-fail bus=1 addr=0x52 times=0 errno=110",           "The bus with the EEPROM does not answer."},
    {"sproms",   "i2c-fail bus=1 addr=0x52 times=0 p=500000 seed=3",     "sometimes fails"},
    {"ethernet", "ethtool-missing",                                      nullptr},
    {"ethernet", "ethtool-silent port=eth5",                             nullptr},
    {"ethernet", "ethtool-fail port=eth0 test=link code=1",              nullptr},
    {"ethernet", "ethtool-fail port=eth2 test=eeprom code=10",          nullptr, "11079"},
    {"pci",      "pci-list-unreadable errno=5",                          nullptr},
    {"pci",      "pci-missing bus=0x00 dev=31 func=3",                   nullptr},
    {"pci",      "pci-missing bus=0x01 dev=0 func=0",                    nullptr, "11061"},
    {"pci",      "pci-missing bus=0x0F dev=0 func=0",                    nullptr, "11096"},
    {"pci",      "pci-wrong-id bus=0x2E dev=0 func=0 vendor=0x10B5 device=0xFFFE", nullptr},
    {"nvram0",   "nvram-addr-stuck instance=0 line=9 level=0 p=3000 seed=160", "line=9 level=0 p=20000\""},
    {"flash",    "flash-addr-stuck line=20 level=1",                     nullptr},
    {"flash",    "flash-addr-short line=17 other=25 wins=0",             nullptr},
    {"flash",    "flash-addr-short line=12 other=16 wins=1 commands=1",  nullptr},
    {"flash",    "flash-data-short line=7 other=15 wins=1",              nullptr},
    {"flash",    "lock-held lock=flash kind=read ms=60000",              "\"lock-held lock=flash kind=read\""},
})};
// clang-format on

TEST(locate_board, names_the_fault_with_its_parameters) {
  for (const auto &row : fault_rows) {
    const auto got = locate({"--card", row.card, "--fault", row.fault}, {row.part});
    const std::string says = row.says != nullptr ? row.says : '"' + std::string(row.fault) + '"';
    EXPECT_EQ(got.status, 1) << row.fault << "\n" << got.err;
    EXPECT_NE(got.out.find(says), std::string::npos) << row.fault << "\n" << got.out;
  }
}

// A card, parts and options of the dice.
std::vector<std::string> healthy_run(uint64_t dice) {
  constexpr std::array cards{"11061", "11062", "11079", "11080", "11096", "11099", "11111"};
  constexpr std::array parts{"system", "nvram0", "nvram1", "nvram2", "flash", "sproms", "ethernet", "pci"};
  const auto bit = [dice](unsigned number) { return (dice >> number & 1) != 0; };
  std::vector<std::string> words{"--card",     cards[static_cast<size_t>(dice % cards.size())],
                                 "--revision", bit(20) ? "P0" : "P1",
                                 "--",         POST_BIN_DIR "/post-locate"};
  if (bit(21)) words.emplace_back("--cells");
  if (bit(22)) words.emplace_back("--write");
  // Half of them look at all parts.
  for (unsigned i = 0; bit(23) && i < parts.size(); ++i)
    if (bit(24 + i)) words.emplace_back(parts[i]);
  return words;
}

constexpr size_t nvram_bytes = 0x8000;

// LOCATE_HEALTHY=N draws N boards.
TEST(locate_board, finds_nothing_on_healthy_boards_and_keeps_their_contents) {
  const std::pair<const char *, bytes (*)()> fillings[] = {
      {"data", [] { return noise(models::flash_sectors, models::flash_sector_bytes); }},
      {"part", [] { return noise(100, 0x1000); }},
      {"text", [] { return text(200, false); }},
      {"blank", blank},
  };
  const uint64_t draws = number_from("LOCATE_HEALTHY", 16);
  uint64_t random = 1;
  for (const auto &[name, make] : fillings) {
    const temp_dir state;
    const auto filling = make();
    const std::string flash(filling.begin(), filling.end());
    const auto nvram = flash.substr(0, nvram_bytes);
    for (const std::string memory : {"flash", "nvram0", "nvram1", "nvram2"})
      std::ofstream(state.path() / memory, std::ios::binary) << (memory == "flash" ? flash : nvram);
    for (uint64_t i = 0; i < draws; i += std::size(fillings)) {
      const auto words = healthy_run(sim::random_next(&random));
      std::filesystem::remove(state.path() / "eeprom-1-52");  // of another card
      const auto got = run_board(state.path(), words);
      EXPECT_EQ(got.status, 0) << name << ": " << testing::PrintToString(words) << "\n" << got.out << got.err;
      EXPECT_TRUE(got.out.ends_with("Nothing found.\n")) << got.out;
    }
    EXPECT_TRUE(read_file(state.path() / "flash") == flash) << name;
    for (const char *const memory : {"nvram0", "nvram1", "nvram2"})
      EXPECT_TRUE(read_file(state.path() / memory) == nvram) << name;
  }
}

// With consent, and the contents as before.
TEST(locate_board, writes_and_restores_two_sectors_of_the_flash) {
  const temp_dir state;
  const std::string locate = POST_BIN_DIR "/post-locate";
  ASSERT_EQ(run_board(state.path(), {"--", locate, "flash"}).status, 0);
  const auto before = read_file(state.path() / "flash");
  EXPECT_EQ(run_board(state.path(), {"--", locate, "--write", "flash"}).status, 0);
  EXPECT_TRUE(read_file(state.path() / "flash") == before);
  const struct {
    const char *fault;
    bool keeps;
    const char *says;
  } cases[] = {
      {"flash-data-stuck line=3 level=0 p=300000", true, "Nothing was written: reads are not steady."},
      {"flash-program-hangs sector=0 nth=5 times=1 dq5=1", true, "sector at 0x0000000 fail at times"},
      {"flash-program-ignored sector=511", false, "no single fault of its lines"},
      {"flash-program-ignored sector=0 nth=3", false, "does not hold its contents: "},
  };
  for (const auto &[fault, keeps, says] : cases) {
    const auto bad = run_board(state.path(), {"--fault", fault, "--", locate, "--write", "flash"});
    EXPECT_EQ(bad.status, 1) << fault << bad.out;
    EXPECT_THAT(bad.out, HasSubstr(says)) << fault;
    EXPECT_TRUE(!keeps || read_file(state.path() / "flash") == before) << fault;
  }
}

}  // namespace
