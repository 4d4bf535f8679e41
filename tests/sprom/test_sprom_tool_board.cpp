// The `sprom` program on the simulated boards.
#include <iostream>

#include "tests/support/sprom_board.h"
#include "tests/support/text.h"

namespace {

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

const std::string port_pins = "port w 32 0x50c 0x635a3c41\nport w 32 0x50c 0x6b5a3c41\n";
std::string pin_pins(const std::string &expander, const std::string &low) {
  const std::string write = "i2c-" + expander + " w 24 0x0 0x";
  return write + "06" + low + "\n" + write + "02" + low + "\n" + write + "02ffff\n";
}
// clang-format off
struct target { std::string board, name, label; uint32_t type; std::string eeprom; size_t base; std::string pins; };
const std::vector<target> targets{
    {"dorvan", "SUPERVISOR", supervisor,                                      SPROM_TYPE_SUP, "1-52",  0,      ""},
    {"dorvan", "0,0",        "BACKPLANE (slot 0, index 0, /dev/i2c-1:0x52)",  SPROM_TYPE_BP,  "1-52",  0x1000, ""},
    {"pellin", "1,1",        supervisor,                                      SPROM_TYPE_SUP, "1-52",  0,      port_pins},
    {"pellin", "backplane",  "BACKPLANE (slot 0, index 0, /dev/i2c-1:0x52)",  SPROM_TYPE_BP,  "1-52",  0x1000, port_pins},
    {"pellin", "PS1",        "PS1 (slot 0, index 1, /dev/i2c-6:0x52)",        SPROM_TYPE_PS,  "6-52",  0,      ""},
    {"pellin", "0,2",        "PS2 (slot 0, index 2, /dev/i2c-6:0x53)",        SPROM_TYPE_PS,  "6-53",  0,      ""},
    {"pellin", "'DC 1'",     "DC 1 (slot 1, index 2, /dev/i2c-17:0x52)",      SPROM_TYPE_LC,  "17-52", 0,      pin_pins("20:76", "fffd")},
    {"pellin", "2,7",        "LC 2 (slot 2, index 7, /dev/i2c-23:0x52)",      SPROM_TYPE_LC,  "23-52", 0,      pin_pins("23:75", "f7ff")},
    {"pellin", "lc3",        "LC 3 (slot 3, /dev/i2c-7:0x52)",                SPROM_TYPE_LC,  "7-52",  0,      pin_pins("7:75", "f7ff")},
    {"tosk",   "supervisor", supervisor,                                      SPROM_TYPE_SUP, "1-52",  0,      port_pins},
    {"tosk",   "0,0",        "BACKPLANE (slot 0, index 0, /dev/i2c-1:0x52)",  SPROM_TYPE_BP,  "1-52",  0x1000, port_pins},
    {"tosk",   "PS2",        "PS2 (slot 0, index 2, /dev/i2c-6:0x53)",        SPROM_TYPE_PS,  "6-53",  0,      ""},
    {"tosk",   "'LC 2'",     "LC 2 (slot 2, /dev/i2c-7:0x52)",                SPROM_TYPE_LC,  "7-52",  0,      pin_pins("7:75", "f7ff")},
    // Units in a fixture.
    {"tosk",   "--bus 6 --addr=0x54 fan",     "fan (/dev/i2c-6:0x54)",        SPROM_TYPE_FAN, "6-54",  0,      ""},
    {"dorvan", "Backplane --addr 82 --bus=1", "backplane (/dev/i2c-1:0x52)",  SPROM_TYPE_BP,  "1-52",  0x1000, ""},
};
// clang-format on

std::string name_of(const target &t) {
  return t.label.substr(0, t.label.find(" ("));
}

const std::string no_answer = ": No such device or address .errno 6.";
const std::string io_error = ": Input/output error .errno 5.";
const std::string unchanged = "nothing has changed; it may be write-protected";
const std::string differs = "reads back with [0-9]+ of [0-9]+ bytes different from the image, the first at byte 4";
const std::string not_known = "what it holds now is not known";
const std::string of_port = "the write protection .bit 27 of I/O port 0x50c. ";
const std::string gem7 = "the write protection .pin 3 of /dev/i2c-7:0x75. ";
const std::string gem23 = "the write protection .pin 3 of /dev/i2c-23:0x75. ";
const std::string mezzanine = "the write protection .pin 9 of /dev/i2c-20:0x76. ";
const std::string is_unknown = "whether " + of_port + "is on again cannot be read: Operation not permitted .errno 1.";
const std::string half = "it reads back as the image, although the write protection failed";
// Every way in which a write can go wrong: how many of its 17 bytes arrive, and the errors as regular expressions,
// without the label in front. A dorvan supervisor image is read in twice 335 transactions and written in 17.
// clang-format off
const struct { size_t target; std::string fault; size_t arrived; std::vector<std::string> errors; } failures[]{
    {2,  "iopl-refused",                             0,  {is_unknown, differs, unchanged}},
    {10, "port-stuck bit=27 level=1",                0,  {of_port + "was switched off, but stays on", differs, "nothing has changed"}},
    {2,  "port-stuck bit=27 level=0",                17, {of_port + "was switched on, but stays off", half}},
    {6,  "pin-stuck bus=20 addr=0x76 pin=9 level=1", 0,  {mezzanine + "was switched off, but stays on", differs, "nothing has changed"}},
    {7,  "i2c-absent bus=23 addr=0x75",              0,  {gem23 + "cannot be lifted" + no_answer, gem23 + "cannot be restored" + no_answer, differs, unchanged}},
    {8,  "i2c-fail bus=7 addr=0x75 nth=4",           0,  {gem7 + "cannot be lifted" + io_error, differs, "nothing has changed"}},
    {8,  "i2c-fail bus=7 addr=0x75 nth=8",           17, {gem7 + "cannot be restored" + io_error, half}},
    {8,  "i2c-fail bus=7 addr=0x75 nth=9 times=0",   17, {"whether " + gem7 + "is on again cannot be read" + io_error, half}},
    {0,  "eeprom-protected bus=1 addr=0x52",         0,  {differs, unchanged}},
    {0,  "eeprom-corrupt bus=1 addr=0x52 offset=99", 17, {"reads back with 1 of 334 bytes different from the image, the first at byte 99"}},
    {0,  "eeprom-corrupt bus=1 addr=0x52 offset=99 p=500000 seed=10", 0, {"read 5 times, and never twice alike: another program may be reading it without the lock"}},
    {0,  "i2c-fail bus=1 addr=0x52 nth=670",         0,  {"cannot read byte 333 of 334" + io_error}},
    {0,  "i2c-fail bus=1 addr=0x52 nth=671",         0,  {"writing byte 4 .EEPROM offset 0x0004. failed after 0 of 17 bytes" + io_error, differs, "nothing has changed"}},
    {0,  "i2c-fail bus=1 addr=0x52 nth=687",         16, {"writing byte 4 .EEPROM offset 0x0004. failed after 16 of 17 bytes" + io_error, "reads back with 1 of 334 bytes different from the image, the first at byte 4"}},
    {1,  "i2c-fail bus=1 addr=0x52 nth=955 times=0", 10, {"writing byte 63 .EEPROM offset 0x103f. failed after 10 of 17 bytes" + io_error, "cannot read byte 0 of 471" + io_error, not_known}},
    {0,  "eeprom-busy bus=1 addr=0x52",              1,  {"writing byte 54 .EEPROM offset 0x0036. failed after 1 of 17 bytes" + no_answer, "cannot read byte 0 of 334" + no_answer, not_known}},
    {13, "i2c-fail bus=6 addr=0x54 nth=1 times=0",   0,  {"cannot read byte 0 of 192" + io_error}},
    {0,  "i2c-fail bus=1 addr=0x52 nth=735",         17, {"cannot read byte 46 of 334" + io_error, not_known}},
};
// clang-format on

}  // namespace

