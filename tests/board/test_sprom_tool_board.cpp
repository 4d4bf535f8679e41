// The `sprom` program on the simulated boards.
#include "tests/support/sprom_tool.h"

using testing::EndsWith;
using testing::HasSubstr;
using testing::MatchesRegex;
using testing::StartsWith;

namespace {

constexpr const char *unknown_board =
    "sprom: this is no board of a known family; --family names one, --file works on an image\n";

class sprom_board : public sprom_tool {
 protected:
  // A run on the board of the state directory; `before` is what the shell reads before it.
  [[nodiscard]] outcome on(const std::string &board, const std::string &args, const std::string &before = "") const {
    return sh(before + "board-sim --state st --trace log " + board + " -- sprom " + args);
  }
  // A new board; returns what an EEPROM of it holds.
  [[nodiscard]] bytes fresh(const std::string &board, const std::string &eeprom) const {
    EXPECT_EQ(sh("rm -rf st; board-sim --state st " + board + " -- sprom list").status, 0);
    return load("st/eeprom-" + eeprom);
  }
  // The last run's writes to the protection port and to expanders, a line each, without "w", width and message number.
  [[nodiscard]] std::string pins() const {
    return sh(R"(sed -nE 's/^[^ ]+ (port|i2c-[0-9]+:7.) w (24|32) [^ ]+ 0x/\1 /p' log)").out;
  }
};

bytes overlaid(bytes eeprom, size_t base, const bytes &image, size_t count) {
  std::copy_n(image.begin(), count, eeprom.begin() + static_cast<std::ptrdiff_t>(base));
  return eeprom;
}

struct target {
  std::string board;
  std::string name;
  uint32_t type;
  std::string eeprom;
  size_t base;
  std::string pins;
};
const std::string port_pins = "port 635a3c41\nport 6b5a3c41\n";
// clang-format off
const std::vector<target> targets{
    {"--family dorvan", "SUPERVISOR", SPROM_TYPE_SUP, "1-52",  0,      ""},
    {"--family dorvan", "0,0",        SPROM_TYPE_BP,  "1-52",  0x1000, ""},
    {"--family pellin", "1,1",        SPROM_TYPE_SUP, "1-52",  0,      port_pins},
    {"--family pellin", "backplane",  SPROM_TYPE_BP,  "1-52",  0x1000, port_pins},
    {"--family pellin", "PS1",        SPROM_TYPE_PS,  "6-52",  0,      ""},
    {"--family pellin", "0,2",        SPROM_TYPE_PS,  "6-53",  0,      ""},
    {"--family pellin", "'DC 1'",     SPROM_TYPE_LC,  "17-52", 0,      "i2c-20:76 06fffd\ni2c-20:76 02fffd\ni2c-20:76 02ffff\n"},
    {"--family pellin", "2,7",        SPROM_TYPE_LC,  "23-52", 0,      "i2c-23:75 06f7ff\ni2c-23:75 02f7ff\ni2c-23:75 02ffff\n"},
    {"--family pellin", "lc3",        SPROM_TYPE_LC,  "7-52",  0,      "i2c-7:75 06f7ff\ni2c-7:75 02f7ff\ni2c-7:75 02ffff\n"},
    {"--family tosk",   "supervisor", SPROM_TYPE_SUP, "1-52",  0,      port_pins},
    {"--family tosk",   "0,0",        SPROM_TYPE_BP,  "1-52",  0x1000, port_pins},
    {"--family tosk",   "ps1",        SPROM_TYPE_PS,  "6-52",  0,      ""},
    {"--family tosk",   "PS2",        SPROM_TYPE_PS,  "6-53",  0,      ""},
    {"--family tosk",   "'LC 2'",     SPROM_TYPE_LC,  "7-52",  0,      "i2c-7:75 06f7ff\ni2c-7:75 02f7ff\ni2c-7:75 02ffff\n"},
};
// clang-format on

}  // namespace

