// The `sprom` program on image files.
#include "tests/support/sprom_tool.h"

namespace {

// With the versions of their blocks.
// clang-format off
struct tool_kind { uint32_t type; std::string name; bytes versions; };
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
  for (size_t i = 0; i < kind.versions.size(); ++i)
    image[test_blocks.at(kind.type)[i].offset + 2] = kind.versions[i];
  make_valid(&image, kind.type);
  return image;
}

struct tool_case {
  std::string command;
  int status;
  std::string said;  // the end of what goes to both streams
};

// Compares the status, and how what went to both streams ends; "" stands for nothing.
void expect(const outcome &run, int status, const std::string &said) {
  SCOPED_TRACE(run.command);
  const std::string text = run.out + run.err;
  EXPECT_EQ(run.status, status) << text;
  EXPECT_THAT(text, EndsWith(said));
  EXPECT_EQ(text.empty(), said.empty());
}

}  // namespace

TEST_F(sprom_tool, puts_values_where_the_chip_has_them) {
  // clang-format off
  const struct { size_t number; std::string options; size_t offset; bytes expected; } rows[]{
      {0, "--hw_change_bits=0x0102030405060708",             174, {1, 2, 3, 4, 5, 6, 7, 8}},
      {0, "--hw-change-bits=18446744073709551615",           174, bytes(8, 255)},
      {0, "--field=card-index=0x2AFC --field num_190=010",   182, {0x2A, 0xFC, 0, 0, 0, 0, 0, 0, 0, 10}},
      {0, "--card-index 1 --card=2",                         182, {0, 2}},
      {1, "--bytes_461='00:11 22334455667788 99'",                         461, {0, 0x11, 0x22, 0x33, 0x44, 0x55, 0x66, 0x77, 0x88, 0x99}},
      {2, R"(--serial_number='a \xff\\\x00"ijklmnopqrstu ')", 54, {'a', ' ', 255, '\\', 0,   '"', 'i', 'j', 'k', 'l',
                                                                   'm', 'n', 'o', 'p',  'q', 'r', 's', 't', 'u', ' '}},
      {3, "--num_174=0x0102 --num_178=3",                    174, {1, 2, 0, 0, 0, 3}},
      {4, "--num_174=0x0102 --num_184=65535",                174, {0, 0, 0, 0, 0, 0, 1, 2, 0, 0, 255, 255}},
  };
  // clang-format on
  for (const auto &[number, options, offset, expected] : rows) {
    SCOPED_TRACE(options);
    const tool_kind &kind = tool_kinds[number];
    expect_run(sh("sprom make " + kind.name + " -f new " + options), 0, "");
    EXPECT_EQ(load("new"), patched(zero_image(kind), kind.type, offset, expected));
  }
}

// What `show --json` prints is what `make` and `edit` take: the image comes out byte for byte, its padding too.
TEST_F(sprom_tool, makes_and_copies_images_of_every_kind) {
  for (const tool_kind &kind : tool_kinds) {
    SCOPED_TRACE(kind.name);
    expect_run(sh("sprom make " + kind.name + " to && sprom verify -f to && sprom list -jf to"), 0,
               R"({"family":null,"sproms":[{"name":"to","slot":null,"index":null,"kind":")" + kind.name +
                   "\",\"size\":" + std::to_string(zero_image(kind).size()) + "}]}\n");
    EXPECT_EQ(load("to"), zero_image(kind));

    bytes image = device_image(kind.type);
    std::fill_n(&image[60], 14, ' ');
    std::fill_n(&image[45], 9, 0);
    seal_image(&image, kind.type);
    save("from", image);
    for (const std::string &command :
         {"make " + kind.name + " to --from -", std::string{"edit -y -f to --from=/dev/stdin"}}) {
      save("to", zero_image(kind));
      EXPECT_EQ(sh("sprom show -jf - <from | sprom " + command).status, 0);
      EXPECT_EQ(load("to"), image);
    }
    save("to", zero_image(kind));
    EXPECT_EQ(sh("sprom write -y -f to - <from && sprom dump -f to - >copy").status, 0);
    EXPECT_EQ(load("copy"), image);
  }
}

