#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <numeric>

#include "platform/mfgd/uspace/utils/sprom/at24c512.h"
#include "platform/mfgd/uspace/utils/sprom/pca8575.h"
#include "platform/mfgd/uspace/utils/sprom/pca9539.h"
#include "platform/mfgd/uspace/utils/sprom/sprom_dev.h"
#include "platform/mfgd/uspace/utils/sprom/sse.h"
#include "tests/unit/sprom_image.h"
#include "tests/unit/sse_double.h"

namespace {
std::vector<std::string> routes;
}

void sse_route(const char *path, uint32_t addr) {
  routes.push_back(std::string(path, strnlen(path, sizeof smb_dev_t::path)) + " " + std::to_string(addr));
}

namespace {

using testing::ElementsAre;
using bytes = std::vector<uint8_t>;

int32_t we_hook() {
  sse.log.emplace_back("we");
  return -5;
}
int32_t wd_hook() {
  sse.log.emplace_back("wd");
  return -5;
}

constexpr smb_dev_t dev{"/dev/i2c-1", 0x52, 0, 2, 1, 0};
constexpr smb_dev_t bp_dev{"/dev/i2c-1", 0x52, 0x1000, 2, 1, 0};
constexpr smb_acc_t acc{&dev, at24c512_rd, at24c512_wr};
constexpr smb_acc_t bp_acc{&bp_dev, at24c512_rd, at24c512_wr};

struct sprom_dev : testing::Test {
  sprom_dev() : eeprom{(sse = {}).eeproms[{7, 0, 0}]} { routes.clear(); }
  sse_double::eeprom &eeprom;
  std::array<uint8_t, 512> cache{};
  sprom_t sup{&acc, we_hook, wd_hook, "SUPERVISOR", SPROM_TYPE_SUP, 0, cache.data()};

