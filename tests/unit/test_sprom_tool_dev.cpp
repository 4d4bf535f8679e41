// The `sprom` program on devices: a double of the I2C service stands in for libutils.so.
#include <gmock/gmock.h>

#include <fstream>

#include "tests/unit/sprom_tool.h"

using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

namespace {

constexpr size_t bp_base = 0x1000;
constexpr size_t eeprom_size = 0x10000;

const bytes sup_image = device_image(SPROM_TYPE_SUP, 11062);
const bytes bp_image = device_image(SPROM_TYPE_BP);

class sprom_tool_dev : public sprom_tool {
 protected:
  void SetUp() override {
    sprom_tool::SetUp();
    surroundings.env = {{"LD_LIBRARY_PATH", POST_LIB_DIR "/double"}, {"SSE_DIR", path("")}};
    save(path("i2c-1-52"), supervisor_eeprom());
  }

  // Supervisor and backplane image in one EEPROM, something else in between and behind.
  static bytes supervisor_eeprom() {
    bytes eeprom(eeprom_size, 0xE5);
    std::copy(sup_image.begin(), sup_image.end(), eeprom.begin());
    std::copy(bp_image.begin(), bp_image.end(), eeprom.begin() + bp_base);
    return eeprom;
  }

  static bytes eeprom_of(const bytes &image) {
    bytes eeprom(eeprom_size, 0xE5);
    std::copy(image.begin(), image.end(), eeprom.begin());
    return eeprom;
  }

  // The transactions since the last call, one line each, of those that begin with a text.
  std::vector<std::string> take_log(const std::string &start = "") {
    std::ifstream log{path("log")};
    std::vector<std::string> lines;
    for (std::string line; std::getline(log, line);) {
      if (line.starts_with(start)) lines.push_back(line);
    }
    std::filesystem::remove(path("log"));
    return lines;
  }

  // The byte writes (transfer kind 3) among them.
  std::vector<std::string> take_byte_writes() {
    auto lines = take_log("write i2c");
    std::erase_if(lines,
                  [](const std::string &line) { return line.find("-52 ") == std::string::npos || line[18] != '3'; });
    return lines;
  }

  process_result dorvan(std::vector<std::string> args) const {
    args.insert(args.end(), {"--family", "dorvan"});
    return tool(args);
  }
};

std::string byte_write(size_t offset, uint8_t byte) {
  char line[40];
  (void)snprintf(line, sizeof line, "write i2c-1-52 %02zx 3 %02zx %02x", offset >> 8, offset & 0xFF, byte);
  return line;
}

}  // namespace

TEST_F(sprom_tool_dev, lists_the_sproms_of_a_family) {
  EXPECT_EQ(dorvan({"list"}).out,
            "NAME          SLOT  INDEX  KIND   SIZE\n"
            "BACKPLANE        0      0  bp      471\n"
            "SUPERVISOR       1      1  sup     334\n");
  EXPECT_EQ(tool({"list", "-F", "pellin"}).out,
            "NAME          SLOT  INDEX  KIND   SIZE\n"
            "BACKPLANE        0      0  bp      471\n"
            "PS1              0      1  ps      196\n"
            "PS2              0      2  ps      196\n"
            "SUPERVISOR       1      1  sup     334\n"
            "DC 1             1      2  lc      263\n"
            "LC 2             2    any  lc      263\n"
            "LC 3             3    any  lc      263\n"
            "DIMM0            -      -  dimm      -\n"
            "DIMM1            -      -  dimm      -\n");
  EXPECT_EQ(tool({"list", "-F", "TOSK", "--json"}).out,
            R"({"family":"tosk","sproms":[)"
            R"({"name":"BACKPLANE","slot":0,"index":0,"kind":"bp","size":471},)"
            R"({"name":"PS1","slot":0,"index":1,"kind":"ps","size":196},)"
            R"({"name":"PS2","slot":0,"index":2,"kind":"ps","size":196},)"
            R"({"name":"SUPERVISOR","slot":1,"index":1,"kind":"sup","size":334},)"
            R"({"name":"LC 2","slot":2,"index":null,"kind":"lc","size":263},)"
            R"({"name":"DIMM0","slot":null,"index":null,"kind":"dimm","size":null},)"
            R"({"name":"DIMM1","slot":null,"index":null,"kind":"dimm","size":null}]})"
            "\n");
  EXPECT_THAT(take_log(), ElementsAre());  // the tables alone
}