TEST_F(sprom_board, tells_the_family) {
  const std::string unknown =
      "sprom: this is no board of a known family; --family names one, --file works on an image\n";
  const std::string bad = "Supervisor Main block checksum mismatch.  Found 0x01f4, expected 0x02f3.\n";
  // The family is "" where none is found.
  // clang-format off
  const struct { std::string board, family, err; } rows[]{
      {"dorvan",                                    "dorvan", ""},
      {"dorvan --card 60000",                       "",       unknown},
      {"pellin --fault 'straps value=3' --card 5",  "",       unknown},
      {"pellin --fault 'straps value=3' --fault 'sprom-corrupt image=sup block=main'", "", bad + bad + unknown},
      {"tosk --fault 'straps value=3'",             "tosk",   ""},
  };
  // clang-format on
  for (const auto &[board, family, err] : rows)
    expect_run(on(board, "list --json --no-probe", "rm -rf st; "), family.empty() ? 1 : 0,
               StartsWith(family.empty() ? "" : "{\"family\":\"" + family + "\",\"sproms\":[{\"na"), err);
}

TEST_F(sprom_board, writes_what_differs_in_every_sprom_and_nothing_beside) {
  for (const target &t : targets) {
    SCOPED_TRACE(t.board + " " + t.name);
    const bytes before = fresh(t.board, t.eeprom), old = image_in(before, t.base, t.type);
    const std::string name = name_of(t);
    // A supervisor keeps its card index.
    const bytes any = device_image(t.type);
    const bytes other = t.type == SPROM_TYPE_SUP ? patched(any, t.type, 182, {old[182], old[183]}) : any;
    for (const bytes &image : {patched(old, t.type, 54, {'S', 'N', '2'}), other}) {
      const bytes now = image_in(load("st/eeprom-" + t.eeprom), t.base, t.type);
      save("image", image);
      const size_t needed = needed_cycles(now, image, t.type);
      expect_run(on(t.board, "write --yes --backup=old " + t.name + " image", "rm -f old\n"), 0,
                 AllOf(StartsWith(t.label + ": "),
                       EndsWith("\n" + name + ": the old image is in old\n" + name + ": " + std::to_string(needed) +
                                " bytes written; it reads back as the image\n")));
      EXPECT_EQ(load("st/eeprom-" + t.eeprom), overlaid(before, t.base, image));
      EXPECT_EQ(load("old"), now);
      EXPECT_EQ(cycles(t.eeprom, t.eeprom.starts_with("6-")), needed);
      // The pin is an output from the first write on.
      const bool has_direction = now != old && t.pins.find("0x06") < t.pins.find('\n');
      EXPECT_EQ(pins(), t.pins.substr(has_direction ? t.pins.find('\n') + 1 : 0));
    }
    EXPECT_EQ(on(t.board, "dump " + t.name + " copy").status, 0);
    EXPECT_EQ(load("copy"), other);
    EXPECT_EQ(on(t.board, "diff copy " + t.name).out, "");
  }
}

// The pin follows the supervisor's change bits, and nothing is driven where they are in doubt.
TEST_F(sprom_board, drives_the_mezzanine_pin_of_the_board_or_none) {
  const std::string of_board = " of the supervisor's SPROM it is pin ";
  const std::string late = "DIAG_HW_CHANGE_BITS=0x0 means pin 7, but with the hardware change bits 1" + of_board + "9";
  const std::string early = "DIAG_HW_CHANGE_BITS=5 means pin 9, but with the hardware change bits 0" + of_board + "7";
  const std::string unread =
      "its protect pin is not known, since the hardware change bits cannot be read: " + supervisor + ": ";
  const std::string dead = unread + "cannot read byte 0 of 334: No such device or address (errno 6)";
  const std::string bad = unread + "Supervisor Main block checksum mismatch.  Found 0x01f4, expected 0x02f3";
  // The pin's configuration that is written, what is in doubt, and which pin --force takes.
  // clang-format off
  const struct { std::string with, variable, pin, doubt, taken; } rows[]{
      {"--revision P1", "unset DIAG_HW_CHANGE_BITS;",       "fffd", "",    "9"},
      {"--revision P1", "export DIAG_HW_CHANGE_BITS=5;",    "fffd", "",    "9"},
      {"--revision P1", "export DIAG_HW_CHANGE_BITS=0x0;",  "7fff", late,  "7"},
      {"--revision P0", "unset DIAG_HW_CHANGE_BITS;",       "7fff", "",    "7"},
      {"--revision P0", "export DIAG_HW_CHANGE_BITS=none;", "7fff", "",    "7"},
      {"--revision P0", "export DIAG_HW_CHANGE_BITS=5;",    "fffd", early, "9"},
      {"--fault 'i2c-absent bus=1 addr=0x52'",            "unset DIAG_HW_CHANGE_BITS;", "fffd", dead, "9"},
      {"--fault 'sprom-corrupt image=sup block=main'",    "unset DIAG_HW_CHANGE_BITS;", "fffd", bad,  "9"},
  };
  // clang-format on
  const std::string label = "sprom: DC 1 (slot 1, index 2, /dev/i2c-17:0x52): ";
  for (const auto &[with, variable, pin, doubt, taken] : rows) {
    const std::string board = "pellin " + with, by = "pin " + taken + " of /dev/i2c-20:0x76";
    SCOPED_TRACE(board + " " + variable);
    (void)sh("rm -rf st");
    const bool is_certain = doubt.empty();
    expect_run(on(board, "protect dc1", variable), is_certain ? 0 : 1,
               EndsWith(is_certain ? "on          " + by + "\n" : "unknown     a pin of /dev/i2c-20:0x76\n"),
               is_certain ? "" : label + doubt + "\n");
    const std::string refused = doubt + "; --force takes pin " + taken + "\n";
    expect_on(board, "edit -y dc1 --num_6=7", is_certain ? 0 : 1, is_certain ? "" : label + "not written: " + refused,
              is_certain, variable);
    EXPECT_EQ(pins().empty(), !is_certain);
    expect_on(board, "protect --on dc1", is_certain ? 0 : 1, is_certain ? "" : label + "not switched on: " + refused,
              false, variable);
    (void)on(board, "edit -y --force dc1 --num_6=8", variable);
    EXPECT_THAT(pins(), HasSubstr("i2c-20:76 w 24 0x0 0x02" + pin + "\n"));
  }
}