TEST_F(sprom_board, tells_the_family) {
  struct row {
    std::string board;
    std::string family;  // "" for none
    std::string err;
  };
  const std::string bad = "Supervisor Main block checksum mismatch.  Found 0x01f4, expected 0x02f3.\n";
  // clang-format off
  const std::vector<row> rows{
      {"",                                                    "dorvan", ""},
      {"--card 11111",                                        "dorvan", ""},
      {"--card 11112",                                        "",       unknown_board},
      {"--fault sprom-absent",                                "",       unknown_board},
      {"--family pellin",                                     "pellin", ""},
      {"--family pellin --fault sprom-absent",                "pellin", ""},
      {"--family pellin --fault 'straps value=1'",            "pellin", ""},
      {"--family pellin --fault 'straps value=2'",            "pellin", ""},
      {"--family pellin --fault 'straps value=3' --card 5",   "",       unknown_board},
      {"--family pellin --fault 'straps value=3' --fault 'sprom-corrupt image=sup block=main'", "", bad + bad + unknown_board},
      {"--family tosk",                                       "tosk",   ""},
      {"--family tosk --fault 'straps value=3'",              "tosk",   ""},
      {"--family tosk --fault 'i2c-absent bus=8 addr=0x76'",  "tosk",   ""},
  };
  // clang-format on
  for (const row &r : rows) {
    SCOPED_TRACE(r.board);
    const auto result = sh("board-sim " + r.board + " -- sprom list --json");
    EXPECT_EQ(result.status, r.family.empty() ? 1 : 0);
    EXPECT_THAT(result.out, StartsWith(r.family.empty() ? "" : "{\"family\":\"" + r.family + "\",\"sproms\":[{\"na"));
    EXPECT_EQ(result.err, r.err);
  }
  EXPECT_THAT(sh("sprom list --family pellin").out, HasSubstr("\nDC 1             1      2  lc      263\n"
                                                              "LC 2             2    any  lc      263\n"
                                                              "LC 3             3    any  lc      263\n"
                                                              "DIMM0            -      -  dimm      -\n"));
}

TEST_F(sprom_board, writes_every_sprom_and_nothing_beside) {
  for (const target &t : targets) {
    SCOPED_TRACE(t.board + " " + t.name);
    const bytes before = fresh(t.board, t.eeprom);
    const bytes image = device_image(t.type);
    save("image", image);
    auto result = on(t.board, "write --yes " + t.name + " image");
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.err, "");
    EXPECT_THAT(result.out, EndsWith(": " + std::to_string(image.size()) + " bytes written and read back\n"));
    EXPECT_EQ(load("st/eeprom-" + t.eeprom), overlaid(before, t.base, image, image.size()));
    EXPECT_EQ(pins(), t.pins);
    EXPECT_EQ(on(t.board, "dump " + t.name + " copy").status, 0);
    EXPECT_EQ(load("copy"), image);
    result = on(t.board, "verify " + t.name);
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.out + result.err, "");
  }
}

TEST_F(sprom_board, takes_the_mezzanine_pin_from_the_change_bits) {
  struct row {
    std::string board;
    std::string variable;
    bool is_written;
    std::string pin;  // written to the configuration
  };
  // clang-format off
  for (const row &r : std::vector<row>{
           {"P1", "unset DIAG_HW_CHANGE_BITS;",       true,  "fffd"},
           {"P1", "export DIAG_HW_CHANGE_BITS=5;",    true,  "fffd"},
           {"P1", "export DIAG_HW_CHANGE_BITS=0x0;",  false, "7fff"},
           {"P0", "unset DIAG_HW_CHANGE_BITS;",       false, "fffd"},
           {"P0", "export DIAG_HW_CHANGE_BITS=0;",    true,  "7fff"},
           {"P0", "export DIAG_HW_CHANGE_BITS=;",     true,  "7fff"},
           {"P0", "export DIAG_HW_CHANGE_BITS=none;", true,  "7fff"}}) {
    // clang-format on
    SCOPED_TRACE(r.board + " " + r.variable);
    const auto result = on("--family pellin --revision " + r.board, "edit -y dc1 --product-id=" + r.board, r.variable);
    EXPECT_EQ(result.status, r.is_written ? 0 : 1);
    EXPECT_THAT(result.err, EndsWith(r.is_written ? "" : "DC 1: nothing has changed; it may be write-protected\n"));
    EXPECT_THAT(pins(), StartsWith("i2c-20:76 06" + r.pin + "\n"));
    EXPECT_EQ(sh("rm -rf st").status, 0);
  }
}

