// The `sprom` program on image files.
#include "tests/support/sprom_tool.h"

using testing::EndsWith;
using testing::HasSubstr;
using testing::StartsWith;

namespace {

struct tool_kind {
  uint32_t type;
  std::string name;
  bytes versions;  // of the blocks
};
// clang-format off
const std::vector<tool_kind> tool_kinds{
    {SPROM_TYPE_SUP, "sup", {3, 2, 1}},
    {SPROM_TYPE_BP,  "bp",  {3, 3, 1, 1}},
    {SPROM_TYPE_LC,  "lc",  {3, 2}},
    {SPROM_TYPE_PS,  "ps",  {3, 2}},
    {SPROM_TYPE_FAN, "fan", {3, 3}},
};
// clang-format on

// The valid image of a kind whose fields are zero.
bytes zero_image(const tool_kind &kind) {
  bytes image(device_image(kind.type).size());
  for (size_t i = 0; i < kind.versions.size(); ++i) {
    const test_block &block = test_blocks.at(kind.type)[i];
    image[block.offset] = static_cast<uint8_t>(block.signature >> 8);
    image[block.offset + 1] = static_cast<uint8_t>(block.signature);
    image[block.offset + 2] = kind.versions[i];
    image[block.offset + 3] = static_cast<uint8_t>(block.length);
  }
  seal_image(&image, kind.type);
  return image;
}

// Turns what `show` prints into the options that set the fields; signatures, lengths and checksums are left out.
constexpr const char *as_options = R"( | sed -zE 's/\n {20}/ /g' | sed -nE 's/^  ([a-z][a-z0-9_]*) *(.*)/--\1=\2/p' |)"
                                   R"( grep -vE '_(signature|length|checksum)=' | xargs -d '\n' sprom )";

// A command that fails, and the end of what it says.
struct refusal {
  std::string command;
  std::string err;
};

}  // namespace

TEST_F(sprom_tool, puts_values_where_the_chip_has_them) {
  struct row {
    size_t kind;
    std::string options;
    size_t offset;
    bytes expected;
  };
  // clang-format off
  const std::vector<row> rows{
      {0, "--hw_change_bits=0x0102030405060708",             174, {1, 2, 3, 4, 5, 6, 7, 8}},
      {0, "--hw-change-bits=18446744073709551615",           174, bytes(8, 255)},
      {0, "--field=card-index=0x2AFC --field num_190=010",   182, {0x2A, 0xFC, 0, 0, 0, 0, 0, 0, 0, 10}},
      {0, "--card-index 1 --card=2",                         182, {0, 2}},
      {1, "--bytes_461='00:11 22334455667788 99'",           461, {0, 0x11, 0x22, 0x33, 0x44, 0x55, 0x66, 0x77, 0x88, 0x99}},
      {2, R"(--serial_number='a \xff\\\x00"ijklmnopqrstu ')", 54, {'a', ' ', 255, '\\', 0,   '"', 'i', 'j', 'k', 'l',
                                                                   'm', 'n', 'o', 'p',  'q', 'r', 's', 't', 'u', ' '}},
      {3, "--num_174=0x0102 --num_178=3",                    174, {1, 2, 0, 0, 0, 3}},
      {4, "--num_174=0x0102 --num_184=65535",                174, {0, 0, 0, 0, 0, 0, 1, 2, 0, 0, 255, 255}},
  };
  // clang-format on
  for (const row &r : rows) {
    SCOPED_TRACE(r.options);
    const tool_kind &kind = tool_kinds[r.kind];
    const auto result = sh("sprom make " + kind.name + " -f new " + r.options);
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(load("new"), patched(zero_image(kind), kind.type, r.offset, r.expected));
  }
}

