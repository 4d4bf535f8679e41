// The log of the board's buses: its lines, its limit, and the files that it goes to.
#include "tests/support/board.h"

namespace {

// Each line is "0.000000 nvram0 r 16 0x0 0xABCD\n" of 32 characters: times below 10 s.
TEST(sim_trace, ends_at_its_limit_with_a_whole_line) {
  for (const auto &[limit, lines] :
       {std::pair{"--trace-limit=96", 3}, {"--trace-limit=95", 2}, {"--trace-limit=5", 0}}) {
    const test_board board({"--trace", limit});
    auto *const word = map_window<uint16_t>(nvram0);
    testing::internal::CaptureStderr();
    for (int i = 0; i < 5; ++i)
      word[0] = 0xABCD;
    EXPECT_EQ(board.contents("trace").size(), 32U * static_cast<unsigned>(lines)) << limit;
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "board-sim: the log " + board.file("trace").string() + " ends here: it has reached its limit\n");
    EXPECT_EQ(word[0], 0xABCD);
    // The next program of the run does not begin anew.
    board.start({"--trace", limit});
    testing::internal::CaptureStderr();
    (void)map_window<uint16_t>(nvram0)[0];
    EXPECT_NE(testing::internal::GetCapturedStderr(), "");
    EXPECT_EQ(board.contents("trace").size(), 32U * static_cast<unsigned>(lines)) << limit;
  }
}

// What the last writer of each signal left, by the file's own declarations; times never go back.
std::map<std::string, char> levels_of(const std::string &vcd) {
  std::map<std::string, std::string> names;
  std::map<std::string, char> levels;
  uint64_t time = 0;
  for (const std::string &line : lines_of(vcd)) {
    std::istringstream words(line);
    std::string var, type, width, id, name;
    words >> var >> type >> width >> id >> name;
    if (var == "$var") names[id] = name;
    if (line[0] == '0' || line[0] == '1') levels[names.at(line.substr(1))] = line[0];
    if (line[0] != '#') continue;
    EXPECT_GE(std::stoull(line.substr(1)), time);
    time = std::stoull(line.substr(1));
  }
  return levels;
}

TEST(sim_trace, draws_waveforms_where_the_name_asks_for_them) {
  const test_board board;
  const auto option = "--trace=" + board.file("a.vcd").string();
  for (const unsigned word : {0x8001U, 0x0180U}) {
    board.start({option.c_str()});  // as the next program of a run does
    map_window<uint16_t>(nvram1)[3] = static_cast<uint16_t>(word);
    auto levels = levels_of(board.contents("a.vcd"));
    for (unsigned bit = 0; bit < 16; ++bit) {
      EXPECT_EQ(levels["d" + std::to_string(bit)] == '1', (word >> bit & 1U) != 0) << bit;
      EXPECT_EQ(levels["a" + std::to_string(bit)] == '1', (6U >> bit & 1U) != 0) << bit;
    }
    for (const char *const at_rest : {"we_n", "oe_n", "nvram1_ce_n", "i2c1_scl", "i2c1_sda", "flash_ready"})
      EXPECT_EQ(levels[at_rest], '1') << at_rest;
  }
  const auto flash_word = map_window<uint16_t>(flash);
  for (const auto &[offset, code] :
       {std::pair{0x555, 0xAA}, {0x2AA, 0x55}, {0x555, 0x80}, {0x555, 0xAA}, {0x2AA, 0x55}, {0, 0x30}})
    flash_word[offset] = static_cast<uint16_t>(code);
  EXPECT_EQ(levels_of(board.contents("a.vcd"))["flash_ready"], '0');
}

TEST(sim_trace, survives_its_reader) {
  const test_board board;
  ASSERT_EQ(mkfifo(board.file("trace").c_str(), 0600), 0);
  const int reader = open(board.file("trace").c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  board.start({"--trace"});
  const auto *const word = map_window<uint16_t>(nvram0);
  const uint16_t seen = word[0];
  char line[100];
  const auto length = read(reader, line, sizeof line);
  EXPECT_EQ(bus_cycles(std::string(line, static_cast<size_t>(std::max<ssize_t>(length, 0)))),
            format("nvram0 r 16 0x0 0x%x\n", seen));
  (void)close(reader);
  testing::internal::CaptureStderr();
  EXPECT_EQ(word[0], seen);
  EXPECT_EQ(word[0], seen);
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "board-sim: the log " + board.file("trace").string() + " ends here: Broken pipe\n");
}

// Through board-sim: what is there is emptied, and stays what it is.
TEST(sim_trace, goes_to_files_of_every_kind) {
  const temp_dir dir;
  const auto script = [&](const std::string &prepare, const std::string &check) {
    const auto run = run_shell(dir.path(), prepare + "\nboard-sim --trace log -- -s >/dev/null\n" + check);
    EXPECT_EQ(run.err, "");
    EXPECT_EQ(run.status, 0) << check;
    return run.out;
  };
  const std::string first = "head -n 1 log | cut -d ' ' -f 2-", expected = "sprom r 16 0x80044314 0x2b36\n";
  EXPECT_EQ(script("echo old >log; chmod 600 log; ln log same", first + "; [ log -ef same ]"), expected);
  EXPECT_EQ(script("echo old >aim; ln -sf aim log", first + "; [ -L log ] && [ ! -L aim ]"), expected);
  EXPECT_EQ(script("ln -sf /dev/null log", "[ -c log ] && cat log"), "");
  EXPECT_EQ(script("rm log; mkfifo log; cat log >seen &", "wait; [ -p log ] && mv seen log && " + first), expected);
}

// Busy times are counted in polls, however long the program waits between them.
TEST(sim_trace, is_the_same_with_short_waits) {
  const auto run = [](const std::vector<std::string> &more) {
    const temp_dir state;
    const auto log = (state.path() / "log").string();
    // It copies a sector, erases it, and restores it after the first word that differs.
    std::vector<std::string> args{"--card", "11061", "--trace", log, "--fault", "flash-data-stuck line=0 level=0"};
    args.insert(args.end(), more.begin(), more.end());
    const outcome ran = run_board(state.path() / "board", args);
    EXPECT_EQ(ran.status, 0) << ran.err;
    return std::pair(bus_cycles(read_file(log)), ran.records);
  };
  const auto expected = run({});
  EXPECT_GT(std::ranges::count(expected.first, '\n'), 200000);
  EXPECT_TRUE(run({"--waits", "short"}) == expected);
}

}  // namespace
