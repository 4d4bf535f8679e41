// The EEPROM and expander drivers and the whole-image operations, by their exact requests to the I2C service.
#include "platform/libutils/sse.h"
#include "platform/mfgd/uspace/utils/sprom/at24c512.h"
#include "platform/mfgd/uspace/utils/sprom/pca8575.h"
#include "platform/mfgd/uspace/utils/sprom/pca9539.h"
#include "platform/mfgd/uspace/utils/sprom/sprom_api.h"
#include "platform/mfgd/uspace/utils/sprom/sprom_dev.h"
#include "platform/mfgd/uspace/utils/sprom/sprom_pellin.h"
#include "platform/mfgd/uspace/utils/sprom/sprom_tosk.h"
#include "tests/support/run.h"
#include "tests/support/sprom_image.h"

namespace {

using lines = std::vector<std::string>;

// The service: notes each request and answers what is read from `input`, in a failing request as well.
struct service {
  // "w 7:0.1 12 34 56": operation, device kind:unit.instance, command byte (-- for none), data bytes written
  lines log;
  std::string route;  // what the last request was told
  bytes input;
  size_t taken = 0, calls = 0;
  size_t fail_at = SIZE_MAX;  // number of the request that fails, from 0
  int32_t result = 0;         // of the others
};
service sse;

std::string hex(unsigned number) {
  return format(" %02x", number);
}

}  // namespace

void sse_route(const char *path, uint32_t addr, uint32_t) {
  sse.route = std::string(path, strnlen(path, sizeof smb_dev_t::path)) + hex(addr);
}

int32_t sse_call(uint32_t op, sse_req_t *req) {
  const bool read = op == SSE_OP_I2C_READ;
  EXPECT_TRUE(read || op == SSE_OP_I2C_WRITE);
  EXPECT_EQ(req->flags, 0);
  EXPECT_TRUE(req->xfer >= SSE_XFER_BYTE && req->xfer <= SSE_XFER_WORD_DATA);
  EXPECT_TRUE(req->xfer != SSE_XFER_BYTE || req->cmd == 0);
  std::string line = std::string{read ? "r " : "w "} + std::to_string(req->dev_type) + ":" + std::to_string(req->unit) +
                     "." + std::to_string(req->instance) + (req->xfer == SSE_XFER_BYTE ? " --" : hex(req->cmd));
  for (size_t i = 0; i < (req->xfer == SSE_XFER_WORD_DATA ? 2 : 1); ++i) {
    if (read) req->data[i] = sse.taken < sse.input.size() ? sse.input[sse.taken++] : 0xEE;
    if (!read) line += hex(req->data[i]);
  }
  sse.log.push_back(line);
  return sse.calls++ == sse.fail_at ? -6 : sse.result;
}

namespace {

int32_t noted(const char *hook) {
  sse.log.emplace_back(hook);
  return -5;
}

constexpr smb_dev_t dev{"/dev/i2c-1", 0x52, 0x1000, 2, 1, 0};
constexpr smb_acc_t acc{&dev, at24c512_rd, at24c512_wr};
constexpr smb_dev_t gem{"/dev/i2c-7", 0x75, 0, 1, 2, 0};

struct sprom_dev : testing::Test {
  sprom_dev() { begin({}); }
  std::array<uint8_t, 512> cache{};
  static int32_t we() { return noted("we"); }
  static int32_t wd() { return noted("wd"); }
  sprom_t sup{&acc, we, wd, "SUPERVISOR", SPROM_TYPE_SUP, 0, cache.data()};

