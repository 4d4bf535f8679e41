// The I2C buses of the simulated boards, driven through the bus device files as a program drives them.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <linux/i2c-dev.h>
#include <linux/i2c.h>
#include <sys/ioctl.h>
#include <time.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <numeric>
#include <string>
#include <vector>

#include "sim/sprom_image.h"
#include "sim/trace.h"
#include "tests/sim_fixture.h"

namespace {

using bytes = std::vector<uint8_t>;
using strings = std::vector<std::string>;

// One message: bytes to write, or how many to read.
struct message {
  bytes out;
  uint16_t read = 0;
};

// What a transaction gave: 0 or the errno value, and the bytes read.
struct outcome {
  int error;
  bytes in;
  bool operator==(const outcome &) const = default;
};

std::ostream &operator<<(std::ostream &out, const outcome &o) {
  out << "error " << o.error << ", bytes";
  for (const auto byte : o.in)
    out << ' ' << unsigned{byte};
  return out;
}

class bus {
 public:
  explicit bus(unsigned number) : m_fd(open(("/dev/i2c-" + std::to_string(number)).c_str(), O_RDWR)) {}
  bus(const bus &) = delete;
  bus &operator=(const bus &) = delete;
  ~bus() { (void)close(m_fd); }
  [[nodiscard]] int fd() const { return m_fd; }

  // The messages as one transaction with one device.
  outcome transfer(uint16_t addr, std::vector<message> messages) {
    std::vector<i2c_msg> raw;
    std::vector<bytes> in(messages.size());
    for (size_t i = 0; i < messages.size(); i++) {
      auto &m = messages[i];
      in[i].resize(m.read);
      const bool reading = m.read != 0;
      raw.push_back({addr, static_cast<uint16_t>(reading ? I2C_M_RD : 0),
                     reading ? m.read : static_cast<uint16_t>(m.out.size()), reading ? in[i].data() : m.out.data()});
    }
    i2c_rdwr_ioctl_data data{raw.data(), static_cast<uint32_t>(raw.size())};
    const int result = ioctl(m_fd, I2C_RDWR, &data);
    if (result != static_cast<int>(messages.size())) return {result < 0 ? errno : -1, {}};
    outcome whole{0, {}};
    for (const auto &part : in)
      whole.in.insert(whole.in.end(), part.begin(), part.end());
    return whole;
  }
  outcome write(uint16_t addr, const bytes &out) { return transfer(addr, {{out}}); }
  outcome read(uint16_t addr, uint16_t count) { return transfer(addr, {{{}, count}}); }
  outcome read_at(uint16_t addr, const bytes &where, uint16_t count) { return transfer(addr, {{where}, {{}, count}}); }

  // Writes and waits for the end of the write cycle. Returns how often the chip did not answer meanwhile.
  int program(uint16_t addr, const bytes &out, int most = 1000) {
    EXPECT_EQ(write(addr, out).error, 0);
    int unanswered = 0;
    while (write(addr, {0, 0}).error == ENXIO && unanswered < most)
      unanswered++;
    return unanswered;
  }