// Every way in which a write can go wrong: what it says, and how many bytes arrive.
TEST_F(sprom_board, never_claims_a_write_that_did_not_arrive) {
  struct row {
    size_t target;
    std::string name;
    std::string fault;
    size_t arrived;
    std::vector<std::string> err;  // regular expressions, without the name in front
  };
  const std::string no_answer = ": No such device or address";
  const std::string failed = ": Input/output error";
  const std::string protect = "nothing has changed; it may be write-protected";
  const std::string differs =
      "reads back with [0-9]+ of [0-9]+ bytes different from the image, the first at byte [0-9]+";
  const std::string unknown = "what it holds now is not known";
  // A dorvan supervisor image is read in 335 transactions and written in 334.
  // clang-format off
  const std::vector<row> rows{
      {2,  "SUPERVISOR", "iopl-refused",                             0,   {differs, protect}},
      {10, "BACKPLANE",  "iopl-refused",                             0,   {differs, protect}},
      {6,  "DC 1",       "pin-stuck bus=20 addr=0x76 pin=9 level=1", 0,   {differs, protect}},
      {13, "LC 2",       "pin-stuck bus=7 addr=0x75 pin=3 level=1",  0,   {differs, protect}},
      {7,  "LC 2",       "i2c-absent bus=23 addr=0x75",              0,   {"the write protection cannot be lifted" + no_answer,
                                                                           "the write protection cannot be restored" + no_answer, differs, protect}},
      {8,  "LC 3",       "i2c-fail bus=7 addr=0x75 nth=4",           0,   {"the write protection cannot be lifted" + failed, differs, protect}},
      {8,  "LC 3",       "i2c-fail bus=7 addr=0x75 nth=6",           263, {"the write protection cannot be restored" + failed,
                                                                           "it reads back as the image, although the write protection failed"}},
      {0,  "SUPERVISOR", "eeprom-protected bus=1 addr=0x52",         0,   {differs, protect}},
      {0,  "SUPERVISOR", "eeprom-corrupt bus=1 addr=0x52 offset=99", 334, {"reads back with 1 of 334 bytes different from the image, the first at byte 99"}},
      {0,  "SUPERVISOR", "i2c-absent bus=1 addr=0x52",               0,   {"cannot read" + no_answer}},
      {0,  "SUPERVISOR", "i2c-fail bus=1 addr=0x52 nth=335",         0,   {"cannot read" + failed}},
      {0,  "SUPERVISOR", "i2c-fail bus=1 addr=0x52 nth=336",         0,   {"write stopped at byte 0 of 334 .EEPROM offset 0x0000." + failed, differs, "nothing has changed"}},
      {0,  "SUPERVISOR", "i2c-fail bus=1 addr=0x52 nth=346",         10,  {"write stopped at byte 10 of 334 .EEPROM offset 0x000a." + failed, differs}},
      {0,  "SUPERVISOR", "i2c-fail bus=1 addr=0x52 nth=669",         333, {"write stopped at byte 333 of 334 .EEPROM offset 0x014d." + failed, differs}},
      {1,  "BACKPLANE",  "i2c-fail bus=1 addr=0x52 nth=573 times=0", 100, {"write stopped at byte 100 of 471 .EEPROM offset 0x1064." + failed, "cannot read" + failed, unknown}},
      {0,  "SUPERVISOR", "eeprom-busy bus=1 addr=0x52",              1,   {"write stopped at byte 1 of 334 .EEPROM offset 0x0001." + no_answer, "cannot read" + no_answer, unknown}},
      {0,  "SUPERVISOR", "i2c-fail bus=1 addr=0x52 nth=1000",        334, {"cannot read" + failed, unknown}},
  };
  // clang-format on
  for (const row &r : rows) {
    SCOPED_TRACE(r.fault);
    const target &t = targets[r.target];
    const bytes before = fresh(t.board, t.eeprom);
    const bytes image = device_image(t.type);
    save("image", image);
    const auto result = on(t.board + " --fault '" + r.fault + "'", "write -y " + t.name + " image");
    EXPECT_EQ(load("st/eeprom-" + t.eeprom), overlaid(before, t.base, image, r.arrived));
    std::string err;
    for (const std::string &line : r.err)
      err += "sprom: " + r.name + ": " + line + "\n";
    EXPECT_THAT(result.err, MatchesRegex(err));
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.out, Not(HasSubstr("written and read back")));
  }
  // The last byte is the old one already.
  const auto result = sh("board-sim --fault 'i2c-fail bus=1 addr=0x52 nth=669' -- sprom edit -y 1,1 --num_6=7");
  EXPECT_EQ(result.status, 1);
  EXPECT_THAT(result.err, EndsWith("sprom: SUPERVISOR: it reads back as the image, although the write failed\n"));
}

