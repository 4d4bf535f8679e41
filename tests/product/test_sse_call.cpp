// The I2C service on simulated buses, by what goes over the wire; it keeps them open in its process. The linker sends
// its clock here.
#include <linux/i2c.h>
#include <time.h>

#include "platform/libutils/sse.h"
#include "tests/support/new_board.h"

namespace {

using lines = std::vector<std::string>;

int64_t now_us = 0;
int64_t step_us = 100;  // from one look at the clock to the next; a transfer takes two, as the log has times

// A request and what comes of it. Data are what was sent, or what was received over A1 A2.
struct request {
  uint32_t op, dev_type, xfer;
  uint16_t cmd;
  std::array<uint8_t, 2> data{0xA1, 0xA2};

  int32_t make() {
    sse_req_t req{0, dev_type, 0, cmd, xfer, data.data(), 0};
    return sse_call(op, &req);
  }
  int32_t make_at(const char *path, uint32_t addr, uint32_t addr_len = 2) {
    sse_route(path, addr, addr_len);
    return make();
  }
};
constexpr uint32_t RD = SSE_OP_I2C_READ, WR = SSE_OP_I2C_WRITE;

}  // namespace

extern "C" int __wrap_clock_gettime(clockid_t clock, timespec *now);
int __wrap_clock_gettime(clockid_t clock, timespec *now) {
  EXPECT_EQ(clock, CLOCK_MONOTONIC);
  now_us += step_us;
  *now = {static_cast<time_t>(now_us / 1'000'000), static_cast<long>(now_us % 1'000'000 * 1000)};
  return 0;
}

