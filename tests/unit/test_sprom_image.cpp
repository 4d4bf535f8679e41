#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <numeric>

#include "platform/mfgd/uspace/utils/sprom/sprom_conv.h"
#include "platform/mfgd/uspace/utils/sprom/sprom_verify.h"
#include "tests/unit/sprom_image.h"

namespace {

constexpr uint32_t image_kinds[]{SPROM_TYPE_SUP, SPROM_TYPE_BP, SPROM_TYPE_LC, SPROM_TYPE_PS, SPROM_TYPE_FAN};
constexpr uint32_t no_kinds[]{0, SPROM_TYPE_DIMM, 7, 0x80000001, 0xFFFFFFFF};
constexpr decltype(&sprom_ntoh) conversions[]{sprom_ntoh, sprom_hton};

sprom_t descriptor(uint32_t type) {
  return {nullptr, nullptr, nullptr, "", type, 0, nullptr};
}

template <typename F>
std::string output_of(F f) {
  testing::internal::CaptureStdout();
  f();
  return testing::internal::GetCapturedStdout();
}

std::string line(const char *label, const char *what, unsigned found, unsigned expected) {
  char text[160];
  std::snprintf(text, sizeof text, "%s block %s Found 0x%04x, expected 0x%04x.\n", label, what, found, expected);
  return text;
}
// The blanks put Found in the same column in all three lines.
std::string signature_line(const char *label, unsigned found, unsigned expected) {
  return line(label, "signature mismatch.", found, expected);
}
std::string length_line(const char *label, unsigned found, unsigned expected) {
  return line(label, "length mismatch.   ", found, expected);
}
std::string checksum_line(const char *label, unsigned found, unsigned expected) {
  return line(label, "checksum mismatch. ", found, expected);
}

struct verdict {
  int32_t result = 1;
  std::string output;
};
verdict verify(const std::vector<uint8_t> &image, uint32_t type) {
  verdict v;
  const sprom_t sprom = descriptor(type);
  v.output = output_of([&] { v.result = sprom_verify(&sprom, image.data()); });
  return v;
}

unsigned half(const std::vector<uint8_t> &image, size_t at) {
  return image[at] + 256U * image[at + 1];
}

TEST(sprom_conv, exchanges_the_bytes_of_every_number_and_no_others) {
  for (const auto convert : conversions) {
    for (const uint32_t type : image_kinds) {
      SCOPED_TRACE(type);
      const sprom_t sprom = descriptor(type);
      std::vector<uint8_t> device = device_image(type);
      device.resize(600, 0xEE);
      std::iota(device.begin(), device.begin() + 160, uint8_t{1});
      std::vector<uint8_t> image = device;
      EXPECT_EQ(convert(&sprom, image.data()), 0);
      EXPECT_EQ(image, host_image(device, type));
      EXPECT_EQ(convert(&sprom, image.data()), 0);
      EXPECT_EQ(image, device);
    }
  }
}

TEST(sprom_conv, refuses_kinds_without_layout_before_it_looks_at_the_image) {
  for (const auto convert : conversions) {
    for (const uint32_t type : no_kinds) {
      const sprom_t sprom = descriptor(type);
      std::vector<uint8_t> image(600, 0x5A);
      image[0] = 1;
      const auto before = image;
      EXPECT_EQ(convert(&sprom, image.data()), -22);
      EXPECT_EQ(image, before);
      EXPECT_EQ(convert(&sprom, nullptr), -22);
    }
    for (const uint32_t type : image_kinds) {
      const sprom_t sprom = descriptor(type);
      EXPECT_EQ(convert(&sprom, nullptr), 0);
    }
  }
}

TEST(sprom_verify, takes_clean_images_in_silence) {
  for (const uint32_t type : image_kinds) {
    const verdict v = verify(host_image(type), type);
    EXPECT_EQ(v.result, 0);
    EXPECT_EQ(v.output, "");
  }
}

// What a changed byte of a block must be reported as.
std::string expected_lines(const std::vector<uint8_t> &good, const std::vector<uint8_t> &bad, const test_block &block,
                           size_t changed) {
  std::string lines;
  if (changed < 2) lines += signature_line(block.label, half(bad, block.offset), block.signature);
  const unsigned length = bad[block.offset + 3] == 0 ? 256 : bad[block.offset + 3];
  if (changed == 3) lines += length_line(block.label, length, block.length);
  unsigned sum = half(good, block.offset + 4);
  if (changed != 4 && changed != 5) sum += bad[block.offset + changed] - unsigned{good[block.offset + changed]};
  return lines + checksum_line(block.label, half(bad, block.offset + 4), sum & 0xFFFF);
}

TEST(sprom_verify, reports_every_changed_byte_of_every_block) {
  for (const uint32_t type : image_kinds) {
    const auto good = host_image(type);
    for (const test_block &block : test_blocks.at(type)) {
      for (size_t changed = 0; changed < block.length; ++changed) {
        SCOPED_TRACE(std::string{block.label} + " byte " + std::to_string(changed));
        auto bad = good;
        bad[block.offset + changed] ^= 0x81;
        const verdict v = verify(bad, type);
        EXPECT_EQ(v.result, -22);
        EXPECT_EQ(v.output, expected_lines(good, bad, block, changed));
      }
    }
  }
}

TEST(sprom_verify, counts_each_mismatch_by_itself) {
  auto device = device_image(SPROM_TYPE_SUP);
  device[160] = 0x12;
  device[161] = 0x34;
  device[163] = 0;
  seal_image(&device, SPROM_TYPE_SUP);
  verdict v = verify(host_image(device, SPROM_TYPE_SUP), SPROM_TYPE_SUP);
  EXPECT_EQ(v.result, -22);
  EXPECT_EQ(v.output, signature_line("Supervisor Main", 0x1234, 0x6002) + length_line("Supervisor Main", 256, 103));

  // A length alone is bad as well, and the first block's defect hides none of the last.
  device = device_image(SPROM_TYPE_BP);
  device[3] = 161;
  device[458] = 17;
  seal_image(&device, SPROM_TYPE_BP);
  v = verify(host_image(device, SPROM_TYPE_BP), SPROM_TYPE_BP);
  EXPECT_EQ(v.result, -22);
  EXPECT_EQ(v.output, length_line("Backplane Common Header", 161, 160) + length_line("Backplane License", 17, 16));
}

TEST(sprom_verify, has_no_verdict_on_kinds_without_layout) {
  for (const uint32_t type : no_kinds) {
    const sprom_t sprom = descriptor(type);
    EXPECT_EQ(output_of([&] { EXPECT_EQ(sprom_verify(&sprom, nullptr), -19); }), "");
  }
}

TEST(sprom_verify_DeathTest, asserts_an_image) {
  constexpr const char *texts[]{
      "sprom_verify_sup: Assertion `sup_sprom' failed", "sprom_verify_bp: Assertion `bp_sprom' failed",
      "sprom_verify_lc: Assertion `lc_sprom' failed", "sprom_verify_ps: Assertion `ps_sprom' failed",
      "sprom_verify_fan: Assertion `fan_sprom' failed"};
  for (size_t i = 0; i < std::size(image_kinds); ++i) {
    const sprom_t sprom = descriptor(image_kinds[i]);
    EXPECT_DEATH((void)sprom_verify(&sprom, nullptr), testing::HasSubstr(texts[i]));
  }
}

TEST(sprom_xsum, sums_all_bytes_but_its_own_modulo_65536) {
  std::vector<uint8_t> block(600, 0xFF);
  EXPECT_EQ(diag_sprom_compute_xsum(block.data(), 16) & 0xFFFF, 14U * 0xFF);
  EXPECT_EQ(diag_sprom_compute_xsum(block.data(), 600) & 0xFFFF, 598U * 0xFF % 0x10000);
  // The sum of exactly 65536 is 0 before its own bytes are taken off.
  block.assign(257, 0xFF);
  block.push_back(1);
  EXPECT_EQ(diag_sprom_compute_xsum(block.data(), 258), 0x10000U - 2 * 0xFF);
  block[4] = 0;
  block[5] = 1;
  EXPECT_EQ(diag_sprom_compute_xsum(block.data(), 6) & 0xFFFF, 4U * 0xFF);
}

}  // namespace