  static void begin(const bytes &input, size_t fail_at = SIZE_MAX, int32_t result = 0) {
    sse = {.log = {}, .route = "", .input = input, .fail_at = fail_at, .result = result};
  }
};

TEST_F(sprom_dev, addresses_an_eeprom_by_16_bits_and_each_byte_that_it_writes) {
  begin({0xA1, 0xA2}, SIZE_MAX, 7);
  bytes buf(3, 0x55);
  EXPECT_EQ(at24c512_rd(&dev, 0x1FE36, 2, buf.data()), 7);
  EXPECT_EQ(at24c512_rd(&dev, 0x12, 0, nullptr), 7);
  EXPECT_THAT(buf, ElementsAre(0xA1, 0xA2, 0x55));
  EXPECT_EQ(at24c512_wr(&dev, 0x5FFFE, 3, buf.data()), 0);
  EXPECT_EQ(at24c512_wr(&dev, 0, 0, nullptr), 0);
  EXPECT_EQ(diag_sprom_wr(&sup, 0x36, 1, buf.data()), 0);
  EXPECT_THAT(sse.log, ElementsAre("w 7:0.0 fe 36", "r 7:0.0 --", "r 7:0.0 --", "w 7:0.0 00 12", "w 7:0.0 ff fe a1",
                                   "w 7:0.0 ff ff a2", "w 7:0.0 00 00 55", "we", "w 7:0.0 10 36 a1", "wd"));
}

// The unit and instance by which the service knows a device, by its path, and an expander's by its address, too.
// clang-format off
struct identity_t { const char *path, *eeprom; std::map<uint32_t, const char *> pca9539, pca8575; };
const identity_t identities[]{
    {"/dev/i2c-1",  "0.0", {{0x74, "0.4"}, {0x75, "0.5"}, {0x76, "0.6"}}, {{0x26, "0.3"}, {0x27, "0.5"}}},
    {"/dev/i2c-17", "0.1", {{0x74, "0.4"}, {0x75, "0.5"}, {0x76, "0.6"}}, {{0x26, "0.3"}, {0x27, "0.5"}}},
    {"/dev/i2c-23", "1.0", {{0x74, "0.4"}, {0x75, "0.5"}, {0x76, "0.6"}}, {{0x26, "0.3"}, {0x27, "0.5"}}},
    {"/dev/i2c-4",  "2.0", {{0x74, "0.0"}, {0x75, "0.1"}, {0x76, "0.2"}}, {{0x26, "0.0"}, {0x27, "0.5"}}},
    {"/dev/i2c-8",  "2.0", {{0x74, "0.4"}, {0x75, "0.3"}, {0x76, "0.8"}}, {{0x26, "0.1"}, {0x27, "0.2"}}},
    {"/dev/i2c-24", "2.0", {{0x74, "0.4"}, {0x75, "0.7"}, {0x76, "0.9"}}, {{0x26, "0.4"}, {0x27, "0.5"}}},
    {"/dev/i2c-2",  "2.0", {{0x74, "0.4"}, {0x75, "0.5"}, {0x76, "0.6"}}, {{0x26, "0.3"}, {0x27, "0.5"}}},
    {"/dev/i2c-10", "2.0", {{0x74, "0.4"}, {0x75, "0.5"}, {0x76, "0.6"}}, {{0x26, "0.3"}, {0x27, "0.5"}}},
    {"/dev/i2c-40", "2.0", {{0x74, "0.4"}, {0x75, "0.5"}, {0x76, "0.6"}}, {{0x26, "0.3"}, {0x27, "0.5"}}},
    {"",            "2.0", {{0x74, "0.4"}, {0x75, "0.5"}, {0x76, "0.6"}}, {{0x26, "0.3"}, {0x27, "0.5"}}},
    {"/dev/i2c-1/dev/i2c-1/dev/i2c-1/dev/i",  // not terminated
                    "2.0", {{0x74, "0.4"}, {0x75, "0.5"}, {0x76, "0.6"}}, {{0x26, "0.3"}, {0x27, "0.5"}}},
};
// clang-format on

TEST_F(sprom_dev, knows_devices_by_address_and_whole_path) {
  uint16_t pair = 0xBEEF;
  uint8_t buf[2];
  for (const identity_t &of : identities) {
    smb_dev_t any{"", 0, 0, 1, 1, 0};
    std::memcpy(any.path, of.path, std::strlen(of.path));
    const auto check = [&](int32_t result, const std::string &type, const char *id, const std::string &request) {
      SCOPED_TRACE(of.path + hex(any.addr));
      EXPECT_EQ(result, id == nullptr ? -1 : -6);
      EXPECT_EQ(sse.log, id == nullptr ? lines{} : lines{request.substr(0, 2) + type + id + request.substr(1)});
      EXPECT_EQ(sse.route, id == nullptr ? "" : of.path + hex(any.addr));
      begin({}, 0);
    };
    begin({}, 0);
    for (any.addr = 0x50; any.addr < 0x58; ++any.addr)
      check(at24c512_rd(&any, 0x102, 0, nullptr), "7:", of.eeprom, "w 01 02");
    for (const uint32_t addr : {0x25U, 0x26U, 0x27U, 0x28U, 0x73U, 0x74U, 0x75U, 0x76U, 0x77U, 0x174U}) {
      any.addr = addr;
      const auto id_among = [&](const auto &known) { return known.contains(addr) ? known.at(addr) : nullptr; };
      const char *const pca9539 = id_among(of.pca9539), *const pca8575 = id_among(of.pca8575);
      check(pca9539_wr(&any, 2, 0, &pair), "15:", pca9539, "w 02 ef be");
      check(pca9539_write_reg(&any, 3, 0x12345678), "15:", pca9539, "w 03 78 56");
      check(pca9539_reg_rd(&any, 0), "15:", pca9539, "r 00");
      check(pca9539_init(&any, 0, 0, 0), "15:", pca9539, "r 02");
      check(pca9539_rd(&any, 7, 2, buf), "15:", pca9539, "r 07");
      check(pca8575_wr(&any, 9, 0, &pair), "16:", pca8575, "w ef be");
      check(pca8575_rd(&any, 9, 0, buf), "16:", pca8575, "r 00");
    }
  }
}

TEST_F(sprom_dev, stores_a_register_pair_whatever_the_result) {
  const smb_dev_t ports{"/dev/i2c-8", 0x26, 0, 1, 2, 0};
  uint16_t pairs[2]{};
  begin({0x16, 0x17, 0xAB, 0xCD, 0xFF, 0x01}, SIZE_MAX, -6);
  EXPECT_EQ(pca9539_rd(&gem, 6, 99, &pairs[0]), -6);
  EXPECT_EQ(pca8575_rd(&ports, 5, 1, &pairs[1]), -6);
  EXPECT_THAT(pairs, ElementsAre(0x1716, 0xCDAB));
  sse.result = 0;
  EXPECT_EQ(pca9539_reg_rd(&gem, 5), 0xFF);
  EXPECT_EQ(sse.log.back(), "r 15:0.5 05");
}

TEST_F(sprom_dev, sets_up_pins_level_before_direction) {
  const bytes before{0x0F, 0xF0, 0xFF, 0xFF, 0x00, 0xFF};
  const lines all{"r 15:0.5 02",       "w 15:0.5 02 0a f1", "r 15:0.5 06",
                  "w 15:0.5 06 fb fe", "r 15:0.5 04",       "w 15:0.5 04 01 fe"};
  for (size_t fail_at = 0; fail_at <= all.size(); ++fail_at) {
    begin(before, fail_at, 4);
    EXPECT_EQ(pca9539_init(&gem, 0x0105, 0xFF5A, 0x0001), fail_at < all.size() ? -6 : 0);
    EXPECT_EQ(sse.log, lines(all.begin(), all.begin() + static_cast<ptrdiff_t>(std::min(fail_at + 1, all.size()))));
  }
  // Pins that are not in the mask stay as they are.
  begin(before);
  EXPECT_EQ(pca9539_init(&gem, 0, 0xFFFF, 0xFFFF), 0);
  EXPECT_THAT(sse.log, ElementsAre("r 15:0.5 02", "w 15:0.5 02 0f f0", "r 15:0.5 06", "w 15:0.5 06 ff ff",
                                   "r 15:0.5 04", "w 15:0.5 04 00 ff"));
}

TEST_F(sprom_dev, serves_the_cache_until_the_image_is_written) {
  const bytes device = device_image(SPROM_TYPE_SUP);
  bytes buf(334);
  for (const bool with_cache : {true, false}) {
    if (!with_cache) sup.buf = nullptr;
    bytes twice = device;
    twice.insert(twice.end(), device.begin(), device.end());
    begin(twice, SIZE_MAX, 1);
    for (size_t reads = 1; reads <= 2; ++reads) {
      std::fill(buf.begin(), buf.end(), 0);
      EXPECT_EQ(sprom_read(&sup, buf.data()), 0);
      EXPECT_EQ(buf, host_image(SPROM_TYPE_SUP));
      EXPECT_EQ(sup.valid, with_cache ? 1U : 0U);
      EXPECT_EQ(sse.calls, with_cache ? 335U : 335U * reads);
    }
    // A write that fails keeps the cache, one that succeeds drops it. The image stays in device order.
    for (const size_t fail_at : {size_t{333}, SIZE_MAX}) {
      begin({}, fail_at, 1);
      buf = host_image(SPROM_TYPE_SUP);
      EXPECT_EQ(sprom_write(&sup, buf.data()), fail_at == 333 ? -6 : 0);
      EXPECT_EQ(sup.valid, with_cache && fail_at == 333 ? 1U : 0U);
      EXPECT_EQ(buf, device);
      ASSERT_EQ(sse.log.size(), 336U);
      EXPECT_EQ(sse.log[1], "w 7:0.0 10 00 ab");
      EXPECT_EQ(sse.log[334], "w 7:0.0 11 4d" + hex(device[333]));
    }
  }
}

TEST_F(sprom_dev, keeps_the_callers_image_when_a_cached_read_fails) {
  for (size_t n = 0; n <= 334; ++n) {
    begin(device_image(SPROM_TYPE_SUP), n);
    bytes buf(334, 0x55);
    ASSERT_EQ(sprom_read(&sup, buf.data()), -6);
    ASSERT_EQ(buf, bytes(334, 0x55));
    ASSERT_EQ(sup.valid, 0U);
    ASSERT_EQ(sse.calls, n + 1);
  }
  begin({}, 334);
  sup.buf = nullptr;
  bytes buf(334, 0x55);
  EXPECT_EQ(sprom_read(&sup, buf.data()), -6);
  EXPECT_EQ(buf.back(), 0x55);
}

// Those with a size are written and read on the board by test_sprom_on_board.
TEST_F(sprom_dev, moves_no_kind_without_a_size) {
  const std::pair<uint32_t, int32_t> cases[]{{0, -22}, {1, 334}, {2, 471}, {3, 263},         {4, 196},
                                             {5, -22}, {6, -22}, {7, -22}, {UINT32_MAX, -22}};
  for (const auto &[type, size] : cases) {
    SCOPED_TRACE(type);
    sup.type = type;
    EXPECT_EQ(sprom_get_size(&sup), size);
    EXPECT_STREQ(sprom_get_name(&sup), "SUPERVISOR");
    if (size > 0) continue;
    bytes image = device_image(SPROM_TYPE_SUP);
    EXPECT_EQ(sprom_write(&sup, image.data()), size);
    EXPECT_EQ(sprom_read(&sup, image.data()), size);
    EXPECT_EQ(image, device_image(SPROM_TYPE_SUP));
    EXPECT_THAT(sse.log, IsEmpty());
  }
}

TEST_F(sprom_dev, probes_no_board_without_a_supervisors_descriptor) {
  pellin_sprom_sup.type = tosk_sprom_sup.type = SPROM_TYPE_LC;
  EXPECT_EQ(sprom_platform_probe_pellin(), -22);
  EXPECT_EQ(sprom_platform_probe_tosk(), -22);
  EXPECT_EQ(sse.calls, 0U);
  pellin_sprom_sup.type = tosk_sprom_sup.type = SPROM_TYPE_SUP;
}

TEST_F(sprom_dev, takes_positive_results_of_the_service_for_success) {
  begin({0x3F, 0xFF}, SIZE_MAX, 5);
  EXPECT_EQ(sprom_platform_probe_pellin(), 0);
  begin({0x3F, 0xFF, 0xFF, 0xBF}, 0, 5);  // the failed read's data do not count
  EXPECT_EQ(sprom_platform_probe_tosk(), 2);
  EXPECT_THAT(sse.log, ElementsAre("r 15:0.8 00", "r 16:0.1 00"));
  begin({0x1F, 0xA5, 0x5A, 0xC3, 0x52, 0xC3}, SIZE_MAX, 5);
  EXPECT_EQ(velto_quellrim_gem_sprom_we(), 5);
  EXPECT_EQ(velto_quellrim_gem_sprom_wd(), 5);
  EXPECT_THAT(sse.log, ElementsAre("r 15:0.5 06", "w 15:0.5 06 17 a5", "r 15:0.5 02", "w 15:0.5 02 52 c3",
                                   "r 15:0.5 02", "w 15:0.5 02 5a c3"));
  begin({1, 2, 3, 4, 5, 6, 7, 8, 0x2A, 0xFB}, SIZE_MAX, 5);
  uint64_t hw_change = 0;
  uint16_t card_index = 0;
  EXPECT_EQ(sprom_get_hw_change(&sup, &hw_change), 5);
  EXPECT_EQ(hw_change, 0x0102030405060708U);
  EXPECT_EQ(sprom_get_card_index(&sup, &card_index), 5);
  EXPECT_EQ(card_index, 0x2AFB);
}

}  // namespace
