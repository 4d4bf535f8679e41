// The `sprom` program on image files.
#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <sstream>

#include "tests/unit/sprom_tool.h"

using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::StartsWith;

namespace {

constexpr const char *hint = "Try 'sprom --help' for more information.\n";

// The fields that `show` printed, as the options that set them; signatures, lengths and checksums left out.
std::vector<std::string> shown_as_options(const std::string &shown) {
  std::vector<std::string> options;
  std::istringstream lines{shown};
  for (std::string line; std::getline(lines, line);) {
    if (!line.starts_with("  ")) continue;
    if (line.starts_with(std::string(20, ' '))) {
      options.back() += " " + line.substr(20);  // a long run of bytes goes on
      continue;
    }
    const std::string name = line.substr(2, line.find(' ', 2) - 2);
    options.push_back("--" + name + "=" + (line.size() > 20 ? line.substr(20) : ""));
  }
  std::erase_if(options, [](const std::string &option) {
    const std::string name = option.substr(0, option.find('='));
    return name.ends_with("_signature") || name.ends_with("_length") || name.ends_with("_checksum");
  });
  return options;
}

}  // namespace

TEST_F(sprom_tool, makes_a_valid_image_of_every_kind) {
  for (const tool_kind &kind : tool_kinds) {
    SCOPED_TRACE(kind.name);
    const std::string file = path("image");
    auto result = tool({"make", kind.name, file});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.out + result.err, "");
    EXPECT_EQ(load(file), zero_image(kind));

    result = tool({"make", kind.title, "--file", file, "--product_id=X"});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(load(file), patched(zero_image(kind), kind.type, 34, {'X'}));

    result = tool({"verify", "--file", file});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.out + result.err, "");

    result = tool({"list", "--json", "--file", file});
    EXPECT_EQ(result.out, "{\"family\":null,\"sproms\":[{\"name\":\"" + file +
                              "\",\"slot\":null,\"index\":null,\"kind\":\"" + kind.name +
                              "\",\"size\":" + std::to_string(zero_image(kind).size()) + "}]}\n");
  }
}

TEST_F(sprom_tool, puts_values_where_the_chip_has_them) {
  const bytes text20{'a', 'b', ' ', 'c', 0xFF, '\\', 0,   '"', 'i', 'j',
                     'k', 'l', 'm', 'n', 'o',  'p',  'q', 'r', 's', 't'};
  struct row {
    size_t kind;
    std::vector<std::string> options;
    size_t offset;
    bytes expected;
  };
  const std::vector<row> rows{
      {0, {"--hw_change_bits=0x0102030405060708"}, 174, {1, 2, 3, 4, 5, 6, 7, 8}},
      {0, {"--hw-change-bits=18446744073709551615"}, 174, {255, 255, 255, 255, 255, 255, 255, 255}},
      {0, {"--card-index", "11062"}, 182, {0x2B, 0x36}},
      {0, {"--field=card-index=0x2AFC", "--field", "num_190=010"}, 182, {0x2A, 0xFC, 0, 0, 0, 0, 0, 0, 0, 10}},
      {0, {"--card_index=1", "--card_index=2"}, 182, {0, 2}},
      {0, {"--sensor_version=0xfF"}, 265, {0xFF}},
      {0, {"--bytes_262=a5"}, 262, {0xA5}},
      {0, {"--num_6=65535", "--num_138=0x1"}, 6, {255, 255}},
      {1, {"--num_182=0x1234", "--num_196=0x5678"}, 182, {0x12, 0x34, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x56, 0x78}},
      {1, {"--bytes_461=00:11 22334455667788 99"}, 461, {0, 0x11, 0x22, 0x33, 0x44, 0x55, 0x66, 0x77, 0x88, 0x99}},
      {2, {"--num_260=0xABCD"}, 260, {0xAB, 0xCD}},
      {2, {"--serial_number=ab c\\xff\\\\\\x00\"ijklmnopqrst"}, 54, text20},
      {3, {"--num_174=0x0102", "--num_178=3"}, 174, {1, 2, 0, 0, 0, 3}},
      {4, {"--num_174=0x0102", "--num_184=3"}, 174, {0, 0, 0, 0, 0, 0, 1, 2, 0, 0, 0, 3}},
      {4, {"--product-id="}, 34, {0}},
  };
  for (const row &r : rows) {
    SCOPED_TRACE(r.options.front());
    const tool_kind &kind = tool_kinds[r.kind];
    std::vector<std::string> args{"make", kind.name, path("image")};
    args.insert(args.end(), r.options.begin(), r.options.end());
    const auto result = tool(args);
    EXPECT_EQ(result.status, 0) << result.err;
    bytes expected = zero_image(kind);
    if (r.options.back() == "--num_138=0x1") expected[139] = 1;
    EXPECT_EQ(load(path("image")), patched(expected, kind.type, r.offset, r.expected));
  }
}