TEST_F(sprom_tool_dev, asks_the_board_for_its_family) {
  struct row {
    const char *name;
    int straps;      // -1: no expander
    int card_index;  // of the supervisor; -1: a bad image
    std::string family;
  };
  for (const row &r : std::vector<row>{{"straps 0", 0, 11062, "pellin"},
                                       {"straps 2", 2, 11062, "tosk"},
                                       {"straps 1, card of pellin", 1, 0x2AFB, "pellin"},
                                       {"straps 3, card of tosk", 3, 0x2AFC, "tosk"},
                                       {"straps 1, other card", 1, 11062, ""},
                                       {"straps 3, bad image", 3, -1, ""},
                                       {"no expander", -1, 0x2AFB, ""}}) {
    SCOPED_TRACE(r.name);
    std::filesystem::remove(path("i2c-8-76"));
    if (r.straps >= 0) save(path("i2c-8-76"), {static_cast<uint8_t>(r.straps << 6), 0, 0, 0, 0, 0, 0, 0});
    bytes image = device_image(SPROM_TYPE_SUP, static_cast<uint16_t>(r.card_index < 0 ? 0x2AFC : r.card_index));
    if (r.card_index < 0) image[300] ^= 1;
    save(path("i2c-1-52"), eeprom_of(image));

    const auto result = tool({"list", "--json"});
    EXPECT_EQ(result.status, r.family.empty() ? 1 : 0);
    if (r.family.empty()) {
      EXPECT_EQ(result.out, "");
      EXPECT_THAT(result.err,
                  EndsWith("sprom: platform undefined\n"
                           "sprom: the board's family cannot be told; --family names it, --file works on an image\n"));
      EXPECT_EQ(r.card_index < 0, result.err.starts_with("sprom: Supervisor Extra Sensor block checksum mismatch."));
    } else {
      EXPECT_THAT(result.out, StartsWith("{\"family\":\"" + r.family + "\""));
      EXPECT_EQ(result.err, "");
    }
    EXPECT_THAT(take_byte_writes(), ElementsAre());
  }
}

TEST_F(sprom_tool_dev, finds_sproms_by_name_and_address) {
  save(path("i2c-6-53"), eeprom_of(device_image(SPROM_TYPE_PS)));
  save(path("i2c-23-52"), eeprom_of(device_image(SPROM_TYPE_LC)));
  struct row {
    const char *family;
    const char *name;
    std::string headline;
  };
  for (const row &r :
       std::vector<row>{{"dorvan", "SUPERVISOR", "SUPERVISOR (slot 1, index 1): supervisor image, 334 bytes"},
                        {"dorvan", "backplane", "BACKPLANE (slot 0, index 0): backplane image, 471 bytes"},
                        {"dorvan", "0,0", "BACKPLANE (slot 0, index 0): backplane image, 471 bytes"},
                        {"pellin", "ps2", "PS2 (slot 0, index 2): power supply image, 196 bytes"},
                        {"tosk", "0,2", "PS2 (slot 0, index 2): power supply image, 196 bytes"},
                        {"pellin", "LC 2", "LC 2 (slot 2): line card image, 263 bytes"},
                        {"pellin", "lc2", "LC 2 (slot 2): line card image, 263 bytes"},
                        {"pellin", "2,7", "LC 2 (slot 2, index 7): line card image, 263 bytes"}}) {
    SCOPED_TRACE(r.name);
    const auto result = tool({"show", r.name, "-F", r.family});
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_THAT(result.out, StartsWith(r.headline + "\n\n"));
  }
  for (const char *name : {"PS1", "1,2", "1,", ",1", "1,1,1", "1;1", "4294967296,0", "SUPER", ""}) {
    const auto result = dorvan({"show", name});
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.err,
              std::string{"sprom: "} + name + ": the dorvan boards have no such SPROM (see 'sprom list')\n");
  }
  const auto dimm = tool({"show", "DIMM1", "-F", "pellin"});
  EXPECT_EQ(dimm.status, 1);
  EXPECT_EQ(dimm.err, "sprom: DIMM1: a DIMM has no layout here\n");
  EXPECT_THAT(tool({"show", "-j", "1,1", "-F", "dorvan"}).out,
              StartsWith(R"({"name":"SUPERVISOR","slot":1,"index":1,"kind":"sup","size":334,"good":true,"blocks":[)"));
}