// What `show` prints is what `make` and `edit` take: the image comes out byte for byte.
TEST_F(sprom_tool, makes_and_copies_images_of_every_kind) {
  for (const tool_kind &kind : tool_kinds) {
    SCOPED_TRACE(kind.name);
    const auto result = sh("sprom make " + kind.name + " to && sprom verify -f to && sprom list -jf to");
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.out, R"({"family":null,"sproms":[{"name":"to","slot":null,"index":null,"kind":")" + kind.name +
                              "\",\"size\":" + std::to_string(zero_image(kind).size()) + "}]}\n");
    EXPECT_EQ(load("to"), zero_image(kind));

    const bytes image = device_image(kind.type);
    save("from", image);
    for (const std::string &command : {"make " + kind.name + " -f to", std::string{"edit --yes --file=to"}}) {
      save("to", zero_image(kind));
      EXPECT_EQ(sh("sprom show -f from" + (as_options + command)).status, 0);
      EXPECT_EQ(load("to"), image);
    }
    save("to", zero_image(kind));
    EXPECT_EQ(sh("sprom write -y -f to from && sprom dump -f to copy").status, 0);
    EXPECT_EQ(load("copy"), image);
  }
}

TEST_F(sprom_tool, shows_fields_and_verdicts) {
  bytes image = patched(zero_image(tool_kinds[3]), SPROM_TYPE_PS, 34, {'P', 0x7F, '~', 27, '\\', '"', 0xE9, ' ', 255});
  image = patched(image, SPROM_TYPE_PS, 166, {1, 2, 3, 4, 5, 6, 7, 8, 9, 10});
  image[163] = 37;
  save("ps", image);
  auto result = sh("sprom show -f ps");
  EXPECT_THAT(result.out, StartsWith(R"(ps: power supply image, 196 bytes

Power Supply Common Header, 160 bytes at offset 0: good
  common_signature  0xabab
)"));
  EXPECT_THAT(result.out, HasSubstr(R"(
  bytes_14          00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00
                    00 00 00 00
  product_id        P\x7f~\x1b\\"\xe9
  serial_number
  bytes_74          00 )"));
  EXPECT_THAT(result.out, HasSubstr(R"(

Power Supply Main, 36 bytes at offset 160: BAD
  Power Supply Main block length mismatch.    Found 0x0025, expected 0x0024.
  Power Supply Main block checksum mismatch.  Found 0x0109, expected 0x010a.
  main_signature    0xab01
)"));
  result = sh("sprom show --json -f ps");
  EXPECT_EQ(result.status, 0);
  EXPECT_THAT(result.out,
              StartsWith(R"({"name":"ps","slot":null,"index":null,"kind":"ps","size":196,"good":false,"blocks":[)"
                         R"({"name":"Power Supply Common Header","offset":0,"length":160,"good":true,"messages":[],)"
                         R"("fields":{"common_signature":"0xabab","common_version":"0x03",)"));
  EXPECT_THAT(result.out, HasSubstr(R"(,"product_id":"P\u007f~\u001b\\\"\u00e9","serial_number":"","bytes_74":"00)"));
  EXPECT_THAT(result.out, HasSubstr(R"(0"}},{"name":"Power Supply Main","offset":160,"length":36,"good":false,)"
                                    R"("messages":["Power Supply Main block length mismatch.    Found 0x0025, )"));
  EXPECT_THAT(result.out, EndsWith(R"(:"0x0102030405060708","num_174":"0x090a","num_176":"0x0000","num_178":"0x0000",)"
                                   R"("bytes_180":"00000000000000000000000000000000"}}]})"
                                   "\n"));
}

TEST_F(sprom_tool, tells_a_defect_in_any_block) {
  for (const tool_kind &kind : tool_kinds) {
    for (const test_block &block : test_blocks.at(kind.type)) {
      save("bad", with_byte(zero_image(kind), block.offset + block.length - 1, 0xFF));
      const auto result = sh("sprom verify --file bad");
      EXPECT_EQ(result.status, 1);
      EXPECT_THAT(result.out, StartsWith(std::string{block.label} + " block checksum mismatch.  Found "));
      EXPECT_EQ(result.err, "");
    }
  }
  // Every defect, in the order of the blocks. A file's name may be anything.
  save("\"\\\n\xFC", patched(zero_image(tool_kinds[0]), SPROM_TYPE_SUP, 160, {0x70, 2, 2, 0}));
  const auto result = sh("sprom verify -jf '\"\\\n\xFC'");
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.out, R"({"good":false,"sproms":[{"name":"\"\\\u000a\u00fc","slot":null,"index":null,"kind":"sup",)"
                        R"("size":334,"read":true,"good":false,"messages":[)"
                        R"("Supervisor Main block signature mismatch. Found 0x7002, expected 0x6002.",)"
                        R"("Supervisor Main block length mismatch.    Found 0x0100, expected 0x0067."]}]})"
                        "\n");
}