TEST_F(sprom_board, never_claims_a_write_that_did_not_arrive) {
  for (const auto &[number, fault, arrived, errors] : failures) {
    SCOPED_TRACE(fault);
    const target &t = targets[number];
    const bytes before = fresh(t.board, t.eeprom);
    const bytes image = patched(image_in(before, t.base, t.type), t.type, 54,
                                {'a', 'b', 'c', 'd', 'e', 'f', 'g', 'h', 'i', 'j', 'k', 'l', 'm', 'n'});
    save("image", image);
    std::string err;
    for (const std::string &line : errors)
      err += "sprom: " + name_of(t) + " .[^:]*:0x5[234].: " + line + "\n";
    expect_run(on(faulty(t.board, fault), "write -y " + t.name + " image"), 1, Not(HasSubstr("bytes written")),
               MatchesRegex(err));
    // The mark in the checksum, the serial number, the checksum from its low byte.
    bytes expected = before;
    for (size_t i = 0; i < arrived; ++i)
      expected[t.base + (i == 0 ? 4 : i < 15 ? 53 + i : 20 - i)] = i == 0 ? 0xFF : image[i < 15 ? 53 + i : 20 - i];
    EXPECT_EQ(load("st/eeprom-" + t.eeprom), expected);
  }
}

// Cut at every byte, with the byte in the cell torn: the run is killed, or the EEPROM dies. POST_CUTS in the
// environment asks for every image; a line each tells of it.
TEST_F(sprom_board, leaves_no_false_block_wherever_a_write_is_cut) {
  const bool all = std::getenv("POST_CUTS") != nullptr;
  for (size_t number = 0; number < targets.size(); ++number) {
    if (!all && number != 2 && number != 4 && number != 13) continue;
    const target &t = targets[number];
    const bytes before = fresh(t.board, t.eeprom), old = image_in(before, t.base, t.type);
    bytes image = patched(old, t.type, 54, {'X', '0', '0', '0', 'Y'});
    image = patched(image, t.type, 170, {1, 2, 3, 9});
    save("image", image);
    const size_t needed = needed_cycles(old, image, t.type);
    ASSERT_GT(needed, 12U);
    size_t cuts = 0, whole = 0, wrong = 0;
    const auto look = [&](const bytes &eeprom) {
      const bytes left = image_in(eeprom, t.base, t.type);
      ++cuts;
      whole += left == old || left == image ? 1U : 0U;
      wrong += is_false(left, old, image, t.type) ? 1U : 0U;
    };
    cut_everywhere(t.board, t.eeprom, "write -y " + t.name + " image", needed, {"0x0F", "0xAA"},
                   overlaid(before, t.base, image), look);
    EXPECT_EQ(wrong, 0U);
    if (all)
      std::cout << "sprom\t" << t.board << '\t' << name_of(t) << '\t' << needed << '\t' << cuts << '\t' << whole << '\t'
                << wrong << '\n';
  }
}

// The protection is off before each command, as a kill in a write leaves it.
TEST_F(sprom_board, shows_the_protection_and_switches_it_on) {
  const std::string sup = supervisor + ": ", port = "the write protection (bit 27 of I/O port 0x50c) ";
  const std::string head = "NAME         PROTECTION  BY\n";
  // clang-format off
  const struct { std::string fault, command; int status; std::string out, err; bool is_on; } rows[]{
      {"", "protect 1,1",             1, head + "SUPERVISOR   off         bit 27 of I/O port 0x50c\n", "", false},
      {"", "protect --json 1,1",      1, "{\"sproms\":[{\"name\":\"SUPERVISOR\",\"protection\":\"off\",\"by\":\"bit 27 of I/O port 0x50c\",\"errno\":null}]}\n", "", false},
      {"", "protect lc3",             0, head + "LC 3         on          pin 3 of /dev/i2c-7:0x75\n", "", false},
      {"", "protect --on supervisor", 0, sup + "protected\n", "", true},
      {"iopl-refused", "protect --on -j 1,1", 1, "{\"sproms\":[{\"name\":\"SUPERVISOR\",\"protection\":\"unknown\",\"by\":\"bit 27 of I/O port 0x50c\",\"errno\":1}]}\n", "sprom: " + sup + "whether " + port + "is on cannot be read: Operation not permitted (errno 1)\n", false},
      {"", "write -y 1,1 image",      0, sup + "holds this image already; nothing to write\nSUPERVISOR: its write protection was off and is on again\n", "", true},
      {"", "write --dry-run 1,1 image", 0, sup + "holds this image already; nothing to write\n", "", false},
      {"", "protect --on PS1",        1, "", "sprom: PS1 (slot 0, index 1, /dev/i2c-6:0x52): has no write protection\n", false},
      {"port-stuck bit=27 level=0",           "write -y 1,1 image", 1, sup + "holds this image already; nothing to write\n", "sprom: " + sup + port + "was switched on, but stays off\n", true},
      {"iopl-refused",                        "protect 1,1",        1, head + "SUPERVISOR   unknown     bit 27 of I/O port 0x50c: Operation not permitted (errno 1)\n", "", false},
      {"i2c-fail bus=7 addr=0x75 times=0",    "protect lc3",        1, head + "LC 3         unknown     pin 3 of /dev/i2c-7:0x75: Input/output error (errno 5)\n", "", false},
      {"i2c-absent bus=7 addr=0x75",          "protect lc3",        3, head + "LC 3         absent      pin 3 of /dev/i2c-7:0x75: No such device or address (errno 6)\n", "", false},
      {"i2c-absent bus=7 addr=0x75",          "protect --on lc3",   1, "", "sprom: LC 3 (slot 3, /dev/i2c-7:0x52): the write protection (pin 3 of /dev/i2c-7:0x75) cannot be switched on: No such device or address (errno 6)\n", false},
  };
  // clang-format on
  ASSERT_EQ(on("pellin", "dump 1,1 image").status, 0);
  for (const auto &[fault, command, status, out, err, is_on] : rows) {
    SCOPED_TRACE(fault + " " + command);
    save("st/port", bytes(4));
    expect_run(on(faulty("pellin", fault), command), status, out, err);
    EXPECT_EQ((load("st/port").at(3) & 0x08) != 0, is_on);
  }
}