// What `show` prints is what `make` takes: the image comes out byte for byte.
TEST_F(sprom_tool, round_trips_every_byte_through_show_and_make) {
  for (const tool_kind &kind : tool_kinds) {
    SCOPED_TRACE(kind.name);
    const bytes image = device_image(kind.type);
    save(path("from"), image);
    const auto shown = tool({"show", "--file", path("from")});
    EXPECT_EQ(shown.status, 0);
    std::vector<std::string> args = shown_as_options(shown.out);
    EXPECT_GT(args.size(), 25U);
    args.insert(args.begin(), {"make", kind.name, path("to")});
    const auto made = tool(args);
    EXPECT_EQ(made.status, 0) << made.err;
    EXPECT_EQ(load(path("to")), image);

    // The same, changed into the image of zeros.
    args.erase(args.begin(), args.begin() + 3);
    save(path("to"), zero_image(kind));
    args.insert(args.begin(), {"edit", "--yes", "--file", path("to")});
    EXPECT_EQ(tool(args).status, 0);
    EXPECT_EQ(load(path("to")), image);

    EXPECT_EQ(tool({"dump", "--file", path("from"), path("to")}).status, 0);
    EXPECT_EQ(load(path("to")), image);
  }
}

TEST_F(sprom_tool, shows_fields_and_verdicts) {
  bytes image =
      patched(zero_image(tool_kinds[3]), SPROM_TYPE_PS, 34, {'P', 'S', 0x7F, '~', 0x1B, '\\', '"', 0xE9, ' ', 0xFF});
  image = patched(image, SPROM_TYPE_PS, 166, {1, 2, 3, 4, 5, 6, 7, 8, 9, 10});
  image = patched(image, SPROM_TYPE_PS, 14, {0xDE, 0xAD});
  image[162] = 9;
  image[163] = 37;
  save(path("ps"), image);
  auto result = tool({"show", "-f", path("ps")});
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.err, "");
  EXPECT_EQ(result.out, path("ps") + R"(: power supply image, 196 bytes

Power Supply Common Header, 160 bytes at offset 0: good
  common_signature  0xabab
  common_version    0x03
  common_length     0xa0
  common_checksum   )" + hex16(image, 4) +
                            R"(
  num_6             0x0000
  num_8             0x0000
  num_10            0x0000
  num_12            0x0000
  bytes_14          de ad 00 00 00 00 00 00 00 00 00 00 00 00 00 00
                    00 00 00 00
  product_id        PS\x7f~\x1b\\"\xe9
  serial_number
  bytes_74          00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00
                    00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00
                    00 00 00 00 00 00 00 00
  num_114           0x0000
  num_116           0x0000
  num_118           0x0000
  num_120           0x0000
  num_122           0x0000
  num_124           0x0000
  num_126           0x0000
  num_128           0x0000
  num_130           0x0000
  num_132           0x0000
  num_134           0x0000
  num_136           0x0000
  num_138           0x0000
  bytes_140         00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00
                    00 00 00 00

Power Supply Main, 36 bytes at offset 160: BAD
  Power Supply Main block length mismatch.    Found 0x0025, expected 0x0024.
  Power Supply Main block checksum mismatch.  Found 0x0109, expected 0x0111.
  main_signature    0xab01
  main_version      0x09
  main_length       0x25
  main_checksum     0x0109
  num_166           0x0102030405060708
  num_174           0x090a
  num_176           0x0000
  num_178           0x0000
  bytes_180         00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00
)");

  result = tool({"show", "--json", "-f", path("ps")});
  EXPECT_EQ(result.status, 0);
  const std::string zeros80(80, '0');
  EXPECT_EQ(result.out,
            "{\"name\":\"" + path("ps") +
                R"(","slot":null,"index":null,"kind":"ps","size":196,"good":false,"blocks":[)"
                R"({"name":"Power Supply Common Header","offset":0,"length":160,"good":true,"messages":[],"fields":{)"
                R"("common_signature":"0xabab","common_version":"0x03","common_length":"0xa0",)"
                R"("common_checksum":")" +
                hex16(image, 4) +
                R"(","num_6":"0x0000","num_8":"0x0000","num_10":"0x0000","num_12":"0x0000",)"
                R"("bytes_14":"dead000000000000000000000000000000000000","product_id":"PS\u007f~\u001b\\\"\u00e9",)"
                R"("serial_number":"","bytes_74":")" +
                zeros80 +
                R"(","num_114":"0x0000","num_116":"0x0000","num_118":"0x0000","num_120":"0x0000","num_122":"0x0000",)"
                R"("num_124":"0x0000","num_126":"0x0000","num_128":"0x0000","num_130":"0x0000","num_132":"0x0000",)"
                R"("num_134":"0x0000","num_136":"0x0000","num_138":"0x0000",)"
                R"("bytes_140":"0000000000000000000000000000000000000000"}},)"
                R"({"name":"Power Supply Main","offset":160,"length":36,"good":false,"messages":[)"
                R"("Power Supply Main block length mismatch.    Found 0x0025, expected 0x0024.",)"
                R"("Power Supply Main block checksum mismatch.  Found 0x0109, expected 0x0111."],"fields":{)"
                R"("main_signature":"0xab01","main_version":"0x09","main_length":"0x25","main_checksum":"0x0109",)"
                R"("num_166":"0x0102030405060708","num_174":"0x090a","num_176":"0x0000","num_178":"0x0000",)"
                R"("bytes_180":"00000000000000000000000000000000"}}]})"
                "\n");
}