TEST_F(sprom_tool_dev, dumps_what_stands_on_the_chip) {
  EXPECT_EQ(dorvan({"dump", path("sup")}).status, 0);
  EXPECT_EQ(load(path("sup")), sup_image);
  EXPECT_EQ(dorvan({"dump", "BACKPLANE", path("bp")}).status, 0);
  EXPECT_EQ(load(path("bp")), bp_image);
  // Bad or not.
  save(path("i2c-1-52"), bytes(eeprom_size, 0xFF));
  EXPECT_EQ(dorvan({"dump", "0,0", path("bp")}).status, 0);
  EXPECT_EQ(load(path("bp")), bytes(471, 0xFF));
}

TEST_F(sprom_tool_dev, verifies_all_sproms_or_one) {
  auto result = dorvan({"verify"});
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.out, "BACKPLANE: good\nSUPERVISOR: good\n");
  save(path("i2c-1-52"), with_byte(supervisor_eeprom(), bp_base, 0));
  result = dorvan({"verify"});
  EXPECT_EQ(result.status, 1);
  EXPECT_THAT(result.out,
              StartsWith("Backplane Common Header block signature mismatch. Found 0x00ab, expected 0xabab.\n"));
  EXPECT_THAT(result.out, EndsWith("BACKPLANE: BAD\nSUPERVISOR: good\n"));
  result = dorvan({"verify", "SUPERVISOR"});
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.out, "");

  // Of the power supplies one is missing; a SPROM that cannot be read is not good.
  save(path("i2c-6-52"), eeprom_of(device_image(SPROM_TYPE_PS)));
  result = tool({"verify", "-F", "tosk"});
  EXPECT_EQ(result.status, 1);
  EXPECT_THAT(result.out, EndsWith("BACKPLANE: BAD\nPS1: good\nPS2: unreadable\nSUPERVISOR: good\nLC 2: unreadable\n"));
  EXPECT_EQ(result.err,
            "sprom: PS2: cannot read: No such device or address\n"
            "sprom: LC 2: cannot read: No such device or address\n");
  result = tool({"verify", "PS2", "--json", "-F", "tosk"});
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.out, R"({"good":false,"sproms":[{"name":"PS2","slot":0,"index":2,"kind":"ps","size":196,)"
                        R"("read":false,"good":false,"messages":[]}]})"
                        "\n");
}