// With a service that goes by identities, the power supplies, the DIMMs and one module cannot be told apart, and the
// small EEPROMs would be written to by a read.
TEST_F(sprom_board, loses_nothing_where_the_service_cannot_be_told_the_device) {
  const std::string service = "export LD_LIBRARY_PATH='" POST_LIB_DIR "/by-identity'\n";
  const std::string cannot = "this libutils.so takes no device address, and knows ";
  const std::string one_byte =
      "not touched: its EEPROM takes one address byte, which this libutils.so does not support, so "
      "that reading would write to it; --force does it all the same";
  const std::string identity = " by the same identity", read = identity + ": what is read may be another's\n";
  const std::string write = identity + "; --force writes all the same\n";
  const std::string protect = identity + "; --force does it all the same\n";
  // clang-format off
  const struct { std::string board, args; int status; std::string err; } rows[]{
      {"pellin", "show PS1",                  1, one_byte + "\n"},
      {"tosk",   "write -y ps1 image",        1, one_byte + "\n"},
      {"pellin", "get lc3 product_id",        0, "sprom: LC 3 (slot 3, /dev/i2c-7:0x52): " + cannot + "PS1, PS2, DIMM0, DIMM1" + read},
      {"pellin", "edit -y lc3 --num_6=7",     1, "sprom: LC 3 (slot 3, /dev/i2c-7:0x52): not written: " + cannot + "PS1, PS2, DIMM0, DIMM1" + write},
      // Its EEPROM has an identity of its own, but not the expander with its protect pin.
      {"pellin", "get lc2 product_id",        0, ""},
      {"pellin", "edit -y lc2 --num_6=7",     1, "sprom: LC 2 (slot 2, /dev/i2c-23:0x52): not written: " + cannot + "LC 3" + write},
      {"pellin", "protect lc2",               0, "sprom: LC 2 (slot 2, /dev/i2c-23:0x52): " + cannot + "the expander of LC 3" + identity + ": the protection may be another's\n"},
      {"pellin", "protect --on lc3",          1, "sprom: LC 3 (slot 3, /dev/i2c-7:0x52): not switched on: " + cannot + "the expander of LC 2" + protect},
      {"dorvan", "edit -y 0,0 --num_6=7",     0, ""},
      {"pellin", "edit -y --force --bus 7 --addr 0x52 lc --num_6=7", 1, "line card (/dev/i2c-7:0x52): not touched: this libutils.so takes no device address, and knows only those of the boards\n"},
  };
  // clang-format on
  save("image", device_image(SPROM_TYPE_PS));
  for (const auto &[board, args, status, err] : rows) {
    (void)fresh(board, "1-52");
    expect_on(board, args, status, err, args.starts_with("edit") && status == 0, service);
  }
  // What is skipped is no defect of the board, but one in what was asked for by name.
  (void)sh("rm -rf st");
  expect_run(on("pellin", "verify", service), 0,
             HasSubstr("\nPS2 (slot 0, index 2, /dev/i2c-6:0x53): skipped\n  " + one_byte + "\nSUPERVISOR"), _);
  EXPECT_THAT(on("pellin", "list", service).out,
              EndsWith("DIMM1            -      -  dimm      -  /dev/i2c-0:0x55   unknown\n"));
  EXPECT_EQ(sh("grep -c i2c-6 log").out, "0\n");
  // Forced, it does what the service makes of it: another module's EEPROM, which is protected, is written to.
  const bytes own = load("st/eeprom-6-52");
  EXPECT_EQ(on("pellin", "edit -y --force PS1 --num_6=7", service).status, 1);
  EXPECT_GT(cycles("7-52", false), 0U);
  EXPECT_EQ(load("st/eeprom-6-52"), own);
  // The other programs that use the library go by identities, too.
  EXPECT_THAT(sh(service + "board-sim --show-result -- post -s").out,
              AllOf(HasSubstr("P(0x1) board\n"), HasSubstr("Mod 1 1 Post Completed Successfully\n")));
  // On a machine without the service, files are still at hand.
  const std::string alone = "unset LD_LIBRARY_PATH; cp \"$(command -v sprom)\" . && ./sprom verify -f image && ";
  expect_run(sh(alone + "./sprom show --family tosk 1,1"), 1, _,
             HasSubstr("sprom: no I2C service: libutils.so: cannot open shared object file"));
}