 private:
  int m_fd;
};

constexpr uint16_t eeprom = 0x52;

TEST(sim_at24c512, reads_at_an_address_and_carries_on_from_there) {
  const sim_board board;
  const auto chip = board.read("eeprom-1-52");
  ASSERT_EQ(chip.size(), 65536u);
  const auto at = [&](size_t offset, size_t count) { return bytes(&chip[offset], &chip[offset] + count); };
  bus i2c(1);
  EXPECT_EQ(i2c.read_at(eeprom, {0x00, 0x22}, 10), (outcome{0, at(0x22, 10)}));
  EXPECT_EQ(i2c.read(eeprom, 1), (outcome{0, at(0x2C, 1)}));
  EXPECT_EQ(i2c.write(eeprom, {0x10, 0x00}).error, 0);
  EXPECT_EQ(i2c.read(eeprom, 1), (outcome{0, at(0x1000, 1)}));
  EXPECT_EQ(i2c.read(eeprom, 4), (outcome{0, at(0x1001, 4)}));
  // Half an address moves nothing.
  EXPECT_EQ(i2c.write(eeprom, {0x55}).error, 0);
  EXPECT_EQ(i2c.read(eeprom, 1), (outcome{0, at(0x1005, 1)}));
}

TEST(sim_at24c512, wraps_a_read_at_the_end_of_the_memory) {
  const sim_board board;
  bus i2c(1);
  EXPECT_EQ(i2c.read_at(eeprom, {0xFF, 0xFF}, 3), (outcome{0, {0xFF, 0xAB, 0xAB}}));
}

TEST(sim_at24c512, programs_at_the_stop_and_wraps_within_the_page) {
  const struct {
    const char *name;
    bytes address;
    size_t count;               // bytes written, valued 1, 2, ...
    std::vector<size_t> where;  // offsets that then hold them, later ones over earlier ones
    size_t next;                // where a read goes on
  } cases[] = {
      {"one byte", {0x20, 0x05}, 1, {0x2005}, 0x2006},
      {"across nothing", {0x20, 0x10}, 3, {0x2010, 0x2011, 0x2012}, 0x2013},
      {"end of page", {0x20, 0x7F}, 1, {0x207F}, 0x2000},
      {"across the end of the page", {0x20, 0x7E}, 4, {0x207E, 0x207F, 0x2000, 0x2001}, 0x2002},
      {"last page", {0xFF, 0xFF}, 2, {0xFFFF, 0xFF80}, 0xFF81},
      {"more than a page", {0x30, 0x00}, 130, {}, 0x3002},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.name);
    sim_board board;
    bus i2c(1);
    bytes out = c.address;
    for (size_t i = 1; i <= c.count; i++)
      out.push_back(static_cast<uint8_t>(i));
    auto expected = board.read("eeprom-1-52");
    EXPECT_EQ(i2c.write(eeprom, out).error, 0);
    if (c.where.empty()) {
      for (size_t i = 0; i < 128; i++)
        expected[0x3000 + i] = static_cast<char>(i < 2 ? 129 + i : i + 1);
    } else {
      for (size_t i = 0; i < c.where.size(); i++)
        expected[c.where[i]] = static_cast<char>(i + 1);
    }
    EXPECT_TRUE(board.read("eeprom-1-52") == expected);
    // The chip does not answer while it programs; its counter outlasts that.
    EXPECT_EQ(i2c.read(eeprom, 1).error, ENXIO);
    EXPECT_EQ(i2c.read(eeprom, 1).error, ENXIO);
    EXPECT_EQ(i2c.read(eeprom, 1), (outcome{0, {static_cast<uint8_t>(expected[c.next])}}));
  }
}

TEST(sim_at24c512, forgets_data_that_no_stop_follows) {
  const sim_board board;
  bus i2c(1);
  const auto before = board.read("eeprom-1-52");
  EXPECT_EQ(i2c.transfer(eeprom, {{{0x20, 0x00, 0x11, 0x22}}, {{}, 1}}), (outcome{0, {0xFF}}));
  EXPECT_TRUE(board.read("eeprom-1-52") == before);
  EXPECT_EQ(i2c.read(eeprom, 1).error, 0);
}

int64_t now_usec() {
  timespec now{};
  (void)clock_gettime(CLOCK_MONOTONIC, &now);
  return int64_t{now.tv_sec} * 1000000 + now.tv_nsec / 1000;
}

TEST(sim_at24c512, is_busy_for_as_long_as_the_run_asks) {
  {
    const sim_board board;
    EXPECT_EQ(bus(1).program(eeprom, {0x20, 0x00, 1}), 2);
    EXPECT_EQ(bus(1).program(eeprom, {0x20, 0x00}), 0);
  }
  {
    const sim_board board({"--fault=eeprom-busy bus=1 addr=0x52 polls=5", "--busy=time"});
    EXPECT_EQ(bus(1).program(eeprom, {0x20, 0x00, 1}), 5);
  }
  {
    const sim_board board({"--fault=eeprom-busy bus=1 addr=0x52"});
    EXPECT_EQ(bus(1).program(eeprom, {0x20, 0x00, 1}), 1000);
  }
  const sim_board board({"--busy=time"});
  ASSERT_TRUE(sim::trace_open(""));
  const auto start = now_usec();
  EXPECT_GT(bus(1).program(eeprom, {0x20, 0x00, 1}, 1000000), 0);
  EXPECT_GE(now_usec() - start, 5000);
}

