// The `sprom` program on the simulated boards.
#include <fcntl.h>

#include <cstdlib>
#include <iostream>
#include <map>
#include <sstream>

#include "tests/support/sprom_tool.h"

using testing::EndsWith;
using testing::HasSubstr;
using testing::MatchesRegex;
using testing::Not;
using testing::StartsWith;

namespace {

class sprom_board : public sprom_tool {
 protected:
  // A run on the board of the state directory; `before` is what the shell reads before it.
  [[nodiscard]] outcome on(const std::string &board, const std::string &args, const std::string &before = "") const {
    return sh("export BOARD_SIM_TSC_KHZ=1000000\n" + before + "board-sim --state st --trace log " + board +
              " -- sprom " + args);
  }
  // A new board; returns what an EEPROM of it holds.
  [[nodiscard]] bytes fresh(const std::string &board, const std::string &eeprom) const {
    EXPECT_EQ(sh("rm -rf st; board-sim --state st " + board + " -- sprom list").status, 0);
    return load("st/eeprom-" + eeprom);
  }
  // What all its EEPROMs hold.
  [[nodiscard]] std::map<std::string, std::string> eeproms() const {
    std::map<std::string, std::string> all;
    for (const auto &file : std::filesystem::directory_iterator(path("st")))
      if (file.path().filename().string().starts_with("eeprom-")) all[file.path().filename()] = read_file(file);
    return all;
  }
  // The last run's writes to the protection port and to expanders.
  [[nodiscard]] std::string pins() const {
    return sh(R"(sed -nE 's/^[^ ]+ ((port|i2c-[0-9]+:7.) w (24|32) )/\1/p' log)").out;
  }
  // Compares the status, how the errors end, and whether an EEPROM is another one afterwards.
  void expect_on(const std::string &board, const std::string &args, int status, const std::string &err,
                 bool is_written = false, const std::string &before = "") const {
    SCOPED_TRACE(board + " " + args);
    const auto chips = eeproms();
    const auto result = on(board, args, before);
    EXPECT_EQ(result.status, status) << result.out;
    EXPECT_THAT(result.err, EndsWith(err));
    EXPECT_EQ(result.err.empty(), err.empty());
    EXPECT_EQ(eeproms() != chips, is_written);
  }
  // How many bytes the last run wrote to an EEPROM.
  [[nodiscard]] size_t cycles(const std::string &eeprom, bool one_byte) const {
    std::string device = "i2c-" + eeprom;
    device.replace(device.rfind('-'), 1, ":");
    return std::stoul(sh("grep -cE '" + device + " w " + (one_byte ? "16" : "24") + "' log").out);
  }
};

bytes overlaid(bytes eeprom, size_t base, const bytes &image) {
  std::copy(image.begin(), image.end(), eeprom.begin() + static_cast<std::ptrdiff_t>(base));
  return eeprom;
}

bytes image_in(const bytes &eeprom, size_t base, uint32_t type) {
  const auto start = eeprom.begin() + static_cast<std::ptrdiff_t>(base);
  return {start, start + static_cast<std::ptrdiff_t>(device_image(type).size())};
}

// How many bytes a write takes: those that differ, and in each block that changes the mark in its checksum.
size_t needed_cycles(const bytes &from, const bytes &to, uint32_t type) {
  size_t count = 0;
  for (const test_block &block : test_blocks.at(type)) {
    size_t differing = 0;
    for (size_t i = block.offset; i < block.offset + block.length; ++i)
      differing += from[i] != to[i] ? 1U : 0U;
    const bool is_kept = from[block.offset + 4] == to[block.offset + 4];
    if (differing != 0) count += differing + (is_kept ? 2 : 1);
  }
  return count;
}

struct target {
  std::string board;
  std::string name;
  std::string label;
  uint32_t type;
  std::string eeprom;
  size_t base;
  std::string pins;
};
const std::string port_pins = "port w 32 0x50c 0x635a3c41\nport w 32 0x50c 0x6b5a3c41\n";
std::string pin_pins(const std::string &expander, const std::string &low) {
  const std::string write = "i2c-" + expander + " w 24 0x0 0x";
  return write + "06" + low + "\n" + write + "02" + low + "\n" + write + "02ffff\n";
}
// clang-format off
const std::vector<target> targets{
    {"--family dorvan", "SUPERVISOR", "SUPERVISOR (slot 1, index 1, /dev/i2c-1:0x52)", SPROM_TYPE_SUP, "1-52",  0,      ""},
    {"--family dorvan", "0,0",        "BACKPLANE (slot 0, index 0, /dev/i2c-1:0x52)",  SPROM_TYPE_BP,  "1-52",  0x1000, ""},
    {"--family pellin", "1,1",        "SUPERVISOR (slot 1, index 1, /dev/i2c-1:0x52)", SPROM_TYPE_SUP, "1-52",  0,      port_pins},
    {"--family pellin", "backplane",  "BACKPLANE (slot 0, index 0, /dev/i2c-1:0x52)",  SPROM_TYPE_BP,  "1-52",  0x1000, port_pins},
    {"--family pellin", "PS1",        "PS1 (slot 0, index 1, /dev/i2c-6:0x52)",        SPROM_TYPE_PS,  "6-52",  0,      ""},
    {"--family pellin", "0,2",        "PS2 (slot 0, index 2, /dev/i2c-6:0x53)",        SPROM_TYPE_PS,  "6-53",  0,      ""},
    {"--family pellin", "'DC 1'",     "DC 1 (slot 1, index 2, /dev/i2c-17:0x52)",      SPROM_TYPE_LC,  "17-52", 0,      pin_pins("20:76", "fffd")},
    {"--family pellin", "2,7",        "LC 2 (slot 2, index 7, /dev/i2c-23:0x52)",      SPROM_TYPE_LC,  "23-52", 0,      pin_pins("23:75", "f7ff")},
    {"--family pellin", "lc3",        "LC 3 (slot 3, /dev/i2c-7:0x52)",                SPROM_TYPE_LC,  "7-52",  0,      pin_pins("7:75", "f7ff")},
    {"--family tosk",   "supervisor", "SUPERVISOR (slot 1, index 1, /dev/i2c-1:0x52)", SPROM_TYPE_SUP, "1-52",  0,      port_pins},
    {"--family tosk",   "0,0",        "BACKPLANE (slot 0, index 0, /dev/i2c-1:0x52)",  SPROM_TYPE_BP,  "1-52",  0x1000, port_pins},
    {"--family tosk",   "PS2",        "PS2 (slot 0, index 2, /dev/i2c-6:0x53)",        SPROM_TYPE_PS,  "6-53",  0,      ""},
    {"--family tosk",   "'LC 2'",     "LC 2 (slot 2, /dev/i2c-7:0x52)",                SPROM_TYPE_LC,  "7-52",  0,      pin_pins("7:75", "f7ff")},
};
// clang-format on

std::string name_of(const target &t) {
  return t.label.substr(0, t.label.find(" ("));
}

}  // namespace