TEST_F(sprom_board, tells_present_absent_and_dead_apart) {
  const std::string none = ": No such device or address (errno 6)", failed = ": Input/output error (errno 5)";
  const std::string denied = ": Operation not permitted (errno 1)";
  // Of a pellin board; `found` is byte, errno and error in JSON.
  // clang-format off
  const struct { std::string fault, name; int status; std::string state, found, err; } rows[]{
      {"eeprom-busy bus=6 addr=0x53",              "PS2",        0, "present", "null,\"errno\":null,\"error\":null", ""},
      {"i2c-absent bus=6 addr=0x53",               "PS2",        3, "absent",  "0,\"errno\":6,", "the slot is empty" + none},
      {"i2c-bus-absent bus=6",                     "PS2",        3, "absent",  "0,\"errno\":2,", "the slot is empty: No such file or directory (errno 2)"},
      {"i2c-fail bus=6 addr=0x53 nth=11 times=0 errno=6", "PS2", 1, "dead",    "9,\"errno\":6,", "cannot read byte 9 of 196" + none},
      {"i2c-fail bus=6 addr=0x53 times=0 errno=1", "PS2",        1, "unknown", "0,\"errno\":1,", "cannot read byte 0 of 196" + denied},
      {"i2c-absent bus=23 addr=0x52",              "LC 2",       1, "dead",    "0,\"errno\":6,", "cannot read byte 0 of 263" + none},  // the module's expander answers
      {"i2c-absent bus=17 addr=0x52",              "DC 1",       1, "dead",    "0,\"errno\":6,", "cannot read byte 0 of 263" + none},
      {"i2c-absent bus=1 addr=0x52",               "SUPERVISOR", 1, "dead",    "0,\"errno\":6,", "cannot read byte 0 of 334" + none},
  };
  // clang-format on
  for (const auto &[fault, name, status, state, found, err] : rows) {
    SCOPED_TRACE(fault + " " + name);
    const std::string board = faulty("pellin", fault);
    const std::string good = status == 0 ? "true" : state == "dead" ? "false" : "null";
    expect_run(on(board, "verify --json '" + name + "'"), status,
               AllOf(HasSubstr("\"good\":" + good + ",\"messages\":[]}"), HasSubstr("\"byte\":" + found),
                     HasSubstr("\"state\":\"" + state + "\",\"bus\":\"/dev/i2c-")),
               _);
    for (const std::string command : {"show '", "verify '"})
      expect_on(board, command + name + "'", status, err.empty() ? "" : "): " + err + "\n");
    expect_run(on(board, "verify"), status == 3 ? 0 : status,  // an empty slot is no defect
               HasSubstr(status != 0 ? "): " + state + "\n  " + err + "\n" : ""), _);
    EXPECT_THAT(on(board, "verify --json").out, StartsWith(status == 1 ? "{\"good\":false," : "{\"good\":true,"));
    // A list asks for a byte only.
    const std::string listed = found[0] == '9' ? "present" : state;
    EXPECT_THAT(on(board, "list").out, ContainsRegex("\n" + name + " .*/dev/i2c-.* " + listed + "\n"));
    EXPECT_THAT(on(board, "list --json").out, HasSubstr("\"state\":\"" + listed + "\",\"bus\":\"/dev/i2c-"));
  }
  EXPECT_THAT(on("pellin --fault 'i2c-fail bus=6 addr=0x53 nth=11 times=0'", "dump --raw PS2 chip").err,
              EndsWith(": cannot read byte 9 of 256" + failed + "\n"));
  EXPECT_THAT(on("pellin", "dump --hex").out, StartsWith("00000000  ab ab 03 a0 "));
  // A bad image is worse than an empty slot.
  const std::string both = "--fault 'i2c-absent bus=6 addr=0x53' --fault 'sprom-corrupt image=bp block=wwn offset=0'";
  expect_run(on("tosk " + both, "verify"), 1,
             StartsWith("BACKPLANE (slot 0, index 0, /dev/i2c-1:0x52): BAD\n"
                        "  Backplane WWN block signature mismatch. Found 0x9f05, expected 0x6005.\n"),
             _);
}

// All that can wait does, until the image is whole and protected again.
TEST_F(sprom_board, holds_signals_back_while_the_protection_is_lifted) {
  const target &t = targets[7];
  const bytes before = fresh(t.board, t.eeprom), image = device_image(t.type);
  save("image", image);
  expect_run(
      sh("cp st/eeprom-23-52 old\n"
         "board-sim --state st --trace log --busy time --family pellin -- sprom write -y lc2 image &\n"
         "for i in $(seq 3000); do cmp -s st/eeprom-23-52 old || break; sleep 0.01; done\n"
         "for s in HUP INT QUIT ABRT USR1 USR2 PIPE ALRM TERM STKFLT TSTP TTIN TTOU XCPU XFSZ VTALRM PROF IO PWR 34 "
         "64; do\n"
         "  kill -$s $(pgrep -P $!); done; cmp -s st/eeprom-23-52 image && echo late; wait $!"),
      128 + SIGHUP, EndsWith(" bytes written; it reads back as the image\n"), _);
  EXPECT_EQ(load("st/eeprom-23-52"), overlaid(before, 0, image));
  EXPECT_EQ(pins(), t.pins);
}

TEST_F(sprom_board, writes_nothing_when_anything_before_fails) {
  save("sup", device_image(SPROM_TYPE_SUP));
  save("bad", with_byte(device_image(SPROM_TYPE_SUP), 10, 0));
  save("ps", device_image(SPROM_TYPE_PS));
  save("fan", device_image(SPROM_TYPE_FAN));
  save("small", bytes(256, 0x12));
  save("blank", bytes(0x10000, 0xFF));
  const bytes chip = fresh("pellin", "1-52");
  const bytes card = patched(image_in(chip, 0, SPROM_TYPE_SUP), SPROM_TYPE_SUP, 182, {0x2A, 0xFC});
  save("chip", chip);
  save("card", card);
  save("cards", overlaid(chip, 0, card));
  ASSERT_EQ(sh("sprom show -jf card >card.json").status, 0);
  const std::string not_written = supervisor + ": not written: ";
  const std::string other_card =
      not_written + "the image is of card index 11004, the SPROM of 11003; --force writes it all the same";
  // clang-format off
  const std::pair<std::string, std::string> rows[]{
      {"write sup",                       not_written + "there is no terminal to ask on; --yes writes without asking"},
      {"write -y bad",                    "bad: a bad image; nothing is written without --force"},
      {"write -y 0,0 sup",                "sup: 334 bytes: this is a supervisor image, not a backplane image"},
      {"write -y ps",                     "the pellin boards have more than one power supply SPROM; name the one that is meant"},
      {"write -y fan",                    "the pellin boards have no fan SPROM"},
      {"write -y DIMM1 fan",              "DIMM1: a DIMM has no layout here"},
      {"verify BACKPLAIN",                "BACKPLAIN: the pellin boards have no such SPROM (did you mean 'BACKPLANE'?) (see 'sprom list')"},
      {"write -y DIMM1 --raw small",      "small: what a DIMM holds cannot be checked; nothing is written without --force"},
      {"write -y PS1 --raw chip",         "chip: more than 256 bytes, but the EEPROM has 256"},
      {"write -y 0,0 --raw blank",        "blank: a bad image; nothing is written without --force"},
      {"write -y 1,1 card",               other_card},
      {"write -y 1,1 --raw cards",        other_card},
      {"edit -y 1,1 --from card.json",    other_card},
      {"write -y --bus 6 --addr 0x54 ps ps", "power supply (/dev/i2c-6:0x54): not written: it holds a fan image; --force writes it all the same"},
  };
  // clang-format on
  for (const auto &[args, err] : rows) {
    expect_on("pellin", args, 1, "sprom: " + err + "\n");
    EXPECT_EQ(pins(), "");
  }
}