TEST_F(sprom_tool, shows_fields_and_verdicts) {
  bytes image = patched(zero_image(tool_kinds[3]), SPROM_TYPE_PS, 34, {'P', 0x7F, '~', 27, '\\', '"', 0xE9, ' ', 255});
  image = patched(image, SPROM_TYPE_PS, 166, {1, 2, 3, 4, 5, 6, 7, 8, 9, 10});
  image[163] = 37;
  save("ps", image);
  const std::string shown = sh("sprom show -f ps").out;
  for (const char *part : {R"(ps: power supply image, 196 bytes

Power Supply Common Header, 160 bytes at offset 0: good
  common_signature  0xabab
)",
                           R"(
                    00 00 00 00
  product_id        P\x7f~\x1b\\"\xe9
  serial_number
  bytes_74          00 )",
                           R"(

Power Supply Main, 36 bytes at offset 160: BAD
  Power Supply Main block length mismatch.    Found 0x0025, expected 0x0024.
  Power Supply Main block checksum mismatch.  Found 0x0109, expected 0x010a.
  main_signature    0xab01
)"})
    EXPECT_THAT(shown, HasSubstr(part));
  for (const char *part : {R"({"name":"ps","slot":null,"index":null,"kind":"ps","size":196,"good":false,"blocks":[)"
                           R"({"name":"Power Supply Common Header","offset":0,"length":160,"good":true,"messages":[],)"
                           R"("fields":{"common_signature":"0xabab","common_version":"0x03",)",
                           R"(,"product_id":"P\u007f~\u001b\\\"\u00e9 \u00ff","serial_number":"","bytes_74":"00)",
                           R"(0"}},{"name":"Power Supply Main","offset":160,"length":36,"good":false,)"
                           R"("messages":["Power Supply Main block length mismatch.    Found 0x0025, )",
                           R"(:"0x0102030405060708","num_174":"0x090a","num_176":"0x0000","num_178":"0x0000",)"
                           R"("bytes_180":"00000000000000000000000000000000"}}]})"})
    expect_run(sh("sprom show --json -f ps"), 0, HasSubstr(part));
  // Each defect is told, in the order of the blocks. A file's name may be anything, and reaches no terminal as it is.
  save("\"\\\n\xFC", patched(zero_image(tool_kinds[0]), SPROM_TYPE_SUP, 160, {0x70, 2, 2, 0}));
  expect(sh("sprom verify -jf '\"\\\n\xFC'"), 1,
         R"({"good":false,"sproms":[{"name":"\"\\\n\u00fc","slot":null,"index":null,"kind":"sup",)"
         R"("size":334,"state":"present","bus":null,"address":null,"byte":null,"errno":null,"error":null,)"
         R"("good":false,"messages":[)"
         R"("Supervisor Main block signature mismatch. Found 0x7002, expected 0x6002.",)"
         R"("Supervisor Main block length mismatch.    Found 0x0100, expected 0x0067."]}]})"
         "\n");
}

// What stands in a directory under a name is replaced as a whole; what is open, or is no plain file, is written to.
TEST_F(sprom_tool, writes_where_a_name_leads) {
  const bytes image = device_image(SPROM_TYPE_PS);
  const std::string text(image.begin(), image.end());
  save("from", image);
  // What is printed, and what a file then holds.
  // clang-format off
  const struct { std::string command, out, file, content; } rows[]{
      {"touch to; chmod 640 to; sprom dump -f from to; stat -c %a to",                  "640\n",  "to",      text},
      {"sprom dump -f from link; readlink link",                                       "sub/to\n", "sub/to", text},  // dangling
      {"echo old >sub/to; sprom dump -f from link; readlink link",                     "sub/to\n", "sub/to", text},
      {"ln -sf \"$PWD/link\" over; sprom dump -f from over; readlink over | sed 's,.*/,,'", "link\n", "sub/to", text},
      {"echo old >log; sprom dump -f from /dev/stdout >>log",                          "",       "log",     "old\n" + text},
      {"{ echo old; sprom dump -f from /dev/fd/1; echo new; } >log",                   "",       "log",     "old\n" + text + "new\n"},
      {"{ echo old; sprom dump -f from -; echo new; } >log",                           "",       "log",     "old\n" + text + "new\n"},
      {"exec 7>log; (sprom dump -f from /proc/$$/fd/7) 7>&-; true",                    "",       "log",     text},  // another's
      {"exec 7>log; (sprom dump -f from /proc/$$/fd/7) 7<from; true",                  "",       "log",     text},
      {"sprom dump -f from /dev/stdout | cat",                                         text,     "from",    text},
      {"mkfifo pipe; cat pipe & sprom dump -f from pipe; wait; test -p pipe",          text,     "from",    text},
  };
  // clang-format on
  for (const auto &[command, out, file, content] : rows) {
    SCOPED_TRACE(command);
    const bool is_named = command.find("from -;") == std::string::npos;
    expect_run(sh("mkdir sub; ln -s sub/to link\n" + command), 0, out,
               EndsWith(is_named ? ": 196 bytes of from\n" : ""));
    EXPECT_EQ(read_file(path(file)), content);
    EXPECT_EQ(sh("rm -rf sub link over log to pipe; ls").out, "from\n");
  }
}