TEST_F(sprom_board, tells_the_family) {
  const std::string unknown =
      "sprom: this is no board of a known family; --family names one, --file works on an image\n";
  const std::string bad = "Supervisor Main block checksum mismatch.  Found 0x01f4, expected 0x02f3.\n";
  // The family, "" for none, and the errors.
  // clang-format off
  const std::array<std::string, 3> rows[]{
      {"",                                                    "dorvan", ""},
      {"--card 11112",                                        "",       unknown},
      {"--fault sprom-absent",                                "",       unknown},
      {"--family pellin --fault sprom-absent",                "pellin", ""},
      {"--family pellin --fault 'straps value=3' --card 5",   "",       unknown},
      {"--family pellin --fault 'straps value=3' --fault 'sprom-corrupt image=sup block=main'", "", bad + bad + unknown},
      {"--family tosk --fault 'straps value=3'",              "tosk",   ""},
  };
  // clang-format on
  for (const auto &[board, family, err] : rows) {
    SCOPED_TRACE(board);
    const auto result = on(board, "list --json --no-probe", "rm -rf st; ");
    EXPECT_EQ(result.status, family.empty() ? 1 : 0);
    EXPECT_THAT(result.out, StartsWith(family.empty() ? "" : "{\"family\":\"" + family + "\",\"sproms\":[{\"na"));
    EXPECT_EQ(result.err, err);
  }
}

TEST_F(sprom_board, writes_what_differs_in_every_sprom_and_nothing_beside) {
  for (const target &t : targets) {
    SCOPED_TRACE(t.board + " " + t.name);
    const bytes before = fresh(t.board, t.eeprom);
    const bytes old = image_in(before, t.base, t.type);
    const std::string name = name_of(t);
    for (const bytes &image : {patched(old, t.type, 54, {'S', 'N', '2'}), device_image(t.type)}) {
      const bytes now = image_in(load("st/eeprom-" + t.eeprom), t.base, t.type);
      save("image", image);
      const size_t needed = needed_cycles(now, image, t.type);
      const auto result = on(t.board, "write --yes --backup=old " + t.name + " image");
      EXPECT_EQ(result.status, 0);
      EXPECT_EQ(result.err, "");
      EXPECT_THAT(result.out, StartsWith(t.label + ": "));
      EXPECT_THAT(result.out, EndsWith("\n" + name + ": the old image is in old\n" + name + ": " +
                                       std::to_string(needed) + " bytes written; it reads back as the image\n"));
      EXPECT_EQ(load("st/eeprom-" + t.eeprom), overlaid(before, t.base, image));
      EXPECT_EQ(load("old"), now);
      EXPECT_EQ(cycles(t.eeprom, t.type == SPROM_TYPE_PS), needed);
      // The pin is an output from the first write on.
      EXPECT_EQ(pins(), now == old
                            ? t.pins
                            : t.pins.substr(t.pins.find("0x06") < t.pins.find('\n') ? t.pins.find('\n') + 1 : 0));
    }
    EXPECT_EQ(on(t.board, "dump " + t.name + " copy").status, 0);
    EXPECT_EQ(load("copy"), device_image(t.type));
    EXPECT_EQ(on(t.board, "diff copy " + t.name).out, "");
  }
}

TEST_F(sprom_board, takes_the_mezzanine_pin_from_the_change_bits_and_hints_at_the_other) {
  const std::string hint_0 =
      "0, by which its protect pin is pin 7 of /dev/i2c-20:0x76 and not pin 9 of /dev/i2c-20:0x76: "
      "DIAG_HW_CHANGE_BITS=0 selects it\n";
  const std::string hint_1 =
      "1, by which its protect pin is pin 9 of /dev/i2c-20:0x76 and not pin 7 of /dev/i2c-20:0x76: "
      "DIAG_HW_CHANGE_BITS=1 selects it\n";
  // What is written to the pin's configuration, and how the errors end.
  // clang-format off
  const std::array<std::string, 4> rows[]{
      {"P1", "unset DIAG_HW_CHANGE_BITS;",       "fffd", ""},
      {"P1", "export DIAG_HW_CHANGE_BITS=0x0;",  "7fff", hint_1},
      {"P0", "unset DIAG_HW_CHANGE_BITS;",       "fffd", hint_0},
      {"P0", "export DIAG_HW_CHANGE_BITS=none;", "7fff", ""},
  };
  // clang-format on
  for (const auto &[board, variable, pin, hint] : rows) {
    SCOPED_TRACE(variable);
    (void)fresh("--family pellin --revision " + board, "17-52");
    expect_on("--family pellin --revision " + board, "edit -y dc1 --product-id=" + board, hint.empty() ? 0 : 1, hint,
              hint.empty(), variable);
    EXPECT_THAT(pins(), StartsWith("i2c-20:76 w 24 0x0 0x06" + pin + "\n"));
  }
}