// A file's name may be anything; the JSON stays JSON.
TEST_F(sprom_tool, quotes_file_names_in_json) {
  struct row {
    std::string name;
    std::string quoted;
  };
  for (const row &r :
       std::vector<row>{{"a\"\\b\n", "a\\\"\\\\b\\u000a"},
                        {"gr\xC3\xBC\xE2\x82\xAC\xF0\x9F\x8E\x88", "gr\xC3\xBC\xE2\x82\xAC\xF0\x9F\x8E\x88"},
                        {"latin\xFC", "latin\\u00fc"},
                        {"cut\xE2\x82", "cut\\u00e2\\u0082"},
                        {"long\xC0\xAF", "long\\u00c0\\u00af"},
                        {"half\xED\xA0\x80", "half\\u00ed\\u00a0\\u0080"}}) {
    SCOPED_TRACE(r.quoted);
    save(path(r.name), zero_image(tool_kinds[4]));
    const auto result = tool({"verify", "--json", "-f", path(r.name)});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.out, "{\"good\":true,\"sproms\":[{\"name\":\"" + path("") + r.quoted +
                              "\",\"slot\":null,\"index\":null,\"kind\":\"fan\",\"size\":192,\"read\":true,"
                              "\"good\":true,\"messages\":[]}]}\n");
  }
}

TEST_F(sprom_tool, tells_a_defect_in_any_block) {
  for (const tool_kind &kind : tool_kinds) {
    const bytes good = zero_image(kind);
    for (const test_block &block : test_blocks.at(kind.type)) {
      SCOPED_TRACE(block.label);
      const std::string label = std::string{block.label} + " block ";
      struct row {
        size_t offset;
        std::string first_line;
      };
      char signature[100];
      (void)snprintf(signature, sizeof signature, "signature mismatch. Found 0x%04x, expected 0x%04x.\n",
                     block.signature ^ 0xFF00U, block.signature);
      for (const row &r : std::vector<row>{{0, label + signature},
                                           {2, label + "checksum mismatch.  Found "},
                                           {3, label + "length mismatch.    Found "},
                                           {5, label + "checksum mismatch.  Found "},
                                           {block.length - 1, label + "checksum mismatch.  Found "}}) {
        const size_t at = block.offset + r.offset;
        save(path("bad"), with_byte(good, at, good[at] ^ 0xFF));
        const auto result = tool({"verify", "--file", path("bad")});
        EXPECT_EQ(result.status, 1);
        EXPECT_THAT(result.out, StartsWith(r.first_line));
        EXPECT_EQ(result.err, "");
      }
    }
  }
  // Every defect, in the order of the blocks, and the same as JSON.
  bytes worst = zero_image(tool_kinds[0]);
  worst[20] = 1;
  worst[160] = 0x70;
  worst[163] = 0;
  save(path("bad"), worst);
  EXPECT_EQ(tool({"verify", "-f", path("bad")}).out,
            "Supervisor Common Header block checksum mismatch.  Found 0x01f9, expected 0x01fa.\n"
            "Supervisor Main block signature mismatch. Found 0x7002, expected 0x6002.\n"
            "Supervisor Main block length mismatch.    Found 0x0100, expected 0x0067.\n"
            "Supervisor Main block checksum mismatch.  Found 0x00cb, expected 0x0074.\n");
  const auto json = tool({"verify", "-j", "-f", path("bad")});
  EXPECT_EQ(json.status, 1);
  EXPECT_EQ(json.out, "{\"good\":false,\"sproms\":[{\"name\":\"" + path("bad") +
                          R"(","slot":null,"index":null,"kind":"sup","size":334,"read":true,"good":false,"messages":[)"
                          R"("Supervisor Common Header block checksum mismatch.  Found 0x01f9, expected 0x01fa.",)"
                          R"("Supervisor Main block signature mismatch. Found 0x7002, expected 0x6002.",)"
                          R"("Supervisor Main block length mismatch.    Found 0x0100, expected 0x0067.",)"
                          R"("Supervisor Main block checksum mismatch.  Found 0x00cb, expected 0x0074."]}]})"
                          "\n");
}