TEST(sim_at24c512, acknowledges_and_ignores_writes_under_protection) {
  const sim_board board({"--fault=eeprom-protected bus=1 addr=0x52"});
  bus i2c(1);
  const auto before = board.read("eeprom-1-52");
  EXPECT_EQ(i2c.write(eeprom, {0x00, 0x00, 0x12, 0x34}).error, 0);
  EXPECT_EQ(i2c.read_at(eeprom, {0, 0}, 2), (outcome{0, {0xAB, 0xAB}}));
  EXPECT_TRUE(board.read("eeprom-1-52") == before);
}

TEST(sim_at24c512, reads_corrupt_bytes_wrong_and_keeps_its_contents) {
  const sim_board board({"--fault=eeprom-corrupt bus=1 addr=0x52 offset=1 xor=0x0F",
                         "--fault=sprom-corrupt image=bp block=license offset=15 xor=1"});
  bus i2c(1);
  const auto chip = board.read("eeprom-1-52");
  EXPECT_EQ(i2c.read_at(eeprom, {0, 0}, 3), (outcome{0, {0xAB, 0xA4, 3}}));
  const auto stored = static_cast<uint8_t>(chip[0x1000 + 455 + 15]);
  const auto before = static_cast<uint8_t>(chip[0x1000 + 455 + 14]);
  EXPECT_EQ(i2c.read_at(eeprom, {0x11, 0xD5}, 2), (outcome{0, {before, static_cast<uint8_t>(stored ^ 1)}}));
}

TEST(sim_at24c512, keeps_its_contents_over_runs_and_refuses_a_file_that_is_none) {
  sim_board board;
  EXPECT_EQ(bus(1).program(eeprom, {0x00, 0x22, 'Z'}), 2);
  board.start({"--card=11096"});
  EXPECT_EQ(bus(1).read_at(eeprom, {0x00, 0x22}, 1), (outcome{0, {'Z'}}));
  EXPECT_EQ(bus(1).read_at(eeprom, {0x00, 182}, 2), (outcome{0, {0x2B, 0x36}}));
  sim::board_stop();
  ASSERT_TRUE(sim::write_file(board.state() + "/eeprom-1-52", "short"));
  sim::options opts;
  opts.state = board.state();
  testing::internal::CaptureStderr();
  EXPECT_FALSE(sim::board_start(opts));
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "board-sim: " + board.state() + "/eeprom-1-52: File too large\n");
  EXPECT_EQ(board.read("eeprom-1-52"), "short");
}

TEST(sim_sprom_image, is_valid_block_by_block_on_every_chip) {
  const struct {
    const char *family, *file;
    size_t base;
    sim::image_kind kind;
  } cases[] = {
      {"dorvan", "eeprom-1-52", 0, sim::image_kind::sup}, {"dorvan", "eeprom-1-52", 0x1000, sim::image_kind::bp},
      {"pellin", "eeprom-1-52", 0, sim::image_kind::sup}, {"pellin", "eeprom-1-52", 0x1000, sim::image_kind::bp},
      {"pellin", "eeprom-17-52", 0, sim::image_kind::lc}, {"pellin", "eeprom-23-52", 0, sim::image_kind::lc},
      {"pellin", "eeprom-7-52", 0, sim::image_kind::lc},  {"pellin", "eeprom-6-52", 0, sim::image_kind::ps},
      {"pellin", "eeprom-6-53", 0, sim::image_kind::ps},  {"pellin", "eeprom-6-54", 0, sim::image_kind::fan},
      {"tosk", "eeprom-1-52", 0, sim::image_kind::sup},   {"tosk", "eeprom-1-52", 0x1000, sim::image_kind::bp},
      {"tosk", "eeprom-7-52", 0, sim::image_kind::lc},    {"tosk", "eeprom-6-53", 0, sim::image_kind::ps},
  };
  // Signature, length byte and image size, as the formats have them.
  const std::vector<std::vector<std::array<unsigned, 2>>> formats = {
      {{0xABAB, 160}, {0x6002, 103}, {0x6008, 71}},
      {{0xABAB, 160}, {0x6001, 39}, {0x6005, 256}, {0x6006, 16}},
      {{0xABAB, 160}, {0x6003, 103}},
      {{0xABAB, 160}, {0xAB01, 36}},
      {},
      {{0xABAB, 160}, {0xAB04, 32}},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(std::string(c.family) + " " + c.file);
    const sim_board board({std::string("--family=") + c.family});
    const auto chip = board.read(c.file);
    ASSERT_EQ(chip.size(), 65536u);
    const auto at = [&](size_t offset) { return unsigned{static_cast<uint8_t>(chip[c.base + offset])}; };
    size_t offset = 0;
    for (const auto &[signature, length] : formats[static_cast<size_t>(c.kind)]) {
      EXPECT_EQ(at(offset) << 8 | at(offset + 1), signature);
      EXPECT_EQ(at(offset + 3), length & 0xFF);
      unsigned sum = 0;
      for (size_t i = 0; i < length; i++)
        sum += i == 4 || i == 5 ? 0 : at(offset + i);
      EXPECT_EQ(at(offset + 4) << 8 | at(offset + 5), sum & 0xFFFF) << "block at " << offset;
      offset += length;
    }
    EXPECT_EQ(at(offset), 0xFFu) << "the image ends with its last block";
  }
}