TEST_F(sprom_tool, leaves_files_whole_when_anything_fails) {
  const bytes old = zero_image(tool_kinds[1]);
  save("from", device_image(SPROM_TYPE_BP));
  save("to", old);
  // clang-format off
  for (const refusal &r : std::vector<refusal>{
           {"sprom verify -f /dev/null",                                   "/dev/null: 0 bytes: no kind of image has this size"},
           {"head -c 161 from >bad; sprom dump -f bad new",                "bad: 161 bytes: no kind of image has this size"},
           {"head -c 162 from >bad; sprom show -f bad",                    "bad: 162 bytes, but a backplane image has 471: the file is truncated"},
           {"head -c 470 from >bad; sprom write -y --force -f to bad",     "bad: 470 bytes, but a backplane image has 471: the file is truncated"},
           {"cat from - >bad <<.\n\n.\nsprom write -y --force -f to bad",  "bad: 472 bytes, but a backplane image has 471: the file is too long"},
           {"cat from /dev/zero | sprom verify -f /dev/stdin",             "/dev/stdin: more than 65536 bytes, but a backplane image has 471: the file is too long"},
           {"sprom make fan bad; sprom write -y --force -f to bad",        "bad: 192 bytes: this is a fan image, not a backplane image"},
           {"sprom show -f none",                                          "none: cannot read: No such file or directory"},
           {"sprom write -y -f to none",                                   "none: cannot read: No such file or directory"},
           {"sprom dump -f to none/x",                                     "none/x: cannot write: No such file or directory"},
           {"sprom dump -f to .",                                          ".: cannot write: Is a directory"},
           {"sprom dump -f to /dev/full",                                  "/dev/full: cannot write: No space left on device"},
           {"sprom show -f to >/dev/full",                                 "cannot write the output: No space left on device"},
           {"prlimit --fsize=300 sprom dump -f from to",                   "to: cannot write: File too large"},
           {"prlimit --fsize=300 sprom dump -f from new",                  "new: cannot write: File too large"},
           {"prlimit --fsize=300 sprom edit -y -f to --num_6=1",           "to: cannot write: File too large"},
           {"prlimit --fsize=300 sprom write -y -f to from >/dev/null",    "to: cannot write: File too large"}}) {
    // clang-format on
    SCOPED_TRACE(r.command);
    const auto result = sh(r.command);
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.err, "sprom: " + r.err + "\n");
    EXPECT_THAT(result.out, Not(HasSubstr("written")));
    EXPECT_EQ(load("to"), old);
    EXPECT_EQ(sh("rm -f bad; ls").out, "from\nto\n");
  }
  // A file keeps its mode, a link its target; pipes serve as files.
  const auto result =
      sh("chmod 640 to; ln -s to link; sprom dump -f from link && test -L link && stat -c %a to\n"
         "sprom dump -f to /dev/stdout | sprom list -f /dev/stdin");
  EXPECT_THAT(result.out, AllOf(StartsWith("640\n"), EndsWith("bp      471\n")));
  EXPECT_EQ(load("to"), device_image(SPROM_TYPE_BP));
}