TEST_F(sprom_tool_dev, writes_every_byte_once_and_nothing_beside) {
  const bytes sup = device_image(SPROM_TYPE_SUP, 11080);
  save(path("sup"), sup);
  auto result = dorvan({"write", "SUPERVISOR", path("sup"), "--yes"});
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.err, "");
  EXPECT_EQ(result.out, "SUPERVISOR (slot 1, index 1): supervisor image, 334 bytes\n  main_checksum     " +
                            hex16(sup_image, 164) + " -> " + hex16(sup, 164) +
                            "\n  card_index        0x2b36 -> 0x2b48\nSUPERVISOR: 334 bytes written and read back\n");
  std::vector<std::string> expected;
  for (size_t i = 0; i < sup.size(); ++i)
    expected.push_back(byte_write(i, sup[i]));
  EXPECT_EQ(take_byte_writes(), expected);

  const bytes bp = patched(bp_image, SPROM_TYPE_BP, 461, bytes(10, 0));
  save(path("bp"), bp);
  result = dorvan({"write", path("bp"), "--yes"});  // the only backplane
  EXPECT_EQ(result.status, 0);
  expected.clear();
  for (size_t i = 0; i < bp.size(); ++i)
    expected.push_back(byte_write(bp_base + i, bp[i]));
  EXPECT_EQ(take_byte_writes(), expected);

  bytes eeprom = supervisor_eeprom();
  std::copy(sup.begin(), sup.end(), eeprom.begin());
  std::copy(bp.begin(), bp.end(), eeprom.begin() + bp_base);
  EXPECT_EQ(load(path("i2c-1-52")), eeprom);

  result = dorvan({"write", path("bp")});
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.out, "BACKPLANE: holds this image already; nothing to write\n");
  EXPECT_THAT(take_byte_writes(), ElementsAre());

  result = dorvan({"edit", "1,1", "--serial-number=SN1", "-y"});
  EXPECT_EQ(result.status, 0);
  bytes serial(20);
  std::copy_n("SN1", 3, serial.begin());
  const bytes edited = patched(sup, SPROM_TYPE_SUP, 54, serial);
  std::copy(edited.begin(), edited.end(), eeprom.begin());
  EXPECT_EQ(load(path("i2c-1-52")), eeprom);
}

TEST_F(sprom_tool_dev, writes_nothing_when_anything_before_fails) {
  const bytes eeprom = supervisor_eeprom();
  save(path("sup"), device_image(SPROM_TYPE_SUP, 11080));
  save(path("bad"), with_byte(device_image(SPROM_TYPE_SUP, 11080), 10, 0));
  save(path("bp"), bp_image);
  save(path("ps"), device_image(SPROM_TYPE_PS));
  save(path("fan"), device_image(SPROM_TYPE_FAN));
  struct row {
    std::vector<std::string> args;
    const char *family;
    std::map<std::string, std::string> faults;
    std::string err;
  };
  const std::vector<row> rows{
      {{"write", path("sup")},
       "dorvan",
       {},
       "sprom: SUPERVISOR: not written: there is no terminal to ask on; --yes writes without asking\n"},
      {{"write", "-y", path("bad")},
       "dorvan",
       {},
       "sprom: " + path("bad") + ": a bad image; nothing is written without --force\n"},
      {{"write", "-y", "1,1", path("bp")},
       "dorvan",
       {},
       "sprom: " + path("bp") + ": 471 bytes: this is a backplane image, not a supervisor image\n"},
      {{"write", "-y", path("ps")},
       "pellin",
       {},
       "sprom: the pellin boards have more than one power supply SPROM; name the one that is meant\n"},
      {{"write", "-y", path("fan")},
       "dorvan",
       {},
       "sprom: the dorvan boards have no fan SPROM; name the one that is meant\n"},
      {{"write", "-y", path("none")},
       "dorvan",
       {},
       "sprom: " + path("none") + ": cannot read: No such file or directory\n"},
      {{"write", "-y", "0,1", path("ps")}, "tosk", {}, "sprom: PS1: cannot read: No such device or address\n"},
      {{"write", "-y", "--force", path("sup")},
       "dorvan",
       {{"SSE_FAIL_READ", "0"}},
       "sprom: SUPERVISOR: cannot read: No such device or address\n"},
      {{"write", "-y", path("sup")},
       "dorvan",
       {{"SSE_FAIL_READ", "333"}},
       "sprom: SUPERVISOR: cannot read: No such device or address\n"},
      {{"edit", "-y", "1,1", "--card-index=x"},
       "dorvan",
       {},
       "sprom: card_index: 'x' is no number\nTry 'sprom --help' for more information.\n"},
  };
  const auto env = surroundings.env;
  for (const row &r : rows) {
    SCOPED_TRACE(r.err);
    surroundings.env = env;
    surroundings.env.insert(r.faults.begin(), r.faults.end());
    std::vector<std::string> args = r.args;
    args.insert(args.end(), {"-F", r.family});
    const auto result = tool(args);
    EXPECT_NE(result.status, 0);
    EXPECT_THAT(result.err, EndsWith(r.err));
    EXPECT_THAT(take_byte_writes(), ElementsAre());
    EXPECT_EQ(load(path("i2c-1-52")), eeprom);
  }
}