TEST(sim_sprom_image, says_what_the_options_say) {
  const sim_board board({"--card=11096", "--change-bits=0x0102030405060708"});
  bus i2c(1);
  EXPECT_EQ(i2c.read_at(eeprom, {0, 174}, 10), (outcome{0, {1, 2, 3, 4, 5, 6, 7, 8, 0x2B, 0x58}}));
  EXPECT_EQ(i2c.read_at(eeprom, {0x10, 174}, 8), (outcome{0, {1, 2, 3, 4, 5, 6, 7, 8}}));
}

// Expander tests are lists of transactions with one device.
struct step {
  std::vector<message> messages;
  outcome result;
};

void run(bus *i2c, uint16_t addr, const std::vector<step> &steps) {
  size_t number = 0;
  for (const auto &s : steps)
    EXPECT_EQ(i2c->transfer(addr, s.messages), s.result) << "step " << number++;
}

constexpr int ok = 0;

TEST(sim_pca9539, has_eight_registers_in_four_pairs) {
  const sim_board board({"--family=pellin"});
  bus i2c(7);
  run(&i2c, 0x75,
      {
          // Power-on: pins pulled up, outputs high, polarity plain, all inputs.
          {{{{0}}, {{}, 2}}, {ok, {0xFF, 0xFF}}},
          {{{{2}}, {{}, 2}}, {ok, {0xFF, 0xFF}}},
          {{{{4}}, {{}, 2}}, {ok, {0x00, 0x00}}},
          {{{{6}}, {{}, 2}}, {ok, {0xFF, 0xFF}}},
          // Pairs alternate, from the odd register too, and go on for as long as bytes come.
          {{{{2, 0x12, 0x34}}}, {ok, {}}},
          {{{{2}}, {{}, 5}}, {ok, {0x12, 0x34, 0x12, 0x34, 0x12}}},
          {{{{3}}, {{}, 2}}, {ok, {0x34, 0x12}}},
          {{{{3, 0x56, 0x78, 0x9A}}}, {ok, {}}},
          {{{{2}}, {{}, 2}}, {ok, {0x78, 0x9A}}},
          // A read without a command goes to the last one.
          {{{{6}}}, {ok, {}}},
          {{{{}, 2}}, {ok, {0xFF, 0xFF}}},
          {{{{}, 1}}, {ok, {0xFF}}},
          {{{{}, 1}}, {ok, {0xFF}}},
          // Nothing above register 7.
          {{{{8}}}, {EIO, {}}},
          {{{{0x80, 1}}}, {EIO, {}}},
          {{{{}, 1}}, {ok, {0xFF}}},
      });
}