static const std::string differences = R"--(  common_checksum   0x4b1a -> 0x4d3c
    0x0004: 4b -> 4d
    0x0005: 1a -> 3c
  product_id        "ABC\x06\x0d\x14\x1b")07>ELSZahov" -> "\xf1\xf8\xff\x06\x0d\x14\x1b")07>ELSZahov"
    0x0022: 41 -> f1
    0x0023: 42 -> f8
    0x0024: 43 -> ff
  main_checksum     0x3303 -> 0x331b
    0x00a5: 03 -> 1b
  card_index        0x2afc -> 0x2afb
    0x00b7: fc -> fb
  bytes_184         0b 12 00 20 27 2e -> 0b 12 19 20 27 2e
    0x00ba: 00 -> 19
  sensor_checksum   0x23b1 -> 0x23af
    0x010c: b1 -> af
  bytes_269         2 of 65 bytes differ, the first at offset 300
    0x012c: 3f -> 37
    0x012d: 38 -> 3e
)--";

TEST_F(sprom_tool, says_what_differs_and_what_a_write_changes) {
  const bytes from = device_image(SPROM_TYPE_SUP);
  bytes to = patched(from, SPROM_TYPE_SUP, 34, {'A', 'B', 'C'});
  to = patched(to, SPROM_TYPE_SUP, 182, {0x2A, 0xFC});
  to = patched(to, SPROM_TYPE_SUP, 186, {0});
  to = patched(to, SPROM_TYPE_SUP, 300, {0x3F, 0x38});
  save("from", from);
  save("to", to);
  const std::string changes = std::regex_replace(differences, std::regex("\n    0x.*"), "");
  const std::string head = "to: supervisor image, 334 bytes\n";
  // clang-format off
  const struct { std::string command; int status; std::string out; bool is_written; } rows[]{
      {"diff to from",                     1, "to and from: 11 of 334 bytes differ\n" + differences, false},
      {"diff ./to ./to",                   0, "",                                                    false},
      {"write --dry-run --file to from",   0, head + changes,                                        false},
      {"edit -nf to --num_6=0x2d34",       0, "to: holds this image already; nothing to write\n",    false},
      {"write --yes --file to from",       0, head + changes + "to: written\n",                      true},
      {"write --yes --file to from",       0, "to: holds this image already; nothing to write\n",    true},
  };
  // clang-format on
  for (const auto &[command, status, out, is_written] : rows) {
    SCOPED_TRACE(command);
    expect_run(sh("sprom " + command), status, out, _);
    EXPECT_EQ(load("to"), is_written ? from : to);
  }
  EXPECT_EQ(sh("sprom edit -yf to --num_6=1 --backup=kept >out; cmp kept from; rm kept out; ls .old").out, "");
}