// Every way in which a write can go wrong, at bytes from the first to the last.
TEST_F(sprom_tool_dev, never_claims_a_write_that_did_not_arrive) {
  const bytes image = patched(zero_image(tool_kinds[0]), SPROM_TYPE_SUP, 269, bytes(65, 0x5A));
  save(path("sup"), image);
  const auto env = surroundings.env;
  for (const size_t n : {0U, 1U, 33U, 160U, 263U, 332U, 333U}) {
    SCOPED_TRACE(n);
    const std::string at = std::to_string(n);
    char address[20];
    (void)snprintf(address, sizeof address, "0x%04zx", n);
    const std::string stopped =
        "sprom: SUPERVISOR: write stopped at byte " + at + " of 334 (EEPROM offset " + address + "): ";
    bytes half = supervisor_eeprom();
    std::copy_n(image.begin(), n, half.begin());
    size_t left = 0;
    for (size_t i = n; i < image.size(); ++i)
      left += half[i] != image[i] ? 1U : 0U;
    size_t first = n;
    while (first < image.size() && half[first] == image[first])
      ++first;
    std::string rest = "sprom: SUPERVISOR: reads back with " + std::to_string(left) +
                       " of 334 bytes different from the image, the first at byte " + std::to_string(first) + "\n";
    if (half == supervisor_eeprom()) rest += "sprom: SUPERVISOR: nothing has changed\n";
    if (left == 0) rest = "sprom: SUPERVISOR: it reads back as the image, although the write failed\n";

    struct row {
      const char *fault;
      std::string err;
    };
    for (const row &r : std::vector<row>{
             {"SSE_FAIL_WRITE", stopped + "No such device or address\n" + rest},
             {"SSE_PULL", stopped +
                              "No such device or address\nsprom: SUPERVISOR: cannot read: No such device or address\n"
                              "sprom: SUPERVISOR: what it holds now is not known\n"}}) {
      SCOPED_TRACE(r.fault);
      surroundings.env = env;
      surroundings.env[r.fault] = at;
      save(path("i2c-1-52"), supervisor_eeprom());
      const auto result = dorvan({"write", "-y", path("sup")});
      EXPECT_EQ(result.status, 1);
      EXPECT_EQ(result.err, r.err);
      EXPECT_THAT(result.out, Not(HasSubstr("written and read back")));
      EXPECT_EQ(load(path("i2c-1-52")), half);
      EXPECT_EQ(take_byte_writes().size(), n + 1);
    }
  }
}

TEST_F(sprom_tool_dev, tells_the_address_of_a_stopped_write_within_the_eeprom) {
  save(path("bp"), zero_image(tool_kinds[1]));
  surroundings.env["SSE_PULL"] = "470";
  EXPECT_THAT(dorvan({"write", "-y", path("bp")}).err,
              StartsWith("sprom: BACKPLANE: write stopped at byte 470 of 471 (EEPROM offset 0x11d6): "));
}