TEST(sim_pca9539, drives_outputs_inverts_inputs_and_ignores_writes_to_them) {
  const sim_board board({"--family=pellin", "--fault=pin-stuck bus=7 addr=0x75 pin=9 level=0"});
  bus i2c(7);
  run(&i2c, 0x75,
      {
          {{{{0}}, {{}, 2}}, {ok, {0xFF, 0xFD}}},
          {{{{0, 0x00, 0x00}}}, {ok, {}}},
          {{{{0}}, {{}, 2}}, {ok, {0xFF, 0xFD}}},
          // An output shows its latch only once it is an output.
          {{{{2, 0xF7, 0xFF}}}, {ok, {}}},
          {{{{0}}, {{}, 2}}, {ok, {0xFF, 0xFD}}},
          {{{{6, 0xF7, 0xFD}}}, {ok, {}}},
          {{{{0}}, {{}, 2}}, {ok, {0xF7, 0xFD}}},
          {{{{2, 0xFF, 0xFF}}}, {ok, {}}},
          {{{{0}}, {{}, 2}}, {ok, {0xFF, 0xFD}}},
          // Polarity changes what is read of the pins and nothing else.
          {{{{4, 0x09, 0x02}}}, {ok, {}}},
          {{{{0}}, {{}, 2}}, {ok, {0xF6, 0xFF}}},
          {{{{2}}, {{}, 2}}, {ok, {0xFF, 0xFF}}},
      });
}

TEST(sim_pca8575, is_a_pull_up_that_the_outside_pulls_low) {
  const sim_board board({"--family=pellin", "--fault=straps value=2"});
  bus i2c(8);
  run(&i2c, 0x26,
      {
          {{{{}, 2}}, {ok, {0xFF, 0xBF}}},
          {{{{}, 3}}, {ok, {0xFF, 0xBF, 0xFF}}},
          {{{{0xF0}}}, {ok, {}}},
          {{{{}, 2}}, {ok, {0xF0, 0xBF}}},
          {{{{0xFF, 0x7F}}}, {ok, {}}},
          {{{{}, 2}}, {ok, {0xFF, 0x3F}}},
          {{{{0xFF, 0xFF, 0xFE}}}, {ok, {}}},
          {{{{}, 2}}, {ok, {0xFE, 0xBF}}},
      });
}

TEST(sim_boards, have_the_straps_of_their_family_or_of_the_fault) {
  const struct {
    strings args;
    uint8_t port0, port1;  // of the PCA9539, of the PCA8575
  } cases[] = {
      {{"--family=pellin"}, 0x3F, 0x3F},
      {{"--family=tosk"}, 0xBF, 0xBF},
      {{"--family=tosk", "--fault=straps value=0"}, 0x3F, 0x3F},
      {{"--family=pellin", "--fault=straps value=1"}, 0x7F, 0x7F},
      {{"--family=pellin", "--fault=straps value=3"}, 0xFF, 0xFF},
  };
  for (const auto &c : cases) {
    const sim_board board(c.args);
    bus i2c(8);
    EXPECT_EQ(i2c.read_at(0x76, {0}, 2), (outcome{0, {c.port0, 0xFF}})) << c.args.back();
    EXPECT_EQ(i2c.read(0x26, 2), (outcome{0, {0xFF, c.port1}})) << c.args.back();
  }
}

TEST(sim_boards, protect_each_module_eeprom_by_its_expander_pin) {
  const struct {
    strings args;
    unsigned eeprom_bus, expander_bus;
    uint16_t expander;
    uint8_t low, high;  // the pair with the pin's bit clear
  } cases[] = {
      {{"--family=pellin"}, 23, 23, 0x75, 0xF7, 0xFF},
      {{"--family=pellin"}, 7, 7, 0x75, 0xF7, 0xFF},
      {{"--family=tosk"}, 7, 7, 0x75, 0xF7, 0xFF},
      {{"--family=pellin"}, 17, 20, 0x76, 0xFF, 0xFD},
      {{"--family=pellin", "--revision=P0"}, 17, 20, 0x76, 0x7F, 0xFF},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE("i2c-" + std::to_string(c.eeprom_bus) + " " + c.args.back());
    const sim_board board(c.args);
    bus memory(c.eeprom_bus);
    bus control(c.expander_bus);
    const auto try_write = [&](uint8_t value) {
      (void)memory.program(eeprom, {0x20, 0x00, value});
      return memory.read_at(eeprom, {0x20, 0x00}, 1).in.at(0);
    };
    EXPECT_EQ(try_write(1), 0xFF) << "an input is pulled up";
    EXPECT_EQ(control.write(c.expander, {2, c.low, c.high}).error, 0);
    EXPECT_EQ(try_write(2), 0xFF) << "still an input";
    EXPECT_EQ(control.write(c.expander, {6, c.low, c.high}).error, 0);
    EXPECT_EQ(try_write(3), 3) << "an output, low";
    EXPECT_EQ(control.write(c.expander, {2, 0xFF, 0xFF}).error, 0);
    EXPECT_EQ(try_write(4), 3) << "an output, high";
    // The other pins do not matter.
    EXPECT_EQ(control.write(c.expander, {6, 0x00, 0x00}).error, 0);
    EXPECT_EQ(control.write(c.expander, {2, static_cast<uint8_t>(~c.low), static_cast<uint8_t>(~c.high)}).error, 0);
    EXPECT_EQ(try_write(5), 3) << "all others low";
  }
}