// Every way in which a write can go wrong: what it says, and how many of its 17 bytes arrive.
TEST_F(sprom_board, never_claims_a_write_that_did_not_arrive) {
  const std::string no_answer = ": No such device or address .errno 6.";
  const std::string failed = ": Input/output error .errno 5.";
  const std::string unchanged = "nothing has changed; it may be write-protected";
  const std::string differs = "reads back with [0-9]+ of [0-9]+ bytes different from the image, the first at byte 4";
  const std::string unknown = "what it holds now is not known";
  const std::string port = "the write protection .bit 27 of I/O port 0x50c. ",
                    gem7 = "the write protection .pin 3 of /dev/i2c-7:0x75. ";
  const std::string gem23 = "the write protection .pin 3 of /dev/i2c-23:0x75. ",
                    mezzanine = "the write protection .pin 9 of /dev/i2c-20:0x76. ";
  const std::string is_unknown =
      "whether the write protection .bit 27 of I/O port 0x50c. is on again cannot be told: Operation not permitted "
      ".errno 1.";
  const std::string half = "it reads back as the image, although the write protection failed";
  // A dorvan supervisor image is read in 335 transactions and written in 17. Number of the target, fault, how many
  // bytes arrive, and the errors as regular expressions, without the label in front.
  // clang-format off
  const std::tuple<size_t, std::string, size_t, std::vector<std::string>> rows[]{
      {2,  "iopl-refused",                             0,  {is_unknown, differs, unchanged}},
      {10, "port-stuck bit=27 level=1",                0,  {port + "was switched off, but stays on", differs, "nothing has changed"}},
      {2,  "port-stuck bit=27 level=0",                17, {port + "was switched on, but stays off", half}},
      {6,  "pin-stuck bus=20 addr=0x76 pin=9 level=1", 0,  {mezzanine + "was switched off, but stays on", differs, "nothing has changed"}},
      {12, "pin-stuck bus=7 addr=0x75 pin=3 level=0",  17, {gem7 + "was switched on, but stays off", half}},
      {7,  "i2c-absent bus=23 addr=0x75",              0,  {gem23 + "cannot be lifted" + no_answer, gem23 + "cannot be restored" + no_answer, differs, unchanged}},
      {8,  "i2c-fail bus=7 addr=0x75 nth=4",           0,  {gem7 + "cannot be lifted" + failed, differs, "nothing has changed"}},
      {8,  "i2c-fail bus=7 addr=0x75 nth=8",           17, {gem7 + "cannot be restored" + failed, half}},
      {8,  "i2c-fail bus=7 addr=0x75 nth=9 times=0",   17, {"whether " + gem7 + "is on again cannot be told" + failed, half}},
      {0,  "eeprom-protected bus=1 addr=0x52",         0,  {differs, unchanged}},
      {0,  "eeprom-corrupt bus=1 addr=0x52 offset=99", 17, {"reads back with 1 of 334 bytes different from the image, the first at byte 99"}},
      {0,  "i2c-fail bus=1 addr=0x52 nth=335",         0,  {"cannot read byte 333 of 334" + failed}},
      {0,  "i2c-fail bus=1 addr=0x52 nth=336",         0,  {"writing byte 4 .EEPROM offset 0x0004. failed after 0 of 17 bytes" + failed, differs, "nothing has changed"}},
      {0,  "i2c-fail bus=1 addr=0x52 nth=346",         10, {"writing byte 63 .EEPROM offset 0x003f. failed after 10 of 17 bytes" + failed, differs}},
      {0,  "i2c-fail bus=1 addr=0x52 nth=352",         16, {"writing byte 5 .EEPROM offset 0x0005. failed after 16 of 17 bytes" + failed, "reads back with 1 of 334 bytes different from the image, the first at byte 5"}},
      {1,  "i2c-fail bus=1 addr=0x52 nth=483 times=0", 10, {"writing byte 63 .EEPROM offset 0x103f. failed after 10 of 17 bytes" + failed, "cannot read byte 0 of 471" + failed, unknown}},
      {0,  "eeprom-busy bus=1 addr=0x52",              1,  {"writing byte 54 .EEPROM offset 0x0036. failed after 1 of 17 bytes" + no_answer, "cannot read byte 0 of 334" + no_answer, unknown}},
      {0,  "i2c-fail bus=1 addr=0x52 nth=400",         17, {"cannot read byte 46 of 334" + failed, unknown}},
  };
  // clang-format on
  for (const auto &[number, fault, arrived, errors] : rows) {
    SCOPED_TRACE(fault);
    const target &t = targets[number];
    const bytes before = fresh(t.board, t.eeprom);
    const bytes image = patched(image_in(before, t.base, t.type), t.type, 54,
                                {'a', 'b', 'c', 'd', 'e', 'f', 'g', 'h', 'i', 'j', 'k', 'l', 'm', 'n'});
    save("image", image);
    const auto result = on(t.board + " --fault '" + fault + "'", "write -y " + t.name + " image");
    // The mark in the checksum, the serial number, the checksum.
    bytes expected = before;
    for (size_t i = 0; i < arrived; ++i)
      expected[t.base + (i == 0 ? 4 : i < 15 ? 53 + i : i - 11)] = i == 0 ? 0xFF : image[i < 15 ? 53 + i : i - 11];
    EXPECT_EQ(load("st/eeprom-" + t.eeprom), expected);
    std::string err;
    for (const std::string &line : errors)
      err += "sprom: " + name_of(t) + " .slot [^:]*:0x5[23].: " + line + "\n";
    EXPECT_THAT(result.err, MatchesRegex(err));
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.out, Not(HasSubstr("bytes written")));
  }
}

