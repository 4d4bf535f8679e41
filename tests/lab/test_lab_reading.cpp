// Records and output as files hold them: whole, cut off, mixed with lines of others.
#include "tests/lab/lab_texts.h"

namespace {

// ---- records

// "PLACE=RESULT ..." and "FIRST-LAST REASON" of each range of bad lines.
std::string shown(const lab::record_list &list) {
  std::string out;
  for (const lab::record &one : list.records)
    out += std::to_string(one.index) + "=" + std::to_string(one.result) + " ";
  for (const lab::bad_lines &bad : list.bad)
    out += "\n" + std::to_string(bad.first) + "-" + std::to_string(bad.last) + " " + bad.reason;
  return out;
}

TEST(records, take_only_lines_that_a_run_can_have_written) {
  // clang-format off
  const std::pair<std::string, std::string_view> cases[] = {
      {"",                         ""},
      {"0:4:0:1\n0:12:6:2\n",      "0=1 15=2 "},
      {"0:4:0:1\r\n",              "0=1 "},
      {"0:5:3:1",                  "6=1 \n1-1 a whole record, but its line end is missing"},
      {"0:12:6:\n0:12:6:1:\n0:12:6:1 \n 0:12:6:1\n0:12:6\n0:12:6:+1\n0:12:6:99999999999\n\n0:12:6:",
                                   "\n1-9 not four integers with colons between them"},
      {"1:4:0:1\n",                "\n1-1 the first field is not 0"},
      {"0:6:0:1\n",                "\n1-1 no test has this id"},
      {"0:4:3:1\n0:5:-1:1\n",      "\n1-2 the test has no such device"},
      {"0:4:2:1\n",                "\n1-1 this device records nothing"},
      {"0:4:0:0\n0:4:0:3\n",       "\n1-2 the result is neither 1 nor 2"},
      {std::string(4089, '0') + "0:4:0:1" + "7\n", "\n1-1 longer than a record"},
      {"x\n0:4:0:1\ny\n\nz\n",     "0=1 \n1-1 not four integers with colons between them"
                                   "\n3-5 not four integers with colons between them"},
  };
  // clang-format on
  for (const auto &[text, expected] : cases)
    EXPECT_EQ(shown(lab::parse_records(text)), expected) << text;
  const auto bytes = lab::parse_records(std::string_view("0:4\0\x1b[31m\xff\t\n", 12));
  EXPECT_EQ(bytes.bad.at(0).text, "0:4\\x00\\x1b[31m\\xff\t") << "bytes are shown as they are";
}

TEST(records, of_huge_files_keep_the_last_runs_and_count_the_rest) {
  std::string text;
  for (int i = 0; i < 3000; ++i)
    text += std::string("0:4:0:1\n?\n") + full_records;
  std::istringstream stream(text);
  const auto list = lab::parse_records(stream);
  EXPECT_EQ(list.record_count, 3000U * 16);
  EXPECT_EQ(list.records.size(), lab::record_list::records_kept);
  EXPECT_EQ(list.records.back().line, 3000U * 17);
  EXPECT_EQ(list.bad_count, 3000U);
  EXPECT_EQ(list.bad.size() + list.bad_unlisted, 3000U);
}

// ---- logs

// A run in short: "started 0x1; seeprom ...0 gige ..!.2; ended; passed". Of each device a dot, "!" after it for its
// ERROR line, "," if its test did not end; behind a row its seconds, "?" without them.
std::string shown(const lab::run_log &run) {
  std::string out = run.started ? "started" : "starting";
  if (run.change_bits) out += " bits " + std::to_string(*run.change_bits);
  for (size_t row = 0; row < lab::row_count; ++row) {
    if (!run.rows[row].started) continue;
    out += "; " + std::string(lab::rows[row].key) + " ";
    for (size_t i = 0; i < lab::rows[row].parts.size(); ++i) {
      const auto &device = run.devices[lab::first_case(row) + i];
      if (device.started) out += device.ended ? "." : ",";
      if (device.failed) out += "!";
    }
    out += run.rows[row].seconds ? std::to_string(*run.rows[row].seconds) : "?";
  }
  if (run.passed) out += *run.passed ? "; passed" : "; failed";
  if (run.completed) out += "; completed";
  if (run.asserted) out += "; asserted";
  return out;
}

std::vector<std::string> shown(const lab::log_file &log) {
  std::vector<std::string> out;
  for (const lab::run_log &run : log.runs)
    out.push_back(shown(run));
  return out;
}

constexpr char healthy[] =
    "started bits 1; seeprom ...0; gige ....2; nvram .1; obfl .61; pcie .......0; passed; completed";

// A healthy run's log, with this before and behind each of its lines.
std::string each_line(const std::string &before, const std::string &behind) {
  std::string out;
  for (const std::string &line : lines_of(full_log))
    out += before + line + behind;
  return out;
}

TEST(log_of_a_run, is_read_however_it_was_kept) {
  // clang-format off
  const std::array<std::string, 3> cases[] = {
      {"as it is",                  full_log, healthy},
      {"with other line ends",      each_line("", "\r\n"), healthy},
      {"double-spaced",             each_line("", "\n\n"), healthy},
      {"with the time before",      each_line("[  12.345] ", "\n"), healthy},
      {"without line ends",         each_line("", ""), healthy},
      {"with foreign lines",        each_line("\x1b[0meth0: up\n", "\nlogin: \n"), healthy},
      {"without its last line end", until(full_log, "completed\n") + "completed", healthy},
      {"without blanks in front",   edited(full_log, {{"  Executing Mod 1 1 OBFL", "Executing Mod 1 1 OBFL"}}), healthy},
      {"a foreign word before done", edited(full_log, {{"....done", ".. up\n..done"}}), healthy},
      {"words of others like frames", edited(full_log, {{"....done", "..done (x seconds) P(0xz) board P(0x7) board\nExecuting it\n"
                                      "ERROR: Executing 7 on dev 0\nERROR: Executing 5 on dev 4\nMod 1 1 Post it\n..done"}}),
                                    healthy},
      {"a row without its title",   edited(full_log, {{"  Executing Mod 1 1 NVRAM Test: \n.done", "\n ERROR: Executing 8 on dev 0\ndone"}}),
                                    edited(healthy, {{"nvram .1", "nvram .!1"}})},
      {"a row without done",        edited(full_log, {{"done (2 seconds)", ""}}), edited(healthy, {{"2", "?"}})},
      {"failures",                  edited(full_log, {{"....done", ".\n ERROR: Executing 5 on dev 0\n...\n ERROR: Executing 5 "
                                                       "on dev 3\ndone"}, {"Completed Successfully", "Failed"}}),
                                    edited(healthy, {{"gige ....", "gige .!...!"}, {"passed", "failed"}})},
      {"a clock set back",          edited(full_log, {{"61 sec", "-3599 sec"}}), edited(healthy, {{"61", "-3599"}})},
  };
  // clang-format on
  for (const auto &[name, text, expected] : cases)
    EXPECT_THAT(shown(lab::parse_run_log(text)), ElementsAre(expected)) << name;
}

TEST(log_of_dead_runs, tells_each_run_and_how_far_it_came) {
  const std::string in_startup = "devmemfd:0x3\npost: mmap_acc.cpp:87: mmap_acc_init: Assertion `len' failed.\n";
  const std::string in_nvram = through(full_log, "NVRAM Test: \n.");
  constexpr char nvram[] = "started bits 1; seeprom ...0; gige ....2; nvram ,?";
  // clang-format off
  const struct { const char *name; std::string log; std::vector<std::string> runs; } cases[] = {
      {"nothing",                      "", {}},
      {"foreign lines only",           "boot\n\nPOST is completed\ndone (1 seconds)\n", {}},
      {"before the program has started", in_startup, {"starting; asserted"}},
      {"again and again",              in_startup + in_startup + full_log, {"starting; asserted", "starting; asserted", healthy}},
      {"and again without a line between", in_startup + from(full_log, "Starting"), {"starting; asserted", healthy}},
      {"before its first row",         through(full_log, "POST....."), {"started"}},
      {"before its first device",      through(full_log, "SEEPROM Test: "), {"started bits 1; seeprom ?"}},
      {"within a device",              in_nvram, {nvram}},
      {"and the next one on the line", in_nvram + full_log, {nvram, healthy}},
      {"the next one's start missing", in_nvram + full_log + from(full_log, "P(0x1)"),
                                       {nvram, healthy, edited(healthy, {{"started bits 1", "starting bits 1"}})}},
      {"within a row",                 through(full_log, "GigE Port Test: \n.."), {"started bits 1; seeprom ...0; gige .,?"}},
      {"by an assertion in a row",     in_nvram + "## Assert:obfl():3\n", {std::string(nvram) + "; asserted"}},
      {"after its last row",           until(full_log, "  Mod 1 1 Post"), {until(healthy, "; passed")}},
      {"after its verdict",            until(full_log, "POST is"), {until(healthy, "; completed")}},
      {"and a start runs into a row's end", through(full_log, "SEEPROM Test: \n") + "devmemfd:0x3.done (1 seconds)\n",
                                       {"started bits 1; seeprom ?", "starting"}},
      {"an ERROR line",                until(full_log, "done (1") + "\n ERROR: Executing 8 on dev 0",
                                       {"started bits 1; seeprom ...0; gige ....2; nvram .!?"}},
  };
  // clang-format on
  for (const auto &[name, text, expected] : cases)
    EXPECT_EQ(shown(lab::parse_run_log(text)), expected) << name;
}

// The messages of a list, "(+N)" for those left out.
std::vector<std::string> texts(const lab::message_list &list) {
  std::vector<std::string> out;
  for (const lab::message &one : list.kept)
    out.push_back(std::to_string(one.line) + " " + one.text);
  if (list.more > 0) out.push_back("+" + std::to_string(list.more));
  return out;
}

TEST(messages, belong_to_the_device_that_was_tested) {
  const auto log = lab::parse_run_log(
      edited(full_log,
             {{"P(0x1)", "err: no SPROM\nP(0x1)"},
              {"...done", ".one\n.two\n\n ERROR: Executing 4 on dev 1\nthree\n.four  ...done"},
              {"  Executing Mod 1 1 NVRAM Test: \n.", "outside\n  Executing Mod 1 1 NVRAM Test: \nfive\x07\n\t\n."}}));
  const lab::run_log &run = log.runs.at(0);
  EXPECT_THAT(texts(run.startup),
              ElementsAre("1 devmemfd:0x3", "2 phys->virt: 0xf8000000-->0x7f6786400000", "4 err: no SPROM"));
  EXPECT_THAT(texts(run.devices[0].messages), ElementsAre("7 one"));
  EXPECT_THAT(texts(run.devices[1].messages), ElementsAre("8 two", "11 three"));
  EXPECT_THAT(texts(run.devices[2].messages), ElementsAre("12 four  ..."));
  EXPECT_THAT(texts(run.between), ElementsAre("15 outside"));
  EXPECT_THAT(texts(run.devices[7].messages), ElementsAre("17 five\\x07"));
}

// The messages of a run's ports whose row shows this.
std::vector<std::vector<std::string>> messages_of_ports(std::string_view row) {
  const auto log = lab::parse_run_log(edited(full_log, {{"....done", row}}));
  std::vector<std::vector<std::string>> out;
  for (size_t index = 3; index < 7; ++index)
    out.push_back(texts(log.runs.at(0).devices[index].messages));
  return out;
}

// Where each line carries its time, no dots are seen before the ERROR line tells the device.
TEST(messages, go_with_the_error_line_where_the_dots_are_missing) {
  EXPECT_THAT(messages_of_ports("> .\n> Fail A\n>  ERROR: Executing 5 on dev 1\n> Fail B\n>  ERROR: Executing 5 on "
                                "dev 3\n> done"),
              ElementsAre(IsEmpty(), ElementsAre("8 > .", "9 > Fail A", "10 >  "), IsEmpty(),
                          ElementsAre("11 > Fail B", "12 >  ", "13 > ")));
  EXPECT_THAT(messages_of_ports(".Fail A\n ERROR: Executing 5 on dev 0\nFail B\n ERROR: Executing 5 on dev 2\n.done"),
              ElementsAre(ElementsAre("8 Fail A"), IsEmpty(), ElementsAre("10 Fail B"), IsEmpty()));
}

TEST(messages, are_bounded_and_counted) {
  std::string noise = std::string(20000, 'x') + "\n";
  for (size_t i = 0; i < 1000; ++i)
    noise += "line\n";
  const auto log = lab::parse_run_log(edited(full_log, {{".done (1", "." + noise + "done (1"}}));
  const lab::message_list &nvram = log.runs.at(0).devices[7].messages;
  EXPECT_EQ(nvram.kept.size(), lab::message_list::lines_kept);
  EXPECT_EQ(nvram.kept.size() + nvram.more, 1001U);
  EXPECT_EQ(shown(log.runs[0]), healthy);
}

TEST(notes, name_the_lines_of_no_run_and_those_that_are_not_whole) {
  const std::string before = std::string(5000, '#') + "\n\nboot\n";
  const auto log = lab::parse_run_log(before + full_log + "\n$ exit\n" + from(full_log, "P(0x1)") + "log");
  std::vector<std::string> notes;
  for (const lab::line_note &note : log.notes)
    notes.push_back(std::to_string(note.first) + "-" + std::to_string(note.last) + " " + note.text);
  EXPECT_THAT(notes, ElementsAre("1-1 longer than the limit, the rest of it is left out", "1-3 of no run",
                                 "21-21 of no run", "22-22 a run whose beginning is missing",
                                 "35-35 the log stops within this line", "35-35 of no run"));
}

// The same bytes through a stream, whose pieces end anywhere, and more runs than are kept.
TEST(huge_logs, are_read_as_streams_in_bounded_memory) {
  std::string text;
  const std::string log = each_line("", "\r\n");
  for (size_t i = 0; i < 500; ++i)
    text += std::string(i % 97, '.') + "noise \xff\n" + until(log, i % 2 == 0 ? "POST is" : "done (61");
  text += full_log;
  std::istringstream stream(text);
  const auto streamed = lab::parse_run_log(stream);
  const auto whole = lab::parse_run_log(text);
  EXPECT_EQ(shown(streamed), shown(whole));
  EXPECT_EQ(streamed.run_count, 501U);
  EXPECT_EQ(streamed.runs.size(), lab::log_file::runs_kept);
  EXPECT_EQ(shown(streamed.runs.back()), healthy);
}

}  // namespace