TEST_F(sprom_tool, refuses_files_of_a_wrong_size) {
  struct row {
    size_t kind;
    size_t size;
    std::string message;
  };
  const std::vector<row> rows{
      {0, 0, "0 bytes: no kind of image has this size"},
      {0, 161, "161 bytes: no kind of image has this size"},
      {0, 162, "162 bytes, but a supervisor image has 334: the file is truncated"},
      {0, 333, "333 bytes, but a supervisor image has 334: the file is truncated"},
      {0, 335, "335 bytes, but a supervisor image has 334: the file is too long"},
      {1, 470, "470 bytes, but a backplane image has 471: the file is truncated"},
      {1, 65536, "65536 bytes, but a backplane image has 471: the file is too long"},
      {1, 65537, "more than 65536 bytes, but a backplane image has 471: the file is too long"},
      {2, 264, "264 bytes, but a line card image has 263: the file is too long"},
      {3, 197, "197 bytes, but a power supply image has 196: the file is too long"},
      {4, 193, "193 bytes, but a fan image has 192: the file is too long"},
  };
  for (const row &r : rows) {
    SCOPED_TRACE(r.message);
    bytes image = zero_image(tool_kinds[r.kind]);
    const bytes target = image;
    image.resize(r.size);
    save(path("bad"), image);
    save(path("target"), target);
    const std::vector<std::vector<std::string>> commands{
        {"list", "-f", path("bad")},
        {"show", "-f", path("bad")},
        {"verify", "-f", path("bad")},
        {"dump", "-f", path("bad"), path("new")},
        {"edit", "-f", path("bad"), "--yes", "--force", "--product-id=X"},
    };
    for (const auto &command : commands) {
      const auto result = tool(command);
      EXPECT_EQ(result.status, 1) << command[0];
      EXPECT_EQ(result.out, "") << command[0];
      EXPECT_EQ(result.err, "sprom: " + path("bad") + ": " + r.message + "\n") << command[0];
    }
    const auto result = tool({"write", "-f", path("target"), path("bad"), "--yes", "--force"});
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.err, HasSubstr(std::string{" bytes, but a "} + tool_kinds[r.kind].title + " image has "));
    EXPECT_EQ(load(path("target")), target);
    EXPECT_EQ(load(path("bad")), image);
    EXPECT_THAT(files(), ElementsAre("bad", "target"));
  }
}

TEST_F(sprom_tool, takes_the_kind_from_the_option_before_the_size) {
  save(path("ps"), zero_image(tool_kinds[3]));
  auto result = tool({"verify", "-f", path("ps"), "--kind=ps"});
  EXPECT_EQ(result.status, 0);
  result = tool({"verify", "-f", path("ps"), "-k", "backplane"});
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.err, "sprom: " + path("ps") + ": 196 bytes: this is a power supply image, not a backplane image\n");

  save(path("cut"), bytes(100));
  result = tool({"verify", "-f", path("cut"), "-k", "lc"});
  EXPECT_EQ(result.err,
            "sprom: " + path("cut") + ": 100 bytes, but a line card image has 263: the file is truncated\n");

  // A damaged signature does not hide what the size says.
  save(path("sup"), with_byte(zero_image(tool_kinds[0]), 161, 0x03));
  EXPECT_THAT(tool({"verify", "-f", path("sup")}).out,
              StartsWith("Supervisor Main block signature mismatch. Found 0x6003, expected 0x6002.\n"));
}

TEST_F(sprom_tool, tells_files_that_cannot_be_read_or_written) {
  save(path("fan"), zero_image(tool_kinds[4]));
  struct row {
    std::vector<std::string> args;
    std::string err;
  };
  const std::vector<row> rows{
      {{"show", "-f", path("none")}, path("none") + ": cannot read: No such file or directory"},
      {{"verify", "-f", path("")}, path("") + ": cannot read: Is a directory"},
      {{"write", "-y", "-f", path("fan"), path("none")}, path("none") + ": cannot read: No such file or directory"},
      {{"dump", "-f", path("fan"), path("none/x")}, path("none/x") + ": cannot write: No such file or directory"},
      {{"dump", "-f", path("fan"), path("fan/x")}, path("fan/x") + ": cannot write: Not a directory"},
      {{"dump", "-f", path("fan"), path("")}, path("") + ": cannot write: Is a directory"},
      {{"dump", "-f", path("fan"), "/dev/full"}, "/dev/full: cannot write: No space left on device"},
      {{"make", "fan", "/dev/full"}, "/dev/full: cannot write: No space left on device"},
  };
  for (const row &r : rows) {
    SCOPED_TRACE(r.err);
    const auto result = tool(r.args);
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(result.err, "sprom: " + r.err + "\n");
    EXPECT_THAT(files(), ElementsAre("fan"));
  }
  struct stat st;
  ASSERT_EQ(stat("/dev/full", &st), 0);
  EXPECT_TRUE(S_ISCHR(st.st_mode));  // written to, never replaced
}