// Cut at every byte, with the byte in the cell torn: the run is killed, or the EEPROM dies. POST_CUTS in the
// environment asks for every image; a line each tells of it.
TEST_F(sprom_board, leaves_no_false_block_wherever_a_write_is_cut) {
  const bool all = std::getenv("POST_CUTS") != nullptr;
  for (size_t number = 0; number < targets.size(); ++number) {
    if (!all && number != 2 && number != 4) continue;
    const target &t = targets[number];
    const bytes before = fresh(t.board, t.eeprom);
    const bytes old = image_in(before, t.base, t.type);
    bytes image = patched(old, t.type, 54, {'X', '0', '0', '0', 'Y'});
    image = patched(image, t.type, 170, {1, 2, 3, 9});
    save("image", image);
    const std::string write = "write -y " + t.name + " image";
    const size_t needed = needed_cycles(old, image, t.type);
    ASSERT_GT(needed, 12U);
    size_t cuts = 0, whole = 0, wrong = 0;
    for (size_t nth = 1; nth <= needed; ++nth) {
      for (const std::string how : {"eeprom-power-cut", "eeprom-dies"}) {
        for (const std::string torn : {"0x0F", "0xAA"}) {
          SCOPED_TRACE(t.label + " " + how + " " + std::to_string(nth) + " " + torn);
          save("st/eeprom-" + t.eeprom, before);
          const std::string at = std::string{t.eeprom}.replace(t.eeprom.find('-'), 1, " addr=0x");
          const auto result =
              on(t.board + " --fault '" + how + " bus=" + at + " nth=" + std::to_string(nth) + " torn=" + torn + "'",
                 write);
          EXPECT_EQ(result.status, how == "eeprom-dies" ? 1 : 137);
          EXPECT_THAT(result.out, Not(HasSubstr("reads back")));
          const bytes left = image_in(load("st/eeprom-" + t.eeprom), t.base, t.type);
          ++cuts;
          whole += left == old || left == image ? 1U : 0U;
          wrong += is_false(left, old, image, t.type) ? 1U : 0U;
        }
      }
      // Asked again, the board gets its image and its protection.
      const auto again = on(t.board, write);
      EXPECT_EQ(again.status, 0) << again.err;
      EXPECT_EQ(load("st/eeprom-" + t.eeprom), overlaid(before, t.base, image));
    }
    EXPECT_EQ(wrong, 0U);
    if (all)
      std::cout << "sprom\t" << t.board.substr(9) << '\t' << name_of(t) << '\t' << needed << '\t' << cuts << '\t'
                << whole << '\t' << wrong << '\n';
  }
}

// The protection is off before each command, as a kill in a write leaves it.
TEST_F(sprom_board, shows_the_protection_and_switches_it_on) {
  const std::string sup = "SUPERVISOR (slot 1, index 1, /dev/i2c-1:0x52): ";
  const std::string port = "the write protection (bit 27 of I/O port 0x50c) ";
  const std::string head = "NAME         PROTECTION  BY\n";
  // Fault, command, status, output, errors, and whether the protection is on afterwards.
  // clang-format off
  const std::tuple<std::string, std::string, int, std::string, std::string, bool> rows[]{
      {"", "protect 1,1",             1, head + "SUPERVISOR   off         bit 27 of I/O port 0x50c\n", "", false},
      {"", "protect --json 1,1",      1, "{\"sproms\":[{\"name\":\"SUPERVISOR\",\"protection\":\"off\",\"by\":\"bit 27 of I/O port 0x50c\",\"errno\":null}]}\n", "", false},
      {"", "protect --json PS1",      0, "{\"sproms\":[{\"name\":\"PS1\",\"protection\":\"none\",\"by\":null,\"errno\":null}]}\n", "", false},
      {"", "protect lc3",             0, head + "LC 3         on          pin 3 of /dev/i2c-7:0x75\n", "", false},
      {"", "protect --on supervisor", 0, sup + "protected\n", "", true},
      {"", "write -y 1,1 image",      0, sup + "holds this image already; nothing to write\nSUPERVISOR: its write protection was off and is on again\n", "", true},
      {"", "write --dry-run 1,1 image", 0, sup + "holds this image already; nothing to write\n", "", false},
      {"", "protect --on PS1",        1, "", "sprom: PS1 (slot 0, index 1, /dev/i2c-6:0x52): has no write protection\n", false},
      {"", "protect --on nobody",     1, "", "sprom: nobody: the pellin boards have no such SPROM (see 'sprom list')\n", false},
      {"port-stuck bit=27 level=0",           "protect --on 1,1",   1, "", "sprom: " + sup + port + "was switched on, but stays off\n", true},
      {"port-stuck bit=27 level=0",           "write -y 1,1 image", 1, sup + "holds this image already; nothing to write\n", "sprom: " + sup + port + "was switched on, but stays off\n", true},
      {"iopl-refused",                        "protect --on 1,1",   1, "", "sprom: " + sup + "whether " + port + "is on cannot be told: Operation not permitted (errno 1)\n", false},
      {"iopl-refused",                        "protect 1,1",        1, head + "SUPERVISOR   unknown     bit 27 of I/O port 0x50c: Operation not permitted (errno 1)\n", "", false},
      {"i2c-fail bus=7 addr=0x75 times=0",    "protect lc3",        1, head + "LC 3         unknown     pin 3 of /dev/i2c-7:0x75: Input/output error (errno 5)\n", "", false},
      {"i2c-absent bus=7 addr=0x75",          "protect lc3",        3, head + "LC 3         absent      pin 3 of /dev/i2c-7:0x75: No such device or address (errno 6)\n", "", false},
      {"i2c-absent bus=7 addr=0x75",          "protect --on lc3",   1, "", "sprom: LC 3 (slot 3, /dev/i2c-7:0x52): the write protection (pin 3 of /dev/i2c-7:0x75) cannot be switched on: No such device or address (errno 6)\n", false},
  };
  // clang-format on
  ASSERT_EQ(on("--family pellin", "dump 1,1 image").status, 0);
  for (const auto &[fault, command, status, out, err, is_on] : rows) {
    SCOPED_TRACE(fault + " " + command);
    save("st/port", bytes(4));
    const auto result = on("--family pellin" + (fault.empty() ? "" : " --fault '" + fault + "'"), command);
    EXPECT_EQ(result.status, status);
    EXPECT_EQ(result.out, out);
    EXPECT_EQ(result.err, err);
    EXPECT_EQ((load("st/port").at(3) & 0x08) != 0, is_on);
  }
}