TEST_F(sprom_board, keeps_the_old_image_in_a_file_of_its_name) {
  save("sup", device_image(SPROM_TYPE_SUP));
  const bytes before = fresh("pellin", "1-52");
  const std::string elsewhere = "SPROM_BACKUP_DIR=no\n";
  EXPECT_THAT(on("pellin", "write -y 1,1 sup", elsewhere).err,
              ContainsRegex("no backup of the old image: no/sprom-SUPERVISOR-[-0-9]+.bin: No such file or "
                            "directory .errno 2.; --backup names another file\n$"));
  EXPECT_EQ(load("st/eeprom-1-52"), before);
  EXPECT_EQ(on("pellin", "write -y --no-backup 1,1 sup", elsewhere).status, 0);
  EXPECT_THAT(sh("SPROM_BACKUP_DIR=\nboard-sim --state st --family pellin -- sprom edit -y 1,1 --num_6=3 | "
                 "sed -n 's/.* the old image is in //p' >kept; cat kept; rm \"$(cat kept)\"")
                  .out,
              StartsWith("/var/tmp/sprom-SUPERVISOR-"));
  // The newest 20 of a SPROM have a place, and what is no backup of it is left alone.
  EXPECT_EQ(sh("mkdir b; for n in $(seq 10 34); do touch b/sprom-SUPERVISOR-201001$n-000000.bin; done\n"
               "touch b/sprom-SUPERVISOR-2010.bin b/sprom-PS1-20100101-000000.bin\n"
               "SPROM_BACKUP_DIR=b board-sim --state st --family pellin -- sprom edit -y 1,1 --num_6=4 >out\n"
               "ls b | wc -l; ls b | head -3; rm -r b")
                .out,
            "22\nsprom-PS1-20100101-000000.bin\nsprom-SUPERVISOR-2010.bin\nsprom-SUPERVISOR-20100116-000000.bin\n");
  // A name that is taken is left alone.
  for (const std::string number : {"1", "2"})
    EXPECT_EQ(on("pellin", "edit -y 1,1 --num_6=" + number).status, 0);
  EXPECT_EQ(sh("ls .old | wc -l").out, "2\n");
}

// A card index is changed by its name, by force, or where there is none to lose.
TEST_F(sprom_board, writes_another_card_index_where_it_is_meant) {
  const bytes before = fresh("pellin", "1-52");
  const bytes card = patched(image_in(before, 0, SPROM_TYPE_SUP), SPROM_TYPE_SUP, 182, {0x2A, 0xFC});
  save("card", card);
  const bytes damaged = with_byte(before, 250, 0x55);
  for (const auto &[args, chip] : {std::pair{"write -y --force 1,1 card", before},
                                   {"edit -y 1,1 --card-index=11004", before},
                                   {"write -y 1,1 card", damaged}}) {
    save("st/eeprom-1-52", chip);
    EXPECT_EQ(on("pellin", args).status, 0) << args;
    EXPECT_EQ(load("st/eeprom-1-52"), overlaid(before, 0, card)) << args;
  }
}

// A whole EEPROM with two images and what is outside of them, cut at every byte that is written.
TEST_F(sprom_board, writes_a_whole_eeprom_in_an_order_that_stands_a_cut) {
  const std::string board = "pellin", write = "write -y --raw --backup=old 1,1 content";
  const bytes before = fresh(board, "1-52");
  const bytes sup = image_in(before, 0, SPROM_TYPE_SUP), bp = image_in(before, 0x1000, SPROM_TYPE_BP);
  const bytes new_sup = patched(sup, SPROM_TYPE_SUP, 60, {'X', 'Y'});
  const bytes new_bp = patched(bp, SPROM_TYPE_BP, 461, {1, 2});
  bytes content = overlaid(overlaid(before, 0, new_sup), 0x1000, new_bp);
  content[0xFFF] = content[0xFFFF] = 7;
  save("content", content);
  const size_t needed = needed_cycles(sup, new_sup, SPROM_TYPE_SUP) + needed_cycles(bp, new_bp, SPROM_TYPE_BP) + 2;
  const std::string first = ": EEPROM, 65536 bytes\n  supervisor: common_checksum   0x";
  expect_run(on(board, write), 0,
             AllOf(StartsWith(supervisor + first), HasSubstr("\n  backplane: bytes_461         2 of 10 bytes differ"),
                   HasSubstr("\n  outside the images: 2 bytes differ, the first at offset 4095\n"),
                   EndsWith("SUPERVISOR: " + std::to_string(needed) + " bytes written; it reads back as the file\n")));
  EXPECT_EQ(cycles("1-52", false), needed);
  EXPECT_EQ(pins(), port_pins);
  EXPECT_TRUE(load("st/eeprom-1-52") == content && load("old") == before);
  save("st/eeprom-1-52", before);
  cut_everywhere(board, "1-52", write, needed, {"0xAA"}, content, [&](const bytes &left) {
    EXPECT_FALSE(is_false(image_in(left, 0, SPROM_TYPE_SUP), sup, new_sup, SPROM_TYPE_SUP));
    EXPECT_FALSE(is_false(image_in(left, 0x1000, SPROM_TYPE_BP), bp, new_bp, SPROM_TYPE_BP));
    EXPECT_EQ(load("old"), before);
  });
}