TEST(sim_boards, carry_the_devices_of_their_family_on_numbered_buses) {
  const struct {
    const char *family;
    std::vector<std::pair<unsigned, strings>> buses;
  } cases[] = {
      {"dorvan", {{1, {"52"}}}},
      {"pellin",
       {{0, {"55", "5e"}},
        {1, {"52"}},
        {6, {"52", "53", "54"}},
        {7, {"52", "75"}},
        {8, {"26", "76"}},
        {17, {"52"}},
        {20, {"76"}},
        {23, {"52", "75"}}}},
      {"tosk", {{0, {"55", "5e"}}, {1, {"52"}}, {6, {"52", "53", "54"}}, {7, {"52", "75"}}, {8, {"26", "76"}}}},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.family);
    const sim_board board({std::string("--family=") + c.family});
    std::vector<std::pair<unsigned, strings>> found;
    for (unsigned number = 0; number < 64; number++) {
      bus i2c(number);
      if (i2c.fd() < 0) continue;
      found.push_back({number, {}});
      for (uint16_t addr = 0x03; addr <= 0x77; addr++) {
        char text[8];
        (void)snprintf(text, sizeof(text), "%02x", addr);
        const auto result = i2c.read(addr, 1);
        if (result.error == 0) found.back().second.emplace_back(text);
        EXPECT_TRUE(result.error == 0 || result.error == ENXIO);
      }
    }
    EXPECT_EQ(found, c.buses);
  }
}

TEST(sim_i2c_faults, fail_the_transactions_that_they_name) {
  const struct {
    const char *fault;
    std::vector<int> errors;  // of one transaction after the other
  } cases[] = {
      {"i2c-absent bus=1 addr=0x52", {ENXIO, ENXIO, ENXIO}},
      {"i2c-fail bus=1 addr=0x52", {EIO, 0, 0, 0}},
      {"i2c-fail bus=1 addr=0x52 nth=3", {0, 0, EIO, 0, 0}},
      {"i2c-fail bus=1 addr=0x52 nth=2 times=2 errno=110", {0, ETIMEDOUT, ETIMEDOUT, 0}},
      {"i2c-fail bus=1 addr=0x52 nth=2 times=0 errno=121", {0, EREMOTEIO, EREMOTEIO, EREMOTEIO}},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.fault);
    const sim_board board({"--fault", c.fault});
    const auto before = board.read("eeprom-1-52");
    auto expected = before;
    bus i2c(1);
    std::vector<int> errors;
    for (size_t i = 0; i < c.errors.size(); i++) {
      // The chip's busy time lets no transaction through and does not count.
      int error = ENXIO;
      for (int tries = 0; error == ENXIO && tries < 5; tries++)
        error = i2c.write(eeprom, {0x20, static_cast<uint8_t>(i), 0}).error;
      if (c.errors[i] == 0) expected[0x2000 + i] = 0;
      errors.push_back(error);
    }
    EXPECT_EQ(errors, c.errors);
    EXPECT_TRUE(board.read("eeprom-1-52") == expected) << "a failed transaction changed the chip";
  }
}

TEST(sim_i2c_faults, count_a_transaction_once_however_many_messages_it_has) {
  const sim_board board({"--fault=i2c-fail bus=1 addr=0x52 nth=2"});
  bus i2c(1);
  EXPECT_EQ(i2c.transfer(eeprom, {{{0, 0}}, {{}, 1}, {{0, 1}}, {{}, 1}}), (outcome{0, {0xAB, 0xAB}}));
  EXPECT_EQ(i2c.read_at(eeprom, {0, 0}, 1).error, EIO);
  EXPECT_EQ(i2c.read_at(eeprom, {0, 0}, 1), (outcome{0, {0xAB}}));
}