namespace {

TEST(sse_service, makes_one_transaction_of_the_kind_asked_for) {
  // clang-format off
  const struct { request asked; const char *path; uint32_t addr, addr_len;
                 int32_t result; lines wire; std::array<uint8_t, 2> data; } rows[]{
      // EEPROMs with two address bytes and with one, whose high byte must be 0.
      {{WR,  7, 2, 0x00, {0x22}},       "/dev/i2c-1", 0x52, 2, 0,       {"i2c-1:52 w 16 0x0 0x0022"},   {0x22, 0}},
      {{RD,  7, 1, 0},                  "/dev/i2c-1", 0x52, 2, 0,       {"i2c-1:52 r 8 0x0 0x53"},      {0x53, 0xA2}},
      {{WR,  7, 3, 0x20},               "/dev/i2c-1", 0x52, 2, 0,       {"i2c-1:52 w 24 0x0 0x20a1a2"}, {0xA1, 0xA2}},
      {{WR,  7, 2, 0x00, {0x22}},       "/dev/i2c-6", 0x53, 1, 0,       {"i2c-6:53 w 8 0x0 0x22"},      {0x22, 0}},
      {{RD,  7, 1, 0},                  "/dev/i2c-6", 0x53, 1, 0,       {"i2c-6:53 r 8 0x0 0x50"},      {0x50, 0xA2}},
      {{WR,  7, 2, 0x01, {0x22}},       "/dev/i2c-6", 0x53, 1, -EINVAL, {},                             {0x22, 0}},
      {{WR,  7, 3, 0x80},               "/dev/i2c-6", 0x53, 1, -EINVAL, {},                             {0xA1, 0xA2}},
      {{WR,  7, 1, 0},                  "/dev/i2c-6", 0x53, 1, 0,       {"i2c-6:53 w 8 0x0 0xa1"},      {0xA1, 0xA2}},
      {{WR,  7, 3, 0x00},               "/dev/i2c-6", 0x53, 1, 0,       {"i2c-6:53 w 16 0x0 0xa1a2"},   {0xA1, 0xA2}},
      // Expanders: the length of their address is no EEPROM's.
      {{WR, 15, 2, 0x02},               "/dev/i2c-7", 0x75, 1, 0,       {"i2c-7:75 w 16 0x0 0x02a1"},   {0xA1, 0xA2}},
      {{WR, 15, 3, 0x02},               "/dev/i2c-7", 0x75, 1, 0,       {"i2c-7:75 w 24 0x0 0x02a1a2"}, {0xA1, 0xA2}},
      {{RD, 15, 2, 0x02},               "/dev/i2c-7", 0x75, 1, 0,       {"i2c-7:75 w 8 0x0 0x02", "i2c-7:75 r 8 0x1 0xa1"},    {0xA1, 0xA2}},
      {{RD, 15, 3, 0x06},               "/dev/i2c-7", 0x75, 1, 0,       {"i2c-7:75 w 8 0x0 0x06", "i2c-7:75 r 16 0x1 0xffff"}, {0xFF, 0xFF}},
      {{WR, 16, 2, 0xF0},               "/dev/i2c-8", 0x26, 1, 0,       {"i2c-8:26 w 16 0x0 0xf0a1"},   {0xA1, 0xA2}},
      {{RD, 16, 3, 0},                  "/dev/i2c-8", 0x26, 1, 0,       {"i2c-8:26 r 16 0x0 0xf021"},   {0xF0, 0x21}},
  };
  // clang-format on
  // On an adapter of either sort. The only SMBus form of a PCA8575's read would drive its pins low.
  for (const lines &with : {lines{"--family=pellin"}, {"--family=pellin", "i2c-smbus-only"}}) {
    on_new_board(with, [&](test_board &board) {
      for (auto [asked, path, addr, addr_len, result, wire, data] : rows) {
        SCOPED_TRACE(testing::PrintToString(wire) + std::to_string(with.size()));
        if (with.size() > 1 && asked.op == RD && asked.dev_type == SSE_DEV_PCA8575) {
          result = -EOPNOTSUPP;
          wire.clear();
          data = asked.data;
        }
        EXPECT_EQ(asked.make_at(path, addr, addr_len), result);
        lines log = board.log();
        std::erase_if(log, [](const std::string &line) { return line.find(" R ") + line.find(" W ") + 2 != 0; });
        EXPECT_EQ(log, wire);
        EXPECT_EQ(asked.data, data);
      }
    });
  }
}

TEST(sse_service, finds_devices_by_identity_unless_told_the_bus_once) {
  // Kind, unit and instance; "" where the board has no such bus.
  // clang-format off
  const std::map<std::array<uint32_t, 3>, std::string> devices{
      {{7,  0, 0}, "i2c-1:52 "},  {{7,  0, 1}, "i2c-17:52 "}, {{7,  1, 0}, "i2c-23:52 "}, {{7,  2, 0}, "i2c-7:52 "},
      {{15, 0, 0}, ""},           {{15, 0, 1}, ""},           {{15, 0, 2}, ""},           {{15, 0, 3}, "i2c-8:75 "},
      {{15, 0, 5}, "i2c-7:75 "},  {{15, 0, 6}, "i2c-20:76 "}, {{15, 0, 7}, ""},           {{15, 0, 8}, "i2c-8:76 "},
      {{15, 0, 9}, ""},           {{16, 0, 0}, ""},           {{16, 0, 1}, "i2c-8:26 "},  {{16, 0, 2}, "i2c-8:27 "},
      {{16, 0, 4}, ""},
  };
  // clang-format on
  on_new_board({"--family=pellin"}, [&](test_board &board) {
    for (uint32_t id = 0; id < 18U * 4 * 11; ++id) {
      const uint32_t dev_type = id / 44, unit = id / 11 % 4, instance = id % 11;
      SCOPED_TRACE(id);
      uint8_t data = 0;
      sse_req_t req{static_cast<uint8_t>(unit), dev_type, static_cast<uint8_t>(instance), 0, 2, &data, 0};
      const auto known = devices.find({dev_type, unit, instance});
      const bool has_bus = known != devices.end() && !known->second.empty();
      const int32_t result = sse_call(WR, &req);
      EXPECT_TRUE(has_bus || result == (known == devices.end() ? -ENODEV : -ENOENT)) << result;
      EXPECT_THAT(board.log(), Each(StartsWith(has_bus ? known->second : "no line")));
    }
    // A route is good for one call, and a bad call takes it, too.
    const int descriptor = dup(0);
    request asked{WR, 15, 1, 0, {0x02}};
    EXPECT_EQ(asked.make_at("/dev/i2c-20", 0x76, 1), 0);
    sse_route("/dev/i2c-20", 0x76, 1);
    EXPECT_EQ(sse_call(0, nullptr), -EINVAL);
    EXPECT_EQ(asked.make(), -ENOENT);
    sse_route("/dev/i2c-20", 0x76, 1);
    EXPECT_EQ(asked.make_at(nullptr, 0), -ENOENT);
    EXPECT_THAT(board.log(), ElementsAre("i2c-20:76 w 8 0x0 0x02"));
    EXPECT_EQ(dup(0), descriptor + 1);  // each bus was opened once
  });
}

TEST(sse_service, refuses_bad_requests_without_touching_a_bus) {
  const std::string too_long(36, '1');
  // clang-format off
  const struct { request asked; const char *path; uint32_t addr; int32_t result; } rows[]{
      {{0,    7, 2, 0},     "/dev/i2c-1",     0x52, -EINVAL}, {{1074, 7, 2, 0},     "/dev/i2c-1", 0x52, -EINVAL},
      {{1077, 7, 2, 0},     "/dev/i2c-1",     0x52, -EINVAL}, {{RD,   7, 0, 0},     "/dev/i2c-1", 0x52, -EINVAL},
      {{RD,   7, 4, 0},     "/dev/i2c-1",     0x52, -EINVAL}, {{RD,   7, 0x103, 0}, "/dev/i2c-1", 0x52, -EINVAL},
      {{WR,   7, 2, 0x100}, "/dev/i2c-1",     0x52, -EINVAL}, {{WR,   7, 2, 0},     "/dev/i2c-1", 0x80, -EINVAL},
      {{WR,   7, 2, 0},     "",               0x52, -EINVAL}, {{WR,   7, 2, 0},     too_long.c_str(), 0x52, -EINVAL},
      {{WR,   7, 2, 0},     "/dev/i2c-2",     0x52, -ENOENT}, {{WR,   7, 2, 0},     "/dev/null",  0x52, -ENOTTY},
  };
  // clang-format on
  on_new_board({}, [&](test_board &board) {
    for (auto [asked, path, addr, result] : rows)
      EXPECT_EQ(asked.make_at(path, addr), result) << path << asked.op << asked.xfer;
    sse_req_t req{0, 7, 0, 0, 2, nullptr, 0};
    EXPECT_EQ(sse_call(WR, &req), -EINVAL);
    EXPECT_EQ(sse_call(WR, nullptr), -EINVAL);
    EXPECT_THAT(board.log(), IsEmpty());
    EXPECT_EQ((request{WR, 7, 2, 0}.make()), 0);  // nothing of the failures is kept
  });
}

TEST(sse_service, asks_a_busy_eeprom_again_for_its_write_cycle) {
  constexpr request again{RD, 7, 1, 0}, expander{WR, 15, 2, 0};
  // `step` is the time between looks at the clock in µs; `asks` is how often the device is asked.
  // clang-format off
  const struct { const char *fault; request asked; int64_t step; int32_t result; size_t asks; } rows[]{
      {"eeprom-busy bus=6 addr=0x52 polls=3",              again,    100,    0,          4},
      {"eeprom-busy bus=6 addr=0x52",                      again,    100,    -ENXIO,     51},  // from 0 to 10 ms
      // Held up for long at each transfer, the device still gets its chances.
      {"eeprom-busy bus=6 addr=0x52 polls=7",              again,    50'000, 0,          8},
      {"eeprom-busy bus=6 addr=0x52 polls=8",              again,    50'000, -ENXIO,     8},
      // Errors, behind the two polls of the write cycle.
      {"i2c-fail bus=6 addr=0x52 nth=2 times=3 errno=121", again,    100,    0,          6},
      {"i2c-fail bus=6 addr=0x52 nth=2 times=3",           again,    100,    -EIO,       3},
      {"i2c-fail bus=6 addr=0x52 nth=2 times=3 errno=110", again,    100,    -ETIMEDOUT, 3},
      {"i2c-fail bus=7 addr=0x75 times=3 errno=6",         expander, 100,    -ENXIO,     1},
      {"i2c-fail bus=7 addr=0x75 times=3 errno=121",       expander, 100,    -EREMOTEIO, 1},
  };
  // clang-format on
  for (const auto &row : rows) {
    SCOPED_TRACE(row.fault);
    on_new_board({"--family=pellin", row.fault}, [&](test_board &board) {
      request asked = row.asked;
      now_us = 5'999'995'000;  // the second turns meanwhile
      step_us = row.step;
      EXPECT_EQ((request{WR, 7, 3, 0}.make_at("/dev/i2c-6", 0x52, 1)), 0);
      (void)board.log();
      const bool is_eeprom = asked.dev_type == SSE_DEV_AT24C512;
      EXPECT_EQ(asked.make_at(is_eeprom ? "/dev/i2c-6" : "/dev/i2c-7", is_eeprom ? 0x52 : 0x75), row.result);
      EXPECT_EQ(board.log().size(), row.asks);
    });
  }
}

}  // namespace