TEST_F(sprom_tool, leaves_no_half_file_on_a_full_disk) {
  const bytes old = zero_image(tool_kinds[1]);
  save(path("from"), device_image(SPROM_TYPE_BP));
  surroundings.file_limit = 300;
  const std::vector<std::vector<std::string>> commands{
      {"dump", "-f", path("from"), path("to")},
      {"make", "bp", path("to"), "--product-id=X"},
      {"write", "-y", "-f", path("to"), path("from")},
      {"edit", "-y", "-f", path("to"), "--product-id=X"},
  };
  for (const auto &command : commands) {
    SCOPED_TRACE(command[0]);
    save(path("to"), old);
    const auto result = tool(command);
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.err, "sprom: " + path("to") + ": cannot write: File too large\n");
    EXPECT_THAT(result.out, testing::Not(HasSubstr("written and")));
    EXPECT_EQ(load(path("to")), old);
    EXPECT_THAT(files(), ElementsAre("from", "to"));
  }
  std::filesystem::remove(path("to"));
  EXPECT_EQ(tool(commands[0]).status, 1);
  EXPECT_THAT(files(), ElementsAre("from"));
}

TEST_F(sprom_tool, fails_when_its_output_does_not_arrive) {
  save(path("sup"), zero_image(tool_kinds[0]));
  surroundings.output = "/dev/full";
  for (const auto &args : std::vector<std::vector<std::string>>{
           {"show", "-f", path("sup")}, {"list", "-f", path("sup")}, {"verify", "-j", "-f", path("sup")}, {"--help"}}) {
    const auto result = tool(args);
    EXPECT_EQ(result.status, 1) << args[0];
    EXPECT_EQ(result.err, "sprom: cannot write the output: No space left on device\n") << args[0];
  }
}

TEST_F(sprom_tool, replaces_files_with_their_mode_and_through_links) {
  save(path("sup"), zero_image(tool_kinds[0]));
  save(path("old"), {1, 2, 3});
  ASSERT_EQ(chmod(path("old").c_str(), 0640), 0);
  ASSERT_EQ(symlink("old", path("link").c_str()), 0);
  EXPECT_EQ(tool({"dump", "-f", path("sup"), path("link")}).status, 0);
  EXPECT_TRUE(std::filesystem::is_symlink(path("link")));
  EXPECT_EQ(load(path("old")), zero_image(tool_kinds[0]));
  struct stat st;
  ASSERT_EQ(stat(path("old").c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 07777, 0640U);

  const mode_t mask = umask(027);
  EXPECT_EQ(tool({"dump", "-f", path("sup"), path("new")}).status, 0);
  (void)umask(mask);
  ASSERT_EQ(stat(path("new").c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 07777, 0640U);
  EXPECT_THAT(files(), ElementsAre("link", "new", "old", "sup"));

  // A pipe is written to and read from as it is.
  EXPECT_EQ(tool({"dump", "-f", path("sup"), "/dev/stdout"}).out.size(), 334U);
  const auto piped = run({.args = {"sh", "-c", "cat " + path("sup") + " | " POST_BIN_DIR "/sprom list -f /dev/stdin"}});
  EXPECT_THAT(piped.out, HasSubstr("334\n"));
  EXPECT_EQ(piped.status, 0);
}

TEST_F(sprom_tool, writes_a_checked_image_and_says_what_changes) {
  const bytes from = device_image(SPROM_TYPE_SUP);
  bytes to = patched(from, SPROM_TYPE_SUP, 34, {'A', 'B', 'C', ' ', ' '});
  to = patched(to, SPROM_TYPE_SUP, 182, {0x2A, 0xFC});
  to = patched(to, SPROM_TYPE_SUP, 186, {0});
  to = patched(to, SPROM_TYPE_SUP, 300, {1, 2});
  save(path("from"), from);
  save(path("to"), to);
  const auto result = tool({"write", "--yes", "--file", path("to"), path("from")});
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.err, "");
  EXPECT_EQ(result.out, path("to") + ": supervisor image, 334 bytes\n" + "  common_checksum   " + hex16(to, 4) +
                            " -> " + hex16(from, 4) + R"(
  product_id        "ABC  \x14\x1b")07>ELSZahov" -> "\xf1\xf8\xff\x06\x0d\x14\x1b")07>ELSZahov"
  main_checksum     )" + hex16(to, 164) +
                            " -> " + hex16(from, 164) + R"(
  card_index        0x2afc -> 0x2afb
  bytes_184         0b 12 00 20 27 2e -> 0b 12 19 20 27 2e
  sensor_checksum   )" + hex16(to, 267) +
                            " -> " + hex16(from, 267) + R"(
  bytes_269         2 of 65 bytes differ, the first at offset 300
)" + path("to") + ": 334 bytes written and read back\n");
  EXPECT_EQ(load(path("to")), from);

  const auto again = tool({"write", "--yes", "--file", path("to"), path("from")});
  EXPECT_EQ(again.status, 0);
  EXPECT_EQ(again.out, path("to") + ": holds this image already; nothing to write\n");

  // Padding alone.
  save(path("to"), patched(zero_image(tool_kinds[3]), SPROM_TYPE_PS, 54, bytes(20, 'x')));
  EXPECT_EQ(tool({"edit", "-y", "-f", path("to"), "--serial-number=S"}).status, 0);
  EXPECT_THAT(tool({"edit", "-y", "-f", path("to"), "--serial-number=S  "}).out,
              HasSubstr("  serial_number     2 of 20 bytes differ, the first at offset 55\n"));
}

