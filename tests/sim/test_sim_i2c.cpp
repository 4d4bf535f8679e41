// The I2C buses of the simulated boards, driven through the bus device files as a program drives them.
#include <linux/i2c-dev.h>
#include <linux/i2c.h>

#include "tests/sim/fault_cases.h"
#include "tests/support/board.h"

namespace {

using strings = std::vector<std::string>;

int open_bus(unsigned number) {
  return open(("/dev/i2c-" + std::to_string(number)).c_str(), O_RDWR | O_CLOEXEC);
}

// Carries out one transaction, "BUS:ADDR MESSAGE ..." or, with the same device again, "MESSAGE ...": wHEX writes these
// bytes, rN reads so many. Returns the bytes read in hexadecimal or the error.
std::string transfer(const std::string &text) {
  static unsigned number, addr;
  std::istringstream words(text);
  if (text.find(':') != std::string::npos) (words >> number).ignore() >> std::hex >> addr;
  std::vector<std::vector<uint8_t>> bytes;
  std::vector<i2c_msg> messages;
  for (std::string word; words >> word;) {
    auto &data = bytes.emplace_back();
    for (size_t i = 1; word[0] == 'w' && i + 1 < word.size(); i += 2)
      data.push_back(static_cast<uint8_t>(std::stoul(word.substr(i, 2), nullptr, 16)));
    if (word[0] == 'r') data.resize(std::stoul(word.substr(1)));
    messages.push_back({static_cast<uint16_t>(addr), static_cast<uint16_t>(word[0] == 'r' ? I2C_M_RD : 0),
                        static_cast<uint16_t>(data.size()), data.data()});
  }
  i2c_rdwr_ioctl_data data{messages.data(), static_cast<uint32_t>(messages.size())};
  const int result = ioctl(unique_fd(open_bus(number)).get(), I2C_RDWR, &data);
  if (result < 0) return strerrorname_np(errno);
  EXPECT_EQ(static_cast<size_t>(result), messages.size());
  std::string in;
  for (const auto &message : messages)
    for (unsigned at = 0; message.flags != 0 && at < message.len; ++at)
      in += format("%02X", unsigned{message.buf[at]});
  return in;
}

TEST(sim_i2c, devices_answer_as_their_data_sheets_say) {
  // With the firings of each fault.
  const script_case cases[] = {
      // clang-format off
      // AT24C512: two address bytes, then its own counter.
      {"reads carry on", {}, "1:52 w0022 r4 = 5355502D; r1 = 44; w1000 =; r1 = AB; r2 = AB03; w10 =; r1 = A0"},
      {"a read wraps at the end", {}, "1:52 wFFFF r3 = FFABAB"},
      {"a write wraps in its page", {}, "1:52 w207E01020304 =; r1 = ENXIO; r1 = ENXIO; r1 = FF; w207D r3 = FF0102; w2000 r3 = 0304FF"},
      {"last page", {}, "1:52 wFFFF0102 =; r1 = ENXIO; r1 = ENXIO; wFFFF r2 = 01AB; wFF80 r2 = 02FF"},
      {"more than a page", {},
       "1:52 w3000" + std::string(256, '1') + "2233 =; r1 = ENXIO; r1 = ENXIO; r1 = 11; w3000 r3 = 223311; "
       "w307F r2 = 11FF"},
      {"no stop, no write", {}, "1:52 w20001122 r1 = FF; w2000 r2 = FFFF"},
      {"busy", {"eeprom-busy bus=1 addr=0x52 polls=4", "--busy=time"},
       "1:52 w200001 =; w = ENXIO; w = ENXIO; r1 = ENXIO; w = ENXIO; w2000 r1 = 01", {2}},
      {"busy for ever", {"eeprom-busy bus=1 addr=0x52"}, "1:52 w200001 =; w = ENXIO; w = ENXIO; w = ENXIO", {1}},
      {"protected", {"eeprom-protected bus=1 addr=0x52 times=1", "eeprom-protected bus=1 addr=0x52 nth=2 times=1"},
       "1:52 w00001234 =; w00001234 =; r1 = ENXIO; r1 = ENXIO; w00005678 =; w0000 r2 = 1234", {1, 1}},
      {"corrupt", {"eeprom-corrupt bus=1 addr=0x52 offset=1 xor=0x0F", "sprom-corrupt image=bp block=license offset=15 xor=1"},
       "1:52 w0000 r3 = ABA403; w11D5 r2 = 2931", {1, 1}},

      // AT24C02: one address byte. A second one is data: what would set a large chip's address writes a byte.
      {"one address byte", {"--family=tosk"}, "6:52 w22 r3 = 505752; wFF r2 = FFAB; w0022 =; r1 = ENXIO; r1 = ENXIO; w00 r2 = 22AB"},
      {"pages of eight", {"--family=tosk"}, "6:52 wFE010203 =; r1 = ENXIO; r1 = ENXIO; wFE r2 = 0102; wF8 r1 = 03"},
      // A byte is torn when the power goes. What is dead does not answer.
      {"dies", {"--family=tosk", "eeprom-power-cut bus=6 addr=0x53 nth=3", "eeprom-dies bus=6 addr=0x53 nth=2 torn=0xF0"},
       "6:53 wF08A =; r1 = ENXIO; r1 = ENXIO; wF18A =; r1 = ENXIO; r1 = ENXIO; r1 = ENXIO; 6:52 wF1 r1 = FF", {0, 2}},

      // PCA9539: pairs alternate, from the odd register too; a read without a command goes on there; nothing
      // above register 7.
      {"power-on", {"--family=pellin"}, "7:75 w00 r2 = FFFF; w02 r2 = FFFF; w04 r2 = 0000; w06 r2 = FFFF"},
      {"pairs", {"--family=pellin"},
       "7:75 w021234 =; w02 r5 = 1234123412; w03 r2 = 3412; w0356789A =; w02 r2 = 789A; w02 =; r1 = 78; r2 = 9A78; "
       "w08 = EIO; w8001 = EIO; r1 = 9A; w02AA =; r1 = 9A"},
      // An output shows its latch only once it is one; polarity changes what is read of the pins and nothing else.
      {"pins", {"--family=pellin", "pin-stuck bus=7 addr=0x75 pin=9 level=0"},
       "7:75 w00 r2 = FFFD; w000000 =; w02F7FF =; w00 r2 = FFFD; w06F7FD =; w00 r2 = F7FD; w02FFFF =; w00 r2 = FFFD; w040902 =; w00 r2 = F6FF; w02 r2 = FFFF", {5}},
      // PCA8575: a pull-up that the outside pulls low.
      {"no registers", {"--family=pellin", "straps value=2", "straps value=1 nth=9"},
       "8:26 r3 = FFBFFF; wF0 =; r2 = F0BF; wFF7F =; r2 = FF3F; wFFFFFE =; r2 = FEBF", {3, 0}},

      {"absent", {"i2c-absent bus=1 addr=0x52"}, "1:52 w0000 = ENXIO; r1 = ENXIO", {2}},
      // Busy time lets no transaction through and does not count; a failed one does not change the chip.
      {"third fails", {"i2c-fail bus=1 addr=0x52 nth=3 errno=110"},
       "1:52 w200001 =; w = ENXIO; w = ENXIO; w2000 r1 w2001 r1 = 01FF; w200002 = ETIMEDOUT; w2000 r1 = 01", {1}},
      // clang-format on
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.name);
    const test_board board(c.with);
    expect_steps(c.script, transfer);
    EXPECT_EQ(board.fired(), c.expected);
  }
}

