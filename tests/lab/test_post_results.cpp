// The program post-results on runs of the simulated board and on stored files.
#include "tests/lab/lab_texts.h"
#include "tests/support/run.h"

namespace {

constexpr const char *forms[] = {"table", "ktap", "junit", "ocp", "journal", "prometheus"};
constexpr size_t with_findings = 4;  // the forms before have a case for the run's own findings, the others its verdict

class post_results : public in_directory {
 protected:
  // Output and records of a run on the simulated board, as NAME.log and NAME.result.
  void run(const std::string &name, const std::string &args) const {
    (void)sh("rm -rf state; board-sim --state state " + args + " >" + name + ".log 2>&1; cat state/post/result >" +
             name + ".result");
  }
  // All forms of it, as NAME.FORM. Returns the exit status, which is the same for all.
  [[nodiscard]] int tell(const std::string &name) const {
    int status = -1;
    for (const std::string form : forms) {
      const outcome told = sh("post-results --" + form + (form == "prometheus" ? "=-" : "") + " --log " + name +
                              ".log " + name + ".result");
      EXPECT_EQ(told.err, "");
      save(name + "." + form, told.out);
      if (status == -1) status = told.status;
      EXPECT_EQ(told.status, status) << form;
    }
    return status;
  }
  // Names and verdicts of the cases, a line each, by the reader of the form beside this file.
  [[nodiscard]] std::string read(const std::string &name, const std::string &form) const {
    const outcome told = sh("python3 " + shell_word(LAB_TESTS_DIR "/read_" + form + ".py") + " " + name + "." + form);
    EXPECT_EQ(told.status, 0) << name << " " << form << "\n" << told.err;
    return told.out;
  }
};

// "PPS PPPP S S PPPPPPP E": as letters() of a report, with the run's own finding behind.
std::string letters(const std::string &cases) {
  std::string out;
  for (const std::string &one : lines_of(cases)) {
    if ((one.find(".0 ") != std::string::npos || one.starts_with("run ")) && !out.empty()) out += ' ';
    out += one[one.find(' ') + 1];
  }
  return out;
}

// ---- runs

struct run_case {
  std::string name;
  std::string args;  // of board-sim; none: what is stored of a full run
  std::string expected;
  std::string result;  // of the run, in the words of the OCP format
};

// clang-format off
const run_case board_runs[] = {
    {"healthy",     "-- -s",                                             "PPS PPPP S S PPPPPPP", "COMPLETE PASS"},
    {"corrupt",     "--card 11079 --revision P0 --fault 'sprom-corrupt image=bp block=main' -- -s", "PFS PPPP S S PPPPPPP", "COMPLETE FAIL"},
    {"unreadable",  "--fault 'i2c-absent bus=1 addr=0x52' -- -s",        "FFS PPPP S S PPPPPPP", "COMPLETE FAIL"},
    {"functions",   "--card 11061 --fault 'ethtool-silent port=eth1' --fault 'ethtool-silent port=eth5' "
                    "--fault 'pci-missing bus=1 dev=0 func=3' --fault 'pci-missing bus=2 dev=0 func=1' -- -s",
                                                                         "PPS PFPF S S PFPPPFP", "COMPLETE FAIL"},
    {"driverless",  "--fault sprom-absent -- -s",                        "SSS FFFF S S PPPPPPP E", "ERROR NOT_APPLICABLE"},
    {"unknown",     "--card 1 -- -s",                                    "SSS PPPP S S PPPPPPP E", "ERROR NOT_APPLICABLE"},
    {"full",        "",                                                  "PPS PPPP P P PPPPPPP", "COMPLETE PASS"},
    {"homeless",    "--fault post-missing -- -s",                        "EES FEEF S S EEEEEEE", "ERROR NOT_APPLICABLE"},
    {"never-began", "--fault 'bar-missing bar=5' -- -s",                 "EEE EEEE E E EEEEEEE E", "ERROR NOT_APPLICABLE"},
    {"killed",      "--fault 'ethtool-fail port=eth0 test=loopback' --fault 'nvram-data-stuck instance=1 line=3 level=0' --fault 'flash-power-cut nth=1'",
                                                                         "PPS FPPP F E EEEEEEE E", "ERROR NOT_APPLICABLE"},
};
// clang-format on

TEST_F(post_results, tells_the_same_of_each_case_in_every_form) {
  for (const run_case &one : board_runs) {
    SCOPED_TRACE(one.name);
    save("full.log", full_log);
    save("full.result", full_records);
    if (!one.args.empty()) run(one.name, one.args);
    EXPECT_EQ(tell(one.name), one.result == "COMPLETE PASS" ? 0 : 1);
    const std::string expected = read(one.name, "table");
    EXPECT_EQ(letters(expected), one.expected) << load(one.name + ".table");
    const size_t space = one.result.find(' ');
    const std::string word = one.result.substr(space + 1);
    const std::string verdict = "verdict " + (word == "NOT_APPLICABLE" ? "ERROR" : word) + "\n";
    const std::string devices = until(expected, "run ");
    for (const char *const form : std::span(forms).first(with_findings))
      EXPECT_EQ(read(one.name, form), expected) << form;
    for (const char *const form : std::span(forms).subspan(with_findings))
      EXPECT_EQ(read(one.name, form), devices + verdict) << form;
    EXPECT_THAT(load(one.name + ".ocp"),
                HasSubstr(R"({"testRunEnd":{"status":")" + one.result.substr(0, space) + R"(","result":")" + word));
  }
}

const std::string check_ocp = "python3 " + shell_word(LAB_TESTS_DIR "/check_ocp.py");

TEST_F(post_results, is_understood_by_readers_of_others) {
  // Whatever a program or a disk may leave in the files: markup, quotes, control characters, directives.
  const std::string noise =
      "<b>&amp; ]]> \"quoted\" '\\ # SKIP it\nok 3 # TODO\nBail out!\n\x1b[0m\xff\xc3\x28\x01\t.\n";
  save("hostile.log", edited(full_log, {{"....done", ".." + noise + "\n ERROR: Executing 5 on dev 1\n..done"},
                                        {"P(0x1) board", "P(0x1) board\n" + noise}}));
  save("hostile.result", edited(full_records, {{"0:12:0:1", noise + "0:12:0:1"}}));
  EXPECT_EQ(tell("hostile"), 1);
  EXPECT_EQ(letters(read("hostile", "ktap")), "PPS PFPP P P PPPPPPP E");
  for (const std::string name : {"healthy", "driverless", "killed"}) {
    run(name, std::ranges::find(board_runs, name, &run_case::name)->args);
    (void)tell(name);
  }
  EXPECT_EQ(sh("board-sim -- sprom show --json SUPERVISOR >sprom && post-results --ocp --sprom sprom --log healthy.log"
               " healthy.result >sprom.ocp")
                .status,
            0);
  // Name, a command that tells whether it is here, and how it reads.
  const std::array<std::string, 3> readers[] = {
      {"xmllint", "xmllint --version",
       "xmllint --noout --schema " + shell_word(LAB_TESTS_DIR "/junit.xsd") + " *.junit"},
      {"jq", "jq --version", "for f in *.ocp; do jq -s -e 'last.testRunArtifact.testRunEnd.status != null' $f; done"},
      {"prove", "prove --version",
       "prove -e cat healthy.ktap && ! prove -e cat hostile.ktap && ! prove -e cat driverless.ktap"
       " && ! prove -e cat killed.ktap"},
      {"python3-jsonschema", "python3 -c 'import jsonschema'", check_ocp + " *.ocp"},
      {"promtool", "promtool --version",
       "for f in *.prometheus; do promtool check metrics <$f || exit; done; promtool test rules " +
           shell_word(LAB_TESTS_DIR "/alerts.yml")},
      // Another validator of OCP's output, where the user names one.
      {"$CHECK_OCP", "true", "[ -z \"$CHECK_OCP\" ] || \"$CHECK_OCP\" *.ocp"},
  };
  std::string missing;
  for (const auto &[name, probe, command] : readers) {
    if (sh(probe).status != 0) {
      missing += " " + name;
      continue;
    }
    const outcome checked = sh(command);
    EXPECT_EQ(checked.status, 0) << name << "\n" << checked.out << checked.err;
  }
  if (!missing.empty()) GTEST_SKIP() << "not here:" << missing;
}

TEST_F(post_results, names_the_board_by_its_sprom) {
  const std::string sprom = sh("board-sim --card 11096 -- sprom show --json SUPERVISOR").out;
  save("result", full_records);
  const struct {
    std::string printed_bits;
    bool good_sprom;
    std::string form, expected;
  } cases[] = {
      {"0x1", true, "table", "Board: card 11096, part SUP-DORVAN, serial SIM00000001, change bits 0x1\n"},
      {"0x1", true, "ktap", "\n# board: card 11096, part SUP-DORVAN, serial SIM0"},
      {"0x1", true, "junit", R"(<property name="serial" value="SIM00000001">)"},
      {"0x1", true, "ocp", R"("dutInfo":{"dutInfoId":"SIM00000001",)"},
      {"0x1", true, "ocp",
       R"("hardwareInfos":[{"hardwareInfoId":"supervisor","name":"supervisor","partType":"supervisor",)"
       R"("version":"card 11096","partNumber":"SUP-DORVAN","serialNumber":"SIM00000001","revision":"0x1"}])"},
      {"0x1", true, "prometheus=-",
       "\npost_verdict{card=\"11096\",part=\"SUP-DORVAN\",serial=\"SIM00000001\",change_bits=\"0x1\"} 1\n"},
      {"0x1", true, "journal",
       "POST_CARD=11096\nPOST_PART=SUP-DORVAN\nPOST_SERIAL=SIM00000001\nPOST_CHANGE_BITS=0x1\n"},
      {"0x2a", true, "table", "change bits 0x2a\n"},
      {"0x2a", true, "table", "Note: the run printed other change bits than the SPROM holds\n"},
      {"0x1", false, "table", "Note: the SPROM with the board's identity has bad blocks\n"},
  };
  for (const auto &[bits, good, form, expected] : cases) {
    save("log", edited(full_log, {{"P(0x1)", "P(" + bits + ")"}}));
    save("sprom", good ? sprom : edited(sprom, {{"\"good\":true", "\"good\":false"}}));
    EXPECT_THAT(sh("post-results --log log --sprom sprom --" + form + " result").out, HasSubstr(expected));
  }
}

// The log was written when the run ended; the seconds of its rows lie before that.
TEST_F(post_results, counts_times_back_from_the_end_of_the_run) {
  save("log", full_log);
  save("result", full_records);
  EXPECT_EQ(sh("touch -d 2024-02-29T12:00:00Z log").status, 0);
  const std::string ocp = sh("TZ=Asia/Tokyo post-results --ocp --log log result").out;
  const auto time_of = [&ocp](const std::string &piece) {
    const std::string line = from(ocp.substr(ocp.find(piece)), "\"timestamp\":\"").substr(13);
    return until(line, "\"");
  };
  EXPECT_EQ(time_of("testRunStart"), "2024-02-29T11:58:56Z");
  EXPECT_EQ(time_of("Mod 1 1 OBFL Test"), "2024-02-29T11:58:59Z");
  EXPECT_EQ(time_of("testRunEnd"), "2024-02-29T12:00:00Z");
  EXPECT_THAT(ocp, HasSubstr(R"("testStepId":"obfl","measurement":{"name":"duration","value":61,"unit":"s"})"));
  const std::string junit = sh("post-results --junit --log log result").out;
  EXPECT_THAT(junit, HasSubstr(R"(<testsuites name="post" tests="16" failures="0" errors="0" skipped="1" time="64">)"));
  EXPECT_THAT(junit, HasSubstr(R"(name="obfl.0 OBFL flash" time="61")"));
  EXPECT_THAT(junit, Not(HasSubstr(R"(name="gige.0 eth0" time)")));
  const std::string metrics = sh("post-results --prometheus - --log log result").out;
  EXPECT_THAT(metrics,
              HasSubstr("\npost_end_time_seconds{card=\"\",part=\"\",serial=\"\",change_bits=\"0x1\"} 1709208000\n"));
  EXPECT_THAT(metrics, HasSubstr("\npost_duration_seconds{test=\"obfl\",card="));
}

TEST_F(post_results, reports_lines_that_are_not_whole_or_of_others_by_number) {
  save("log", "boot\nlogin\n" + std::string(full_log) + "$ exit");
  save("result", "junk\n" + std::string(full_records) + "0:4:\n" + short_records + "0:12:6");
  for (const std::string form : std::span(forms).first(with_findings)) {
    const std::string told = sh("post-results --" + form + " --run 1 --log log result").out;
    for (const auto *const note : {"records, line 1: not four integers with colons between them",
                                   "records, line 17: ", "records, line 31: ", "log, lines 1 to 2: of no run",
                                   "log, line 19: the log stops within this line", "run 1 of 2"})
      EXPECT_THAT(told, HasSubstr(note)) << form;
  }
  // Between the records of other runs they are no finding of this one.
  save("result", "0:4:0:1\njunk\n" + std::string(full_records) + short_records);
  EXPECT_EQ(sh("post-results result").status, 0);
  EXPECT_EQ(sh("post-results --run 2 result").status, 1);
  save("result", std::string(full_records) + short_records + "junk\n");
  EXPECT_EQ(sh("post-results --run 1 result").status, 0);
  EXPECT_EQ(sh("post-results result").status, 1);
  // A log without a run is that of one that died at once: the records are of others.
  save("log", "login\n");
  EXPECT_THAT(sh("post-results --log log result").out, HasSubstr("0 passed, 0 failed, 0 skipped, 17 errors\n"));
}

TEST_F(post_results, ends_with_its_status_and_says_why) {
  save("log", full_log);
  save("my log", full_log);
  save("result", full_records);
  save("empty", "");
  save("line.json", R"({"kind":"bp","blocks":[]})");
  // Status, and a part of the errors.
  // clang-format off
  expect_endings("post-results", {
      {"result",                          0, ""},
      {"--log 'my log' -- result",        0, ""},
      {"--log - result <log",             0, ""},
      {"--log=log --junit result",        0, ""},
      {"empty",                           1, ""},
      {"--log empty result",              1, ""},
      {"--log log no-such-file",          1, ""},
      {"--run 2 result",                  2, "there is no run 2, the last is 1"},
      {"--run 0 result",                  2, "there is no run 0"},
      {"--run x result",                  2, "bad value 'x' of option '--run', allowed is a whole number"},
      {"result --log",                    2, "option '--log' needs a value"},
      {"--jnit result",                   2, "unknown option '--jnit' (did you mean '--junit'?)"},
      {"no-such-file",                    2, "no-such-file: No such file or directory"},
      {"--log no-such-file result",       2, "no-such-file: No such file or directory"},
      {"--sprom no-such-file result",     2, "no-such-file: No such file or directory"},
      {"--sprom result result",           2, "result: it is not JSON"},
      {"--sprom line.json result",        2, "line.json: it is not what 'sprom show --json' prints of a supervisor's SPROM"},
      {"--log . result",                  2, ".: Is a directory"},
      {"--ktap --ocp result",             2, "more than one form"},
      {"--ktap --prometheus - result",    2, "more than one form"},
      {"--prometheus no-such/f result",   2, "no-such/f: No such file or directory"},
      {"result more",                     2, "unexpected argument 'more'"},
      {"result >/dev/full",               2, "standard output: No space left on device"},
      {"--version",                       0, ""},
      {"--help",                          0, ""},
      {"--help >/dev/full",               2, "standard output: No space left on device"},
  });
  // clang-format on
}

TEST_F(post_results, and_its_neighbours_have_their_options_in_manual_and_completion) {
  const std::string script = R"(
    . "$root/tools/completion/$program"
    COMP_WORDS=($program --) COMP_CWORD=1
    _${program//-/_}
    for option in $($program --help | sed -nE 's/^  (-\w,)?(--[a-z-]+).*/\2/p'); do
      grep -qE "^\.It Fl ${option#-}| , ${option#-}" "$root/docs/$program.1" || echo "the manual has no $option"
      [[ "${COMPREPLY[*]}" == *"$option"* ]] || echo "the completion has no $option"
      seen+="$option "
    done
    [[ $seen = *"--help "*"--version "* ]] || echo "the help was not read: $seen")";
  for (const std::string program : {"post-results", "post-explain", "post-locate", "post-campaign"}) {
    save("script", "root=" + shell_word(LAB_TESTS_DIR "/../..") + " program=" + program + script);
    EXPECT_EQ(sh("bash script").out, "") << program;
  }
}

}  // namespace