TEST_F(sprom_tool, writes_nothing_when_anything_before_fails) {
  const bytes old = zero_image(tool_kinds[0]);
  const bytes bad = with_byte(device_image(SPROM_TYPE_SUP), 100, 0);
  save(path("good"), device_image(SPROM_TYPE_SUP));
  save(path("bad"), bad);
  save(path("other"), device_image(SPROM_TYPE_LC));
  struct row {
    std::vector<std::string> args;
    int status;
    std::string err;
  };
  bytes sealed = bad;
  seal_image(&sealed, SPROM_TYPE_SUP);
  const std::string lines = "Supervisor Common Header block checksum mismatch.  Found " + hex16(bad, 4) +
                            ", expected " + hex16(sealed, 4) + ".\n";
  const std::string asking = ": not written: there is no terminal to ask on; --yes writes without asking\n";
  const std::vector<row> rows{
      {{"write", "-f", path("to"), path("good")}, 1, "sprom: " + path("to") + asking},
      {{"write", "-y", "-f", path("to"), path("bad")},
       1,
       lines + "sprom: " + path("bad") + ": a bad image; nothing is written without --force\n"},
      {{"write", "--force", "-f", path("to"), path("bad")}, 1, lines + "sprom: " + path("to") + asking},
      {{"write", "-y", "--force", "-f", path("to"), path("other")},
       1,
       "sprom: " + path("other") + ": 263 bytes: this is a line card image, not a supervisor image\n"},
      {{"edit", "-f", path("to"), "--card-index=1"}, 1, "sprom: " + path("to") + asking},
  };
  for (const row &r : rows) {
    SCOPED_TRACE(r.err);
    save(path("to"), old);
    const auto result = tool(r.args);
    EXPECT_EQ(result.status, r.status);
    EXPECT_EQ(result.err, r.err);
    EXPECT_EQ(load(path("to")), old);
  }

  const auto forced = tool({"write", "-y", "--force", "-f", path("to"), path("bad")});
  EXPECT_EQ(forced.status, 0);
  EXPECT_EQ(forced.err, lines);
  EXPECT_EQ(load(path("to")), bad);
}

TEST_F(sprom_tool, asks_on_a_terminal) {
  const bytes old = zero_image(tool_kinds[2]);
  const bytes image = device_image(SPROM_TYPE_LC);
  save(path("from"), image);
  struct row {
    std::string typed;
    bool is_written;
  };
  for (const row &r : std::vector<row>{
           {"y\n", true}, {"Yes\n", true}, {"n\n", false}, {"\n", false}, {"maybe y\n", false}, {"\x04", false}}) {
    SCOPED_TRACE(r.typed);
    save(path("to"), old);
    surroundings.typed = r.typed;
    const auto result = tool({"write", "-f", path("to"), path("from")});
    EXPECT_EQ(result.status, r.is_written ? 0 : 1);
    EXPECT_THAT(result.err, StartsWith("Write to " + path("to") + "? [y/N] "));
    EXPECT_EQ(result.err.find("not written") == std::string::npos, r.is_written);
    EXPECT_EQ(load(path("to")), r.is_written ? image : old);
  }
}

TEST_F(sprom_tool, edits_fields_and_renews_the_checksums_of_their_blocks) {
  const bytes image = device_image(SPROM_TYPE_BP);
  save(path("bp"), image);
  auto result = tool({"edit", "-y", "-f", path("bp"), "--hw-change-bits=0x102", "--bytes_461=00112233445566778899"});
  EXPECT_EQ(result.status, 0) << result.err;
  bytes expected = patched(image, SPROM_TYPE_BP, 174, {0, 0, 0, 0, 0, 0, 1, 2});
  expected = patched(expected, SPROM_TYPE_BP, 461, {0, 0x11, 0x22, 0x33, 0x44, 0x55, 0x66, 0x77, 0x88, 0x99});
  EXPECT_EQ(load(path("bp")), expected);

  // Other blocks' defects are neither hidden nor mended.
  const bytes bad = with_byte(image, 300, 0);
  save(path("bp"), bad);
  result = tool({"edit", "-y", "-f", path("bp"), "--product-id=X"});
  EXPECT_EQ(result.status, 1);
  EXPECT_THAT(result.err, StartsWith("Backplane WWN block checksum mismatch.  "));
  EXPECT_EQ(load(path("bp")), bad);
  result = tool({"edit", "-y", "--force", "-f", path("bp"), "--product-id=X"});
  EXPECT_EQ(result.status, 0);
  expected = patched(image, SPROM_TYPE_BP, 34, {'X', 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0});
  EXPECT_EQ(load(path("bp")), with_byte(expected, 300, 0));
  EXPECT_EQ(tool({"verify", "-f", path("bp")}).status, 1);
}