// With a service that goes by identities, the power supplies, the DIMMs and one module cannot be told apart, and the
// small EEPROMs would be written to by a read.
TEST_F(sprom_board, loses_nothing_where_the_service_cannot_be_told_the_device) {
  const std::string service = "export LD_LIBRARY_PATH='" POST_LIB_DIR "/by-identity'\n";
  const std::string cannot = "this libutils.so cannot be told the device, and knows ";
  const std::string one_byte =
      "not touched: its EEPROM takes one address byte, which this libutils.so cannot be told, so "
      "that reading would write to it; --force does it all the same";
  const std::string identity = " by the same identity";
  const std::string read = identity + ": what is read may be another's\n";
  const std::string write = identity + "; --force writes all the same\n";
  const std::string protect = identity + "; --force does it all the same\n";
  // Board, arguments, status, and how the errors end.
  // clang-format off
  const std::tuple<std::string, std::string, int, std::string> rows[]{
      {"pellin", "show PS1",                  1, one_byte + "\n"},
      {"pellin", "edit -y PS2 --num_6=7",     1, one_byte + "\n"},
      {"tosk",   "dump --raw ps1 x",          1, one_byte + "\n"},
      {"tosk",   "write -y ps1 image",        1, one_byte + "\n"},
      {"pellin", "get lc3 product_id",        0, "sprom: LC 3 (slot 3, /dev/i2c-7:0x52): " + cannot + "PS1, PS2, DIMM0, DIMM1" + read},
      {"tosk",   "verify 'LC 2'",             0, "sprom: LC 2 (slot 2, /dev/i2c-7:0x52): " + cannot + "PS1, PS2, DIMM0, DIMM1" + read},
      {"pellin", "edit -y lc3 --num_6=7",     1, "sprom: LC 3 (slot 3, /dev/i2c-7:0x52): not written: " + cannot + "PS1, PS2, DIMM0, DIMM1" + write},
      // Its EEPROM has an identity of its own, but not the expander with its protect pin.
      {"pellin", "get lc2 product_id",        0, ""},
      {"pellin", "edit -y lc2 --num_6=7",     1, "sprom: LC 2 (slot 2, /dev/i2c-23:0x52): not written: " + cannot + "LC 3" + write},
      {"pellin", "protect lc2",               0, "sprom: LC 2 (slot 2, /dev/i2c-23:0x52): " + cannot + "the expander of LC 3" + identity + ": the protection may be another's\n"},
      {"pellin", "protect --on lc3",          1, "sprom: LC 3 (slot 3, /dev/i2c-7:0x52): not switched on: " + cannot + "the expander of LC 2" + protect},
      {"pellin", "edit -y 1,1 --num_6=7",     0, ""},
      {"pellin", "edit -y dc1 --num_6=7",     0, ""},
      {"dorvan", "edit -y 0,0 --num_6=7",     0, ""},
  };
  // clang-format on
  save("image", device_image(SPROM_TYPE_PS));
  for (const auto &[board, args, status, err] : rows) {
    (void)fresh("--family " + board, "1-52");
    expect_on("--family " + board, args, status, err, args.starts_with("edit") && status == 0, service);
  }
  // What is skipped is no defect of the board, but one in what was asked for by name.
  (void)sh("rm -rf st");
  auto result = on("--family pellin", "verify", service);
  EXPECT_EQ(result.status, 0);
  EXPECT_THAT(result.out,
              HasSubstr("\nPS2 (slot 0, index 2, /dev/i2c-6:0x53): skipped\n  " + one_byte + "\nSUPERVISOR"));
  result = on("--family pellin", "list", service);
  EXPECT_THAT(result.out, EndsWith("DIMM1            -      -  dimm      -  /dev/i2c-0:0x55   unknown\n"));
  EXPECT_EQ(sh("grep -c i2c-6 log").out, "0\n");
  // Forced, it does what the service makes of it: another module's EEPROM, which is protected, is written to.
  const bytes own = load("st/eeprom-6-52");
  EXPECT_EQ(on("--family pellin", "edit -y --force PS1 --num_6=7", service).status, 1);
  EXPECT_GT(cycles("7-52", false), 0U);
  EXPECT_EQ(load("st/eeprom-6-52"), own);
  // The other programs that use the library go by identities, too.
  result = sh(service + "board-sim --show-result -- post -s");
  EXPECT_THAT(result.out, AllOf(HasSubstr("P(0x1) board\n"), HasSubstr("Mod 1 1 Post Completed Successfully\n")));
  // On a machine without the service, files are still at hand.
  result =
      sh("unset LD_LIBRARY_PATH; cp \"$(command -v sprom)\" . && ./sprom verify -f image && ./sprom show --family tosk "
         "1,1");
  EXPECT_EQ(result.status, 1);
  EXPECT_THAT(result.err, HasSubstr("sprom: no I2C service: libutils.so: cannot open shared object file"));
}