TEST(sim_i2c_faults, are_refused_for_what_the_board_lacks) {
  const struct {
    strings args;
    const char *why;
  } cases[] = {
      {{"--fault=i2c-absent bus=1 addr=0x53"}, "the board has no such I2C device"},
      {{"--fault=i2c-fail bus=7 addr=0x75"}, "the board has no such I2C device"},
      {{"--fault=i2c-bus-absent bus=7"}, "the board has no such I2C bus"},
      {{"--fault=straps value=1"}, "the board has no straps"},
      {{"--family=tosk", "--fault=eeprom-busy bus=7 addr=0x75"}, "the device is no EEPROM"},
      {{"--family=tosk", "--fault=pin-stuck bus=7 addr=0x52 pin=0 level=0"}, "the device is no I/O expander"},
      {{"--family=tosk", "--fault=sprom-corrupt image=lc3 block=main"}, "the board has no such SPROM"},
      {{"--fault=sprom-corrupt image=bp block=sensor"}, "the image has no such block"},
      {{"--fault=sprom-corrupt image=bp block=license offset=16"}, "the block ends before this offset"},
  };
  for (const auto &c : cases) {
    std::string error;
    const auto opts = sim::options_parse(c.args, &error);
    ASSERT_TRUE(opts) << error;
    EXPECT_EQ(sim::board_check(*opts), "fault '" + opts->faults[0].text + "': " + c.why);
  }
}

// One SMBus transfer through its own ioctl.
int smbus(const bus &i2c, uint8_t reading, uint8_t command, uint32_t size, i2c_smbus_data *data) {
  i2c_smbus_ioctl_data args{reading, command, size, data};
  return ioctl(i2c.fd(), I2C_SMBUS, &args) == 0 ? 0 : errno;
}

TEST(sim_smbus, puts_the_same_on_the_wire_as_plain_messages) {
  sim_board board({"--fault=i2c-smbus-only bus=1"});
  bus i2c(1);
  unsigned long functions = 0;
  EXPECT_EQ(ioctl(i2c.fd(), I2C_FUNCS, &functions), 0);
  EXPECT_EQ(functions & I2C_FUNC_I2C, 0u);
  EXPECT_NE(functions & I2C_FUNC_SMBUS_WORD_DATA, 0u);
  EXPECT_EQ(i2c.read(eeprom, 1).error, EOPNOTSUPP);
  EXPECT_EQ(ioctl(i2c.fd(), I2C_SLAVE, 0x80), -1);
  EXPECT_EQ(ioctl(i2c.fd(), I2C_SLAVE, eeprom), 0);
  (void)board.take_log();

  i2c_smbus_data data{};
  data.byte = 0x00;
  EXPECT_EQ(smbus(i2c, I2C_SMBUS_WRITE, 0x20, I2C_SMBUS_BYTE_DATA, &data), 0);
  EXPECT_THAT(board.take_log(), testing::ElementsAre("i2c-1:52 w 16 0x0 0x2000"));
  EXPECT_EQ(smbus(i2c, I2C_SMBUS_READ, 0, I2C_SMBUS_BYTE, &data), 0);
  EXPECT_EQ(data.byte, 0xFF);
  EXPECT_THAT(board.take_log(), testing::ElementsAre("i2c-1:52 r 8 0x0 0xff"));
  data.word = 0x5A07;
  EXPECT_EQ(smbus(i2c, I2C_SMBUS_WRITE, 0x20, I2C_SMBUS_WORD_DATA, &data), 0);
  EXPECT_THAT(board.take_log(), testing::ElementsAre("i2c-1:52 w 24 0x0 0x20075a"));
  EXPECT_EQ(board.read("eeprom-1-52").at(0x2007), 0x5A);
  EXPECT_EQ(smbus(i2c, I2C_SMBUS_READ, 0, I2C_SMBUS_BYTE, &data), ENXIO);
  EXPECT_EQ(smbus(i2c, I2C_SMBUS_WRITE, 0, I2C_SMBUS_QUICK, nullptr), ENXIO);
  EXPECT_EQ(smbus(i2c, I2C_SMBUS_WRITE, 0, I2C_SMBUS_QUICK, nullptr), 0);
  EXPECT_THAT(board.take_log(),
              testing::ElementsAre("i2c-1:52 R 0 0x0 0x0", "i2c-1:52 W 0 0x0 0x0", "i2c-1:52 w 0 0x0 0x0"));
  EXPECT_EQ(smbus(i2c, I2C_SMBUS_READ, 0x07, I2C_SMBUS_WORD_DATA, &data), 0);
  EXPECT_THAT(board.take_log(), testing::ElementsAre("i2c-1:52 w 8 0x0 0x07", "i2c-1:52 r 16 0x1 0xffff"));
  data.block[0] = 2;
  EXPECT_EQ(smbus(i2c, I2C_SMBUS_READ, 0x07, I2C_SMBUS_I2C_BLOCK_DATA, &data), 0);
  EXPECT_EQ(smbus(i2c, I2C_SMBUS_READ, 0x07, I2C_SMBUS_BLOCK_DATA, &data), EOPNOTSUPP);
}