TEST_F(sprom_tool, refuses_bad_values) {
  const bytes image = device_image(SPROM_TYPE_SUP);
  struct row {
    std::string option;
    std::string err;
  };
  const std::vector<row> rows{
      {"--card_index=", "card_index: '' is no number"},
      {"--card_index=0x", "card_index: '0x' is no number"},
      {"--card_index=12a", "card_index: '12a' is no number"},
      {"--card_index=-1", "card_index: '-1' is no number"},
      {"--card_index= 1", "card_index: ' 1' is no number"},
      {"--card_index=65536", "card_index: '65536' does not fit in 16 bits"},
      {"--card_index=0x10000", "card_index: '0x10000' does not fit in 16 bits"},
      {"--main_version=256", "main_version: '256' does not fit in 8 bits"},
      {"--num_166=18446744073709551616", "num_166: '18446744073709551616' does not fit in 64 bits"},
      {"--num_166=0x10000000000000000", "num_166: '0x10000000000000000' does not fit in 64 bits"},
      {"--product-id=123456789012345678901", "product_id: '123456789012345678901' is longer than 20 characters"},
      {"--product_id=a\\n", "product_id: 'a\\\\n' has a bad escape (\\\\ and \\xNN are known)"},
      {"--product_id=a\\x1", "product_id: 'a\\\\x1' has a bad escape (\\\\ and \\xNN are known)"},
      {"--product_id=a\\", "product_id: 'a\\\\' has a bad escape (\\\\ and \\xNN are known)"},
      {"--bytes_262=", "bytes_262: '' has 0 bytes, the field 1"},
      {"--bytes_262=1", "bytes_262: '1' is no run of hex digit pairs"},
      {"--bytes_262=11:", "bytes_262: '11:' is no run of hex digit pairs"},
      {"--bytes_262=11:22", "bytes_262: '11:22' has 2 bytes, the field 1"},
      {"--bytes_184=00 11 22 33 44 5g", "bytes_184: '00 11 22 33 44 5g' is no run of hex digit pairs"},
      {"--main_checksum=1", "main_checksum is computed"},
      {"--main_signature=1", "main_signature belongs to the format"},
      {"--sensor_length=1", "sensor_length belongs to the format"},
      {"--num_182=1", "a supervisor image has no field num_182 (see 'sprom fields')"},
      {"--field=colour=red", "a supervisor image has no field colour (see 'sprom fields')"},
      {"--field=card_index", "--field takes NAME=VALUE, not 'card_index'"},
      {"--field==5", "--field takes NAME=VALUE, not '=5'"},
  };
  save(path("sup"), image);
  for (const row &r : rows) {
    SCOPED_TRACE(r.option);
    auto result = tool({"edit", "-y", "-f", path("sup"), "--serial_number=S", r.option});
    EXPECT_EQ(result.status, 2);
    EXPECT_EQ(result.err, "sprom: " + r.err + "\n" + hint);
    result = tool({"make", "sup", path("new"), r.option});
    EXPECT_EQ(result.status, 2);
    EXPECT_EQ(result.err, "sprom: " + r.err + "\n" + hint);
  }
  EXPECT_EQ(load(path("sup")), image);
  EXPECT_THAT(files(), ElementsAre("sup"));
}