// A signal stops the write between two bytes, and the protection is restored.
TEST_F(sprom_board, tells_the_byte_at_which_it_was_interrupted) {
  const target &t = targets[7];
  const bytes before = fresh(t.board, t.eeprom);
  const bytes image = device_image(t.type);
  save("image", image);
  const auto result =
      sh("cp st/eeprom-23-52 old\n"
         "board-sim --state st --trace log --busy time --family pellin -- sprom write -y lc2 image &\n"
         "for i in $(seq 3000); do cmp -s st/eeprom-23-52 old || break; sleep 0.01; done; kill -TERM $!; wait $!");
  EXPECT_EQ(result.status, 1);
  size_t arrived = 0;
  EXPECT_EQ(sscanf(result.err.c_str(), "sprom: LC 2: write stopped at byte %zu", &arrived), 1);
  EXPECT_GT(arrived, 0U);
  EXPECT_EQ(load("st/eeprom-23-52"), overlaid(before, 0, image, arrived));
  EXPECT_THAT(result.err, HasSubstr(": interrupted\nsprom: LC 2: reads back with "));
  EXPECT_EQ(pins(), t.pins);
}

TEST_F(sprom_board, writes_nothing_when_anything_before_fails) {
  save("sup", device_image(SPROM_TYPE_SUP));
  save("bad", with_byte(device_image(SPROM_TYPE_SUP), 10, 0));
  save("ps", device_image(SPROM_TYPE_PS));
  save("fan", device_image(SPROM_TYPE_FAN));
  // clang-format off
  for (const auto &[args, err] : std::vector<std::pair<std::string, std::string>>{
           {"write sup",           "SUPERVISOR: not written: there is no terminal to ask on; --yes writes without asking"},
           {"write -y bad",        "bad: a bad image; nothing is written without --force"},
           {"write -y 0,0 sup",    "sup: 334 bytes: this is a supervisor image, not a backplane image"},
           {"write -y ps",         "the pellin boards have more than one power supply SPROM; name the one that is meant"},
           {"write -y fan",        "the pellin boards have no fan SPROM; name the one that is meant"},
           {"write -y DIMM1 fan",  "DIMM1: a DIMM has no layout here"},
           {"write -y 1,3 sup",    "1,3: the pellin boards have no such SPROM (see 'sprom list')"},
           {"write -y 1,1, sup",   "1,1,: the pellin boards have no such SPROM (see 'sprom list')"},
           {"write -y SUPER sup",  "SUPER: the pellin boards have no such SPROM (see 'sprom list')"}}) {
    // clang-format on
    const auto result = on("--family pellin", args);
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.err, EndsWith("sprom: " + err + "\n"));
    EXPECT_EQ(pins(), "");
  }
}

TEST_F(sprom_board, verifies_all_sproms_or_one) {
  const std::string board =
      "--family tosk --fault 'i2c-absent bus=6 addr=0x53' --fault 'sprom-corrupt image=bp block=wwn offset=0'";
  auto result = on(board, "verify");
  EXPECT_EQ(result.status, 1);
  EXPECT_THAT(result.out, StartsWith("Backplane WWN block signature mismatch. Found 0x9f05, expected 0x6005.\n"));
  EXPECT_THAT(result.out, EndsWith("BACKPLANE: BAD\nPS1: good\nPS2: unreadable\nSUPERVISOR: good\nLC 2: good\n"));
  EXPECT_EQ(result.err, "sprom: PS2: cannot read: No such device or address\n");
  result = on(board, "verify ps2 --json");
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.out, R"({"good":false,"sproms":[{"name":"PS2","slot":0,"index":2,"kind":"ps","size":196,)"
                        R"("read":false,"good":false,"messages":[]}]})"
                        "\n");
}

TEST_F(sprom_board, shows_its_progress_on_a_terminal) {
  const auto result = sh("echo y | script -qec 'board-sim -- sprom edit 1,1 --num_6=7' /dev/null");
  EXPECT_EQ(result.status, 0);
  std::string expected;
  for (int i = 0; i <= 334; ++i)
    expected += "\rSUPERVISOR: " + std::to_string(i) + " of 334 bytes written";
  EXPECT_THAT(result.out, EndsWith(expected + "\r\nSUPERVISOR: 334 bytes written and read back\r\n"));
}