TEST_F(sprom_board, changes_no_chip_by_reading) {
  for (const std::string family : {"--family dorvan", "--family pellin", "--family tosk"}) {
    (void)fresh(family, "1-52");
    const auto before = eeproms();
    for (const std::string args :
         {"list", "verify", "show 0,0", "get 1,1 serial-number", "protect", "dump 0,0 copy", "diff copy", "show 0,2",
          "dump --raw --hex 0,1", "write --dry-run --force 0,0 copy", "edit -n 0,0 --num_6=7", "show DIMM1"})
      (void)on(family, args);
    EXPECT_TRUE(eeproms() == before) << family;
  }
}

TEST_F(sprom_board, tells_present_absent_and_dead_apart) {
  const std::string none = ": No such device or address (errno 6)", failed = ": Input/output error (errno 5)";
  const std::string denied = ": Operation not permitted (errno 1)";
  // Fault of a pellin board, name, status, state; byte, errno and error in JSON; error.
  // clang-format off
  const std::tuple<std::string, std::string, int, std::string, std::string, std::string> rows[]{
      {"eeprom-busy bus=6 addr=0x53",              "PS2",        0, "present", "null,\"errno\":null,\"error\":null", ""},
      {"i2c-absent bus=6 addr=0x53",               "PS2",        3, "absent",  "0,\"errno\":6,", "the slot is empty" + none},
      {"i2c-fail bus=6 addr=0x53 times=0 errno=121","PS2",       3, "absent",  "0,\"errno\":121,", "the slot is empty: Remote I/O error (errno 121)"},
      {"i2c-bus-absent bus=6",                     "PS2",        3, "absent",  "0,\"errno\":2,", "the slot is empty: No such file or directory (errno 2)"},
      {"i2c-fail bus=6 addr=0x53 nth=1 times=0",   "PS2",        1, "dead",    "0,\"errno\":5,", "cannot read byte 0 of 196" + failed},
      {"i2c-fail bus=6 addr=0x53 nth=11 times=0 errno=6", "PS2", 1, "dead",    "9,\"errno\":6,", "cannot read byte 9 of 196" + none},
      {"i2c-fail bus=6 addr=0x53 times=0 errno=1", "PS2",        1, "unknown", "0,\"errno\":1,", "cannot read byte 0 of 196" + denied},
      {"i2c-absent bus=23 addr=0x52",              "LC 2",       1, "dead",    "0,\"errno\":6,", "cannot read byte 0 of 263" + none},  // the module's expander answers
      {"i2c-bus-absent bus=23",                    "LC 2",       3, "absent",  "0,\"errno\":2,", "the slot is empty: No such file or directory (errno 2)"},
      {"i2c-absent bus=17 addr=0x52",              "DC 1",       1, "dead",    "0,\"errno\":6,", "cannot read byte 0 of 263" + none},
      {"i2c-absent bus=1 addr=0x52",               "SUPERVISOR", 1, "dead",    "0,\"errno\":6,", "cannot read byte 0 of 334" + none},
      {"i2c-absent bus=1 addr=0x52",               "BACKPLANE",  1, "dead",    "0,\"errno\":6,", "cannot read byte 0 of 471" + none},
  };
  // clang-format on
  for (const auto &[fault, name, status, state, found, err] : rows) {
    SCOPED_TRACE(fault + " " + name);
    const std::string board = "--family pellin --fault '" + fault + "'";
    const auto json = on(board, "verify --json '" + name + "'");
    EXPECT_EQ(json.status, status);
    EXPECT_THAT(json.out, HasSubstr("\"state\":\"" + state + "\",\"bus\":\"/dev/i2c-"));
    EXPECT_THAT(json.out, HasSubstr("\"byte\":" + found));
    for (const std::string command : {"show '", "verify '"})
      expect_on(board, command + name + "'", status, err.empty() ? "" : "): " + err + "\n");
    const auto all = on(board, "verify");
    EXPECT_EQ(all.status, status);
    EXPECT_THAT(all.out, HasSubstr(status != 0 ? "): " + state + "\n  " + err + "\n" : ""));
    // A list asks for a byte only.
    const std::string listed = found[0] == '9' ? "present" : state;
    EXPECT_THAT(on(board, "list").out, testing::ContainsRegex("\n" + name + " .*/dev/i2c-.* " + listed + "\n"));
    EXPECT_THAT(on(board, "list --json").out, HasSubstr("\"state\":\"" + listed + "\",\"bus\":\"/dev/i2c-"));
  }
  EXPECT_THAT(on("--family pellin --fault 'i2c-fail bus=6 addr=0x53 nth=11 times=0'", "dump --raw PS2 chip").err,
              EndsWith(": cannot read byte 7 of 256" + failed + "\n"));
  EXPECT_THAT(on("--family pellin", "dump --hex").out, StartsWith("00000000  ab ab 03 a0 "));
  // A bad image is worse than an empty slot.
  const auto result =
      on("--family tosk --fault 'i2c-absent bus=6 addr=0x53' --fault 'sprom-corrupt image=bp block=wwn offset=0'",
         "verify");
  EXPECT_EQ(result.status, 1);
  EXPECT_THAT(result.out, StartsWith("BACKPLANE (slot 0, index 0, /dev/i2c-1:0x52): BAD\n"
                                     "  Backplane WWN block signature mismatch. Found 0x9f05, expected 0x6005.\n"));
}