  // A device with a supervisor image from offset 0.
  bytes put_image() {
    const bytes image = device_image(SPROM_TYPE_SUP);
    std::copy(image.begin(), image.end(), eeprom.bytes.begin());
    return image;
  }
  void fail_at(size_t n) {
    sse.calls = 0;
    sse.fail_at = n;
    sse.log.clear();
  }
};

TEST_F(sprom_dev, reads_by_one_address_and_single_bytes) {
  eeprom.bytes[0x1036] = 0xA1;
  eeprom.bytes[0x1037] = 0xA2;
  bytes buf(3, 0x55);
  sse.ok_result = 7;
  EXPECT_EQ(at24c512_rd(&dev, 0x1036, 2, buf.data()), 7);
  EXPECT_EQ(buf, (bytes{0xA1, 0xA2, 0x55}));
  EXPECT_THAT(sse.log, ElementsAre("w 7:0.0 10 36", "r 7:0.0 -- a1", "r 7:0.0 -- a2"));
  EXPECT_THAT(routes, ElementsAre("/dev/i2c-1 82", "/dev/i2c-1 82", "/dev/i2c-1 82"));

  sse.log.clear();
  EXPECT_EQ(at24c512_rd(&dev, 0x5FFFE, 0, nullptr), 7);
  EXPECT_THAT(sse.log, ElementsAre("w 7:0.0 ff fe"));
}

TEST_F(sprom_dev, writes_each_byte_at_its_own_address) {
  const bytes buf{0xB1, 0xB2, 0xB3};
  sse.ok_result = 7;
  EXPECT_EQ(at24c512_wr(&dev, 0x12FE, 3, buf.data()), 0);
  EXPECT_EQ(at24c512_wr(&dev, 0x1FFFF, 2, buf.data()), 0);
  EXPECT_EQ(at24c512_wr(&dev, 0, 0, nullptr), 0);
  EXPECT_THAT(sse.log, ElementsAre("w 7:0.0 12 fe b1", "w 7:0.0 12 ff b2", "w 7:0.0 13 00 b3",  //
                                   "w 7:0.0 ff ff b1", "w 7:0.0 00 00 b2"));
}

TEST_F(sprom_dev, ends_at_the_first_failing_transaction) {
  for (size_t n = 0; n <= 4; ++n) {
    fail_at(n);
    bytes buf(4, 0x55);
    EXPECT_EQ(at24c512_rd(&dev, 0x20, 4, buf.data()), -6);
    EXPECT_EQ(sse.log.size(), n + 1);
    bytes expected(4, 0x55);
    std::fill_n(expected.begin(), n > 0 ? n - 1 : 0, 0xFF);
    EXPECT_EQ(buf, expected);
  }
  const bytes data{1, 2, 3, 4};
  for (size_t n = 0; n < 4; ++n) {
    std::fill_n(eeprom.bytes.begin(), 6, 0xFF);
    fail_at(n);
    EXPECT_EQ(at24c512_wr(&dev, 1, 4, data.data()), -6);
    EXPECT_EQ(sse.log.size(), n + 1);
    bytes expected(6, 0xFF);
    std::copy_n(data.begin(), n, &expected[1]);
    EXPECT_EQ(bytes(eeprom.bytes.begin(), eeprom.bytes.begin() + 6), expected);
  }
}

TEST_F(sprom_dev, knows_eeproms_by_their_whole_path) {
  smb_dev_t unterminated{"", 0x52, 0, 2, 1, 0};
  std::memset(unterminated.path, '1', sizeof unterminated.path);
  const std::pair<smb_dev_t, const char *> cases[]{
      {{"/dev/i2c-1", 0x10, 0, 2, 1, 0}, "w 7:0.0 00 00 !"},
      {{"/dev/i2c-17", 0, 0, 2, 1, 0}, "w 7:0.1 00 00 !"},
      {{"/dev/i2c-23", 0, 9, 2, 1, 0}, "w 7:1.0 00 00 !"},
      {{"/dev/i2c-7", 0, 0, 2, 1, 0}, "w 7:2.0 00 00 !"},
      {{"/dev/i2c-10", 0, 0, 2, 1, 0}, "w 7:2.0 00 00 !"},
      {{"/dev/i2c-2", 0, 0, 2, 1, 0}, "w 7:2.0 00 00 !"},
      {{"", 0, 0, 2, 1, 0}, "w 7:2.0 00 00 !"},
      {unterminated, "w 7:2.0 00 00 !"},
  };
  sse.eeproms.clear();
  for (const auto &[device, expected] : cases) {
    sse.log.clear();
    EXPECT_EQ(at24c512_rd(&device, 0, 0, nullptr), -6);
    EXPECT_THAT(sse.log, ElementsAre(expected));
  }
}

TEST_F(sprom_dev, adds_the_base_and_restores_write_protection_whatever_the_write_did) {
  sprom_t bp{&bp_acc, we_hook, wd_hook, "BACKPLANE", SPROM_TYPE_BP, 0, nullptr};
  bytes buf{0x11, 0x22};
  sse.ok_result = 3;
  EXPECT_EQ(diag_sprom_wr(&bp, 0x36, 2, buf.data()), 0);
  EXPECT_EQ(diag_sprom_rd(&bp, 0x37, 1, buf.data()), 3);
  EXPECT_THAT(sse.log,
              ElementsAre("we", "w 7:0.0 10 36 11", "w 7:0.0 10 37 22", "wd", "w 7:0.0 10 37", "r 7:0.0 -- 22"));
  EXPECT_EQ(buf[0], 0x22);

  fail_at(1);
  EXPECT_EQ(diag_sprom_wr(&bp, 0, 2, buf.data()), -6);
  EXPECT_THAT(sse.log, ElementsAre("we", "w 7:0.0 10 00 22", "w 7:0.0 10 01 22 !", "wd"));

  bp.we = bp.wd = nullptr;
  fail_at(SIZE_MAX);
  EXPECT_EQ(diag_sprom_wr(&bp, 0, 1, buf.data()), 0);
  EXPECT_THAT(sse.log, ElementsAre("w 7:0.0 10 00 22"));
}

TEST_F(sprom_dev, serves_the_cache_until_the_image_is_written) {
  put_image();
  sse.ok_result = 1;
  const bytes host = host_image(SPROM_TYPE_SUP);
  bytes buf(334);
  EXPECT_EQ(sprom_read(&sup, buf.data()), 0);
  EXPECT_EQ(buf, host);
  EXPECT_EQ(sup.valid, 1U);
  EXPECT_EQ(sse.calls, 335U);
  std::fill(buf.begin(), buf.end(), 0);
  EXPECT_EQ(sprom_read(&sup, buf.data()), 0);
  EXPECT_EQ(buf, host);
  EXPECT_EQ(sse.calls, 335U);

  buf[60] = 'Q';
  EXPECT_EQ(sprom_write(&sup, buf.data()), 0);
  EXPECT_EQ(sup.valid, 0U);
  EXPECT_EQ(sse.calls, 335U + 334U);
  bytes device = device_image(SPROM_TYPE_SUP);
  device[60] = 'Q';
  EXPECT_EQ(buf, device);  // left in device order
  EXPECT_EQ(bytes(eeprom.bytes.begin(), eeprom.bytes.begin() + 334), device);
  EXPECT_EQ(eeprom.bytes[334], 0xFF);
  EXPECT_EQ(sprom_read(&sup, buf.data()), 0);
  EXPECT_EQ(buf[60], 'Q');
  EXPECT_EQ(sse.calls, 335U + 334U + 335U);
}

TEST_F(sprom_dev, reads_the_device_every_time_without_a_cache) {
  put_image();
  sup.buf = nullptr;
  sse.ok_result = 1;
  for (const size_t calls : {335U, 670U}) {
    bytes buf(335, 0x55);
    EXPECT_EQ(sprom_read(&sup, buf.data()), 0);
    buf.pop_back();
    EXPECT_EQ(buf, host_image(SPROM_TYPE_SUP));
    EXPECT_EQ(sse.calls, calls);
    EXPECT_EQ(sup.valid, 0U);
  }
  fail_at(300);
  bytes buf(334);
  EXPECT_EQ(sprom_read(&sup, buf.data()), -6);
}

TEST_F(sprom_dev, keeps_the_callers_image_when_a_cached_read_fails_at_any_transaction) {
  put_image();
  for (size_t n = 0; n <= 334; ++n) {
    fail_at(n);
    bytes buf(334, 0x55);
    ASSERT_EQ(sprom_read(&sup, buf.data()), -6);
    ASSERT_EQ(buf, bytes(334, 0x55));
    ASSERT_EQ(sup.valid, 0U);
    ASSERT_EQ(sse.calls, n + 1);
  }
  fail_at(SIZE_MAX);
  bytes buf(334);
  EXPECT_EQ(sprom_read(&sup, buf.data()), 0);
  EXPECT_EQ(buf, host_image(SPROM_TYPE_SUP));
}

TEST_F(sprom_dev, stops_a_write_at_any_transaction_with_protection_back_on) {
  const bytes device = device_image(SPROM_TYPE_SUP);
  for (size_t n = 0; n < 334; ++n) {
    std::fill_n(eeprom.bytes.begin(), 334, 0xFF);
    sup.valid = n % 2;
    fail_at(n);
    bytes buf = host_image(SPROM_TYPE_SUP);
    ASSERT_EQ(sprom_write(&sup, buf.data()), -6);
    ASSERT_EQ(sup.valid, n % 2);
    ASSERT_EQ(sse.log.size(), n + 3);
    ASSERT_EQ(sse.log.front(), "we");
    ASSERT_EQ(sse.log.back(), "wd");
    bytes expected(334, 0xFF);
    std::copy_n(device.begin(), n, expected.begin());
    ASSERT_EQ(bytes(eeprom.bytes.begin(), eeprom.bytes.begin() + 334), expected);
  }
}

TEST_F(sprom_dev, moves_each_kind_in_its_size_and_none_without_one) {
  const std::pair<uint32_t, int32_t> cases[]{{0, -22},
                                             {SPROM_TYPE_SUP, 334},
                                             {SPROM_TYPE_BP, 471},
                                             {SPROM_TYPE_LC, 263},
                                             {SPROM_TYPE_PS, 196},
                                             {SPROM_TYPE_DIMM, -22},
                                             {SPROM_TYPE_FAN, -22},
                                             {7, -22},
                                             {0xFFFFFFFF, -22}};
  for (const auto &[type, size] : cases) {
    SCOPED_TRACE(type);
    sprom_t sprom{&bp_acc, we_hook, wd_hook, "LC 2", type, 0, cache.data()};
    EXPECT_EQ(sprom_get_size(&sprom), size);
    EXPECT_STREQ(sprom_get_name(&sprom), "LC 2");
    bytes image(512);
    std::iota(image.begin(), image.end(), uint8_t{0});
    const bytes before = image;
    fail_at(SIZE_MAX);
    const int32_t result = size < 0 ? -22 : 0;
    const size_t transfers = size < 0 ? 0 : static_cast<size_t>(size);
    EXPECT_EQ(sprom_write(&sprom, image.data()), result);
    EXPECT_EQ(sse.calls, transfers);
    EXPECT_EQ(image == before, size < 0);
    EXPECT_EQ(sprom_read(&sprom, image.data()), result);
    EXPECT_EQ(sse.calls, size < 0 ? 0 : 2 * transfers + 1);
    EXPECT_EQ(image, before);
  }
}

TEST_F(sprom_dev, names_the_records_own_bus_before_each_transaction) {
  sse.pca9539s[{15, 0, 5}] = {};
  sse.pca8575s[{16, 0, 5}] = {};
  const smb_dev_t gem{"/dev/i2c-23", 0x75, 0, 1, 2, 0};
  const smb_dev_t port{"/dev/i2c-9", 0x27, 0, 1, 2, 0};
  uint16_t pair = 0;
  EXPECT_EQ(pca9539_init(&gem, 0, 0, 0), 0);
  EXPECT_EQ(pca8575_rd(&port, 0, 0, &pair), 0);
  EXPECT_EQ(pca8575_wr(&port, 0, 0, &pair), 0);
  EXPECT_EQ(sse.log.size(), 8U);
  std::vector<std::string> expected(6, "/dev/i2c-23 117");
  expected.insert(expected.end(), 2, "/dev/i2c-9 39");
  EXPECT_EQ(routes, expected);
}

}  // namespace