TEST_F(sprom_tool, tells_wrong_usage) {
  struct row {
    std::vector<std::string> args;
    std::string err;
  };
  const std::vector<row> rows{
      {{}, "a command is missing"},
      {{"lost"}, "lost: no such command"},
      {{"--colour", "list"}, "unrecognized option '--colour'"},
      {{"-x"}, "invalid option -- 'x'"},
      {{"show", "--file"}, "option '--file' requires an argument"},
      {{"show", "-F"}, "option requires an argument -- 'F'"},
      {{"list", "--json=1"}, "option '--json' doesn't allow an argument"},
      {{"list", "-F", "else"}, "else: no such family (dorvan, pellin, tosk)"},
      {{"list", "-k", "else"}, "else: no such kind of image"},
      {{"list", "-k", "dimm"}, "dimm: no such kind of image"},
      {{"list", "-F", "tosk", "-k", "ps"}, "--kind goes with --file"},
      {{"verify", "-F", "tosk", "-k", "ps"}, "--kind goes with --file"},
      {{"list", "-F", "tosk", "-f", "x"}, "--family does not go with --file"},
      {{"list", "x"}, "list takes: no argument"},
      {{"list", "--yes"}, "list takes no --yes"},
      {{"list", "--card-index=1"}, "list takes no --FIELD=VALUE"},
      {{"dump", "--json", "x"}, "dump takes no --json"},
      {{"make", "--force", "ps", "x"}, "make takes no --force"},
      {{"fields", "--file=x", "ps"}, "fields takes no --file"},
      {{"show"}, "a SPROM or --file is missing"},
      {{"show", "PS1", "PS2"}, "show takes: SPROM"},
      {{"show", "PS1", "-f", "x"}, "--file stands in place of a SPROM"},
      {{"verify", "PS1", "-f", "x"}, "--file stands in place of a SPROM"},
      {{"dump"}, "dump takes: [SPROM] FILE"},
      {{"dump", "PS1", "y", "-f", "x"}, "--file stands in place of a SPROM"},
      {{"write", "PS1", "y", "-f", "x"}, "--file stands in place of a SPROM"},
      {{"write", "a", "b", "c"}, "write takes: [SPROM] FILE"},
      {{"edit", "-f", "x"}, "no --FIELD=VALUE to change"},
      {{"edit", "--card-index=1"}, "a SPROM or --file is missing"},
      {{"make", "ps"}, "the FILE to make is missing"},
      {{"make", "ps", "x", "-f", "y"}, "--file stands in place of FILE"},
      {{"make", "dimm", "x"}, "dimm: this kind has no layout"},
      {{"make", "else", "x"}, "else: no such kind of image"},
      {{"fields", "else"}, "else: no such kind of image"},
  };
  for (const row &r : rows) {
    SCOPED_TRACE(r.err);
    const auto result = tool(r.args);
    EXPECT_EQ(result.status, 2);
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(result.err, "sprom: " + r.err + "\n" + hint);
  }
  // An abbreviation of one field is that field, one of several is none.
  EXPECT_EQ(tool({"make", "sup", path("sup"), "--card=7"}).status, 0);
  EXPECT_EQ(load(path("sup")), patched(zero_image(tool_kinds[0]), SPROM_TYPE_SUP, 182, {0, 7}));
  EXPECT_THAT(tool({"make", "sup", path("sup"), "--num_1=7"}).err,
              StartsWith("sprom: option '--num_1=7' is ambiguous"));
  EXPECT_THAT(files(), ElementsAre("sup"));
}

TEST_F(sprom_tool, helps) {
  for (const char *option : {"--help", "-h"}) {
    const auto result = tool({option});
    EXPECT_EQ(result.status, 0);
    EXPECT_THAT(result.out, StartsWith("Usage: sprom COMMAND "));
    for (const char *word : {"list", "show", "verify", "dump", "write", "edit", "make", "fields", "--file=IMAGE",
                             "--family=NAME", "--kind=KIND", "--json", "--yes", "--force", "--field=NAME=VALUE",
                             "dorvan, pellin, tosk", "sup bp lc ps fan"})
      EXPECT_THAT(result.out, HasSubstr(word));
    EXPECT_EQ(result.err, "");
  }
  EXPECT_THAT(tool({"show", "--version"}).out, testing::MatchesRegex("sprom [0-9]+\\.[0-9]+\\.[0-9]+\n"));

  const auto fields = tool({"fields", "fan"});
  EXPECT_EQ(fields.status, 0);
  EXPECT_THAT(fields.out, StartsWith("NAME               OFFSET WIDTH  TYPE\n"
                                     "common_signature        0     2  number  format\n"
                                     "common_version          2     1  number\n"));
  EXPECT_THAT(fields.out, HasSubstr("\nmain_checksum         164     2  number  computed\n"
                                    "num_166               166     8  number\n"
                                    "num_174               174     8  number\n"
                                    "num_182               182     2  number\n"
                                    "num_184               184     2  number\n"
                                    "bytes_186             186     6  bytes\n"));
  EXPECT_THAT(fields.out, HasSubstr("\nproduct_id             34    20  text\n"));
}

TEST_F(sprom_tool, keeps_its_streams_apart_from_files_when_they_are_closed) {
  save(path("sup"), zero_image(tool_kinds[0]));
  const std::string call = POST_BIN_DIR "/sprom edit -y -f " + path("sup") + " --card-index=7 >&- <&- 2>&-";
  EXPECT_EQ(run({.args = {"sh", "-c", call}}).status, 0);
  EXPECT_EQ(load(path("sup")), patched(zero_image(tool_kinds[0]), SPROM_TYPE_SUP, 182, {0, 7}));
}