TEST_F(sprom_board, keeps_a_second_writer_out) {
  const std::string board = "--family pellin";
  (void)fresh(board, "1-52");
  (void)sh("mkdir -p st/var/lock");
  const int fd = open(path("st/var/lock/sprom-i2c-1-52.lock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  struct flock lock {};
  lock.l_type = F_WRLCK;
  lock.l_whence = SEEK_SET;
  ASSERT_EQ(fcntl(fd, F_SETLK, &lock), 0);
  const std::string busy = "another program is writing to this EEPROM (process " + std::to_string(getpid()) + ")\n";
  expect_on(board, "edit -y --force 1,1 --num_6=7", 1, "not written: " + busy);
  expect_on(board, "edit -y 0,0 --num_6=7", 1, "not written: " + busy);
  expect_on(board, "edit -n 0,0 --num_6=7", 0, "");
  expect_on(board, "verify", 0, "");
  expect_on(board, "protect --on 1,1", 1, "not switched on: " + busy);
  (void)close(fd);
  expect_on(board, "edit -y 1,1 --num_6=7", 0, "", true);

  const std::string no_file = "cannot lock /var/lock/sprom-i2c-1-52.lock: No such file or directory (errno 2)";
  expect_on(board + " --fault lock-dir-missing", "edit -y 0,0 --num_6=7", 1,
            "not written: " + no_file + "; --force writes without a lock\n");
  expect_on(board + " --fault lock-dir-missing", "edit -y --force 0,0 --num_6=7", 0, no_file + "\n", true);
}

// All that can wait does, until the image is whole and protected again.
TEST_F(sprom_board, holds_signals_back_while_the_protection_is_lifted) {
  const target &t = targets[7];
  const bytes before = fresh(t.board, t.eeprom);
  const bytes image = device_image(t.type);
  save("image", image);
  const auto result =
      sh("cp st/eeprom-23-52 old\n"
         "board-sim --state st --trace log --busy time --family pellin -- sprom write -y lc2 image &\n"
         "for i in $(seq 3000); do cmp -s st/eeprom-23-52 old || break; sleep 0.01; done\n"
         "for s in HUP INT QUIT ABRT USR1 USR2 PIPE ALRM TERM STKFLT TSTP TTIN TTOU XCPU XFSZ VTALRM PROF IO PWR 34 "
         "64; do\n"
         "  kill -$s $(pgrep -P $!); done; cmp -s st/eeprom-23-52 image && echo late; wait $!");
  EXPECT_EQ(result.status, 128 + SIGHUP);
  EXPECT_THAT(result.out, EndsWith(" bytes written; it reads back as the image\n"));
  EXPECT_EQ(load("st/eeprom-23-52"), overlaid(before, 0, image));
  EXPECT_EQ(pins(), t.pins);
}

TEST_F(sprom_board, writes_nothing_when_anything_before_fails) {
  save("sup", device_image(SPROM_TYPE_SUP));
  save("bad", with_byte(device_image(SPROM_TYPE_SUP), 10, 0));
  save("ps", device_image(SPROM_TYPE_PS));
  save("fan", device_image(SPROM_TYPE_FAN));
  const std::string supervisor = "SUPERVISOR (slot 1, index 1, /dev/i2c-1:0x52): not written: ";
  // clang-format off
  const std::pair<std::string, std::string> rows[]{
      {"write sup",                       supervisor + "there is no terminal to ask on; --yes writes without asking"},
      {"write -y bad",                    "bad: a bad image; nothing is written without --force"},
      {"write -y 0,0 sup",                "sup: 334 bytes: this is a supervisor image, not a backplane image"},
      {"write -y ps",                     "the pellin boards have more than one power supply SPROM; name the one that is meant"},
      {"write -y fan",                    "the pellin boards have no fan SPROM; name the one that is meant"},
      {"write -y DIMM1 fan",              "DIMM1: a DIMM has no layout here"},
      {"verify '1;1'",                    "1;1: the pellin boards have no such SPROM (see 'sprom list')"},
      {"verify 1,x",                      "1,x: the pellin boards have no such SPROM (see 'sprom list')"},
      {"verify 1,1x",                     "1,1x: the pellin boards have no such SPROM (see 'sprom list')"},
      {"write -y 1,3 sup",                "1,3: the pellin boards have no such SPROM (see 'sprom list')"},
      {"write -y SUPER sup",              "SUPER: the pellin boards have no such SPROM (see 'sprom list')"},
      {"write -y --backup=no/x 1,1 sup",  supervisor + "no backup of the old image"},
  };
  // clang-format on
  (void)fresh("--family pellin", "1-52");
  for (const auto &[args, err] : rows) {
    expect_on("--family pellin", args, 1, "sprom: " + err + "\n");
    EXPECT_EQ(pins(), "");
  }
  const std::string elsewhere = "SPROM_BACKUP_DIR=no\n";
  EXPECT_THAT(on("--family pellin", "write -y 1,1 sup", elsewhere).err,
              testing::ContainsRegex("no backup of the old image: no/sprom-SUPERVISOR-[-0-9]+.bin: No such file or "
                                     "directory .errno 2.; --backup names another file\n$"));
  EXPECT_EQ(pins(), "");
  EXPECT_EQ(on("--family pellin", "write -y --no-backup 1,1 sup", elsewhere).status, 0);
  // A name that is taken is left alone.
  for (const std::string number : {"1", "2"})
    EXPECT_EQ(on("--family pellin", "edit -y 1,1 --num_6=" + number).status, 0);
  EXPECT_EQ(sh("ls .old | wc -l").out, "2\n");
}

TEST_F(sprom_board, tells_its_steps_and_its_progress) {
  auto result = on("--family pellin", "edit -vy lc3 --num_6=0x0002");
  EXPECT_EQ(result.status, 0);
  const std::string expander = "sprom: /dev/i2c-7:0x75: ", eeprom = "sprom: /dev/i2c-7:0x52: ";
  const std::string look = "sprom: LC 3: looking at pin 3 of /dev/i2c-7:0x75\n";
  const std::string read = "sprom: LC 3: reading 263 bytes of /dev/i2c-7:0x52 from 0x0000\n" + eeprom +
                           "write 00 00\nsprom: 263 bytes read\n";
  EXPECT_EQ(result.err, "sprom: /dev/i2c-8:0x76: read 00 3f ff\n" + read +
                            "sprom: LC 3: switching the write protection off: pin 3 of /dev/i2c-7:0x75\n" + expander +
                            "read 06 ff ff\n" + expander + "write 06 f7 ff\n" + expander + "read 02 ff ff\n" +
                            expander + "write 02 f7 ff\n" + look + expander + "read 00 f7 ff\n" + expander +
                            "read 04 00 00\n" + eeprom + "write 00 04 ff\n" + eeprom + "write 00 07 02\n" + eeprom +
                            "write 00 04 0e\n" + eeprom + "write 00 05 18\n" +
                            "sprom: LC 3: switching the write protection on: pin 3 of /dev/i2c-7:0x75\n" + expander +
                            "read 02 f7 ff\n" + expander + "write 02 ff ff\n" + look + expander + "read 00 ff ff\n" +
                            expander + "read 04 00 00\n" + read);
  result = on("--family pellin --fault 'i2c-absent bus=6 addr=0x53'", "get -v PS2 product_id");
  EXPECT_THAT(result.err, HasSubstr("sprom: /dev/i2c-6:0x53: write 00 00: No such device or address (errno 6)\n"
                                    "sprom: 0 bytes read\n"));
  result = sh("echo y | script -qec 'board-sim -- sprom edit 1,1 --num_6=7' /dev/null");
  EXPECT_EQ(result.status, 0);
  std::string expected;
  for (int i = 0; i <= 4; ++i)
    expected += "\rSUPERVISOR: " + std::to_string(i) + " of 4 bytes written";
  EXPECT_THAT(result.out, EndsWith(expected + "\r\nSUPERVISOR: 4 bytes written; it reads back as the image\r\n"));
}

TEST_F(sprom_board, does_what_the_manual_shows) {
  std::string commands;
  std::istringstream manual(read_file(POST_SOURCE_DIR "/docs/sprom.1"));
  for (std::string line; std::getline(manual, line);)
    if (line.starts_with("$ sprom "))
      commands += "board-sim --state st -- " + line.substr(2) + "; echo \"status $?\"\n";
  save("examples", bytes(commands.begin(), commands.end()));
  const auto result = sh("export SPROM_BACKUP_DIR=.; . ./examples");
  EXPECT_EQ(result.err, "");
  EXPECT_THAT(result.out, HasSubstr("\nSN0001235\nstatus 0\n"));
  // All end well but diff, which finds the edited number.
  save("out", bytes(result.out.begin(), result.out.end()));
  EXPECT_EQ(sh("grep -o '^status .*' out | cut -c 8 | tr -d '\\n'").out, "001000000");
  EXPECT_EQ(sh("sprom get -f ps2.bin product-id; sprom get -f ps2.bin serial-number").out, "PS-2500\nSN0000002\n");
}

TEST_F(sprom_board, completes_what_can_work) {
  // Words, and all that is offered, a blank between.
  const std::pair<std::string, std::string> rows[] = {
      {"'' pro", "protect"},
      {"protect --o", "--on"},
      {"diff --", "--help --version --verbose --family= --force"},
      {"show -F pellin D", "DC1 DIMM0 DIMM1"},
      {"get -F dorvan BACKPLANE hw", "hw-change-bits"},
      {"make fan --num-13", "--num-130= --num-132= --num-134= --num-136= --num-138="},
  };
  for (const auto &[words, offers] : rows) {
    SCOPED_TRACE(words);
    const auto result =
        sh("cat >complete.bash <<'E'\n. '" POST_SOURCE_DIR
           "/tools/completion/sprom'\ncompopt() { :; }\n[ -z \"$1\" ] && shift\n"
           "COMP_WORDS=(sprom \"$@\") COMP_CWORD=$#\n_sprom\necho ${COMPREPLY[@]}\nE\nbash complete.bash " +
           words);
    EXPECT_EQ(result.out, offers + "\n");
    EXPECT_EQ(result.err, "");
  }
}