// What a unit in a fixture has of its own is checked; an image that belongs beside it may be missing.
TEST_F(sprom_board, writes_whole_eeproms_of_units_and_dimms) {
  save("sup", eeprom_with(image_in(fresh("dorvan", "1-52"), 0, SPROM_TYPE_SUP)));
  save("dimm", with_byte(fresh("pellin", "0-5e"), 255, 9));
  // The file is what the EEPROM then holds.
  // clang-format off
  const struct { std::string board, args; int status; std::string eeprom, file, err; } rows[]{
      {"dorvan", "write -y --raw --bus 1 --addr 0x52 sup sup", 0, "1-52", "sup",  ""},
      {"dorvan", "write -y --raw 1,1 sup",                     1, "1-52", "old",  "sprom: sup: a bad image; nothing is written without --force\n"},
      {"pellin", "write -y --raw --force DIMM0 dimm",          0, "0-5e", "dimm", ""},
      {"pellin --fault 'i2c-fail bus=0 addr=0x5e nth=515'", "write -y --raw --force dimm0 dimm", 1, "0-5e", "old", "DIMM0 (/dev/i2c-0:0x5e): nothing has changed\n"},
      {"pellin --fault 'i2c-fail bus=0 addr=0x5e nth=526'", "write -y --raw --force dimm0 dimm", 1, "0-5e", "dimm", "DIMM0 (/dev/i2c-0:0x5e): what it holds now is not known\n"},
      {"pellin --fault 'eeprom-corrupt bus=0 addr=0x5e offset=99'", "write -y --raw --force dimm0 dimm", 1, "0-5e", "dimm", "DIMM0 (/dev/i2c-0:0x5e): reads back with 1 of 256 bytes different from the file, the first at byte 99\n"},
  };
  // clang-format on
  for (const auto &[board, args, status, eeprom, file, err] : rows) {
    SCOPED_TRACE(args);
    save("old", fresh(board.substr(0, 6), eeprom));
    expect_run(on(board, args), status, _, EndsWith(err));
    EXPECT_TRUE(load("st/eeprom-" + eeprom) == load(file));
  }
  expect_run(on("pellin", "dump --raw DIMM1 copy"), 0, "", StartsWith("sprom: copy: 256 bytes of DIMM1"));
  EXPECT_EQ(load("copy"), load("st/eeprom-0-55"));
  expect_run(on("pellin", "dump --hex DIMM1"), 0, AllOf(StartsWith("00000000  80 08 "), EndsWith("\n00000100\n")));
}

// The members of a change that say how it ended.
static std::string result_of(bool is_good, const std::string &verdict, int planned, int written,
                             const std::string &reads_back, const std::string &backup) {
  return std::string{"\"good\":"} + (is_good ? "true" : "false") + ",\"verdict\":\"" + verdict +
         "\",\"bytes_planned\":" + std::to_string(planned) + ",\"bytes_written\":" + std::to_string(written) +
         ",\"reads_back\":" + reads_back + ",\"backup\":" + backup + ",\"changes\":[";
}

// One object for each command, with any result.
TEST_F(sprom_board, reports_changes_as_json) {
  const std::string ps1 = R"({"name":"PS1","slot":0,"index":1,"kind":"ps","size":196,"bus":"/dev/i2c-6","address":82)";
  const std::string file =
      R"({"name":"image","slot":null,"index":null,"kind":"ps","size":196,"bus":null,"address":null)";
  const std::string sum = R"({"kind":"ps","field":"common_checksum","offset":4,"bytes_different":1,)";
  const std::string num = R"({"kind":"ps","field":"num_6","offset":6,"bytes_different":1,)";
  const std::string changes = sum + R"("from":"0x0dc5","to":"0x0dcd"},)" + num + R"("from":"0x0001","to":"0x0009"}])";
  const std::string back = sum + R"("from":"0x0dcd","to":"0x0dc5"},)" + num + R"("from":"0x0009","to":"0x0001"}])";
  const std::string done = ",\"messages\":[]}", said = ",\"messages\":[\"",
                    label = "PS1 (slot 0, index 1, /dev/i2c-6:0x52): ";
  // clang-format off
  const struct { std::string fault, args; int status; std::string out; } rows[]{
      {"", "edit -yj PS1 --num_6=9 --backup=old", 0, ps1 + "," + result_of(true, "written", 4, 4, "true", "\"old\"") + changes + done},
      {"", "write -j PS1 image -y --no-backup",   0, ps1 + "," + result_of(true, "written", 4, 4, "true", "null") + changes + done},
      {"", "edit -nj PS1 --num_6=9",              0, ps1 + "," + result_of(true, "planned", 4, 0, "null", "null") + changes + done},
      {"", "edit -yj PS1 --num_6=1",              0, ps1 + "," + result_of(true, "unchanged", 0, 0, "true", "null") + "]" + done},
      {"", "edit -yjf image --num_6=1",           0, file + "," + result_of(true, "written", 2, 2, "null", "null") + back + done},
      {"", "edit -j PS1 --num_6=9",               1, ps1 + "," + result_of(false, "refused", 4, 0, "null", "null") + changes + said + label + "not written: there is no terminal to ask on; --yes writes without asking\"]}"},
      {"", "edit -yj PS1 --num_6=9 --backup=no/x", 1, ps1 + "," + result_of(false, "refused", 4, 0, "null", "null") + changes + said + label + "not written: no backup of the old image: no/x: No such file or directory (errno 2); --backup names another file\"]}"},
      {"i2c-fail bus=6 addr=0x52 nth=397", "edit -yj PS1 --num_6=9 --no-backup", 1,
           ps1 + "," + result_of(false, "failed", 4, 2, "false", "null") + changes + said + label + "writing byte 5 (EEPROM offset 0x0005) failed after 2 of 4 bytes: Input/output error (errno 5)\",\"" +
           label + "reads back with 2 of 196 bytes different from the image, the first at byte 4\"]}"},
      {"", "write -yj PS1 none",                  1, ps1 + "," + result_of(false, "refused", 0, 0, "null", "null") + "]" + said + "none: cannot read: No such file or directory (errno 2)\"]}"},
      {"", "write -yj PS9 image",                 1, "{" + result_of(false, "refused", 0, 0, "null", "null") + "]" + said + "PS9: the pellin boards have no such SPROM (did you mean 'PS1'?) (see 'sprom list')\"]}"},
      {"", "get -j PS1 num_6",                    0, ps1 + R"(,"field":"num_6","value":"0x0001","good":true)" + done},
      {"sprom-corrupt image=ps1 block=header offset=6", "get -j PS1 num-6", 0, ps1 + R"(,"field":"num_6","value":"0xff01","good":false)" + said + "Power Supply Common Header block checksum mismatch.  Found 0x0dc5, expected 0x0ec4.\"]}"},
      {"", "diff -j PS1 image",                   1, R"({"alike":false,"bytes_different":2,"sides":[)" + ps1 + "}," + file + R"(}],"changes":[)" + changes + "}"},
      {"", "diff --json PS1 0,1",                 0, R"({"alike":true,"bytes_different":0,"sides":[)" + ps1 + "}," + ps1 + R"(}],"changes":[]})"},
      {"", "edit -yj PS1",                        2, ""},
  };
  // clang-format on
  const bytes before = fresh("pellin", "6-52");
  for (const auto &[fault, args, status, out] : rows) {
    save("st/eeprom-6-52", before);
    save("image", patched(image_in(before, 0, SPROM_TYPE_PS), SPROM_TYPE_PS, 6, {0, 9}));
    expect_run(on(faulty("pellin", fault), args), status, out.empty() ? "" : out + "\n", _);
  }
}