TEST_F(sprom_tool, says_what_a_write_changes) {
  const bytes from = device_image(SPROM_TYPE_SUP);
  bytes to = patched(from, SPROM_TYPE_SUP, 34, {'A', 'B', 'C'});
  to = patched(to, SPROM_TYPE_SUP, 182, {0x2A, 0xFC});
  to = patched(to, SPROM_TYPE_SUP, 186, {0});
  to = patched(to, SPROM_TYPE_SUP, 300, {0x3F, 0x38});
  save("from", from);
  save("to", to);
  const auto result = sh("sprom write --yes --file to from && sprom write --yes --file to from");
  EXPECT_EQ(result.err, "");
  EXPECT_EQ(result.out, R"(to: supervisor image, 334 bytes
  common_checksum   0x4b1a -> 0x4d3c
  product_id        "ABC\x06\x0d\x14\x1b")07>ELSZahov" -> "\xf1\xf8\xff\x06\x0d\x14\x1b")07>ELSZahov"
  main_checksum     0x3303 -> 0x331b
  card_index        0x2afc -> 0x2afb
  bytes_184         0b 12 00 20 27 2e -> 0b 12 19 20 27 2e
  sensor_checksum   0x23b1 -> 0x23af
  bytes_269         2 of 65 bytes differ, the first at offset 300
to: 334 bytes written and read back
to: holds this image already; nothing to write
)");
  EXPECT_EQ(load("to"), from);
}

TEST_F(sprom_tool, edits_only_the_blocks_of_its_fields_and_hides_no_defect) {
  const bytes bad = with_byte(device_image(SPROM_TYPE_BP), 300, 0);
  save("bp", bad);
  auto result = sh("sprom edit -y -f bp --product-id=X");
  EXPECT_EQ(result.status, 1);
  EXPECT_THAT(result.err, StartsWith("Backplane WWN block checksum mismatch.  "));
  EXPECT_THAT(result.err, EndsWith("\nsprom: bp: a bad image; nothing is written without --force\n"));
  EXPECT_EQ(load("bp"), bad);
  result = sh("sprom edit -y --force -f bp --hw-change-bits=0x102 --bytes_461=00112233445566778899");
  EXPECT_EQ(result.status, 0);
  bytes expected = patched(device_image(SPROM_TYPE_BP), SPROM_TYPE_BP, 174, {0, 0, 0, 0, 0, 0, 1, 2});
  expected = patched(expected, SPROM_TYPE_BP, 461, {0, 0x11, 0x22, 0x33, 0x44, 0x55, 0x66, 0x77, 0x88, 0x99});
  EXPECT_EQ(load("bp"), with_byte(expected, 300, 0));
}

TEST_F(sprom_tool, asks_before_it_writes) {
  const bytes old = zero_image(tool_kinds[2]);
  save("from", device_image(SPROM_TYPE_LC));
  save("bad", with_byte(device_image(SPROM_TYPE_LC), 100, 0));
  const std::string terminal = " | script -qec 'sprom write -f to from' /dev/null";
  struct row {
    std::string command;
    bool is_written;
    std::string said;
  };
  // clang-format off
  const std::vector<row> rows{
      {"sprom write -f to from",              false, "sprom: to: not written: there is no terminal to ask on; --yes"},
      {"echo y | sprom write -f to from",     false, "sprom: to: not written: there is no terminal to ask on; --yes"},
      {"echo y" + terminal,                   true,  "Write to to? [y/N] "},
      {"echo n" + terminal,                   false, "sprom: to: not written"},
      {"echo" + terminal,                     false, "sprom: to: not written"},
      {"printf '\\4'" + terminal,             false, "sprom: to: not written"},
      {"sprom write -f to from -y",           true,  "to: 263 bytes written and read back"},
      {"sprom write -f to bad -y",            false, "sprom: bad: a bad image; nothing is written without --force"},
      {"sprom write -f to bad --force",       false, "sprom: to: not written: there is no terminal to ask on; --yes"},
  };
  // clang-format on
  for (const row &r : rows) {
    SCOPED_TRACE(r.command);
    save("to", old);
    const auto result = sh(r.command);
    EXPECT_EQ(result.status, r.is_written ? 0 : 1);
    EXPECT_THAT(result.out + result.err, HasSubstr(r.said));
    EXPECT_EQ(load("to"), r.is_written ? load("from") : old);
  }
  EXPECT_THAT(sh("sprom write -f to bad --force -y").err,
              StartsWith("Line card Common Header block checksum mismatch."));
  EXPECT_EQ(load("to"), load("bad"));
}