TEST_F(sprom_tool_dev, reads_back_what_the_chip_ignored) {
  const bytes image = device_image(SPROM_TYPE_SUP, 11080);
  save(path("sup"), image);
  const auto env = surroundings.env;
  struct row {
    const char *fault;
    const char *value;
    std::string err;
  };
  for (const row &r : std::vector<row>{
           {"SSE_PROTECTED", "1",
            "sprom: SUPERVISOR: reads back with 2 of 334 bytes different from the image, the first at byte 165\n"
            "sprom: SUPERVISOR: nothing has changed; it may be write-protected\n"},
           {"SSE_DEAD_CELL", "183",
            "sprom: SUPERVISOR: reads back with 1 of 334 bytes different from the image, the first at byte 183\n"},
           {"SSE_FAIL_READ", "400",
            "sprom: SUPERVISOR: cannot read: No such device or address\n"
            "sprom: SUPERVISOR: what it holds now is not known\n"}}) {
    SCOPED_TRACE(r.fault);
    surroundings.env = env;
    surroundings.env[r.fault] = r.value;
    save(path("i2c-1-52"), supervisor_eeprom());
    const auto result = dorvan({"write", "-y", path("sup")});
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.err, r.err);
    EXPECT_THAT(result.out, Not(HasSubstr("written and read back")));
    EXPECT_EQ(take_byte_writes().size(), image.size());
  }
}

// "LC 2" of a pellin board: pin 3 of the expander protects its EEPROM, low for writing.
TEST_F(sprom_tool_dev, restores_the_write_protection_after_every_write) {
  const bytes old = device_image(SPROM_TYPE_LC);
  const bytes image = patched(old, SPROM_TYPE_LC, 34, bytes(20, 'x'));
  save(path("lc"), image);
  const auto env = surroundings.env;
  struct row {
    const char *fault;
    std::string err;  // of its first line
  };
  for (const row &r : std::vector<row>{
           {"SSE_NONE", ""},
           {"SSE_FAIL_WRITE",
            "sprom: LC 2: write stopped at byte 100 of 263 (EEPROM offset 0x0064): No such device or address\n"},
           {"SSE_INTERRUPT", "sprom: LC 2: write stopped at byte 101 of 263 (EEPROM offset 0x0065): interrupted\n"}}) {
    SCOPED_TRACE(r.fault);
    surroundings.env = env;
    surroundings.env[r.fault] = "100";
    save(path("i2c-23-52"), eeprom_of(old));
    save(path("i2c-23-75"), {0, 0, 0x08, 0, 0, 0, 0xFF, 0xFF});
    (void)take_log();
    const auto result = tool({"write", "-y", "lc2", path("lc"), "-F", "pellin"});
    EXPECT_EQ(result.status, r.err.empty() ? 0 : 1);
    EXPECT_THAT(result.err, StartsWith(r.err));
    EXPECT_THAT(take_log("write i2c-23-75"),
                ElementsAre("write i2c-23-75 06 3 f7 ff", "write i2c-23-75 02 3 00 00", "write i2c-23-75 02 3 08 00"));
    const bytes now = load(path("i2c-23-52"));
    const auto done = static_cast<std::ptrdiff_t>(r.err.empty()                             ? 263
                                                  : r.fault == std::string{"SSE_INTERRUPT"} ? 101
                                                                                            : 100);
    bytes expected = eeprom_of(old);
    std::copy_n(image.begin(), done, expected.begin());
    EXPECT_EQ(now, expected);
  }
}

TEST_F(sprom_tool_dev, shows_its_progress_on_a_terminal) {
  save(path("sup"), device_image(SPROM_TYPE_SUP, 11080));
  surroundings.err_is_terminal = true;
  const auto result = dorvan({"write", "-y", path("sup")});
  EXPECT_EQ(result.status, 0);
  std::string expected;
  for (int i = 0; i <= 334; ++i)
    expected += "\rSUPERVISOR: " + std::to_string(i) + " of 334 bytes written";
  EXPECT_EQ(result.err, expected + "\n");
  EXPECT_THAT(result.out, EndsWith("SUPERVISOR: 334 bytes written and read back\n"));
}