// What is asked about must be seen, and the object must not be mixed with it.
TEST_F(sprom_board, asks_on_standard_error_where_json_is_printed) {
  expect_run(sh("echo y | script -qec 'board-sim --family pellin -- sprom edit -j PS1 --num_6=9 >out' /dev/null"), 0,
             AllOf(HasSubstr("  num_6             0x0001 -> 0x0009\r\n"), HasSubstr("Write to PS1 (")));
  EXPECT_THAT(read_file(path("out")), AllOf(StartsWith("{\"name\":\"PS1\","), HasSubstr("\"verdict\":\"written\"")));
}

TEST_F(sprom_board, compares_sproms_and_files_in_any_order) {
  const std::string ps1 = "PS1 (slot 0, index 1, /dev/i2c-6:0x52)", ps2 = "PS2 (slot 0, index 2, /dev/i2c-6:0x53)";
  const std::string differ = ": 2 of 196 bytes differ\n  common_checksum   0x0dc";
  // clang-format off
  const struct { std::string args; int status; std::string out, err; } rows[]{
      {"diff PS1 PS2",    1, ps1 + " and " + ps2 + differ + "5 -> 0x0dc6\n    0x0005: c5 -> c6\n  serial_number     \"SIM00000006\" -> \"SIM00000007\"\n    0x0040: 36 -> 37\n", ""},
      {"diff ps 0,1",     0, "", ""},
      {"diff 1,1 chip",   0, "", ""},
      {"diff PS1 1,1",    2, "", "sprom: " + ps1 + " has a power supply image, " + supervisor + " a supervisor image: they cannot be compared\n"},
      {"diff PS1 chip",   2, "", "sprom: chip: no power supply image in this dump of an EEPROM\n"},
  };
  // clang-format on
  ASSERT_EQ(on("pellin", "dump --raw 1,1 chip").status + on("pellin", "dump PS1 ps").status, 0);
  for (const auto &[args, status, out, err] : rows)
    expect_run(on("pellin", args), status, out, err);
}

TEST_F(sprom_board, tells_its_steps_and_its_progress) {
  const std::string expander = "sprom: /dev/i2c-7:0x75: ", eeprom = "sprom: /dev/i2c-7:0x52: ";
  const std::string look = "sprom: LC 3: looking at pin 3 of /dev/i2c-7:0x75\n";
  const std::string read = "sprom: LC 3: reading 263 bytes of /dev/i2c-7:0x52 from 0x0000\n" + eeprom +
                           "write 00 00\nsprom: 263 bytes read\n";
  const auto all = [](const std::string &device, std::initializer_list<const char *> requests) {
    std::string lines;
    for (const char *const request : requests)
      lines += device + request + "\n";
    return lines;
  };
  const std::string off = "sprom: LC 3: switching the write protection off: pin 3 of /dev/i2c-7:0x75\n";
  const std::string on_again = "sprom: LC 3: switching the write protection on: pin 3 of /dev/i2c-7:0x75\n";
  expect_run(on("pellin", "edit -vy lc3 --num_6=0x0002"), 0, _,
             "sprom: /dev/i2c-8:0x76: read 00 3f ff\n" + read + read + off +
                 all(expander, {"read 06 ff ff", "write 06 f7 ff", "read 02 ff ff", "write 02 f7 ff"}) + look +
                 all(expander, {"read 00 f7 ff", "read 04 00 00"}) +
                 all(eeprom, {"write 00 04 ff", "write 00 07 02", "write 00 05 18", "write 00 04 0e"}) + on_again +
                 all(expander, {"read 02 f7 ff", "write 02 ff ff"}) + look +
                 all(expander, {"read 00 ff ff", "read 04 00 00"}) + read);
  EXPECT_THAT(on("pellin --fault 'i2c-absent bus=6 addr=0x53'", "get -v PS2 product_id").err,
              HasSubstr("sprom: /dev/i2c-6:0x53: write 00 00: No such device or address (errno 6)\n"
                        "sprom: 0 bytes read\n"));
  std::string expected;
  for (int i = 0; i <= 4; ++i)
    expected += "\rSUPERVISOR: " + std::to_string(i) + " of 4 bytes written";
  expect_run(sh("echo y | script -qec 'board-sim -- sprom edit 1,1 --num_6=7' /dev/null"), 0,
             EndsWith(expected + "\r\nSUPERVISOR: 4 bytes written; it reads back as the image\r\n"));
}

TEST_F(sprom_board, does_what_the_manual_shows) {
  std::string commands;
  for (const std::string &line : lines_of(read_file(POST_SOURCE_DIR "/docs/sprom.1")))
    if (line.starts_with("$ sprom "))
      commands += "board-sim --family pellin --state st -- " + line.substr(2) + "; echo \"status $?\"\n";
  save("examples", bytes(commands.begin(), commands.end()));
  const auto result = sh("export SPROM_BACKUP_DIR=.; . ./examples");
  const std::string of = " bytes of " + supervisor + "\n";
  EXPECT_EQ(result.err, "sprom: sup.bin: 334" + of + "sprom: chip.bin: 65536" + of);
  EXPECT_THAT(result.out, HasSubstr("\nSN0001235\nstatus 0\n"));
  // All end well but diff, which finds the edited number.
  save("out", bytes(result.out.begin(), result.out.end()));
  EXPECT_EQ(sh("grep -o '^status .*' out | cut -c 8 | tr -d '\\n'").out, "0010000000000");
  EXPECT_EQ(sh("sprom get -f ps2.bin product-id; sprom get -f ps2.bin serial-number").out, "PS-2500\nSN0000002\n");
}

TEST_F(sprom_board, completes_what_can_work) {
  // Words, and all that is offered.
  const std::pair<std::string, std::string> rows[] = {
      {"'' pro", "protect"},
      {"diff --", "--help --version --verbose --family= --bus= --addr= --force --wait= --json"},
      {"write --bus = 3 --addr = 0x52 f", "fan"},
      {"show --addr = 0x5e", "0x5e"},
      {"show -F pellin D", "DC1 DIMM0 DIMM1"},
      {"make fan --num-13", "--num-130= --num-132= --num-134= --num-136= --num-138="},
  };
  for (const auto &[words, offers] : rows)
    expect_run(sh("set -- " + words +
                  "\n[ -z \"$1\" ] && shift\nbash -c '. \"" POST_SOURCE_DIR
                  "/tools/completion/sprom\"; compopt() { :; }; COMP_WORDS=(\"$@\") COMP_CWORD=$(($# - 1)); "
                  "_sprom; echo ${COMPREPLY[@]}' bash sprom \"$@\""),
               0, offers + "\n");
}