TEST_F(sprom_tool, refuses_bad_values_and_wrong_usage) {
  const std::string edit = "edit -y -f sup --serial_number=S ";
  // clang-format off
  const std::vector<refusal> rows{
      {edit + "--card_index=",                       "card_index: '' is no number"},
      {edit + "--card_index=-1",                     "card_index: '-1' is no number"},
      {edit + "--card_index=65536",                  "card_index: '65536' does not fit in 16 bits"},
      {edit + "--num_166=18446744073709551616",      "num_166: '18446744073709551616' does not fit in 64 bits"},
      {edit + "--product-id=123456789012345678901",  "product_id: '123456789012345678901' is longer than 20 characters"},
      {edit + "--product_id='a\\x1'",                "product_id: 'a\\\\x1' has a bad escape (\\\\ and \\xNN are known)"},
      {edit + "--bytes_262=",                        "bytes_262: '' has 0 bytes, the field 1"},
      {edit + "--bytes_262=11:",                     "bytes_262: '11:' is no run of hex digit pairs"},
      {edit + "--main_checksum=1",                   "main_checksum is computed"},
      {edit + "--sensor_length=1",                   "sensor_length belongs to the format"},
      {edit + "--num_182=1",                         "a supervisor image has no field num_182 (see 'sprom fields')"},
      {edit + "--field=card_index",                  "--field takes NAME=VALUE, not 'card_index'"},
      {edit + "--colour=red",                        "unrecognized option '--colour=red'"},
      {"",                                           "a command is missing"},
      {"lost",                                       "lost: no such command"},
      {"list -F else",                               "else: no such family (dorvan, pellin, tosk)"},
      {"list -F tosk -f sup",                        "--family does not go with --file"},
      {"list x",                                     "usage: sprom list"},
      {"list --yes",                                 "list takes no --yes"},
      {"show",                                       "a SPROM or --file is missing"},
      {"verify PS1 -f sup",                          "--file stands in place of a SPROM"},
      {"write a b c",                                "usage: sprom write [SPROM] FILE"},
      {"edit -f sup",                                "no --FIELD=VALUE to change"},
      {"make ps",                                    "the FILE to make is missing"},
      {"make dimm new",                              "dimm: this kind has no layout"},
  };
  // clang-format on
  const bytes image = device_image(SPROM_TYPE_SUP);
  save("sup", image);
  for (const refusal &r : rows) {
    SCOPED_TRACE(r.command);
    const auto result = sh("sprom " + r.command);
    EXPECT_EQ(result.status, 2);
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(result.err, "sprom: " + r.err + "\nTry 'sprom --help' for more information.\n");
    EXPECT_EQ(load("sup"), image);
    EXPECT_EQ(sh("ls").out, "sup\n");
  }
  const auto result = sh("sprom show --help && sprom --version && sprom fields fan");
  EXPECT_EQ(result.status, 0);
  EXPECT_THAT(result.out, StartsWith("Usage: sprom COMMAND "));
  EXPECT_THAT(result.out, HasSubstr("\nsprom 1."));
  EXPECT_THAT(result.out, HasSubstr("\nmain_checksum         164     2  number  computed\n"));
}