// The dump of a whole EEPROM serves as a file, too.
TEST_F(sprom_tool, finds_the_images_in_the_dump_of_an_eeprom) {
  const bytes sup = device_image(SPROM_TYPE_SUP), bp = with_byte(device_image(SPROM_TYPE_BP), 300, 0);
  bytes small = device_image(SPROM_TYPE_PS);
  small.resize(256);
  save("large", eeprom_with(sup, bp));
  save("small", small);
  save("sup", sup);
  const std::string checksum = "  Backplane WWN block checksum mismatch.  Found 0x7d46, expected 0x7d0f.\n";
  // clang-format off
  const tool_case cases[]{
      {"list -f small",                       0, "small            -      -  ps      196  -                 -\n"},
      {"verify -f large",                     1, "large (supervisor image): good\nlarge (backplane image): BAD\n" + checksum},
      {"verify -f large SUPERVISOR",          0, ""},
      {"get -f large Backplane num_182",      0, "0x2afb\n"},
      {"get -f small product-id",             0, R"(\xf1\xf8\xff\x06\x0d\x14\x1b")07>ELSZahov)" "\n"},
      {"get -f large num_182",                1, "sprom: large: holds 2 images; name the kind that is meant\n"},
      {"show -f large | grep -B1 ^large",     0, "large (supervisor image): supervisor image, 334 bytes\n--\n\nlarge (backplane image): backplane image, 471 bytes\n"},
      {"verify -f large 0,0",                 2, "sprom: 0,0: with --file, a SPROM is named by its kind (sup, bp, lc, ps, fan)\nTry 'sprom --help' for more information.\n"},
      {"diff large sup",                      2, "sprom: large: holds 2 images; name the kind that is meant\n"},
      {"diff sup large",                      0, ""},
      {"dump -f large sup copy",              0, "sprom: copy: 334 bytes of large (supervisor image)\n"},
      {"dump --hex -f small | tail -3",       0, "000000b0  d3 da e1 e8 ef f6 2a fb  0b 12 19 20 27 2e 35 3c  |......*.... '.5<|\n"
                                                 "000000c0  43 4a 51 58                                       |CJQX|\n000000c4\n"},
      {"make ps x --bytes_14=0000000000000000000000000000000000000000; sprom dump --hex -f x | sed -n '2,4p'", 0,
                                                 "00000010  00 00 00 00 00 00 00 00  00 00 00 00 00 00 00 00  |................|\n*\n"
                                                 "000000a0  ab 01 02 24 00 d2 00 00  00 00 00 00 00 00 00 00  |...$............|\n"},
      {"dump --raw -f large x",               2, "sprom: --raw reads a SPROM's EEPROM, not a file\nTry 'sprom --help' for more information.\n"},
      {"edit -y -f large sup --num_6=7",      0, "large (supervisor image): written\n"},
  };
  // clang-format on
  for (const tool_case &c : cases)
    expect(sh("sprom " + c.command), c.status, c.said);
  EXPECT_EQ(load("copy"), sup);
  EXPECT_EQ(load("large"), eeprom_with(patched(sup, SPROM_TYPE_SUP, 6, {0, 7}), bp));
}