TEST(sim_i2c, eeproms_keep_their_contents_and_place_and_take_their_time) {
  const test_board board({"--busy=time"});
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(transfer("1:52 w00225A"), "");
  while (transfer("1:52 w") == "ENXIO") {
  }
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(10));
  board.start({"--card=11096"});
  expect_steps("1:52 w0022 r1 = 5A; w00B6 r2 = 2B36; w0020 r2 = 0000", transfer);
  board.start();  // for the next program
  EXPECT_EQ(transfer("1:52 r1"), "5A");
  EXPECT_EQ(board.contents("eeprom-1-52").substr(0x21, 3), std::string("\0ZU", 3));
}

TEST(sim_i2c, faults_are_refused_for_what_the_board_lacks_and_where_they_do_nothing) {
  const std::pair<std::vector<const char *>, const char *> cases[] = {
      {{"i2c-absent bus=1 addr=0x53"}, "the board has no such I2C device"},
      {{"i2c-bus-absent bus=7"}, "the board has no such I2C bus"},
      {{"straps value=1"}, "the board has no straps"},
      {{"straps value=2", "--family=tosk"}, "the straps have this value anyway"},
      {{"eeprom-busy bus=7 addr=0x75", "--family=tosk"}, "the device is no EEPROM"},
      {{"eeprom-corrupt bus=6 addr=0x52 offset=256", "--family=tosk"}, "the EEPROM ends before this offset"},
      {{"pin-stuck bus=7 addr=0x52 pin=0 level=0", "--family=tosk"}, "the device is no I/O expander"},
      {{"sprom-corrupt image=lc3 block=main", "--family=tosk"}, "the board has no such SPROM"},
      {{"sprom-corrupt image=bp block=sensor"}, "the image has no such block"},
      {{"sprom-corrupt image=bp block=license offset=16"}, "the block ends before this offset"},
      {{"pci-missing bus=0x2d dev=0 func=0"}, "the board has no such PCI function"},
      {{"pci-wrong-id bus=2 dev=0 func=0 device=0x1521"}, "the function has these ids anyway"},
      {{"bar-io bar=1"}, "this register maps I/O space anyway"},
      {{"flash-cfi word=0x20 value=2"}, "the word has this value anyway"},
      {{"flash-slow"}, "these are the usual numbers"},
      {{"nvram-data-stuck instance=0 line=0 level=0", "--cut-audit=a"}, "'--cut-audit' needs healthy memories"},
  };
  for (const auto &[with, why] : cases)
    EXPECT_EQ(sim::board_check(board_options("/", with)), "fault '" + std::string(with[0]) + "': " + why);
  EXPECT_EQ(sim::board_check(board_options("/", {"--waits=short", "--busy=time"})),
            "'--waits short' needs busy times that are counted in polls");
}