TEST(sim_smbus, is_there_beside_plain_messages_on_other_adapters) {
  const sim_board board({"--family=tosk", "--fault=i2c-smbus-only bus=1"});
  bus i2c(8);
  unsigned long functions = 0;
  EXPECT_EQ(ioctl(i2c.fd(), I2C_FUNCS, &functions), 0);
  EXPECT_NE(functions & I2C_FUNC_I2C, 0u);
  EXPECT_EQ(ioctl(i2c.fd(), I2C_SLAVE, 0x76), 0);
  i2c_smbus_data data{};
  EXPECT_EQ(smbus(i2c, I2C_SMBUS_READ, 0, I2C_SMBUS_WORD_DATA, &data), 0);
  EXPECT_EQ(data.word, 0xFFBF);
  EXPECT_EQ(smbus(i2c, I2C_SMBUS_READ, 1, I2C_SMBUS_BYTE_DATA, &data), 0);
  EXPECT_EQ(data.byte, 0xFF);
}

TEST(sim_i2c_dev, refuses_what_the_kernel_refuses) {
  const sim_board board;
  bus i2c(1);
  uint8_t byte = 0;
  i2c_msg good{eeprom, I2C_M_RD, 1, &byte};
  i2c_msg ten_bits{eeprom, I2C_M_TEN, 1, &byte};
  i2c_msg no_buffer{eeprom, I2C_M_RD, 1, nullptr};
  i2c_msg long_one{eeprom, I2C_M_RD, 8193, &byte};
  i2c_msg reserved{0x80, I2C_M_RD, 1, &byte};
  const struct {
    const char *name;
    i2c_rdwr_ioctl_data data;
    int error;
  } cases[] = {
      {"no message", {&good, 0}, EINVAL},           {"too many messages", {&good, 43}, EINVAL},
      {"null list", {nullptr, 1}, EINVAL},          {"ten-bit address", {&ten_bits, 1}, EINVAL},
      {"no buffer", {&no_buffer, 1}, EFAULT},       {"too long", {&long_one, 1}, EINVAL},
      {"address too high", {&reserved, 1}, EINVAL}, {"good", {&good, 1}, 0},
  };
  for (const auto &c : cases) {
    auto data = c.data;
    const int result = ioctl(i2c.fd(), I2C_RDWR, &data);
    EXPECT_EQ(result < 0 ? errno : 0, c.error) << c.name;
  }
  EXPECT_EQ(ioctl(i2c.fd(), I2C_RDWR, nullptr), -1);
  EXPECT_EQ(ioctl(i2c.fd(), I2C_TENBIT, 1), -1);
  EXPECT_EQ(ioctl(i2c.fd(), 0x5401, &byte), -1);
  EXPECT_EQ(errno, ENOTTY);
}

TEST(sim_i2c_dev, logs_every_message_in_order) {
  sim_board board;
  bus i2c(1);
  (void)i2c.write(eeprom, {0x10, 0x00});
  (void)i2c.read_at(eeprom, {0x00, 0x00}, 2);
  (void)i2c.write(0x20, {0x01});
  (void)i2c.read(0x20, 1);
  EXPECT_THAT(board.take_log(),
              testing::ElementsAre("i2c-1:52 w 16 0x0 0x1000", "i2c-1:52 w 16 0x0 0x0000", "i2c-1:52 r 16 0x1 0xabab",
                                   "i2c-1:20 W 8 0x0 0x01", "i2c-1:20 R 0 0x0 0x0"));
}

}  // namespace