// Where the boards have images, whatever is not blank is one; it is an error where nothing says of which kind.
TEST_F(sprom_tool, overlooks_nothing_in_the_dump_of_an_eeprom) {
  const bytes sup = device_image(SPROM_TYPE_SUP), bp = device_image(SPROM_TYPE_BP), none;
  const bytes bad_sup = with_byte(sup, 160, 0x70), bad_bp = with_byte(bp, 161, 0x70);
  const bytes one = with_byte(bytes(471, 0xFF), 470, 0);
  const std::string unknown = "neither blank nor an image of a known kind: its first signature is 0x";
  const std::string at_0 = unknown + "abab, that of its main block 0x7002\n";
  // clang-format off
  const struct { bytes first, second; tool_case with; } rows[]{
      {bad_sup, bp,         {"verify -f dump",                  1, "dump (offset 0x0000): BAD\n  " + at_0 + "dump (backplane image): good\n"}},
      {sup,     bad_bp,     {"verify -f dump",                  1, "dump (supervisor image): good\ndump (offset 0x1000): BAD\n  " + unknown + "abab, that of its main block 0x6070\n"}},
      {sup,     one,        {"verify -f dump",                  1, "\n  " + unknown + "ffff, that of its main block 0xffff\n"}},
      {sup,     bytes(471), {"verify -f dump",                  0, ""}},
      {bad_sup, none,       {"verify -f dump",                  1, at_0}},
      {bad_sup, bp,         {"verify -jf dump | cut -c 1-98",   0, R"({"good":false,"sproms":[{"name":"dump","slot":null,"index":null,"kind":null,"size":null,"state":"p)" "\n"}},
      {bad_sup, bp,         {"verify -f dump sup",              1, "Supervisor Main block signature mismatch. Found 0x7002, expected 0x6002.\n"
                                                                   "Supervisor Main block checksum mismatch.  Found 0x331b, expected 0x332b.\n"}},
      {bad_sup, bp,         {"verify -f dump bp",               0, ""}},
      {bad_sup, bp,         {"list -f dump",                    1, "dump             -      -  bp      471  -                 -\nsprom: dump (offset 0x0000): " + at_0}},
      {bad_sup, bp,         {"show -f dump | head -1",          0, "dump (backplane image): backplane image, 471 bytes\nsprom: dump (offset 0x0000): " + at_0}},
      {bad_sup, bp,         {"write -y -f dump sup >/dev/null && sprom verify -f dump", 0, "dump (supervisor image): good\ndump (backplane image): good\n"}},
  };
  // clang-format on
  save("sup", sup);
  for (const auto &[first, second, with] : rows) {
    save("dump", eeprom_with(first, second));
    expect(sh("sprom " + with.command), with.status, with.said);
  }
}

// What `show --json` printed of a good image makes one of any damage, if that is forced.
TEST_F(sprom_tool, mends_blank_and_damaged_images_by_json) {
  for (const tool_kind &kind : tool_kinds) {
    const bytes good = device_image(kind.type);
    save("good", good);
    ASSERT_EQ(sh("sprom show -jf good >json").status, 0);
    const size_t last = test_blocks.at(kind.type).back().offset;
    std::vector<bytes> damaged{bytes(good.size(), 0xFF), bytes(good.size())};
    for (const size_t at : {size_t{0}, size_t{3}, size_t{4}, size_t{70}, last, last + 3, last + 5, last + 7})
      damaged.push_back(with_byte(good, at, static_cast<uint8_t>(good[at] + 1)));
    for (const bytes &bad : damaged) {
      SCOPED_TRACE(kind.name + " " + std::to_string(&bad - damaged.data()));
      save("bad", bad);
      expect(sh("sprom edit -y -f bad --from json"), 1,
             "sprom: bad: a bad image; nothing is written without --force\n");
      EXPECT_EQ(load("bad"), bad);
      EXPECT_EQ(sh("sprom edit -y --force -f bad --from json").status, 0);
      EXPECT_EQ(load("bad"), good);
    }
  }
  // What is not given is not mended.
  save("bad", with_byte(zero_image(tool_kinds[3]), 162, 9));
  const std::string json = R"({"kind":"ps","blocks":[{"fields":{"common_length":160,"num_6":7}}]})";
  EXPECT_EQ(sh("echo '" + json + "' | sprom edit -y --force -f bad --from -").status, 0);
  EXPECT_EQ(load("bad"), with_byte(patched(zero_image(tool_kinds[3]), SPROM_TYPE_PS, 6, {0, 7}), 162, 9));
}

TEST_F(sprom_tool, takes_of_a_json_text_what_it_can_use_and_tells_the_rest) {
  const bytes old = zero_image(tool_kinds[3]);
  // The error is "" where the blocks are taken.
  // clang-format off
  const struct { std::string blocks, err; bytes expected; } rows[]{
      {R"([{"fields":{"num_174":770,"num_176":"0x0405","common_checksum":"0xFFFF"}}])",       "", patched(old, SPROM_TYPE_PS, 174, {3, 2, 4, 5})},
      {R"([{"fields":{"serial_number":"a\u00e9\\x41","main_length":"0x24"}},{"fields":{}}])", "", patched(old, SPROM_TYPE_PS, 54, {'a', 0xE9, '\\', 'x', '4', '1'})},
      {R"([{"fields":{"num_174":"0x10000"}}])",                "num_174: does not fit in 16 bits", old},
      {R"([{"fields":{"num_174":-1}}])",                       "num_174: is neither a text nor a number", old},
      {R"([{"fields":{"serial_number":"\u0100"}}])",           "serial_number: has characters above U+00FF", old},
      {R"([{"fields":{"main_length":"0x25"}}])",               "main_length: is 0x25, but belongs to the format, which has 0x24", old},
      {R"([{"fields":{"card_index":1}}])",                     "card_index: a power supply image has no such field", old},
      {R"([7])",                                               "a block without \"fields\"", old},
      {R"({})",                                                "this is not what 'sprom show --json' prints", old},
      {R"([],"kind":"fan")",                                   "this is no power supply image", old},
      {R"([}{)",                                               "this is not what 'sprom show --json' prints", old},
  };
  // clang-format on
  for (const auto &[blocks, err, expected] : rows) {
    SCOPED_TRACE(blocks);
    save("ps", old);
    const std::string json = R"({"kind":"ps","blocks":)" + blocks + "}";
    save("json", bytes(json.begin(), json.end()));
    expect(sh("sprom edit -y -f ps --from json"), err.empty() ? 0 : 1,
           err.empty() ? "ps: written\n" : "sprom: json: " + err + "\n");
    EXPECT_EQ(load("ps"), expected);
  }
}

TEST_F(sprom_tool, edits_only_the_blocks_of_its_fields_and_hides_no_defect) {
  const bytes bad = with_byte(device_image(SPROM_TYPE_BP), 300, 0);
  save("bp", bad);
  expect(sh("sprom edit -y -f bp --product-id=X"), 1,
         "Backplane WWN block checksum mismatch.  Found 0x7d46, expected 0x7d0f.\n"
         "sprom: bp: a bad image; nothing is written without --force\n");
  EXPECT_EQ(load("bp"), bad);
  EXPECT_EQ(sh("sprom edit -y --force -f bp --hw-change-bits=0x102 --bytes_461=00112233445566778899").status, 0);
  bytes expected = patched(device_image(SPROM_TYPE_BP), SPROM_TYPE_BP, 174, {0, 0, 0, 0, 0, 0, 1, 2});
  expected = patched(expected, SPROM_TYPE_BP, 461, {0, 0x11, 0x22, 0x33, 0x44, 0x55, 0x66, 0x77, 0x88, 0x99});
  EXPECT_EQ(load("bp"), with_byte(expected, 300, 0));
}

TEST_F(sprom_tool, asks_before_it_writes) {
  const bytes old = zero_image(tool_kinds[2]);
  save("from", device_image(SPROM_TYPE_LC));
  save("bad", with_byte(device_image(SPROM_TYPE_LC), 100, 0));
  const std::string terminal = " | script -qec 'sprom write -f to from' /dev/null";
  // The file that is written, and the end of what is said.
  // clang-format off
  const struct { std::string command, written, said; } rows[]{
      {"echo y" + terminal,                   "from", "to: written\r\n"},
      {"echo ' YeS '" + terminal,             "from", "to: written\r\n"},
      {"echo Yikes" + terminal,               "to",   "sprom: to: not written\r\n"},
      {"printf 'y%099d\\n' 0" + terminal,        "to",   "sprom: to: not written\r\n"},
      {"echo" + terminal,                     "to",   "sprom: to: not written\r\n"},
      {"printf '\\4'" + terminal,             "to",   "sprom: to: not written\r\n"},
      {"sprom write -f to bad --force",       "to",   "sprom: to: not written: there is no terminal to ask on; --yes writes without asking\n"},
      {"sprom write -f to bad --force -y",    "bad",  "to: written\nLine card Common Header block checksum mismatch.  Found 0x4d3c, expected 0x4c7d.\n"},
  };
  // clang-format on
  for (const auto &[command, written, said] : rows) {
    SCOPED_TRACE(command);
    save("to", old);
    expect(sh(command), written == "to" ? 1 : 0, said);
    EXPECT_EQ(load("to"), written == "to" ? old : load(written));
  }
  EXPECT_THAT(sh("echo n" + terminal).out, HasSubstr("Write to to? [y/N] "));
}

static const std::string edit = "sprom edit -y -f sup --serial_number=S ";
// clang-format off
static const struct { int status; std::string command, err; } refusals[]{
    {1, "sprom verify -f /dev/null",                                     "/dev/null: 0 bytes: no kind of image has this size"},
    {1, "head -c 470 from >bad; sprom write -y --force -f to bad",       "bad: 470 bytes, but a backplane image has 471: the file is truncated"},
    {1, "cat from - >bad <<.\n\n.\nsprom write -y --force -f to bad",    "bad: 472 bytes, but a backplane image has 471: the file is too long"},
    {1, "cat from /dev/zero | sprom verify -f -",                        "standard input: more than 65536 bytes, but a backplane image has 471: the file is too long"},
    {1, "head -c 65536 /dev/zero | sprom verify -f -",                   "standard input: no image in this dump of an EEPROM"},
    {1, "sprom make fan bad; sprom write -y --force -f to bp bad",       "bad: 192 bytes: this is a fan image, not a backplane image"},
    {1, "sprom show -f 'no\33[7m\\'",                                    "no\\x1b[7m\\\\: cannot read: No such file or directory (errno 2)"},
    {1, "sprom write -y -f to .",                                        ".: cannot read: Is a directory (errno 21)"},
    {1, "ln -s bad bad; sprom dump -f to bad",                           "bad: cannot write: Too many levels of symbolic links (errno 40)"},
    {1, "sprom dump -f to /dev/full",                                    "/dev/full: cannot write: No space left on device (errno 28)"},
    {1, "sprom show -f to >/dev/full",                                   "cannot write the output: No space left on device"},
    {1, "prlimit --fsize=300 sprom edit -y -f to --num_6=1",             "to: cannot write: File too large (errno 27)"},
    {1, "sprom write -y -f to --backup=none/x from",                     "to: not written: no backup of the old image: none/x: No such file or directory (errno 2); --backup names another file"},
    {2, edit + "--card_index=0xg1",                    "card_index: '0xg1' is no number"},
    {2, edit + "--card_index=0X10000",                 "card_index: '0X10000' does not fit in 16 bits"},
    {2, edit + "--num_166=18446744073709551616",       "num_166: '18446744073709551616' does not fit in 64 bits"},
    {2, edit + "--product-id=123456789012345678901",   "product_id: '123456789012345678901' is longer than 20 characters"},
    {2, edit + "--product_id='a\\xg0'",                "product_id: 'a\\\\xg0' has a bad escape (\\\\ and \\xNN are known)"},
    {2, edit + "--bytes_262=",                         "bytes_262: '' has 0 bytes, the field 1"},
    {2, edit + "--bytes_262=11:",                      "bytes_262: '11:' is no run of hex digit pairs"},
    {2, edit + "--main_checksum=1",                    "main_checksum is computed"},
    {2, edit + "--sensor_length=1",                    "sensor_length belongs to the format"},
    {2, edit + "--num_182=1",                          "a supervisor image has no field num_182 (did you mean 'num_12'?) (see 'sprom fields')"},
    {2, edit + "--field=card_index",                   "--field takes NAME=VALUE, not 'card_index'"},
    {2, "sprom",                                       "a command is missing"},
    {2, "sprom lost",                                  "lost: no such command (did you mean 'list'?)"},
    {2, "sprom list -F else",                          "else: no such family (dorvan, pellin, tosk)"},
    {2, "sprom list -F tosk -f sup",                   "--family does not go with --file"},
    {2, "sprom list --famly=tosk",                     "unknown option '--famly' (did you mean '--family'?)"},
    {2, "sprom list --f",                              "option '--f' can be --file, --family, --force, --field, --from"},
    {2, "sprom list --json -qj",                       "unknown option '-q'"},
    {2, "sprom list --json=1",                         "option '--json' takes no value"},
    {2, "sprom list -F",                               "option '--family' needs a value"},
    {2, "sprom list --yes",                            "list takes no --yes"},
    {2, "sprom show",                                  "a SPROM or --file is missing"},
    {2, "sprom verify PS1 -f sup",                     "PS1: with --file, a SPROM is named by its kind (sup, bp, lc, ps, fan)"},
    {2, "sprom edit -f - --num_6=1",                   "--file - can only be read"},
    {2, "sprom write sup --backup=x --no-backup",      "--backup does not go with --no-backup"},
    {2, "sprom dump -f sup",                           "the FILE to fill is missing"},
    {2, "sprom dump SUPERVISOR",                       "SUPERVISOR: the FILE to fill is missing; a file of that name is ./SUPERVISOR"},
    {2, "sprom dump -f sup bp",                        "bp: the FILE to fill is missing; a file of that name is ./bp"},
    {2, "sprom dump --hex -f sup sup x",               "--hex goes to standard output, not to a FILE"},
    {2, "sprom get -f sup supervisor",                 "supervisor: the FIELD to print is missing"},
    {2, "sprom get card_index",                        "card_index: the SPROM to read it from, or --file, is missing"},
    {2, "sprom diff 1,1",                              "1,1: the SPROM or FILE to compare it with is missing"},
    {2, "sprom verify --bus=3",                        "--bus needs --addr"},
    {2, "sprom verify --bus=3 --addr=0x52",            "with --bus and --addr, a SPROM is named by its kind (sup, bp, lc, ps, fan)"},
    {2, "sprom show --bus=i2c-3 --addr=0x52 ps",       "--bus takes the number of an I2C bus, 0 to 1048575, not 'i2c-3'"},
    {2, "sprom show --bus=3 --addr=0x60 ps",           "--addr takes the I2C address of an EEPROM, 0x50 to 0x5f, not '0x60'"},
    {2, "sprom show --bus=3 --addr=0x52 -f sup",       "--file does not go with --bus"},
    {2, "sprom show --bus=3 --addr=0x52 -F tosk ps",   "--family does not go with --bus"},
    {2, "sprom write --raw -y sup",                    "--raw needs the SPROM whose EEPROM to write"},
    {2, "sprom write --raw -y -f sup sup",             "--raw writes a SPROM's EEPROM, not a file"},
    {2, "sprom protect --on",                          "--on needs the SPROM to protect"},
    {2, "sprom write a b c",                           "usage: sprom write [SPROM] FILE"},
    {2, "sprom edit -f sup",                           "no --FIELD=VALUE to change, and no --from"},
    {2, "sprom make ps",                               "the FILE to make is missing"},
    {2, "sprom make dimm new",                         "dimm: this kind has no layout (sup, bp, lc, ps, fan have one)"},
    {2, "sprom fields dimms",                          "dimms: no such kind of image (sup, bp, lc, ps, fan)"},
};
// clang-format on

TEST_F(sprom_tool, refuses_what_is_wrong_and_leaves_files_whole) {
  const bytes from = device_image(SPROM_TYPE_BP), to = zero_image(tool_kinds[1]), sup = device_image(SPROM_TYPE_SUP);
  save("from", from);
  save("to", to);
  save("sup", sup);
  for (const auto &[status, command, err] : refusals) {
    SCOPED_TRACE(command);
    expect_run(sh(command), status, status == 2 ? testing::Matcher<std::string>("") : Not(HasSubstr("written")),
               "sprom: " + err + (status == 2 ? "\nTry 'sprom --help' for more information.\n" : "\n"));
    EXPECT_EQ(load("to"), to);
    EXPECT_EQ(load("sup"), sup);
    EXPECT_EQ(sh("rm -f bad; ls").out, "from\nsup\nto\n");
  }
}

TEST_F(sprom_tool, helps) {
  expect_run(sh("sprom show --help && sprom --version && sprom fields fan"), 0,
             ContainsRegex("^Usage: sprom COMMAND .*\nsprom 1.*\nmain_checksum  +164 +2  number   computed\n"));
  EXPECT_THAT(sh("sprom fields fan --json").out,
              StartsWith(R"({"kind":"fan","size":192,"fields":[{"name":"common_signature","offset":0,"width":2,)"
                         R"("type":"number","source":"format"},)"));
}

// A backup is a new file, or nothing is written.
TEST_F(sprom_tool, keeps_the_old_image_where_nothing_was_before) {
  const bytes old = zero_image(tool_kinds[3]), image = device_image(SPROM_TYPE_PS);
  const std::string write = "sprom write -y -f to from --backup=";
  const std::string in = "to: the old image is in ", not_written = "sprom: to: not written: ";
  const std::string numbers = "; --force numbers the backup\n", usage = "\nTry 'sprom --help' for more information.\n";
  // What is there before, and the file with the old image at the end, "" for none.
  // clang-format off
  const struct { std::string before, command; int status; std::string said, kept; } rows[]{
      {"",                          write + "kept",              0, in + "kept\nto: written\n",                                  "kept"},
      {"echo torn >kept",           write + "kept",              1, not_written + "kept exists already" + numbers,               ""},
      {"echo torn >kept",           write + "kept --force",      0, in + "kept-2\nto: written\n",                                "kept-2"},
      {"",                          write + "./to",              1, not_written + "./to is the file to write, and no backup of it" + numbers, ""},
      {"",                          write + "from --force",      0, in + "from-2\nto: written\n",                                "from-2"},
      {"",                          write + "from",              1, not_written + "from is the file with the new image, and no backup" + numbers, ""},
      {"",                          "sprom write -y -f to - --backup=from <from", 1, not_written + "from is the file with the new image, and no backup" + numbers, ""},
      {"ln -s none kept",           write + "kept --force",      1, not_written + "kept is no plain file, as a backup has to be\n", ""},
      {"",                          write + "/dev/null --force", 1, not_written + "/dev/null is no plain file, as a backup has to be\n", ""},
      {"",                          write + "-",                 2, "sprom: --backup takes the name of a file, not '-'" + usage, ""},
      {"",                          write + "kept >/dev/full",   1, "sprom: to: the old image is in kept\nsprom: cannot write the output: No space left on device\n", "kept"},
      {"",                          write + "kept --json >/dev/full", 1, "sprom: to: the old image is in kept\nsprom: cannot write the output: No space left on device\n", "kept"},
      {"",                          "mkfifo p; : <p & exec 9>p; wait; " + write + "kept >&9", 1, "sprom: to: the old image is in kept\nsprom: cannot write the output: Broken pipe\n", "kept"},
  };
  // clang-format on
  for (const auto &[before, command, status, said, kept] : rows) {
    SCOPED_TRACE(before + "; " + command);
    (void)sh("rm -rf ./*");
    save("to", old);
    save("from", image);
    expect(sh((before.empty() ? "" : before + "\n") + command), status, said);
    EXPECT_EQ(load("to") == old, kept.empty());
    EXPECT_EQ(kept.empty() ? old : load(kept), old);
    EXPECT_EQ(before.starts_with("echo") ? read_file(path("kept")) : "torn\n", "torn\n");
    EXPECT_EQ(load("from"), image);
  }
}