TEST(sim_i2c_dev, puts_smbus_transfers_on_the_wire_as_messages) {
  test_board board({"i2c-smbus-only bus=1", "--trace"});
  const int fd = open_bus(1);
  unsigned long functions = 0;
  EXPECT_EQ(ioctl(fd, I2C_FUNCS, &functions), 0);
  EXPECT_EQ(functions & (I2C_FUNC_I2C | I2C_FUNC_SMBUS_WORD_DATA), unsigned{I2C_FUNC_SMBUS_WORD_DATA});
  EXPECT_EQ(transfer("1:52 r1"), "EOPNOTSUPP");
  EXPECT_EQ(ioctl(fd, I2C_SLAVE, 0x52), 0);
  // A block's length is the low byte of its word.
  // clang-format off
  const struct { uint8_t kind, command; uint32_t size; uint16_t before; int error, after; strings log; } cases[] = {
      {I2C_SMBUS_WRITE, 0x20, I2C_SMBUS_WORD_DATA,      0x5A07, 0, 0x5A07,  {"i2c-1:52 w 24 0x0 0x20075a"}},
      {I2C_SMBUS_READ,  0,    I2C_SMBUS_BYTE,           0x0000, ENXIO, 0,   {"i2c-1:52 R 0 0x0 0x0"}},
      {I2C_SMBUS_WRITE, 0,    I2C_SMBUS_QUICK,          0x0000, ENXIO, 0,   {"i2c-1:52 W 0 0x0 0x0"}},
      {I2C_SMBUS_READ,  0x08, I2C_SMBUS_I2C_BLOCK_DATA, 0x0001, 0, 0xFF01,  {"i2c-1:52 w 8 0x0 0x08", "i2c-1:52 r 8 0x1 0xff"}},
      {I2C_SMBUS_WRITE, 0x10, I2C_SMBUS_I2C_BLOCK_DATA, 0x7701, 0, 0x7701,  {"i2c-1:52 w 16 0x0 0x1077"}},
      {I2C_SMBUS_READ,  0x07, I2C_SMBUS_BLOCK_DATA,     0x0000, EOPNOTSUPP, 0, {}},
  };
  // clang-format on
  (void)board.log();
  for (const auto &[kind, command, size, before, error, after, log] : cases) {
    i2c_smbus_data data{.word = before};
    i2c_smbus_ioctl_data args{kind, command, size, size == I2C_SMBUS_QUICK ? nullptr : &data};
    EXPECT_EQ(ioctl(fd, I2C_SMBUS, &args) == 0 ? 0 : errno, error);
    EXPECT_EQ(data.word, after);
    EXPECT_EQ(board.log(), log);
  }
  (void)close(fd);
}

TEST(sim_i2c_dev, refuses_what_the_kernel_refuses) {
  const test_board board;
  const int fd = open_bus(1);
  uint8_t byte = 0;
  i2c_msg good{0x52, I2C_M_RD, 1, &byte}, ten_bits{0x52, I2C_M_TEN, 1, &byte}, no_buffer{0x52, I2C_M_RD, 1, nullptr},
      long_one{0x52, I2C_M_RD, 8193, &byte}, reserved{0x80, I2C_M_RD, 1, &byte};
  const std::pair<i2c_rdwr_ioctl_data, int> cases[] = {
      {{&good, 0}, EINVAL},      {{&good, 43}, EINVAL},    {{nullptr, 1}, EINVAL},   {{&ten_bits, 1}, EINVAL},
      {{&no_buffer, 1}, EFAULT}, {{&long_one, 1}, EINVAL}, {{&reserved, 1}, EINVAL}, {{&good, 1}, 0},
  };
  for (auto [data, error] : cases)
    EXPECT_EQ(ioctl(fd, I2C_RDWR, &data) < 0 ? errno : 0, error);
  for (const auto &[request, arg] : {std::pair{I2C_RDWR, 0L}, {I2C_SLAVE, 0x80L}, {I2C_TENBIT, 1L}, {0x5401, 0L}})
    EXPECT_EQ(ioctl(fd, static_cast<unsigned long>(request), arg), -1) << request;
  EXPECT_EQ(errno, ENOTTY);
  (void)close(fd);
}

}  // namespace
